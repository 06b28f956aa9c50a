#include <thriftusb/util/WakeSignal.h>

#include <poll.h>
#include <unistd.h>

namespace apache {
namespace thrift {
namespace transport {

// The waiter count lets notify() skip the lock while nobody waits. Both sides use
// sequentially consistent operations: either notify() sees the waiter, and then takes
// the lock, which the waiter only gives up inside the wait; or the waiter's look at
// the generation, made after it counted itself, sees the increment and does not wait.
void WakeSignal::notify() {
  generation_.fetch_add(1);
  if (waiters_.load() > 0) {
    std::lock_guard<std::mutex> lock(mutex_);
    changed_.notify_all();
  }
}

void WakeSignal::waitFor(Ticket seen, std::chrono::microseconds limit) {
  std::unique_lock<std::mutex> lock(mutex_);
  waiters_.fetch_add(1);
  changed_.wait_for(lock, limit, [&] { return generation_.load() != seen; });
  waiters_.fetch_sub(1);
}

bool DescriptorWait::wait(int fd, std::chrono::microseconds step) {
  if (readyClaimed_.exchange(false)) {
    ::usleep(static_cast<useconds_t>(step.count()));
    return true;
  }
  pollfd entry{fd, static_cast<short>(what_ == For::Reading ? POLLIN : POLLOUT), 0};
  const int timeoutMs = static_cast<int>((step.count() + 999) / 1000);
  readyClaimed_ = ::poll(&entry, 1, timeoutMs) > 0;
  return readyClaimed_;
}

} // namespace transport
} // namespace thrift
} // namespace apache
