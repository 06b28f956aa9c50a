#include "Bounded.h"

#include <cstdio>
#include <cstdlib>

namespace thriftusb {
namespace test {

namespace {

[[noreturn]] void giveUp(const std::string& what, std::chrono::milliseconds limit) {
  std::fprintf(stderr, "\n*** %s still running after %lld ms: treating it as a hang\n",
               what.c_str(), static_cast<long long>(limit.count()));
  std::fflush(stderr);
  std::abort();
}

} // namespace

Watchdog::Watchdog(std::chrono::milliseconds limit, std::string what) {
  thread_ = std::thread([this, limit, what = std::move(what)] {
    std::unique_lock<std::mutex> lock(mutex_);
    if (!disarmed_.wait_for(lock, limit, [this] { return done_; })) {
      giveUp(what, limit);
    }
  });
}

Watchdog::~Watchdog() {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    done_ = true;
  }
  disarmed_.notify_all();
  thread_.join();
}

PeerThread::PeerThread(std::function<void()> body) {
  thread_ = std::thread([this, body = std::move(body)] {
    std::exception_ptr error;
    try {
      body();
    } catch (...) {
      error = std::current_exception();
    }
    std::lock_guard<std::mutex> lock(mutex_);
    error_ = error;
    done_ = true;
    finished_.notify_all();
  });
}

PeerThread::~PeerThread() {
  if (thread_.joinable()) {
    if (!waitFor(kPeerLimit)) {
      giveUp("peer thread", kPeerLimit);
    }
    thread_.join();
  }
}

bool PeerThread::waitFor(std::chrono::milliseconds limit) {
  std::unique_lock<std::mutex> lock(mutex_);
  return finished_.wait_for(lock, limit, [this] { return done_; });
}

void PeerThread::join(std::chrono::milliseconds limit) {
  if (!waitFor(limit)) {
    giveUp("peer thread", limit);
  }
  thread_.join();
  if (error_) {
    std::rethrow_exception(error_);
  }
}

bool waitUntil(const std::function<bool()>& condition, std::chrono::milliseconds limit,
               std::chrono::milliseconds step) {
  const auto deadline = std::chrono::steady_clock::now() + limit;
  for (;;) {
    if (condition()) {
      return true;
    }
    if (std::chrono::steady_clock::now() >= deadline) {
      return false;
    }
    std::this_thread::sleep_for(step);
  }
}

} // namespace test
} // namespace thriftusb
