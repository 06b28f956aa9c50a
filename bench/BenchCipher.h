#ifndef THRIFTUSB_BENCH_BENCHCIPHER_H
#define THRIFTUSB_BENCH_BENCHCIPHER_H

#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace thriftusb {
namespace bench {

/**
 * One SM4 operation on one buffer size, ready to be timed: each call of run()
 * ciphers @p bytes plain-text bytes once.
 */
struct CipherCase {
  /** Implementation, e.g. "Sm4Cipher", "OpenSSL EVP", "libgcrypt". */
  std::string implementation;
  /** "ECB" or "CBC". */
  std::string mode;
  /** true: decrypt; false: encrypt. */
  bool decrypt = false;
  size_t bytes = 0;
  std::function<void()> run;
};

/**
 * Every case: Sm4Cipher (the library's cipher, PKCS#7 padding, as the framed
 * transports call it) and, for comparison, OpenSSL's EVP SM4 and libgcrypt's SM4
 * called directly (whole blocks, no padding) when the benchmark was built with
 * them. Each case checks once that it reproduces the output of Sm4Cipher.
 *
 * @throws std::runtime_error when an implementation fails or disagrees
 */
std::vector<CipherCase> cipherCases(const std::vector<size_t>& sizes);

/** libgcrypt's version when the benchmark was built with it, else empty. */
std::string gcryptVersion();

/** OpenSSL's version text. */
std::string opensslVersion();

} // namespace bench
} // namespace thriftusb

#endif
