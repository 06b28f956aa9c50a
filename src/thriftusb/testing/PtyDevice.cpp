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

void check(bool ok, const char* what) {
  if (!ok) {
    throw std::system_error(errno, std::generic_category(), what);
  }
}

} // namespace

PtyDevice::PtyDevice() {
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
  if (slave_ >= 0) {
    ::close(slave_);
  }
  if (master_ >= 0) {
    ::close(master_);
  }
}

} // namespace testing
} // namespace thriftusb
