#include "SyscallSpy.h"

#include <atomic>
#include <cerrno>
#include <stdexcept>

#include <cstdarg>

#include <dlfcn.h>
#include <fcntl.h>
#include <pthread.h>
#include <time.h>
#include <unistd.h>

namespace thriftusb {
namespace test {

namespace {

std::atomic<SyscallSpy*> activeSpy{nullptr};

// How far virtual time has moved the monotonic clock; only ever grows.
std::atomic<long long> clockOffsetNanos{0};

template <typename Fn>
Fn next(const char* name) {
  return reinterpret_cast<Fn>(::dlsym(RTLD_NEXT, name));
}

using ReadFn = ssize_t (*)(int, void*, size_t);
using WriteFn = ssize_t (*)(int, const void*, size_t);
using FsyncFn = int (*)(int); // also close's signature
using UsleepFn = int (*)(useconds_t);
using ClockFn = int (*)(clockid_t, struct timespec*);
using OpenFn = int (*)(const char*, int, ...);

// Runs one interposed call: a scripted outcome replaces it, otherwise the real
// function runs; either way a watched call is recorded.
template <typename Real>
long steer(Sys kind, int fd, size_t length, Real real) {
  SyscallSpy* spy = activeSpy.load();
  if (spy == nullptr || !spy->watches(fd)) {
    return real();
  }
  SyscallSpy::Outcome outcome{};
  const bool scripted = spy->takeOutcome(kind, outcome);
  const long result = scripted ? (outcome.error != 0 ? -1 : outcome.value) : real();
  const int error = scripted ? outcome.error : (result < 0 ? errno : 0);
  spy->record({kind, fd, length, result, error});
  errno = error;
  return result;
}

} // namespace

SyscallSpy::SyscallSpy() {
  SyscallSpy* expected = nullptr;
  if (!activeSpy.compare_exchange_strong(expected, this)) {
    throw std::logic_error("only one SyscallSpy may be active at a time");
  }
}

SyscallSpy::~SyscallSpy() {
  activeSpy.store(nullptr);
}

void SyscallSpy::watch(int fd) {
  std::lock_guard<std::mutex> lock(mutex_);
  fds_.insert(fd);
}

void SyscallSpy::watch(const std::set<int>& fds) {
  for (int fd : fds) {
    watch(fd);
  }
}

void SyscallSpy::failNext(Sys call, int error, int times) {
  std::lock_guard<std::mutex> lock(mutex_);
  script_[call].insert(script_[call].end(), static_cast<size_t>(times), Outcome{-1, error});
}

void SyscallSpy::returnNext(Sys call, long value, int times) {
  std::lock_guard<std::mutex> lock(mutex_);
  script_[call].insert(script_[call].end(), static_cast<size_t>(times), Outcome{value, 0});
}

std::vector<SysCall> SyscallSpy::calls() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return calls_;
}

std::vector<size_t> SyscallSpy::lengths(Sys call) const {
  std::vector<size_t> out;
  for (const auto& c : calls()) {
    if (c.call == call) {
      out.push_back(c.length);
    }
  }
  return out;
}

size_t SyscallSpy::count(Sys call) const {
  return lengths(call).size();
}

void SyscallSpy::clearCalls() {
  std::lock_guard<std::mutex> lock(mutex_);
  calls_.clear();
}

std::vector<int> SyscallSpy::openFlags(const std::string& path) const {
  std::lock_guard<std::mutex> lock(mutex_);
  std::vector<int> flags;
  for (const auto& [opened, with] : opens_) {
    if (opened == path) {
      flags.push_back(with);
    }
  }
  return flags;
}

void SyscallSpy::recordOpen(const char* path, int flags) {
  std::lock_guard<std::mutex> lock(mutex_);
  opens_.emplace_back(path, flags);
}

bool SyscallSpy::watches(int fd) const {
  std::lock_guard<std::mutex> lock(mutex_);
  return fds_.count(fd) != 0;
}

bool SyscallSpy::takeOutcome(Sys call, Outcome& outcome) {
  std::lock_guard<std::mutex> lock(mutex_);
  auto& queue = script_[call];
  if (queue.empty()) {
    return false;
  }
  outcome = queue.front();
  queue.pop_front();
  return true;
}

void SyscallSpy::record(const SysCall& call) {
  std::lock_guard<std::mutex> lock(mutex_);
  calls_.push_back(call);
}

void SyscallSpy::setVirtualTime(bool on) {
  std::lock_guard<std::mutex> lock(mutex_);
  virtualTime_ = on;
}

bool SyscallSpy::virtualTime() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return virtualTime_;
}

} // namespace test
} // namespace thriftusb

using thriftusb::test::Sys;

// The interposers: the test program's definitions come before the C library's in
// symbol lookup, so the library under test calls these.
extern "C" ssize_t read(int fd, void* buf, size_t n) {
  static const auto real = thriftusb::test::next<thriftusb::test::ReadFn>("read");
  return thriftusb::test::steer(Sys::Read, fd, n, [&] { return real(fd, buf, n); });
}

extern "C" ssize_t write(int fd, const void* buf, size_t n) {
  static const auto real = thriftusb::test::next<thriftusb::test::WriteFn>("write");
  return thriftusb::test::steer(Sys::Write, fd, n, [&] { return real(fd, buf, n); });
}

extern "C" int fsync(int fd) {
  static const auto real = thriftusb::test::next<thriftusb::test::FsyncFn>("fsync");
  return static_cast<int>(
      thriftusb::test::steer(Sys::Fsync, fd, 0, [&] { return static_cast<long>(real(fd)); }));
}

extern "C" int close(int fd) {
  static const auto real = thriftusb::test::next<thriftusb::test::FsyncFn>("close");
  return static_cast<int>(
      thriftusb::test::steer(Sys::Close, fd, 0, [&] { return static_cast<long>(real(fd)); }));
}

// open and open64 are one function on 64-bit Linux, under either name.
static int spiedOpen(const char* name, const char* path, int flags, va_list args) {
  const mode_t mode = (flags & (O_CREAT | O_TMPFILE)) != 0 ? va_arg(args, mode_t) : 0;
  thriftusb::test::SyscallSpy* spy = thriftusb::test::activeSpy.load();
  if (spy != nullptr) {
    spy->recordOpen(path, flags);
  }
  return thriftusb::test::next<thriftusb::test::OpenFn>(name)(path, flags, mode);
}

extern "C" int open(const char* path, int flags, ...) {
  va_list args;
  va_start(args, flags);
  const int fd = spiedOpen("open", path, flags, args);
  va_end(args);
  return fd;
}

extern "C" int open64(const char* path, int flags, ...) {
  va_list args;
  va_start(args, flags);
  const int fd = spiedOpen("open64", path, flags, args);
  va_end(args);
  return fd;
}

extern "C" int usleep(useconds_t micros) {
  static const auto real = thriftusb::test::next<thriftusb::test::UsleepFn>("usleep");
  thriftusb::test::SyscallSpy* spy = thriftusb::test::activeSpy.load();
  if (spy == nullptr) {
    return real(micros);
  }
  spy->record({Sys::Usleep, -1, static_cast<size_t>(micros), 0, 0});
  if (!spy->virtualTime()) {
    return real(micros);
  }
  thriftusb::test::clockOffsetNanos.fetch_add(1000LL * micros);
  return 0;
}

// Waits until a point in time (std::condition_variable's wait_for and wait_until on the
// steady clock) name it on the monotonic clock as moved by virtual time; the kernel
// waits on the real one, so the offset comes off again here. Without this, every such
// wait after a virtual-time test would last that much longer.
extern "C" int pthread_cond_clockwait(pthread_cond_t* cond, pthread_mutex_t* mutex,
                                      clockid_t clock, const struct timespec* at) {
  using ClockwaitFn = int (*)(pthread_cond_t*, pthread_mutex_t*, clockid_t, const timespec*);
  static const auto real = thriftusb::test::next<ClockwaitFn>("pthread_cond_clockwait");
  const long long offset = thriftusb::test::clockOffsetNanos.load();
  if (offset == 0 || clock != CLOCK_MONOTONIC) {
    return real(cond, mutex, clock, at);
  }
  const long long nanos = at->tv_sec * 1000000000LL + at->tv_nsec - offset;
  const timespec real_at{static_cast<time_t>(nanos / 1000000000LL),
                         static_cast<long>(nanos % 1000000000LL)};
  return real(cond, mutex, clock, &real_at);
}

extern "C" int clock_gettime(clockid_t clock, struct timespec* ts) {
  static const auto real = thriftusb::test::next<thriftusb::test::ClockFn>("clock_gettime");
  const int result = real(clock, ts);
  const long long offset = thriftusb::test::clockOffsetNanos.load();
  if (result == 0 && offset != 0 && (clock == CLOCK_MONOTONIC || clock == CLOCK_MONOTONIC_RAW)) {
    long long nanos = ts->tv_nsec + offset % 1000000000LL;
    ts->tv_sec += static_cast<time_t>(offset / 1000000000LL + nanos / 1000000000LL);
    ts->tv_nsec = static_cast<long>(nanos % 1000000000LL);
  }
  return result;
}
