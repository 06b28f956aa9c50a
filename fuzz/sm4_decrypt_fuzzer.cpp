// Sm4Cipher::decrypt() on fuzzed bodies with a fuzzed room, and encrypt() with a
// fuzzed room: neither may write past the room (guard bytes behind it, inside the same
// allocation, and AddressSanitizer behind those), a failure reports a length of 0 and
// leaves only zeros where it wrote, and a success round-trips: what decrypt() gives
// encrypts back to the body.
//
// Layout: one byte of settings (bit 0: CBC instead of ECB; bit 1: a negative room),
// two bytes of room (capped at the body's length plus 48), then the body.

#include <cstring>
#include <vector>

#include <thriftusb/cipher/Sm4Cipher.h>

#include "FuzzInput.h"



namespace {

constexpr size_t kGuard = 32;
constexpr unsigned char kFill = 0xA5;

// Room for @p room bytes (none when negative), guard bytes behind it.
std::vector<unsigned char> roomOf(long room) {
  return std::vector<unsigned char>(static_cast<size_t>(std::max(room, 0L)) + kGuard, kFill);
}

// Whether the bytes from @p from on still hold the fill.
bool filledFrom(const std::vector<unsigned char>& out, long from) {
  return std::all_of(out.begin() + std::max(from, 0L), out.end(),
                     [](unsigned char c) { return c == kFill; });
}

} // namespace
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  Input in{data, size};
  const uint8_t settings = in.byte();
  const uint16_t roomField = in.u16();
  const std::string body = in.rest();
  const long room = (settings & 2 ? -1 : 1) * static_cast<long>(roomField % (body.size() + 49));
  const auto cipher = fuzzCipher(settings & 1);
  const auto* in8 = reinterpret_cast<const unsigned char*>(body.data());
  const auto inLen = static_cast<long>(body.size());

  auto out = roomOf(room);
  long outLen = room;
  int rc = cipher->decrypt(in8, inLen, out.data(), &outLen);
  FUZZ_CHECK(filledFrom(out, room) && (rc == 0 || rc == -1));
  if (rc == 0) {
    FUZZ_CHECK(inLen > 0 && inLen % 16 == 0);
    FUZZ_CHECK(outLen >= inLen - 16 && outLen < inLen && outLen <= room);
    auto again = roomOf(inLen);
    long againLen = inLen;
    FUZZ_CHECK(cipher->encrypt(out.data(), outLen, again.data(), &againLen) == 0);
    FUZZ_CHECK(againLen == inLen && std::memcmp(again.data(), in8, body.size()) == 0);
  } else {
    FUZZ_CHECK(outLen == 0 && std::all_of(out.begin(), out.begin() + std::max(room, 0L),
                                          [](unsigned char c) { return c == kFill || c == 0; }));
  }

  out = roomOf(room);
  outLen = room;
  const long required = (inLen & ~15L) + 16;
  rc = cipher->encrypt(in8, inLen, out.data(), &outLen);
  FUZZ_CHECK(rc == (room >= required ? 0 : -1));
  if (rc == 0) {
    FUZZ_CHECK(filledFrom(out, room) && outLen == required);
    auto plain = roomOf(outLen);
    long plainLen = outLen;
    FUZZ_CHECK(cipher->decrypt(out.data(), outLen, plain.data(), &plainLen) == 0);
    FUZZ_CHECK(plainLen == inLen && std::memcmp(plain.data(), in8, body.size()) == 0);
  } else {
    FUZZ_CHECK(outLen == 0 && filledFrom(out, 0)); // not a byte written
  }
  return 0;
}
