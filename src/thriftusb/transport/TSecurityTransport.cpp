#include <thriftusb/transport/TSecurityTransport.h>

namespace apache {
namespace thrift {
namespace transport {

namespace frame = detail::securityframe;
using Ops = detail::SecurityFrameOps;

TSecurityTransport::TSecurityTransport(std::shared_ptr<TTransport> transport,
                                       std::shared_ptr<Sm4Cipher> cipher,
                                       uint32_t bufReclaimThresh, uint32_t maxFrameSize)
  : transport_(std::move(transport)),
    cipher_(std::move(cipher)),
    rBufSize_(0),
    wBufSize_(0),
    wCipherBufSize_(0),
    rPlainBufSize_(0),
    bufReclaimThresh_(bufReclaimThresh),
    maxFrameSize_(maxFrameSize) {
  frame::checkTransport("TSecurityTransport", transport_.get());
  frame::checkSettings("TSecurityTransport", cipher_.get(), true, maxFrameSize_);
  Ops::resetWriteBuffer(*this);
}

TSecurityTransport::~TSecurityTransport() = default;

bool TSecurityTransport::isOpen() const {
  return transport_->isOpen();
}

bool TSecurityTransport::peek() {
  return rBase_ < rBound_ || transport_->peek();
}

void TSecurityTransport::open() {
  transport_->open();
}

void TSecurityTransport::close() {
  flush();
  transport_->close();
}

void TSecurityTransport::flush() {
  Ops::flush(*this, true);
}

uint32_t TSecurityTransport::readEnd() {
  return Ops::readEnd(*this, rPlainBuf_.get());
}

uint32_t TSecurityTransport::writeEnd() {
  return Ops::writeEnd(*this);
}

const std::string TSecurityTransport::getOrigin() const {
  return transport_->getOrigin();
}

uint32_t TSecurityTransport::readSlow(uint8_t* buf, uint32_t len) {
  return Ops::readSlow(*this, buf, len);
}

void TSecurityTransport::writeSlow(const uint8_t* buf, uint32_t len) {
  Ops::writeSlow(*this, buf, len, frame::maxBufferedBytes(true),
                 "Attempted to write over 2 GB to TSecurityTransport.");
}

const uint8_t* TSecurityTransport::borrowSlow(uint8_t*, uint32_t*) {
  return nullptr;
}

bool TSecurityTransport::readFrame() {
  // The inner read() waits for data; a 0 is the end of its data.
  uint8_t header[frame::kHeaderSize];
  uint32_t got = 0;
  while (got < frame::kHeaderSize) {
    const uint32_t n = transport_->read(header + got, frame::kHeaderSize - got);
    if (n == 0) {
      if (got == 0) {
        return false;
      }
      frame::failPartialHeader();
    }
    got += n;
  }
  const uint32_t n = frame::checkFrameSize(frame::decodeFrameSize(header), maxFrameSize_, true);
  Ops::readBody(*this, n);
  Ops::decryptBody(*this, n);
  return true;
}

} // namespace transport
} // namespace thrift
} // namespace apache
