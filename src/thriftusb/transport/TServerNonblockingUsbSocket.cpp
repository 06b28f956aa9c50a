#include <thriftusb/transport/TServerNonblockingUsbSocket.h>

#include <utility>

#include <unistd.h>

#include <thrift/transport/TTransportException.h>

#include <thriftusb/transport/TUsbDevice.h>

namespace apache {
namespace thrift {
namespace transport {

namespace {

// Settings of every transport handed out.
constexpr int kChildReadTimeoutMs = 3000;
constexpr int kChildWriteTimeoutMs = 3000;
constexpr int kChildRingBufferSize = 4194304;

// Polling step of accept: waiting for the previous transport, before each open attempt
// and after a failed one (so a missing node is retried about every 200 ms).
constexpr useconds_t kPollMicros = 100000;
constexpr std::chrono::microseconds kPollStep(kPollMicros);

} // namespace

TServerNonblockingUsbSocket::TServerNonblockingUsbSocket(const std::string& path,
                                                         bool nonblocking,
                                                         unsigned int maxReadBlockSize,
                                                         unsigned int maxWriteBlockSize)
  : socketFd_(-1),
    path_(path),
    nonblocking_(nonblocking),
    maxReadBlockSize_(maxReadBlockSize),
    maxWriteBlockSize_(maxWriteBlockSize),
    interrupted_(false) {}

TServerNonblockingUsbSocket::TServerNonblockingUsbSocket(const std::string& readPath,
                                                         const std::string& writePath,
                                                         bool nonblocking,
                                                         unsigned int maxReadBlockSize,
                                                         unsigned int maxWriteBlockSize)
  : socketFd_(-1),
    readPath_(readPath),
    writePath_(writePath),
    nonblocking_(nonblocking),
    maxReadBlockSize_(maxReadBlockSize),
    maxWriteBlockSize_(maxWriteBlockSize),
    interrupted_(false) {}

TServerNonblockingUsbSocket::~TServerNonblockingUsbSocket() {
  TServerNonblockingUsbSocket::close();
}

void TServerNonblockingUsbSocket::setPreOpenCallback(PreOpenCallback callback) {
  preOpenCallback_ = std::move(callback);
}

bool TServerNonblockingUsbSocket::isOpen() const {
  return !interrupted_.load();
}

void TServerNonblockingUsbSocket::listen() {
  interrupted_.store(false);
}

void TServerNonblockingUsbSocket::interruptChildren() {
  // Closed outside the lock: closing a threaded transport joins its threads, and
  // acceptImpl must be able to read the pointer meanwhile.
  if (const auto child = currentChild()) {
    child->close();
  }
}

void TServerNonblockingUsbSocket::interrupt() {
  interruptChildren();
  interrupted_.store(true);
  interruptSignal_.notify();
}

void TServerNonblockingUsbSocket::close() {
  interrupt();
}

int TServerNonblockingUsbSocket::getSocketFD() {
  return socketFd_;
}

std::shared_ptr<TTransport> TServerNonblockingUsbSocket::acceptImpl() {
  throwIfInterrupted();
  for (;;) {
    // One connection at a time: wait until the transport handed out last is closed.
    while (const auto previous = openChild()) {
      waitForChild(previous);
      throwIfInterrupted();
    }
    pause();
    if (waitMode_ == WaitMode::Waking) {
      // The pause ends early only for an interrupt: no open is attempted then.
      throwIfInterrupted();
    }

    auto child = makeChild();
    replaceChild(child);
    try {
      child->open();
    } catch (const TTransportException&) {
      // The node is not there (yet): drop this attempt and try again.
      replaceChild(nullptr);
      child.reset();
      pause();
      throwIfInterrupted();
      continue;
    }
    return child;
  }
}

std::shared_ptr<TNonblockingUsbSocket> TServerNonblockingUsbSocket::makeChild() {
  std::shared_ptr<UsbDevice> device;
  if (path_.empty()) {
    if (preOpenCallback_) {
      preOpenCallback_(std::vector<std::string>{readPath_, writePath_});
    }
    device = std::make_shared<TUsbDevice>(readPath_, writePath_, nonblocking_, maxReadBlockSize_,
                                          maxWriteBlockSize_);
  } else {
    if (preOpenCallback_) {
      preOpenCallback_(std::vector<std::string>{path_});
    }
    device = std::make_shared<TUsbDevice>(path_, nonblocking_, maxReadBlockSize_,
                                          maxWriteBlockSize_);
  }
  auto child = std::make_shared<TNonblockingUsbSocket>(device, kChildReadTimeoutMs,
                                                       kChildWriteTimeoutMs, kChildRingBufferSize);
  child->setWaitMode(waitMode_);
  return child;
}

void TServerNonblockingUsbSocket::waitForChild(
    const std::shared_ptr<TNonblockingUsbSocket>& child) {
  if (waitMode_ == WaitMode::Polling) {
    ::usleep(kPollMicros);
  } else {
    // interrupt() closes the child first, which ends this wait too.
    child->waitClosed(kPollStep);
  }
}

void TServerNonblockingUsbSocket::pause() {
  if (waitMode_ == WaitMode::Polling) {
    ::usleep(kPollMicros);
    return;
  }
  const WakeSignal::Ticket seen = interruptSignal_.ticket();
  if (!interrupted_.load()) {
    interruptSignal_.waitFor(seen, kPollStep);
  }
}

std::shared_ptr<TNonblockingUsbSocket> TServerNonblockingUsbSocket::currentChild() const {
  std::lock_guard<std::mutex> lock(childMutex_);
  return child_;
}

std::shared_ptr<TNonblockingUsbSocket> TServerNonblockingUsbSocket::openChild() const {
  auto child = currentChild();
  return child && child->isOpen() ? child : nullptr;
}

void TServerNonblockingUsbSocket::replaceChild(std::shared_ptr<TNonblockingUsbSocket> child) {
  std::shared_ptr<TNonblockingUsbSocket> previous;
  {
    std::lock_guard<std::mutex> lock(childMutex_);
    previous = std::exchange(child_, std::move(child));
  }
  // The previous transport, if nobody else holds it, is destroyed (and so closed) here,
  // outside the lock.
}

void TServerNonblockingUsbSocket::throwIfInterrupted() const {
  if (interrupted_.load()) {
    throw TTransportException(TTransportException::UNKNOWN, "Server usb socket is closed.");
  }
}

} // namespace transport
} // namespace thrift
} // namespace apache
