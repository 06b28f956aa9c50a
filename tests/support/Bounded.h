#ifndef THRIFTUSB_TESTS_SUPPORT_BOUNDED_H
#define THRIFTUSB_TESTS_SUPPORT_BOUNDED_H

// Bounded waits: a hang of the code under test fails the test, it never stalls the run.
// Waits go through std::condition_variable, whose deadlines the syscall spy's virtual
// clock keeps right.

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <functional>
#include <mutex>
#include <string>
#include <thread>

namespace thriftusb {
namespace test {

/** How long a test waits for a peer before it calls the peer hung. */
constexpr std::chrono::milliseconds kPeerLimit{10000};

[[noreturn]] inline void giveUp(const std::string& what, std::chrono::milliseconds limit) {
  std::fprintf(stderr, "\n*** %s still running after %lld ms: treating it as a hang\n",
               what.c_str(), static_cast<long long>(limit.count()));
  std::abort();
}

/** A flag one thread sets and another waits for, within a limit. */
class Latch {
public:
  void set() {
    std::lock_guard<std::mutex> lock(mutex_);
    done_ = true;
    changed_.notify_all();
  }
  bool waitFor(std::chrono::milliseconds limit) {
    std::unique_lock<std::mutex> lock(mutex_);
    return changed_.wait_for(lock, limit, [this] { return done_; });
  }

private:
  std::mutex mutex_;
  std::condition_variable changed_;
  bool done_ = false;
};

/** A peer's part of a test on its own thread; join() rethrows what the peer threw. */
class PeerThread {
public:
  explicit PeerThread(std::function<void()> body)
    : thread_([this, body = std::move(body)] {
        try {
          body();
        } catch (...) {
          error_ = std::current_exception();
        }
        finished_.set();
      }) {}
  ~PeerThread() {
    if (thread_.joinable()) {
      end(kPeerLimit);
    }
  }

  /** True when the body has returned or thrown within @p limit. */
  bool waitFor(std::chrono::milliseconds limit) { return finished_.waitFor(limit); }

  /** Waits for the body (a hang past @p limit ends the program), then rethrows. */
  void join(std::chrono::milliseconds limit = kPeerLimit) {
    end(limit);
    if (error_) {
      std::rethrow_exception(error_);
    }
  }

private:
  void end(std::chrono::milliseconds limit) {
    if (!waitFor(limit)) {
      giveUp("peer thread", limit);
    }
    thread_.join();
  }
  Latch finished_;
  std::exception_ptr error_;
  std::thread thread_;
};

/** Ends the test program with a message unless destroyed within the limit. */
class Watchdog {
public:
  explicit Watchdog(std::chrono::milliseconds limit = kPeerLimit, std::string what = "test")
    : guard_([this, limit, what] {
        if (!disarmed_.waitFor(limit)) {
          giveUp(what, limit);
        }
      }) {}
  ~Watchdog() { disarmed_.set(); }

private:
  Latch disarmed_;
  PeerThread guard_;
};

/** Polls @p condition every millisecond until it holds or @p limit has passed. */
inline bool waitUntil(const std::function<bool()>& condition,
                      std::chrono::milliseconds limit = kPeerLimit) {
  const auto deadline = std::chrono::steady_clock::now() + limit;
  while (!condition()) {
    if (std::chrono::steady_clock::now() >= deadline) {
      return false;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return true;
}

} // namespace test
} // namespace thriftusb

#endif
