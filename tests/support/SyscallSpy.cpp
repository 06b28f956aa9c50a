#include "support/SyscallSpy.h"

#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <deque>
#include <map>
#include <mutex>
#include <stdexcept>

#include <dlfcn.h>
#include <fcntl.h>
#include <pthread.h>
#include <time.h>
#include <unistd.h>

namespace thriftusb {
namespace test {

namespace {

// Constant-initialised: the interposers look at it before anything else, also before main.
std::atomic<bool> spying{false};
// How far virtual time has moved the monotonic clock; only ever grows.
std::atomic<long long> clockOffsetNanos{0};

struct Outcome {
  long value;
  int error;
};

// What the spy knows, reset by each spy's end.
struct State {
  std::set<int> fds;
  std::map<Sys, std::deque<Outcome>> script;
  std::map<Sys, std::vector<size_t>> calls; // the lengths of each kind's calls
  std::map<std::string, std::vector<int>> opens;
  bool virtualTime = false;
};
// Never destroyed, as the interposers may run while the program exits.
std::mutex& mutex = *new std::mutex;
State& s = *new State;

template <typename Fn>
Fn next(const char* name) {
  return reinterpret_cast<Fn>(::dlsym(RTLD_NEXT, name));
}

// Runs one interposed call on @p fd: a call on a watched descriptor is recorded, and a
// scripted outcome replaces it; otherwise the real function runs, outside the lock.
template <typename Real>
long steer(Sys kind, int fd, size_t length, Real real) {
  if (spying) {
    std::lock_guard<std::mutex> lock(mutex);
    auto& queue = s.script[kind];
    if (s.fds.count(fd) != 0) {
      s.calls[kind].push_back(length);
      if (!queue.empty()) {
        const Outcome outcome = queue.front();
        queue.pop_front();
        errno = outcome.error;
        return outcome.value;
      }
    }
  }
  return real();
}

} // namespace

SyscallSpy::SyscallSpy() {
  if (spying.exchange(true)) {
    throw std::logic_error("only one SyscallSpy may be active at a time");
  }
}

SyscallSpy::~SyscallSpy() {
  std::lock_guard<std::mutex> lock(mutex);
  s = State{};
  spying = false;
}

void SyscallSpy::watch(const std::set<int>& fds) {
  std::lock_guard<std::mutex> lock(mutex);
  s.fds.insert(fds.begin(), fds.end());
}

void SyscallSpy::script(Sys call, long value, int error, int times) {
  std::lock_guard<std::mutex> lock(mutex);
  s.script[call].insert(s.script[call].end(), static_cast<size_t>(times), Outcome{value, error});
}

void SyscallSpy::setVirtualTime(bool on) {
  std::lock_guard<std::mutex> lock(mutex);
  s.virtualTime = on;
}

std::vector<size_t> SyscallSpy::lengths(Sys call) const {
  std::lock_guard<std::mutex> lock(mutex);
  return s.calls[call];
}

std::vector<int> SyscallSpy::openFlags(const std::string& path) const {
  std::lock_guard<std::mutex> lock(mutex);
  return s.opens[path];
}

} // namespace test
} // namespace thriftusb

namespace spy = thriftusb::test;
using spy::Sys;

// The interposers: the test program's definitions come before the C library's in
// symbol lookup, so the library under test calls these.
extern "C" ssize_t read(int fd, void* buf, size_t n) {
  static const auto real = spy::next<ssize_t (*)(int, void*, size_t)>("read");
  return spy::steer(Sys::Read, fd, n, [&] { return real(fd, buf, n); });
}

extern "C" ssize_t write(int fd, const void* buf, size_t n) {
  static const auto real = spy::next<ssize_t (*)(int, const void*, size_t)>("write");
  return spy::steer(Sys::Write, fd, n, [&] { return real(fd, buf, n); });
}

extern "C" int fsync(int fd) {
  static const auto real = spy::next<int (*)(int)>("fsync");
  return static_cast<int>(spy::steer(Sys::Fsync, fd, 0, [&] { return long{real(fd)}; }));
}

// The library opens its nodes with open() (never with O_CREAT, so no mode follows).
extern "C" int open(const char* path, int flags, ...) {
  static const auto real = spy::next<int (*)(const char*, int, ...)>("open");
  va_list args;
  va_start(args, flags);
  const mode_t mode = (flags & (O_CREAT | O_TMPFILE)) != 0 ? va_arg(args, mode_t) : 0;
  va_end(args);
  if (spy::spying) {
    std::lock_guard<std::mutex> lock(spy::mutex);
    spy::s.opens[path].push_back(flags);
  }
  return real(path, flags, mode);
}

extern "C" int usleep(useconds_t micros) {
  static const auto real = spy::next<int (*)(useconds_t)>("usleep");
  if (spy::spying) {
    std::lock_guard<std::mutex> lock(spy::mutex);
    spy::s.calls[Sys::Usleep].push_back(micros);
    if (spy::s.virtualTime) {
      spy::clockOffsetNanos += 1000LL * micros;
      return 0;
    }
  }
  return real(micros);
}

// A condition variable's wait until a point on the steady clock names that point on
// the monotonic clock as moved by virtual time, while the kernel waits on the real
// one: the offset comes off again here, or every such wait after a virtual-time test
// would last that much longer.
extern "C" int pthread_cond_clockwait(pthread_cond_t* cond, pthread_mutex_t* mutex,
                                      clockid_t clock, const struct timespec* at) {
  static const auto real =
      spy::next<int (*)(pthread_cond_t*, pthread_mutex_t*, clockid_t, const timespec*)>(
          "pthread_cond_clockwait");
  const long long nanos = at->tv_sec * 1000000000LL + at->tv_nsec - spy::clockOffsetNanos;
  const timespec realAt{static_cast<time_t>(nanos / 1000000000LL),
                        static_cast<long>(nanos % 1000000000LL)};
  return real(cond, mutex, clock, clock == CLOCK_MONOTONIC ? &realAt : at);
}

extern "C" int clock_gettime(clockid_t clock, struct timespec* ts) {
  static const auto real = spy::next<int (*)(clockid_t, struct timespec*)>("clock_gettime");
  const int result = real(clock, ts);
  if (result == 0 && (clock == CLOCK_MONOTONIC || clock == CLOCK_MONOTONIC_RAW)) {
    const long long nanos = ts->tv_nsec + spy::clockOffsetNanos;
    ts->tv_sec += static_cast<time_t>(nanos / 1000000000LL);
    ts->tv_nsec = static_cast<long>(nanos % 1000000000LL);
  }
  return result;
}
