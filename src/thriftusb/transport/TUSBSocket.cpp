#include <thriftusb/transport/TUSBSocket.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <sstream>

#include <fcntl.h>
#include <unistd.h>

#include <thrift/TOutput.h>
#include <thrift/transport/TTransportException.h>

namespace apache {
namespace thrift {
namespace transport {

namespace {

// The nodes are opened exclusively and non-blocking: the transport polls instead of
// waiting in the kernel. No O_CREAT: a missing node is an error, never a new file.
constexpr int kOneNodeFlags = O_RDWR | O_EXCL | O_NONBLOCK;
constexpr int kReadNodeFlags = O_RDONLY | O_EXCL | O_NONBLOCK;
constexpr int kWriteNodeFlags = O_WRONLY | O_EXCL | O_NONBLOCK;

// Pause between two reads of a node that had no data; in waking mode, the longest
// wait on the node, in either direction.
constexpr useconds_t kReadPollMicros = 1000;
constexpr std::chrono::microseconds kNodeWaitStep(kReadPollMicros);

// Logs a failed system call with the node's path and throws the runtime's exception
// for it. The exception names only the operation, as the runtime's own transports do;
// its constructor appends ": " and the error's text.
[[noreturn]] void failSystemCall(const std::string& logLine, const char* message, int error) {
  GlobalOutput.perror(logLine, error);
  throw TTransportException(TTransportException::UNKNOWN, message, error);
}

} // namespace

TUSBSocket::TUSBSocket(const std::string& path, int reserved, int maxBlockSize)
  : readPath_(path),
    readFd_(-1),
    writeFd_(-1),
    twoChannels_(false),
    reserved_(reserved),
    maxBlockSize_(maxBlockSize) {}

TUSBSocket::TUSBSocket(const std::string& readPath, const std::string& writePath, int reserved,
                       int maxBlockSize)
  : readPath_(readPath),
    writePath_(writePath),
    readFd_(-1),
    writeFd_(-1),
    twoChannels_(true),
    reserved_(reserved),
    maxBlockSize_(maxBlockSize) {}

TUSBSocket::~TUSBSocket() {
  TUSBSocket::close();
}

bool TUSBSocket::isOpen() const {
  return readFd_ != -1 && writeFd_ != -1;
}

bool TUSBSocket::peek() {
  return isOpen();
}

bool TUSBSocket::hasPendingDataToRead() {
  return isOpen();
}

void TUSBSocket::open() {
  if (isOpen()) {
    return;
  }
  readFd_ = ::open(readPath_.c_str(), twoChannels_ ? kReadNodeFlags : kOneNodeFlags);
  if (readFd_ == -1) {
    throw TTransportException(TTransportException::NOT_OPEN,
                              "Not found usb reading device: " + readPath_);
  }
  if (!twoChannels_) {
    writeFd_ = readFd_;
    return;
  }
  writeFd_ = ::open(writePath_.c_str(), kWriteNodeFlags);
  if (writeFd_ == -1) {
    ::close(readFd_);
    readFd_ = -1;
    throw TTransportException(TTransportException::NOT_OPEN,
                              "Not found usb writing device: " + writePath_);
  }
  GlobalOutput.printf("usb device open succeed");
}

void TUSBSocket::close() {
  if (isOpen()) {
    ::close(readFd_);
    if (twoChannels_) {
      ::close(writeFd_);
    }
  }
  readFd_ = -1;
  writeFd_ = -1;
  GlobalOutput.printf("usb device close succeed");
}

void TUSBSocket::flush() {
  if (!isOpen()) {
    throw TTransportException(TTransportException::NOT_OPEN,
                              "Called flush on non-open usb socket");
  }
  ::fsync(writeFd_);
}

uint32_t TUSBSocket::read(uint8_t* buf, uint32_t len) {
  std::lock_guard<std::recursive_mutex> lock(mutex_);
  if (!isOpen()) {
    throw TTransportException(TTransportException::NOT_OPEN, "Called read on non-open usb socket");
  }
  const auto block = static_cast<uint32_t>(maxBlockSize_);
  DescriptorWait readable(DescriptorWait::For::Reading);
  uint32_t received = 0;
  while (received < len) {
    const ssize_t got = ::read(readFd_, buf + received, std::min(len - received, block));
    if (got > 0) {
      received += static_cast<uint32_t>(got);
      readable.progressed();
    } else if (got == 0) {
      // The node reports end of data: whatever part of the request arrived is lost.
      throw TTransportException(TTransportException::TIMED_OUT, "recv timeout expired");
    } else if (errno != EAGAIN) {
      const int error = errno;
      failSystemCall("TUSBSocket::read() " + readPath_, "TUSBSocket::read()", error);
    } else if (waitMode_ == WaitMode::Waking) {
      // A silent node costs one poll() per step, without a read that would find nothing.
      while (!readable.wait(readFd_, kNodeWaitStep)) {
      }
    } else {
      ::usleep(kReadPollMicros);
    }
  }
  return len;
}

void TUSBSocket::write(const uint8_t* buf, uint32_t len) {
  std::lock_guard<std::recursive_mutex> lock(mutex_);
  if (!isOpen()) {
    throw TTransportException(TTransportException::NOT_OPEN,
                              "Called write on non-open usb socket");
  }
  const auto block = static_cast<uint32_t>(maxBlockSize_);
  DescriptorWait writable(DescriptorWait::For::Writing);
  uint32_t sent = 0;
  while (sent < len) {
    // When polling, a busy node gives 0 and is asked again at once: the device drains
    // quickly and a sleep here would cost a whole millisecond per block. When waking,
    // the node tells when it can take more, and the core is not spent asking.
    const uint32_t put = write_partial(buf + sent, std::min(len - sent, block));
    sent += put;
    if (put > 0) {
      writable.progressed();
    } else if (waitMode_ == WaitMode::Waking) {
      writable.wait(writeFd_, kNodeWaitStep);
    }
  }
  ::fsync(writeFd_);
}

uint32_t TUSBSocket::write_partial(const uint8_t* buf, uint32_t len) {
  std::lock_guard<std::recursive_mutex> lock(mutex_);
  if (!isOpen()) {
    throw TTransportException(TTransportException::NOT_OPEN,
                              "Called write on non-open usb socket");
  }
  if (len > static_cast<uint32_t>(maxBlockSize_)) {
    std::ostringstream message;
    message << "Buffer length must be less than " << maxBlockSize_;
    throw TTransportException(TTransportException::BAD_ARGS, message.str());
  }
  const ssize_t put = ::write(writeFd_, buf, len);
  if (put > 0) {
    return static_cast<uint32_t>(put);
  }
  if (put == 0) {
    throw TTransportException(TTransportException::NOT_OPEN, "Usb socket send returned 0.");
  }
  const int error = errno;
  if (error == EAGAIN) {
    return 0;
  }
  failSystemCall("TUSBSocket::write_partial() " + writePath_, "TUSBSocket::write_partial() ",
                 error);
}

} // namespace transport
} // namespace thrift
} // namespace apache
