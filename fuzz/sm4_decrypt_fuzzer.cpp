// Sm4Cipher::decrypt() on fuzzed bodies with a fuzzed room, and encrypt() with a
// fuzzed room: neither may write past the room (guard bytes behind it, inside the same
// allocation, and AddressSanitizer behind those), a failure reports a length of 0 and
// leaves only zeros where it wrote, and a success round-trips: what decrypt() gives
// encrypts back to the body.
//
// Layout: one byte of settings (bit 0: CBC instead of ECB; bit 1: a negative room),
// two bytes of room (capped at the body's length plus 48), then the body.

#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include <thriftusb/cipher/Sm4Cipher.h>

#include "FuzzInput.h"

using namespace thriftusb::fuzz;

namespace {

constexpr size_t kGuard = 32;
constexpr unsigned char kFill = 0xA5;

struct Room {
  explicit Room(long room) : bytes(static_cast<size_t>(room > 0 ? room : 0) + kGuard, kFill) {}
  unsigned char* data() { return bytes.data(); }
  bool guardIntact(long room) const {
    for (size_t i = static_cast<size_t>(room > 0 ? room : 0); i < bytes.size(); ++i) {
      if (bytes[i] != kFill) {
        return false;
      }
    }
    return true;
  }
  std::vector<unsigned char> bytes;
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  Input in(data, size);
  const uint8_t settings = in.byte();
  const uint16_t roomField = in.u16();
  const std::string body = in.rest();
  const bool cbc = settings & 1;
  long room = static_cast<long>(roomField % (body.size() + 49));
  if (settings & 2) {
    room = -room;
  }
  const auto cipher = fuzzCipher(cbc);
  const auto* in8 = reinterpret_cast<const unsigned char*>(body.data());
  const auto inLen = static_cast<long>(body.size());

  // decrypt
  {
    Room out(room);
    long outLen = room;
    const int rc = cipher->decrypt(in8, inLen, out.data(), &outLen);
    FUZZ_CHECK(out.guardIntact(room));
    FUZZ_CHECK(rc == 0 || rc == -1);
    if (rc == 0) {
      FUZZ_CHECK(inLen > 0 && inLen % 16 == 0);
      FUZZ_CHECK(outLen >= inLen - 16 && outLen < inLen && outLen <= room);
      Room again(inLen);
      long againLen = inLen;
      FUZZ_CHECK(cipher->encrypt(out.data(), outLen, again.data(), &againLen) == 0);
      FUZZ_CHECK(againLen == inLen && std::memcmp(again.data(), in8, body.size()) == 0);
    } else {
      FUZZ_CHECK(outLen == 0);
      for (long i = 0; i < room; ++i) {
        FUZZ_CHECK(out.bytes[static_cast<size_t>(i)] == kFill ||
                   out.bytes[static_cast<size_t>(i)] == 0);
      }
    }
  }

  // encrypt
  {
    Room out(room);
    long outLen = room;
    const long required = (inLen & ~15L) + 16;
    const int rc = cipher->encrypt(in8, inLen, out.data(), &outLen);
    FUZZ_CHECK(out.guardIntact(room));
    FUZZ_CHECK(rc == (room >= required ? 0 : -1));
    if (rc == 0) {
      FUZZ_CHECK(outLen == required);
      Room plain(outLen);
      long plainLen = outLen;
      FUZZ_CHECK(cipher->decrypt(out.data(), outLen, plain.data(), &plainLen) == 0);
      FUZZ_CHECK(plainLen == inLen && std::memcmp(plain.data(), in8, body.size()) == 0);
    } else {
      FUZZ_CHECK(outLen == 0);
      FUZZ_CHECK(out.guardIntact(0)); // not a byte written
    }
  }
  return 0;
}
