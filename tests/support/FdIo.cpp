#include "FdIo.h"

#include <cerrno>
#include <filesystem>
#include <random>
#include <stdexcept>
#include <system_error>

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

namespace thriftusb {
namespace test {

namespace {

using Clock = std::chrono::steady_clock;

// Waits until @p fd is ready for @p events or the deadline passes.
void awaitReady(int fd, short events, Clock::time_point deadline, const char* what) {
  for (;;) {
    auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
    if (left.count() <= 0) {
      throw std::runtime_error(std::string(what) + ": peer descriptor not ready in time");
    }
    pollfd p{fd, events, 0};
    int n = ::poll(&p, 1, static_cast<int>(left.count()));
    if (n > 0) {
      return;
    }
    if (n < 0 && errno != EINTR) {
      throw std::system_error(errno, std::generic_category(), "poll");
    }
  }
}

} // namespace

void UniqueFd::reset(int fd) {
  if (fd_ >= 0) {
    ::close(fd_);
  }
  fd_ = fd;
}

UniqueFd openFd(const std::string& path, int flags) {
  int fd = ::open(path.c_str(), flags | O_CLOEXEC);
  if (fd < 0) {
    throw std::system_error(errno, std::generic_category(), "open " + path);
  }
  return UniqueFd(fd);
}

void writeAll(int fd, const std::string& bytes, std::chrono::milliseconds limit) {
  const auto deadline = Clock::now() + limit;
  size_t done = 0;
  while (done < bytes.size()) {
    awaitReady(fd, POLLOUT, deadline, "writeAll");
    ssize_t n = ::write(fd, bytes.data() + done, bytes.size() - done);
    if (n > 0) {
      done += static_cast<size_t>(n);
    } else if (n < 0 && errno != EAGAIN && errno != EINTR) {
      throw std::system_error(errno, std::generic_category(), "write");
    }
  }
}

std::string readExactly(int fd, size_t count, std::chrono::milliseconds limit) {
  const auto deadline = Clock::now() + limit;
  std::string out(count, '\0');
  size_t done = 0;
  while (done < count) {
    awaitReady(fd, POLLIN, deadline, "readExactly");
    ssize_t n = ::read(fd, &out[done], count - done);
    if (n > 0) {
      done += static_cast<size_t>(n);
    } else if (n == 0) {
      throw std::runtime_error("readExactly: end of data after " + std::to_string(done) + " bytes");
    } else if (errno != EAGAIN && errno != EINTR) {
      throw std::system_error(errno, std::generic_category(), "read");
    }
  }
  return out;
}

std::set<int> openDescriptors() {
  std::set<int> fds;
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
    fds.insert(std::stoi(entry.path().filename().string()));
  }
  // The directory listing itself used a descriptor that is closed again by now.
  std::set<int> open;
  for (int fd : fds) {
    if (::fcntl(fd, F_GETFD) != -1) {
      open.insert(fd);
    }
  }
  return open;
}

std::set<int> newDescriptors(const std::set<int>& before, const std::set<int>& after) {
  std::set<int> added;
  for (int fd : after) {
    if (before.count(fd) == 0) {
      added.insert(fd);
    }
  }
  return added;
}

std::multiset<int> accessModes(const std::set<int>& fds) {
  std::multiset<int> modes;
  for (int fd : fds) {
    modes.insert(::fcntl(fd, F_GETFL) & (O_ACCMODE | O_NONBLOCK));
  }
  return modes;
}

std::string patternBytes(size_t count, unsigned seed) {
  std::mt19937 random(seed);
  std::string out(count, '\0');
  for (auto& c : out) {
    c = static_cast<char>(random() & 0xff);
  }
  return out;
}

} // namespace test
} // namespace thriftusb
