#ifndef THRIFTUSB_FUZZ_FUZZINPUT_H
#define THRIFTUSB_FUZZ_FUZZINPUT_H

// The byte layouts the fuzz targets read their input in, with a reader for the targets
// and the matching writers for the seed corpus generator. Every layout is a handful of
// small fields followed by raw bytes; a field past the end of the input reads as 0, so
// every input is valid.

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstdio>
#include <memory>
#include <string>

#include <thriftusb/cipher/Sm4Cipher.h>

namespace thriftusb {
namespace fuzz {

/** Reads the fields of one fuzz input from the front. */
class Input {
public:
  Input(const uint8_t* data, size_t size) : data_(data), size_(size) {}

  /** The next byte, 0 when the input is used up. */
  uint8_t byte() { return pos_ < size_ ? data_[pos_++] : 0; }

  /** The next two bytes, most significant first. */
  uint16_t u16() {
    const uint16_t high = byte();
    return static_cast<uint16_t>(high << 8 | byte());
  }

  /** Up to @p n of the next bytes. */
  std::string bytes(size_t n) {
    n = n < size_ - pos_ ? n : size_ - pos_;
    std::string out(reinterpret_cast<const char*>(data_ + pos_), n);
    pos_ += n;
    return out;
  }

  /** Everything not read yet. */
  std::string rest() { return bytes(size_ - pos_); }

private:
  const uint8_t* data_;
  size_t size_;
  size_t pos_ = 0;
};

/** The cipher of the targets and their seeds: the fuzz key, CBC with the fuzz IV, or ECB. */
inline std::shared_ptr<Sm4Cipher> fuzzCipher(bool cbc = true) {
  return std::make_shared<Sm4Cipher>("0123456789abcdef",
                                     cbc ? Sm4Cipher::Mode::CBC : Sm4Cipher::Mode::ECB,
                                     cbc ? "fedcba9876543210" : "");
}

/** Whether @p call throws an @p E for which @p matches holds. */
template <typename E, typename Call, typename Match>
bool throwsWhere(Call&& call, Match&& matches) {
  try {
    call();
  } catch (const E& e) {
    return matches(e);
  }
  return false;
}

/** Ends the fuzz target with a message: libFuzzer keeps the input as a crash. */
[[noreturn]] inline void failed(const char* what) {
  std::fprintf(stderr, "fuzz check failed: %s\n", what);
  std::abort();
}

/** Checks a property of the code under test; a violation is a finding. */
#define FUZZ_CHECK(condition)                                                              \
  do {                                                                                     \
    if (!(condition)) {                                                                    \
      ::thriftusb::fuzz::failed(#condition " (" __FILE__ ":" FUZZ_STRINGIFY(__LINE__) ")"); \
    }                                                                                      \
  } while (0)
#define FUZZ_STRINGIFY(x) FUZZ_STRINGIFY2(x)
#define FUZZ_STRINGIFY2(x) #x

// ---------------------------------------------------------------------------------
// Layout of the framed-transport target (security_frames)
//
//   config   1 byte   bits 0-1: transport (see FrameKind); bit 2: maximum frame size
//                     64 instead of 65536; bit 3: reclaim threshold 64 instead of never;
//                     bit 4: readEnd() after every frame
//   W        1 byte   payloads a sender transport writes first (W & 15), each:
//              L      2 bytes, a length (L % 4097)
//              data   L bytes
//   K        1 byte   split sizes of the inner transport's reads, then K bytes: each
//                     read gives at most that many bytes; 0 is an idle poll (no data
//                     yet) for the polling transport, 1 byte for the other
//   M        1 byte   lengths of the reads made on the transport under test, then M
//                     bytes: v gives v + 1, 255 gives 65536
//   tail     rest     raw bytes that follow the sender's frames on the wire

/** The transports under test in the framed-transport target. */
enum FrameKind : uint8_t {
  kSecure = 0,              ///< TSecurityTransport (encrypted)
  kNonblockingEncrypted = 1, ///< TNonblockingSecurityTransport, encrypted
  kNonblockingPlain = 2,     ///< TNonblockingSecurityTransport, plain
};

constexpr uint8_t kSmallMaxFrame = 1 << 2;
constexpr uint8_t kLowReclaim = 1 << 3;
constexpr uint8_t kReadEndEachFrame = 1 << 4;

/** Appends @p value, most significant byte first. */
inline void putU16(std::string& out, uint16_t value) {
  out += static_cast<char>(value >> 8);
  out += static_cast<char>(value & 0xFF);
}

/** The 4-byte big-endian frame header of a body of @p n bytes. */
inline std::string header(uint32_t n) {
  return {static_cast<char>(n >> 24), static_cast<char>(n >> 16), static_cast<char>(n >> 8),
          static_cast<char>(n)};
}

} // namespace fuzz
} // namespace thriftusb

#endif
