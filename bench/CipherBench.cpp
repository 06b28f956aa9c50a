// SM4 alone: the library's Sm4Cipher as the framed transports call it (one call per
// buffer, PKCS#7 padding), beside OpenSSL's EVP SM4 and libgcrypt's SM4 called directly
// on whole blocks, and one Sm4Cipher shared by two threads.

#include <functional>
#include <stdexcept>

#include <openssl/crypto.h>
#include <openssl/evp.h>

#if THRIFTUSB_BENCH_HAVE_GCRYPT
#include <gcrypt.h>
#endif

#include <thriftusb/cipher/Sm4Cipher.h>

#include "Bench.h"

namespace thriftusb {
namespace bench {
namespace {

using Bytes = std::vector<uint8_t>;
// Ciphers all of @p in into @p out, which has room for a padding block.
using Run = std::function<void(const Bytes& in, Bytes& out)>;

// SM4 is steady: short runs suffice.
constexpr double kCipherSeconds = 0.08;
const std::string& kKey = kBenchKey;
const std::string& kIv = kBenchIv;
const auto* kKeyBytes = reinterpret_cast<const uint8_t*>(kKey.data());
const auto* kIvBytes = reinterpret_cast<const uint8_t*>(kIv.data());

Run sm4Cipher(std::shared_ptr<Sm4Cipher> cipher, bool decrypt) {
  return [cipher, decrypt](const Bytes& in, Bytes& out) {
    long length = static_cast<long>(out.size());
    const long n = static_cast<long>(in.size());
    if ((decrypt ? cipher->decrypt(in.data(), n, out.data(), &length)
                 : cipher->encrypt(in.data(), n, out.data(), &length)) != 0) {
      throw std::runtime_error("Sm4Cipher failed");
    }
  };
}

Run evp(bool cbc, bool decrypt) {
  std::shared_ptr<EVP_CIPHER> cipher(
      EVP_CIPHER_fetch(nullptr, cbc ? "SM4-CBC" : "SM4-ECB", nullptr), EVP_CIPHER_free);
  std::shared_ptr<EVP_CIPHER_CTX> ctx(EVP_CIPHER_CTX_new(), EVP_CIPHER_CTX_free);
  if (!cipher || !ctx) {
    throw std::runtime_error("OpenSSL offers no SM4");
  }
  // A fresh initialisation per buffer, as Sm4Cipher makes it.
  return [cipher, ctx, cbc, decrypt](const Bytes& in, Bytes& out) {
    int written = 0;
    EVP_CipherInit_ex2(ctx.get(), cipher.get(), kKeyBytes, cbc ? kIvBytes : nullptr,
                       decrypt ? 0 : 1, nullptr);
    EVP_CIPHER_CTX_set_padding(ctx.get(), 0);
    EVP_CipherUpdate(ctx.get(), out.data(), &written, in.data(), static_cast<int>(in.size()));
  };
}

#if THRIFTUSB_BENCH_HAVE_GCRYPT
Run gcrypt(bool cbc, bool decrypt) {
  static const char* version = [] {
    const char* v = gcry_check_version(GCRYPT_VERSION);
    gcry_control(GCRYCTL_DISABLE_SECMEM, 0);
    gcry_control(GCRYCTL_INITIALIZATION_FINISHED, 0);
    return v;
  }();
  gcry_cipher_hd_t handle = nullptr;
  if (version == nullptr ||
      gcry_cipher_open(&handle, GCRY_CIPHER_SM4, cbc ? GCRY_CIPHER_MODE_CBC : GCRY_CIPHER_MODE_ECB,
                       0) != 0) {
    throw std::runtime_error("libgcrypt offers no SM4");
  }
  std::shared_ptr<gcry_cipher_handle> owner(handle, gcry_cipher_close);
  gcry_cipher_setkey(handle, kKeyBytes, kKey.size());
  return [owner, cbc, decrypt](const Bytes& in, Bytes& out) {
    if (cbc) {
      gcry_cipher_setiv(owner.get(), kIvBytes, kIv.size());
    }
    (decrypt ? gcry_cipher_decrypt : gcry_cipher_encrypt)(owner.get(), out.data(), in.size(),
                                                          in.data(), in.size());
  };
}
#endif

// Times @p run on @p in, once checked to give @p expected.
void cipherBench(benchmark::State& state, const Run& run, const Bytes& in, const Bytes& expected) {
  Bytes out(in.size() + 16);
  run(in, out);
  if (!std::equal(expected.begin(), expected.end(), out.begin())) {
    throw std::runtime_error("disagrees with Sm4Cipher");
  }
  for (auto _ : state) {
    run(in, out);
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * expected.size()));
}

} // namespace

void registerCipherBenchmarks(const Timing& timing) {
  benchmark::AddCustomContext("openssl", OpenSSL_version(OPENSSL_VERSION));
  for (bool cbc : {false, true}) {
    auto cipher = std::make_shared<Sm4Cipher>(
        kKey, cbc ? Sm4Cipher::Mode::CBC : Sm4Cipher::Mode::ECB, cbc ? kIv : "");
    for (size_t n : {size_t{1} << 10, size_t{64} << 10, size_t{1} << 20}) {
      Bytes plain(n);
      for (size_t i = 0; i < n; ++i) {
        plain[i] = static_cast<uint8_t>(i * 131 + 7);
      }
      Bytes sealed(n + 16);
      sm4Cipher(cipher, false)(plain, sealed);
      const Bytes whole(sealed.begin(), sealed.begin() + static_cast<long>(n));
      for (bool decrypt : {false, true}) {
        const std::string suffix = std::string(cbc ? "/CBC/" : "/ECB/") +
                                   (decrypt ? "decrypt/" : "encrypt/") + std::to_string(n);
        // Sm4Cipher pads; the direct calls work on the whole blocks.
        auto bench = [&](const std::string& implementation, Run run, bool padded) {
          const Bytes& sealedIn = padded ? sealed : whole;
          timing.repeated(
              add("sm4/" + implementation + suffix,
                  [run, in = decrypt ? sealedIn : plain, expected = decrypt ? plain : whole](
                      benchmark::State& state) { cipherBench(state, run, in, expected); }),
              kCipherSeconds);
        };
        bench("Sm4Cipher", sm4Cipher(cipher, decrypt), true);
        bench("OpenSSL", evp(cbc, decrypt), false);
#if THRIFTUSB_BENCH_HAVE_GCRYPT
        bench("libgcrypt", gcrypt(cbc, decrypt), false);
#endif
        if (cbc && !decrypt && n == 64 << 10) {
          // One object serving every thread, as it may.
          timing
              .repeated(
                  add("sm4/Sm4Cipher-shared" + suffix,
                      [run = sm4Cipher(cipher, false), plain, whole](benchmark::State& state) {
                        cipherBench(state, run, plain, whole);
                      }),
                  kCipherSeconds)
              ->Threads(1)
              ->Threads(2)
              ->UseRealTime();
        }
      }
    }
  }
#if THRIFTUSB_BENCH_HAVE_GCRYPT
  benchmark::AddCustomContext("libgcrypt", gcry_check_version(nullptr));
#endif
}

} // namespace bench
} // namespace thriftusb
