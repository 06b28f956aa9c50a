#ifndef THRIFTUSB_TESTS_SUPPORT_BOUNDED_H
#define THRIFTUSB_TESTS_SUPPORT_BOUNDED_H

#include <chrono>
#include <condition_variable>
#include <exception>
#include <functional>
#include <mutex>
#include <string>
#include <thread>

namespace thriftusb {
namespace test {

/** How long a test waits for a peer before it calls the peer hung. */
constexpr std::chrono::milliseconds kPeerLimit{10000};

/**
 * Ends the test program with a message if it is not destroyed within the limit.
 * Guards a call that would otherwise wait for ever when the code under test is
 * wrong (a read that never gets its bytes): a hang fails the test, it does not stall
 * the run.
 */
class Watchdog {
public:
  explicit Watchdog(std::chrono::milliseconds limit = kPeerLimit, std::string what = "test");
  ~Watchdog();
  Watchdog(const Watchdog&) = delete;
  Watchdog& operator=(const Watchdog&) = delete;

private:
  std::mutex mutex_;
  std::condition_variable disarmed_;
  bool done_ = false;
  std::thread thread_;
};

/**
 * Runs a peer's part of a test on its own thread. join() waits a bounded time and
 * passes on an exception thrown by the peer; a peer still running at the end of the
 * limit ends the test program with a message.
 */
class PeerThread {
public:
  explicit PeerThread(std::function<void()> body);
  ~PeerThread();
  PeerThread(const PeerThread&) = delete;
  PeerThread& operator=(const PeerThread&) = delete;

  /** True when the body has returned or thrown within @p limit. */
  bool waitFor(std::chrono::milliseconds limit);

  /** Waits for the body (bounded by @p limit), then rethrows what it threw. */
  void join(std::chrono::milliseconds limit = kPeerLimit);

private:
  std::mutex mutex_;
  std::condition_variable finished_;
  bool done_ = false;
  std::exception_ptr error_;
  std::thread thread_;
};

/**
 * Polls @p condition every @p step until it holds or @p limit has passed.
 * @return whether it held
 */
bool waitUntil(const std::function<bool()>& condition, std::chrono::milliseconds limit = kPeerLimit,
               std::chrono::milliseconds step = std::chrono::milliseconds(1));

} // namespace test
} // namespace thriftusb

#endif
