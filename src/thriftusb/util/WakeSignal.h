#ifndef THRIFTUSB_UTIL_WAKESIGNAL_H
#define THRIFTUSB_UTIL_WAKESIGNAL_H

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>

namespace apache {
namespace thrift {
namespace transport {

/**
 * How a transport waits for bytes, for room or for a state to change.
 *
 * - Polling (the default): it looks, sleeps a fixed step and looks again. A call
 *   therefore takes at least one step whenever it has to wait: 10 ms in the threaded
 *   transport and the frame wait, 1 ms in TUSBSocket's read, 100 ms in accept.
 * - Waking: it still looks first, but then waits for whoever changes what it looks at
 *   to tell it, and at most one step; so the step stays the longest any single wait
 *   lasts, and time-outs are counted exactly as when polling. Calls then move at the
 *   speed of the link instead of the step.
 *
 * The bytes on the wire are the same in both modes, so either end may use either.
 */
enum class WaitMode {
  Polling, ///< fixed sleeps between looks
  Waking,  ///< waits that end as soon as what they wait for has happened
};

/**
 * A wake-up call between threads, without lost wake-ups.
 *
 * A waiter takes a ticket() before it looks at the shared state (a queue's fill, a
 * running flag) and, when it finds nothing to do, calls waitFor() with that ticket.
 * Whoever changes the state calls notify() afterwards. A notify() between the look
 * and the wait makes the wait return at once, because the ticket is then out of
 * date. Spurious returns are allowed: a waiter always looks again.
 *
 * notify() costs one atomic increment while nobody waits.
 */
class WakeSignal {
public:
  /** Marks the moment before a look; see the class comment. */
  using Ticket = uint64_t;

  WakeSignal() = default;
  WakeSignal(const WakeSignal&) = delete;
  WakeSignal& operator=(const WakeSignal&) = delete;

  /** @return a ticket for a look that is about to be made */
  Ticket ticket() const { return generation_.load(); }

  /** Wakes every current waiter and makes every ticket taken so far out of date. */
  void notify();

  /**
   * Waits until notify() has been called since @p seen was taken, for at most
   * @p limit.
   * @param seen   the ticket taken before the look that found nothing to do
   * @param limit  the longest the wait may last
   */
  void waitFor(Ticket seen, std::chrono::microseconds limit);

private:
  std::atomic<Ticket> generation_{0};
  std::atomic<int> waiters_{0};
  std::mutex mutex_;
  std::condition_variable changed_;
};

/**
 * Waits for one descriptor to become ready (poll(2)) for at most a step, after a
 * transfer on it moved nothing.
 *
 * A descriptor whose driver cannot poll reports itself ready at once, and so does a
 * FIFO whose other end has gone; a caller that waited on it alone would spin. So when
 * a wait ended early and the next transfer still moved nothing, the wait after it
 * sleeps the whole step instead: such a descriptor costs what polling costs, never a
 * busy core.
 */
class DescriptorWait {
public:
  /** What a wait waits for. */
  enum class For { Reading, Writing };

  /** @param what  whether the descriptor is to be read or written */
  explicit DescriptorWait(For what) : what_(what) {}

  /**
   * Waits on @p fd for at most @p step.
   * @param fd    the descriptor; a closed one (-1) makes this a sleep of @p step
   * @param step  the longest the wait lasts, rounded up to whole milliseconds
   * @return false when the step passed with the descriptor not ready, so that a
   *         transfer now would find nothing; true otherwise
   */
  bool wait(int fd, std::chrono::microseconds step);

  /** Tells that a transfer moved bytes: the next wait trusts the descriptor again. */
  void progressed() { readyClaimed_ = false; }

private:
  For what_;
  // The last wait ended early; atomic so that a channel shared by a transport and a
  // thread of its own may report progress from either.
  std::atomic<bool> readyClaimed_{false};
};

} // namespace transport
} // namespace thrift
} // namespace apache

#endif
