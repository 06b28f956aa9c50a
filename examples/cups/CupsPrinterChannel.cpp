#include "CupsPrinterChannel.h"

#include <cerrno>

#include <poll.h>
#include <unistd.h>

#include <cups/sidechannel.h>

namespace thriftusb {
namespace example {

namespace {

// How long one write may wait for room on the back channel, in seconds.
constexpr double kBackChannelWriteSeconds = 10.0;

} // namespace

CupsPrinterChannel::CupsPrinterChannel(unsigned int blockSize)
  : UsbDevice(true, blockSize, blockSize) {}

int CupsPrinterChannel::open() {
  open_ = true;
  return 0;
}

int CupsPrinterChannel::close() {
  open_ = false;
  return 0;
}

bool CupsPrinterChannel::isOpen() {
  return open_;
}

int CupsPrinterChannel::flush() {
  return 0;
}

int64_t CupsPrinterChannel::read(unsigned char* buf, unsigned int len) {
  if (!open_ || len > maxReadBlockSize_) {
    return -1;
  }
  pollfd input{STDIN_FILENO, POLLIN, 0};
  const int ready = ::poll(&input, 1, 0);
  if (ready == 0 || (ready < 0 && errno == EINTR)) {
    return 0;
  }
  if (ready < 0 || (input.revents & POLLNVAL) != 0) {
    return -1;
  }
  const ssize_t got = ::read(STDIN_FILENO, buf, len);
  if (got > 0) {
    return got;
  }
  if (got < 0 && (errno == EAGAIN || errno == EINTR)) {
    return 0;
  }
  return -1; // end of data: the filters have finished
}

int64_t CupsPrinterChannel::write(const unsigned char* buf, unsigned int len) {
  if (!open_ || len > maxWriteBlockSize_) {
    return -1;
  }
  const ssize_t put =
      cupsBackChannelWrite(reinterpret_cast<const char*>(buf), len, kBackChannelWriteSeconds);
  return put == static_cast<ssize_t>(len) ? put : -1;
}

void CupsPrinterChannel::cancelIo() {}

void CupsPrinterChannel::cancelIo(unsigned long) {}

} // namespace example
} // namespace thriftusb
