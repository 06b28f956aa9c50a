#include <thriftusb/testing/PtyDevice.h>

#include <cerrno>
#include <cstdlib>
#include <system_error>

#include <fcntl.h>
#include <termios.h>
#include <unistd.h>

namespace thriftusb {
namespace testing {

namespace {

void closeIfOpen(int fd) {
  if (fd >= 0) {
    ::close(fd);
  }
}

} // namespace

PtyDevice::PtyDevice() {
  // The destructor does not run for a failed constructor: what is open is closed here.
  auto check = [this](bool ok, const char* what) {
    if (!ok) {
      const int error = errno;
      closeIfOpen(slave_);
      closeIfOpen(master_);
      throw std::system_error(error, std::generic_category(), what);
    }
  };
  master_ = ::posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
  check(master_ >= 0, "posix_openpt");
  check(::grantpt(master_) == 0 && ::unlockpt(master_) == 0, "grantpt/unlockpt");
  const char* name = ::ptsname(master_);
  check(name != nullptr, "ptsname");
  path_ = name;
  slave_ = ::open(path_.c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC);
  check(slave_ >= 0, "open pty slave");
  // Raw mode: bytes pass unchanged in both directions, with no echo and no line editing.
  termios mode{};
  check(::tcgetattr(slave_, &mode) == 0, "tcgetattr");
  ::cfmakeraw(&mode);
  check(::tcsetattr(slave_, TCSANOW, &mode) == 0, "tcsetattr");
}

PtyDevice::~PtyDevice() {
  closeIfOpen(slave_);
  closeIfOpen(master_);
}

} // namespace testing
} // namespace thriftusb
