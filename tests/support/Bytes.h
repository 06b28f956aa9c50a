#ifndef THRIFTUSB_TESTS_SUPPORT_BYTES_H
#define THRIFTUSB_TESTS_SUPPORT_BYTES_H

#include <cstdint>
#include <memory>
#include <string>

#include <thriftusb/cipher/Sm4Cipher.h>

namespace thriftusb {
namespace test {

/** The bytes of @p s as the transports take them. */
inline const uint8_t* u8(const std::string& s) {
  return reinterpret_cast<const uint8_t*>(s.data());
}
inline uint8_t* u8(std::string& s) {
  return reinterpret_cast<uint8_t*>(&s[0]);
}

/** The 4-byte big-endian frame header of a body of @p n bytes. */
inline std::string header(uint32_t n) {
  return {static_cast<char>(n >> 24), static_cast<char>(n >> 16), static_cast<char>(n >> 8),
          static_cast<char>(n)};
}

/** The frame that carries @p payload: encrypted with @p cipher, or plain when it is null. */
inline std::string frameOf(const std::string& payload, const std::shared_ptr<Sm4Cipher>& cipher) {
  std::string body = payload;
  if (cipher) {
    body.assign((payload.size() & ~size_t{15}) + 16, '\0');
    long length = static_cast<long>(body.size());
    cipher->encrypt(u8(payload), static_cast<long>(payload.size()), u8(body), &length);
  }
  return header(static_cast<uint32_t>(body.size())) + body;
}

} // namespace test
} // namespace thriftusb

#endif
