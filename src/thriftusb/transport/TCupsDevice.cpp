#include <thriftusb/transport/TCupsDevice.h>

#include <cstdio>

#include <poll.h>

#include <cups/sidechannel.h>

namespace apache {
namespace thrift {
namespace transport {

namespace {

// The descriptor on which CUPS hands a filter the printer's bytes.
constexpr int kBackChannelFd = 3;

// Whether cupsBackChannelRead() can be called on descriptor 3 without hanging or
// spinning. libcups waits for the descriptor with select() and then calls read()
// whatever select() said: on a blocking descriptor with nothing waiting, that
// read() blocks despite a time-out of 0 (libcups 2.4.2; cupsd itself makes the
// descriptor non-blocking, but a filter started some other way may not get such a
// descriptor); and when descriptor 3 is not open, select() fails with EBADF, which
// libcups retries for ever. A poll() with a zero time-out avoids both: it reports a
// descriptor that is not open (POLLNVAL) instead of failing, and it tells whether
// read() would return at once: bytes waiting (POLLIN), or end of data or an error
// (POLLHUP, POLLERR), where read() returns 0 or fails at once. Everything else,
// nothing waiting or a failed poll(), means there is nothing to read now. The check
// leaves the descriptor's flags alone: the descriptor belongs to the process.
bool backChannelReady() {
  pollfd backChannel{kBackChannelFd, POLLIN, 0};
  if (::poll(&backChannel, 1, 0) != 1) {
    return false;
  }
  return (backChannel.revents & POLLNVAL) == 0;
}

} // namespace

TCupsDevice::TCupsDevice(bool nonblocking, unsigned int maxReadBlockSize,
                         unsigned int maxWriteBlockSize)
  : UsbDevice(nonblocking, maxReadBlockSize, maxWriteBlockSize), open_(false) {}

TCupsDevice::~TCupsDevice() {
  TCupsDevice::close();
}

int TCupsDevice::open() {
  open_ = true;
  return 0;
}

int TCupsDevice::close() {
  open_ = false;
  return 0;
}

bool TCupsDevice::isOpen() {
  return open_;
}

int TCupsDevice::flush() {
  std::fflush(stdout);
  return 0;
}

int64_t TCupsDevice::read(unsigned char* buf, unsigned int len) {
  if (!open_ || len > maxReadBlockSize_) {
    return -1;
  }
  if (!backChannelReady()) {
    return 0;
  }
  const ssize_t got = cupsBackChannelRead(reinterpret_cast<char*>(buf), len, 0.0);
  return got < 0 ? 0 : got;
}

int64_t TCupsDevice::write(const unsigned char* buf, unsigned int len) {
  if (!open_ || len > maxWriteBlockSize_) {
    return -1;
  }
  const size_t put = std::fwrite(buf, 1, len, stdout);
  return put == len ? static_cast<int64_t>(len) : -1;
}

void TCupsDevice::cancelIo() {}

void TCupsDevice::cancelIo(unsigned long) {}

} // namespace transport
} // namespace thrift
} // namespace apache
