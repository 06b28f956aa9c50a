#include <thriftusb/transport/TNonblockingSecurityTransport.h>

#include <chrono>

#include <unistd.h>

namespace apache {
namespace thrift {
namespace transport {

namespace frame = detail::securityframe;
using Ops = detail::SecurityFrameOps;

namespace {

// While no frame has begun, the inner transport is asked this often...
constexpr useconds_t kFramePollMicros = 10000;
constexpr std::chrono::microseconds kFramePollStep(kFramePollMicros);

// ...until this much time has passed (300 s or more: more than this many ns).
constexpr std::chrono::nanoseconds kFrameWaitLimit(299999999999LL);

} // namespace

TNonblockingSecurityTransport::TNonblockingSecurityTransport(std::shared_ptr<TTransport> transport,
                                                             std::shared_ptr<Sm4Cipher> cipher,
                                                             bool encrypted,
                                                             uint32_t bufReclaimThresh,
                                                             uint32_t maxFrameSize)
  : transport_(std::move(transport)),
    cipher_(std::move(cipher)),
    rBufSize_(0),
    wBufSize_(0),
    wCipherBufSize_(0),
    rPlainBufSize_(0),
    bufReclaimThresh_(bufReclaimThresh),
    maxFrameSize_(maxFrameSize),
    encrypted_(encrypted) {
  frame::checkTransport("TNonblockingSecurityTransport", transport_.get());
  frame::checkSettings("TNonblockingSecurityTransport", cipher_.get(), encrypted_,
                       maxFrameSize_);
  Ops::resetWriteBuffer(*this);
}

TNonblockingSecurityTransport::~TNonblockingSecurityTransport() = default;

bool TNonblockingSecurityTransport::isOpen() const {
  return transport_->isOpen();
}

bool TNonblockingSecurityTransport::peek() {
  return rBase_ < rBound_ || transport_->peek();
}

void TNonblockingSecurityTransport::open() {
  transport_->open();
}

void TNonblockingSecurityTransport::close() {
  flush();
  transport_->close();
}

void TNonblockingSecurityTransport::flush() {
  Ops::flush(*this, encrypted_);
}

uint32_t TNonblockingSecurityTransport::readEnd() {
  return Ops::readEnd(*this, encrypted_ ? rPlainBuf_.get() : rBuf_.get());
}

uint32_t TNonblockingSecurityTransport::writeEnd() {
  return Ops::writeEnd(*this);
}

const std::string TNonblockingSecurityTransport::getOrigin() const {
  return transport_->getOrigin();
}

uint32_t TNonblockingSecurityTransport::readSlow(uint8_t* buf, uint32_t len) {
  return Ops::readSlow(*this, buf, len);
}

void TNonblockingSecurityTransport::writeSlow(const uint8_t* buf, uint32_t len) {
  Ops::writeSlow(*this, buf, len, frame::maxBufferedBytes(encrypted_),
                 "Attempted to write over 2 GB to TNonblockingSecurityTransport.");
}

const uint8_t* TNonblockingSecurityTransport::borrowSlow(uint8_t*, uint32_t*) {
  return nullptr;
}

bool TNonblockingSecurityTransport::readFrame() {
  using Clock = std::chrono::steady_clock;
  const Clock::time_point start = Clock::now();

  // Only the wait for the first header byte is bounded here; once a frame has begun,
  // the inner readAll() bounds the rest.
  // In waking mode the ticket taken before each read makes bytes that arrive between
  // that read and the wait end the wait at once.
  TNonblockingUsbSocket* const inner = wakingInner();
  uint8_t header[frame::kHeaderSize];
  WakeSignal::Ticket seen = inner ? inner->readTicket() : 0;
  uint32_t got = transport_->read(header, frame::kHeaderSize);
  while (got == 0) {
    if (Clock::now() - start > kFrameWaitLimit) {
      throw TTransportException(TTransportException::TIMED_OUT, "readFrame timeout.");
    }
    if (inner) {
      inner->waitReadable(seen, kFramePollStep);
      seen = inner->readTicket();
    } else {
      ::usleep(kFramePollMicros);
    }
    got = transport_->read(header, frame::kHeaderSize);
  }
  while (got < frame::kHeaderSize) {
    const uint32_t n = transport_->readAll(header + got, frame::kHeaderSize - got);
    if (n == 0) {
      frame::failPartialHeader();
    }
    got += n;
  }

  const uint32_t n =
      frame::checkFrameSize(frame::decodeFrameSize(header), maxFrameSize_, encrypted_);
  Ops::readBody(*this, n);
  if (!encrypted_) {
    Ops::serve(*this, rBuf_.get(), n);
    printAscii(rBuf_.get(), rBuf_.get() + n);
    return true;
  }
  printHex(rBuf_.get(), rBuf_.get() + n);
  Ops::decryptBody(*this, n);
  printHex(rPlainBuf_.get(), rBound_);
  return true;
}

TNonblockingUsbSocket* TNonblockingSecurityTransport::wakingInner() const {
  auto* const inner = dynamic_cast<TNonblockingUsbSocket*>(transport_.get());
  if (inner && (waitMode_ == WaitMode::Waking || inner->getWaitMode() == WaitMode::Waking)) {
    return inner;
  }
  return nullptr;
}

void TNonblockingSecurityTransport::printAH(unsigned char*, unsigned char*) {}

void TNonblockingSecurityTransport::printAscii(unsigned char*, unsigned char*) {}

void TNonblockingSecurityTransport::printHex(unsigned char*, unsigned char*) {}

} // namespace transport
} // namespace thrift
} // namespace apache
