#include <thriftusb/transport/TUsbDevice.h>

#include <cerrno>

#include <fcntl.h>
#include <unistd.h>

#include <thrift/TOutput.h>

namespace apache {
namespace thrift {
namespace transport {

namespace {

int withMode(int accessMode, bool nonblocking) {
  return nonblocking ? (accessMode | O_NONBLOCK) : accessMode;
}

// Turns a failed transfer's errno into the channel's result: EAGAIN and EINTR mean
// "try again" (an interrupted call lets a thread that is being stopped see its stop
// flag), anything else means the channel is broken. Only EAGAIN goes unlogged.
int64_t failedTransfer(const char* format, int error) {
  if (error == EAGAIN) {
    return 0;
  }
  GlobalOutput.printf(format, TOutput::strerror_s(error).c_str());
  return error == EINTR ? 0 : -1;
}

} // namespace

TUsbDevice::TUsbDevice(const std::string& path, bool nonblocking, unsigned int maxReadBlockSize,
                       unsigned int maxWriteBlockSize)
  : UsbDevice(nonblocking, maxReadBlockSize, maxWriteBlockSize),
    path_(path),
    readFd_(-1),
    writeFd_(-1) {}

TUsbDevice::TUsbDevice(const std::string& readPath, const std::string& writePath,
                       bool nonblocking, unsigned int maxReadBlockSize,
                       unsigned int maxWriteBlockSize)
  : UsbDevice(nonblocking, maxReadBlockSize, maxWriteBlockSize),
    readPath_(readPath),
    writePath_(writePath),
    readFd_(-1),
    writeFd_(-1) {}

TUsbDevice::~TUsbDevice() {
  TUsbDevice::close();
}

bool TUsbDevice::isOpen() {
  return readFd_ != -1 && writeFd_ != -1;
}

int TUsbDevice::open() {
  if (isOpen()) {
    return 0;
  }
  if (!path_.empty()) {
    readFd_ = ::open(path_.c_str(), withMode(O_RDWR, nonblocking_));
    if (readFd_ == -1) {
      return -1;
    }
    writeFd_ = readFd_.load();
    GlobalOutput.printf("1 channel: %s", path_.c_str());
    return 0;
  }
  if (readPath_.empty() || writePath_.empty()) {
    return -1;
  }
  readFd_ = ::open(readPath_.c_str(), withMode(O_RDONLY, nonblocking_));
  if (readFd_ == -1) {
    return -1;
  }
  writeFd_ = ::open(writePath_.c_str(), withMode(O_WRONLY, nonblocking_));
  if (writeFd_ == -1) {
    ::close(readFd_);
    readFd_ = -1;
    return -1;
  }
  GlobalOutput.printf("2 channels: %s %s", readPath_.c_str(), writePath_.c_str());
  return 0;
}

int TUsbDevice::close() {
  if (isOpen()) {
    ::close(readFd_);
    if (writeFd_ != readFd_) {
      ::close(writeFd_);
    }
  }
  readFd_ = -1;
  writeFd_ = -1;
  return 0;
}

int TUsbDevice::flush() {
  return ::fsync(writeFd_);
}

int64_t TUsbDevice::read(unsigned char* buf, unsigned int len) {
  if (len > maxReadBlockSize_) {
    return -1;
  }
  // No open test: on a closed channel the system call fails with EBADF, which is
  // logged and reported as a broken channel.
  const ssize_t got = ::read(readFd_, buf, len);
  if (got > 0) {
    readWait_.progressed();
  }
  return got >= 0 ? got : failedTransfer("Failed to read %s.", errno);
}

int64_t TUsbDevice::write(const unsigned char* buf, unsigned int len) {
  if (len > maxWriteBlockSize_) {
    return -1;
  }
  const ssize_t put = ::write(writeFd_, buf, len);
  if (put > 0) {
    writeWait_.progressed();
  }
  return put >= 0 ? put : failedTransfer("Failed to write %s.", errno);
}

void TUsbDevice::cancelIo() {}

void TUsbDevice::cancelIo(unsigned long) {}

void TUsbDevice::waitReadable(std::chrono::microseconds limit) {
  readWait_.wait(readFd_, limit);
}

void TUsbDevice::waitWritable(std::chrono::microseconds limit) {
  writeWait_.wait(writeFd_, limit);
}

} // namespace transport
} // namespace thrift
} // namespace apache
