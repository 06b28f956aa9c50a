#ifndef THRIFTUSB_FUZZ_FUZZINPUT_H
#define THRIFTUSB_FUZZ_FUZZINPUT_H

// What both fuzz targets share: a reader of the fields of one input, their cipher, and
// the check whose violation libFuzzer keeps as a finding. Every layout is a handful of
// small fields followed by raw bytes; a field past the end of the input reads as 0, so
// every input is valid.

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
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

/** The targets' cipher: the fuzz key, CBC with the fuzz IV, or ECB. */
inline std::shared_ptr<Sm4Cipher> fuzzCipher(bool cbc = true) {
  return std::make_shared<Sm4Cipher>("0123456789abcdef",
                                     cbc ? Sm4Cipher::Mode::CBC : Sm4Cipher::Mode::ECB,
                                     cbc ? "fedcba9876543210" : "");
}

/** Checks a property of the code under test; a violation ends the run as a finding. */
#define FUZZ_CHECK(condition)                                                              \
  do {                                                                                     \
    if (!(condition)) {                                                                    \
      std::fprintf(stderr, "fuzz check failed: %s (%s:%d)\n", #condition, __FILE__, __LINE__); \
      std::abort();                                                                        \
    }                                                                                      \
  } while (0)

} // namespace fuzz
} // namespace thriftusb

#endif
