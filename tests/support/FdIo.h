#ifndef THRIFTUSB_TESTS_SUPPORT_FDIO_H
#define THRIFTUSB_TESTS_SUPPORT_FDIO_H

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <random>
#include <set>
#include <stdexcept>
#include <string>
#include <system_error>

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <thriftusb/testing/VirtualCable.h>

#include "support/Bounded.h"

namespace thriftusb {
namespace test {

/** A descriptor closed on destruction. */
class UniqueFd {
public:
  explicit UniqueFd(int fd = -1) : fd_(fd) {}
  ~UniqueFd() { reset(); }
  UniqueFd(const UniqueFd&) = delete;
  UniqueFd& operator=(const UniqueFd&) = delete;
  int get() const { return fd_; }
  void reset() {
    if (fd_ >= 0) {
      ::close(fd_);
    }
    fd_ = -1;
  }

private:
  int fd_;
};

/** Opens @p path with @p flags and O_CLOEXEC; throws std::system_error when it cannot. */
inline UniqueFd openFd(const std::string& path, int flags) {
  const int fd = ::open(path.c_str(), flags | O_CLOEXEC);
  if (fd < 0) {
    throw std::system_error(errno, std::generic_category(), "open " + path);
  }
  return UniqueFd(fd);
}

/** The test's non-blocking descriptors facing one end of a cable: `in` reads what it writes. */
struct CablePeer {
  explicit CablePeer(const thriftusb::testing::VirtualCable::End& facing)
    : in(openFd(facing.writePath, O_RDONLY | O_NONBLOCK)),
      out(openFd(facing.readPath, O_WRONLY | O_NONBLOCK)) {}
  UniqueFd in;
  UniqueFd out;
};

/**
 * Moves @p count bytes at @p data through @p fd with @p io (::read or ::write), waiting
 * with poll() for @p events while it is not ready; throws when a call moves nothing
 * (end of data), on an error, or when not done within kPeerLimit.
 */
template <typename Data, typename Io>
void moveAll(int fd, short events, Data* data, size_t count, Io io) {
  using Clock = std::chrono::steady_clock;
  const auto deadline = Clock::now() + kPeerLimit;
  for (size_t done = 0; done < count;) {
    const auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
    pollfd ready{fd, events, 0};
    if (left <= 0 || ::poll(&ready, 1, static_cast<int>(left)) == 0) {
      throw std::runtime_error("peer descriptor not ready in time");
    }
    const ssize_t n = io(fd, data + done, count - done);
    if (n == 0) {
      throw std::runtime_error("end of data after " + std::to_string(done) + " bytes");
    }
    if (n < 0 && errno != EAGAIN && errno != EINTR) {
      throw std::system_error(errno, std::generic_category(), "peer descriptor");
    }
    done += n > 0 ? static_cast<size_t>(n) : 0;
  }
}

inline void writeAll(int fd, const std::string& bytes) {
  moveAll(fd, POLLOUT, bytes.data(), bytes.size(), ::write);
}

inline std::string readExactly(int fd, size_t count) {
  std::string out(count, '\0');
  moveAll(fd, POLLIN, &out[0], count, ::read);
  return out;
}

/** The descriptors this process has open now. */
inline std::set<int> openDescriptors() {
  std::set<int> open;
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
    open.insert(std::stoi(entry.path().filename().string()));
  }
  // Without the one the listing used, closed by now.
  for (auto fd = open.begin(); fd != open.end();) {
    fd = ::fcntl(*fd, F_GETFD) == -1 ? open.erase(fd) : std::next(fd);
  }
  return open;
}

/** Descriptors in @p after that are not in @p before. */
inline std::set<int> newDescriptors(const std::set<int>& before, std::set<int> after) {
  std::for_each(before.begin(), before.end(), [&](int fd) { after.erase(fd); });
  return after;
}

/** The descriptors that @p open leaves open that were not open before it ran. */
template <typename Open>
std::set<int> descriptorsOpenedBy(Open&& open) {
  const auto before = openDescriptors();
  open();
  return newDescriptors(before, openDescriptors());
}

/** @p count bytes of a repeatable pseudo-random sequence chosen by @p seed. */
inline std::string patternBytes(size_t count, unsigned seed = 1) {
  std::mt19937 random(seed);
  std::string out(count, '\0');
  for (auto& c : out) {
    c = static_cast<char>(random() & 0xff);
  }
  return out;
}

} // namespace test
} // namespace thriftusb

#endif
