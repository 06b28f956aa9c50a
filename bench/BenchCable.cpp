#include "BenchCable.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <vector>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace thriftusb {
namespace bench {

namespace {

[[noreturn]] void fail(const std::string& what) {
  throw std::runtime_error(what + ": " + std::strerror(errno));
}

// Opens @p path for reading and writing (which never blocks on a FIFO) and sets its
// kernel buffer; returns the descriptor.
int hold(const std::string& path, int pipeBytes, int* actual) {
  const int fd = ::open(path.c_str(), O_RDWR | O_CLOEXEC);
  if (fd < 0) {
    fail("cannot hold " + path);
  }
  if (pipeBytes > 0 && ::fcntl(fd, F_SETPIPE_SZ, pipeBytes) < 0) {
    const int error = errno;
    ::close(fd);
    errno = error;
    fail("cannot size " + path);
  }
  *actual = ::fcntl(fd, F_GETPIPE_SZ);
  return fd;
}

} // namespace

FifoCable::FifoCable(int pipeBytes) {
  const std::string pattern = "/tmp/thriftusb-bench-XXXXXX";
  std::vector<char> dir(pattern.begin(), pattern.end());
  dir.push_back('\0');
  if (::mkdtemp(dir.data()) == nullptr) {
    fail("cannot make a directory for the cable");
  }
  dir_ = dir.data();
  hostToDevice_ = dir_ + "/host-to-device";
  deviceToHost_ = dir_ + "/device-to-host";
  try {
    if (::mkfifo(hostToDevice_.c_str(), 0600) != 0) {
      fail("cannot make " + hostToDevice_);
    }
    if (::mkfifo(deviceToHost_.c_str(), 0600) != 0) {
      fail("cannot make " + deviceToHost_);
    }
    int other = 0;
    holdHostToDevice_ = hold(hostToDevice_, pipeBytes, &pipeBytes_);
    holdDeviceToHost_ = hold(deviceToHost_, pipeBytes, &other);
  } catch (...) {
    release();
    throw;
  }
}

FifoCable::~FifoCable() {
  release();
}

void FifoCable::release() {
  if (holdHostToDevice_ >= 0) {
    ::close(holdHostToDevice_);
    holdHostToDevice_ = -1;
  }
  if (holdDeviceToHost_ >= 0) {
    ::close(holdDeviceToHost_);
    holdDeviceToHost_ = -1;
  }
  if (!dir_.empty()) {
    ::unlink(hostToDevice_.c_str());
    ::unlink(deviceToHost_.c_str());
    ::rmdir(dir_.c_str());
    dir_.clear();
  }
}

} // namespace bench
} // namespace thriftusb
