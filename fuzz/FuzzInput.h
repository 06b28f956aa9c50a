#ifndef THRIFTUSB_FUZZ_FUZZINPUT_H
#define THRIFTUSB_FUZZ_FUZZINPUT_H

// What both fuzz targets share: a reader of the fields of one input, their cipher, and
// the check whose violation libFuzzer keeps as a finding. Every layout is a handful of
// small fields followed by raw bytes; a field past the end of the input reads as 0, so
// every input is valid.

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>

#include <thriftusb/cipher/Sm4Cipher.h>

/** Reads the fields of one fuzz input from the front: Input in{data, size}. */
struct Input {
  const uint8_t* data;
  size_t size, pos = 0;

  /** The next byte, 0 when the input is used up. */
  uint8_t byte() { return pos < size ? data[pos++] : 0; }

  /** The next two bytes, most significant first (two statements fix the order). */
  uint16_t u16() {
    const int high = byte();
    return static_cast<uint16_t>(high << 8 | byte());
  }

  /** Up to @p n of the next bytes. */
  std::string bytes(size_t n) {
    pos += n = std::min(n, size - pos);
    return std::string(reinterpret_cast<const char*>(data + pos - n), n);
  }
  std::string rest() { return bytes(size); }
};

/** The targets' cipher: the fuzz key, CBC with the fuzz IV, or ECB. */
inline std::shared_ptr<Sm4Cipher> fuzzCipher(bool cbc = true) {
  return std::make_shared<Sm4Cipher>("0123456789abcdef",
                                     cbc ? Sm4Cipher::Mode::CBC : Sm4Cipher::Mode::ECB,
                                     cbc ? "fedcba9876543210" : "");
}

/** Checks a property of the code under test; a violation ends the run as a finding. */
#define FUZZ_CHECK(c)                                                                       \
  ((c) ? void() : (std::fprintf(stderr, "fuzz check failed: %s (%s:%d)\n", #c, __FILE__,    \
                                __LINE__), std::abort()))

#endif
