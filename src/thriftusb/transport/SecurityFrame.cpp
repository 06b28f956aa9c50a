#include <thriftusb/transport/SecurityFrame.h>

#include <stdexcept>
#include <string>

#include <thriftusb/cipher/Sm4Cipher.h>

namespace apache {
namespace thrift {
namespace transport {
namespace detail {
namespace securityframe {

void encodeFrameSize(uint32_t n, uint8_t* out) {
  out[0] = static_cast<uint8_t>(n >> 24);
  out[1] = static_cast<uint8_t>(n >> 16);
  out[2] = static_cast<uint8_t>(n >> 8);
  out[3] = static_cast<uint8_t>(n);
}

int32_t decodeFrameSize(const uint8_t* in) {
  const uint32_t n = (static_cast<uint32_t>(in[0]) << 24) | (static_cast<uint32_t>(in[1]) << 16) |
                     (static_cast<uint32_t>(in[2]) << 8) | static_cast<uint32_t>(in[3]);
  return static_cast<int32_t>(n);
}

uint32_t checkFrameSize(int32_t n, uint32_t maxFrameSize, bool encrypted) {
  if (n < 0) {
    throw TTransportException(TTransportException::UNKNOWN, "Frame size has negative value");
  }
  if (n > static_cast<int32_t>(maxFrameSize)) {
    throw TTransportException(TTransportException::CORRUPTED_DATA, "Received an oversized frame");
  }
  // Cipher text is a whole number of blocks, at least one.
  if (encrypted && (n == 0 || n % 16 != 0)) {
    throw TTransportException(TTransportException::CORRUPTED_DATA,
                              "Received an invalid encrypt size frame");
  }
  return static_cast<uint32_t>(n);
}

void failPartialHeader() {
  throw TTransportException(TTransportException::END_OF_FILE,
                            "No more data to read after partial frame header.");
}

void checkSettings(const char* owner, const Sm4Cipher* cipher, bool encrypted,
                   uint32_t maxFrameSize) {
  if (encrypted && cipher == nullptr) {
    throw std::invalid_argument(std::string(owner) + ": an encrypting transport needs a cipher");
  }
  if (maxFrameSize > kMaxFrameSizeLimit) {
    throw std::invalid_argument(std::string(owner) + ": maxFrameSize " +
                                std::to_string(maxFrameSize) + " exceeds 2147483647");
  }
}

void checkTransport(const char* owner, const TTransport* transport) {
  if (transport == nullptr) {
    throw std::invalid_argument(std::string(owner) + ": no inner transport given");
  }
}

uint32_t encrypt(Sm4Cipher& cipher, const uint8_t* payload, uint32_t n, uint8_t* out) {
  long length = cipherRoom(n);
  cipher.encrypt(payload, n, out, &length);
  return static_cast<uint32_t>(length);
}

uint32_t decrypt(Sm4Cipher& cipher, const uint8_t* body, uint32_t n, uint8_t* out,
                 uint32_t room) {
  long length = room;
  // A body that does not decrypt is not detected here: its payload is what the
  // cipher reports, nothing when it fails.
  cipher.decrypt(body, n, out, &length);
  return static_cast<uint32_t>(length);
}

} // namespace securityframe
} // namespace detail
} // namespace transport
} // namespace thrift
} // namespace apache
