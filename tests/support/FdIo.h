#ifndef THRIFTUSB_TESTS_SUPPORT_FDIO_H
#define THRIFTUSB_TESTS_SUPPORT_FDIO_H

#include <chrono>
#include <set>
#include <string>

#include <fcntl.h>

#include <thriftusb/testing/VirtualCable.h>

namespace thriftusb {
namespace test {

/** A descriptor closed on destruction. */
class UniqueFd {
public:
  UniqueFd() = default;
  explicit UniqueFd(int fd) : fd_(fd) {}
  ~UniqueFd() { reset(); }
  UniqueFd(UniqueFd&& other) noexcept : fd_(other.release()) {}
  UniqueFd& operator=(UniqueFd&& other) noexcept {
    if (this != &other) {
      reset(other.release());
    }
    return *this;
  }

  int get() const { return fd_; }
  int release() {
    int fd = fd_;
    fd_ = -1;
    return fd;
  }
  void reset(int fd = -1);

private:
  int fd_ = -1;
};

/**
 * Opens @p path with @p flags (O_CLOEXEC added).
 * @throws std::system_error when it cannot be opened
 */
UniqueFd openFd(const std::string& path, int flags);

/**
 * The test's own descriptors facing one end of a virtual cable, both non-blocking:
 * `in` reads what that end writes, `out` writes what it reads.
 */
struct CablePeer {
  explicit CablePeer(const thriftusb::testing::VirtualCable::End& facing)
    : in(openFd(facing.writePath, O_RDONLY | O_NONBLOCK)),
      out(openFd(facing.readPath, O_WRONLY | O_NONBLOCK)) {}
  UniqueFd in;
  UniqueFd out;
};

/** Bound of every wait on a peer's descriptor in the tests. */
constexpr std::chrono::milliseconds kIoLimit{5000};

/**
 * Writes all of @p bytes to @p fd, waiting with poll() while it is full.
 * @throws std::runtime_error when it is not done within @p limit.
 */
void writeAll(int fd, const std::string& bytes, std::chrono::milliseconds limit = kIoLimit);

/**
 * Reads exactly @p count bytes from @p fd, waiting with poll().
 * @throws std::runtime_error on end of data or when not done within @p limit.
 */
std::string readExactly(int fd, size_t count, std::chrono::milliseconds limit = kIoLimit);

/** The descriptors this process has open now. */
std::set<int> openDescriptors();

/** Descriptors in @p after that are not in @p before. */
std::set<int> newDescriptors(const std::set<int>& before, const std::set<int>& after);

/** The descriptors that @p open leaves open that were not open before it ran. */
template <typename Open>
std::set<int> descriptorsOpenedBy(Open&& open) {
  const auto before = openDescriptors();
  open();
  return newDescriptors(before, openDescriptors());
}

/** The access mode and O_NONBLOCK flag (F_GETFL) of each of @p fds, one entry per descriptor. */
std::multiset<int> accessModes(const std::set<int>& fds);

/** @p count bytes of a repeatable pseudo-random sequence chosen by @p seed. */
std::string patternBytes(size_t count, unsigned seed = 1);

} // namespace test
} // namespace thriftusb

#endif
