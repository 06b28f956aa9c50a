#include <thriftusb/testing/VirtualCable.h>

#include <cerrno>
#include <system_error>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace thriftusb {
namespace testing {

namespace {

std::string makeFifo(const TempDir& dir, const char* name) {
  std::string path = dir.file(name);
  if (::mkfifo(path.c_str(), 0600) != 0) {
    throw std::system_error(errno, std::generic_category(), "mkfifo " + path);
  }
  return path;
}

// O_RDWR on a FIFO never blocks and makes this descriptor both a reader and a writer.
int hold(const std::string& path) {
  int fd = ::open(path.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC);
  if (fd < 0) {
    throw std::system_error(errno, std::generic_category(), "open " + path);
  }
  return fd;
}

} // namespace

VirtualCable::VirtualCable()
  : hostToDevice_(makeFifo(dir_, "host-to-device")),
    deviceToHost_(makeFifo(dir_, "device-to-host")) {
  try {
    plug();
  } catch (...) {
    unplug(); // the destructor does not run for a failed constructor
    throw;
  }
}

VirtualCable::~VirtualCable() {
  unplug();
}

void VirtualCable::plug() {
  if (holdHostToDevice_ < 0) {
    holdHostToDevice_ = hold(hostToDevice_);
  }
  if (holdDeviceToHost_ < 0) {
    holdDeviceToHost_ = hold(deviceToHost_);
  }
}

void VirtualCable::unplug() {
  for (int* fd : {&holdHostToDevice_, &holdDeviceToHost_}) {
    if (*fd >= 0) {
      ::close(*fd);
      *fd = -1;
    }
  }
}

} // namespace testing
} // namespace thriftusb
