#include "BenchCipher.h"

#include <cstring>
#include <stdexcept>
#include <utility>

#include <openssl/crypto.h>
#include <openssl/evp.h>

#if THRIFTUSB_BENCH_HAVE_GCRYPT
#include <gcrypt.h>
#endif

#include <thriftusb/cipher/Sm4Cipher.h>

#include "BenchStacks.h"

namespace thriftusb {
namespace bench {

namespace {

constexpr size_t kBlock = 16;

std::vector<uint8_t> pattern(size_t n) {
  std::vector<uint8_t> bytes(n);
  for (size_t i = 0; i < n; ++i) {
    bytes[i] = static_cast<uint8_t>(i * 131 + 7);
  }
  return bytes;
}

// The library's cipher, as the framed transports call it: one call per buffer,
// PKCS#7 padding, room for one more block.
struct Sm4Buffers {
  std::shared_ptr<Sm4Cipher> cipher;
  std::vector<uint8_t> plain;
  std::vector<uint8_t> sealed;
  std::vector<uint8_t> scratch;
  long sealedLength = 0;
};

std::shared_ptr<Sm4Buffers> sm4Buffers(Sm4Cipher::Mode mode, size_t n) {
  auto b = std::make_shared<Sm4Buffers>();
  b->cipher = std::make_shared<Sm4Cipher>(benchKey(), mode,
                                          mode == Sm4Cipher::Mode::CBC ? benchIv() : "");
  b->plain = pattern(n);
  b->sealed.resize(n + kBlock);
  b->scratch.resize(n + kBlock);
  b->sealedLength = static_cast<long>(b->sealed.size());
  if (b->cipher->encrypt(b->plain.data(), static_cast<long>(n), b->sealed.data(),
                         &b->sealedLength) != 0) {
    throw std::runtime_error("Sm4Cipher::encrypt failed");
  }
  long length = static_cast<long>(b->scratch.size());
  if (b->cipher->decrypt(b->sealed.data(), b->sealedLength, b->scratch.data(), &length) != 0 ||
      length != static_cast<long>(n) || std::memcmp(b->scratch.data(), b->plain.data(), n) != 0) {
    throw std::runtime_error("Sm4Cipher::decrypt does not give back the plain text");
  }
  return b;
}

// OpenSSL's EVP SM4 on whole blocks, a fresh initialisation per buffer as
// Sm4Cipher makes it.
struct EvpState {
  EVP_CIPHER* cipher = nullptr;
  EVP_CIPHER_CTX* ctx = nullptr;
  ~EvpState() {
    EVP_CIPHER_CTX_free(ctx);
    EVP_CIPHER_free(cipher);
  }
};

#if THRIFTUSB_BENCH_HAVE_GCRYPT
struct GcryState {
  gcry_cipher_hd_t handle = nullptr;
  ~GcryState() { gcry_cipher_close(handle); }
};

void initGcrypt() {
  static const bool done = [] {
    if (gcry_check_version(GCRYPT_VERSION) == nullptr) {
      throw std::runtime_error("libgcrypt: version mismatch");
    }
    gcry_control(GCRYCTL_DISABLE_SECMEM, 0);
    gcry_control(GCRYCTL_INITIALIZATION_FINISHED, 0);
    return true;
  }();
  (void)done;
}
#endif

} // namespace

std::string gcryptVersion() {
#if THRIFTUSB_BENCH_HAVE_GCRYPT
  initGcrypt();
  return gcry_check_version(nullptr);
#else
  return "";
#endif
}

std::string opensslVersion() {
  return OpenSSL_version(OPENSSL_VERSION);
}

std::vector<CipherCase> cipherCases(const std::vector<size_t>& sizes) {
  std::vector<CipherCase> cases;
  const std::string key = benchKey();
  const std::string iv = benchIv();

  for (const char* modeName : {"ECB", "CBC"}) {
    const bool cbc = std::strcmp(modeName, "CBC") == 0;
    const Sm4Cipher::Mode mode = cbc ? Sm4Cipher::Mode::CBC : Sm4Cipher::Mode::ECB;
    for (size_t n : sizes) {
      auto b = sm4Buffers(mode, n);
      // Whole-block reference: the cipher text of the payload without its padding
      // block, which every implementation must reproduce.
      const std::vector<uint8_t> reference(b->sealed.begin(), b->sealed.begin() + n);
      // An output buffer and a copy of the input of a direct call.
      auto buffers = [&](bool decrypt) {
        const uint8_t* in = decrypt ? reference.data() : b->plain.data();
        return std::make_pair(std::make_shared<std::vector<uint8_t>>(n),
                              std::make_shared<std::vector<uint8_t>>(in, in + n));
      };
      // Adds a direct call once one run of it has reproduced Sm4Cipher's output.
      auto addChecked = [&](const std::string& implementation, bool decrypt,
                            const std::function<void()>& run, const std::vector<uint8_t>& out) {
        run();
        const std::vector<uint8_t>& expected = decrypt ? b->plain : reference;
        if (std::memcmp(out.data(), expected.data(), n) != 0) {
          throw std::runtime_error(implementation + " SM4 disagrees with Sm4Cipher");
        }
        cases.push_back({implementation, modeName, decrypt, n, run});
      };

      cases.push_back({"Sm4Cipher", modeName, false, n, [b, n] {
                         long length = static_cast<long>(b->scratch.size());
                         b->cipher->encrypt(b->plain.data(), static_cast<long>(n),
                                            b->scratch.data(), &length);
                       }});
      cases.push_back({"Sm4Cipher", modeName, true, n, [b] {
                         long length = static_cast<long>(b->scratch.size());
                         b->cipher->decrypt(b->sealed.data(), b->sealedLength, b->scratch.data(),
                                            &length);
                       }});

      for (bool decrypt : {false, true}) {
        auto evp = std::make_shared<EvpState>();
        evp->cipher = EVP_CIPHER_fetch(nullptr, cbc ? "SM4-CBC" : "SM4-ECB", nullptr);
        evp->ctx = EVP_CIPHER_CTX_new();
        if (evp->cipher == nullptr || evp->ctx == nullptr) {
          throw std::runtime_error("OpenSSL offers no SM4");
        }
        auto [out, input] = buffers(decrypt);
        auto run = [evp, out = out, input = input, key, iv, cbc, decrypt, n] {
          int written = 0;
          EVP_CipherInit_ex2(evp->ctx, evp->cipher, reinterpret_cast<const uint8_t*>(key.data()),
                             cbc ? reinterpret_cast<const uint8_t*>(iv.data()) : nullptr,
                             decrypt ? 0 : 1, nullptr);
          EVP_CIPHER_CTX_set_padding(evp->ctx, 0);
          EVP_CipherUpdate(evp->ctx, out->data(), &written, input->data(), static_cast<int>(n));
        };
        addChecked("OpenSSL EVP", decrypt, run, *out);
      }

#if THRIFTUSB_BENCH_HAVE_GCRYPT
      initGcrypt();
      for (bool decrypt : {false, true}) {
        auto gcry = std::make_shared<GcryState>();
        if (gcry_cipher_open(&gcry->handle, GCRY_CIPHER_SM4,
                             cbc ? GCRY_CIPHER_MODE_CBC : GCRY_CIPHER_MODE_ECB, 0) != 0 ||
            gcry_cipher_setkey(gcry->handle, key.data(), key.size()) != 0) {
          throw std::runtime_error("libgcrypt offers no SM4");
        }
        auto [out, input] = buffers(decrypt);
        auto run = [gcry, out = out, input = input, iv, cbc, decrypt, n] {
          if (cbc) {
            gcry_cipher_setiv(gcry->handle, iv.data(), iv.size());
          }
          if (decrypt) {
            gcry_cipher_decrypt(gcry->handle, out->data(), n, input->data(), n);
          } else {
            gcry_cipher_encrypt(gcry->handle, out->data(), n, input->data(), n);
          }
        };
        addChecked("libgcrypt", decrypt, run, *out);
      }
#endif
    }
  }
  return cases;
}

} // namespace bench
} // namespace thriftusb
