#include <thriftusb/cipher/Sm4Cipher.h>

#include <algorithm>
#include <climits>
#include <cstring>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <vector>

#include <openssl/crypto.h>
#include <openssl/err.h>
#include <openssl/evp.h>

#if THRIFTUSB_SM4_LIBGCRYPT
#include <gcrypt.h>
#endif

namespace {

// Bytes in a key, an initialisation vector and a cipher block.
constexpr long kBlock = 16;

// EVP counts lengths in int. Longer buffers go through in pieces of this size, a
// multiple of the block size, so that only the last piece can end in a partial block.
constexpr long kMaxPiece = 1L << 30;

#if THRIFTUSB_SM4_LIBGCRYPT
// libgcrypt must be initialised once per process before its first use. When the
// application has not done so itself, this library does, without secure memory,
// which it does not use.
void initLibgcrypt() {
  static std::once_flag once;
  std::call_once(once, [] {
    if (gcry_control(GCRYCTL_ANY_INITIALIZATION_P) == 0) {
      gcry_check_version(GCRYPT_VERSION);
      gcry_control(GCRYCTL_INITIALIZATION_FINISHED, 0);
    }
  });
}
#endif

} // namespace

namespace {

// What one call ciphers with: an OpenSSL context and, with libgcrypt, a CBC handle
// keyed once. A call has one to itself for its whole length; see Sm4Cipher::State.
struct Worker {
  EVP_CIPHER_CTX* ctx = nullptr;
#if THRIFTUSB_SM4_LIBGCRYPT
  // CBC decryption runs on libgcrypt, whose SM4 deciphers many blocks at once with
  // vector instructions (CBC decryption, unlike encryption, has no chain to wait
  // for). Encryption and ECB stay with OpenSSL, which is faster for them.
  gcry_cipher_hd_t cbcDecrypt = nullptr;
#endif

  Worker() = default;
  Worker(const Worker&) = delete;
  Worker& operator=(const Worker&) = delete;

  ~Worker() {
    // Freeing the context and closing the handle wipe the key schedules they hold.
    EVP_CIPHER_CTX_free(ctx);
#if THRIFTUSB_SM4_LIBGCRYPT
    gcry_cipher_close(cbcDecrypt);
#endif
  }
};

} // namespace

// The key, the mode and the algorithm are fixed at construction and only read later.
// Calls may come from several threads at once (every transport made by one factory
// shares its cipher), so each call borrows a worker of its own from an idle list and
// puts it back afterwards: the lock covers only that hand-over, never the ciphering,
// and there are never more workers than calls that once ran at the same time.
struct Sm4Cipher::State {
  Mode mode = Mode::ECB;
  unsigned char key[kBlock] = {};
  unsigned char iv[kBlock] = {};
  EVP_CIPHER* cipher = nullptr;
  std::mutex idleMutex;
  std::vector<std::unique_ptr<Worker>> idle;

  State() = default;
  State(const State&) = delete;
  State& operator=(const State&) = delete;

  ~State() {
    idle.clear();
    EVP_CIPHER_free(cipher);
    OPENSSL_cleanse(key, sizeof key);
    OPENSSL_cleanse(iv, sizeof iv);
  }

  // A new worker with the key set up; null when a library cannot give one.
  std::unique_ptr<Worker> makeWorker() const {
    auto worker = std::make_unique<Worker>();
    worker->ctx = EVP_CIPHER_CTX_new();
    if (worker->ctx == nullptr) {
      return nullptr;
    }
#if THRIFTUSB_SM4_LIBGCRYPT
    if (mode == Mode::CBC &&
        (gcry_cipher_open(&worker->cbcDecrypt, GCRY_CIPHER_SM4, GCRY_CIPHER_MODE_CBC, 0) != 0 ||
         gcry_cipher_setkey(worker->cbcDecrypt, key, sizeof key) != 0)) {
      return nullptr;
    }
#endif
    return worker;
  }

  // An idle worker, or a new one when all are busy; null when none can be made.
  std::unique_ptr<Worker> borrow() {
    {
      std::lock_guard<std::mutex> lock(idleMutex);
      if (!idle.empty()) {
        auto worker = std::move(idle.back());
        idle.pop_back();
        return worker;
      }
    }
    return makeWorker();
  }

  void giveBack(std::unique_ptr<Worker> worker) {
    std::lock_guard<std::mutex> lock(idleMutex);
    idle.push_back(std::move(worker));
  }

  // Starts a new message: every call is ciphered on its own, so CBC restarts from
  // the initialisation vector each time.
  bool begin(Worker& w, int enc, int padding) const {
    return EVP_CipherInit_ex2(w.ctx, cipher, key, mode == Mode::CBC ? iv : nullptr, enc,
                              nullptr) == 1 &&
           EVP_CIPHER_CTX_set_padding(w.ctx, padding) == 1;
  }

  // Feeds @p len bytes through the context; adds the bytes written at @p out to
  // @p produced.
  static bool update(Worker& w, const unsigned char* in, long len, unsigned char* out,
                     long& produced) {
    while (len > 0) {
      const int piece = static_cast<int>(std::min(len, kMaxPiece));
      int written = 0;
      if (EVP_CipherUpdate(w.ctx, out + produced, &written, in, piece) != 1) {
        return false;
      }
      produced += written;
      in += piece;
      len -= piece;
    }
    return true;
  }

  // Enciphers a whole message with padding into @p out, adding to @p produced.
  bool encipher(Worker& w, const unsigned char* in, long len, unsigned char* out,
                long& produced) const {
    int last = 0;
    if (!begin(w, 1, 1) || !update(w, in, len, out, produced) ||
        EVP_CipherFinal_ex(w.ctx, out + produced, &last) != 1) {
      return false;
    }
    produced += last;
    return true;
  }

  // Deciphers a whole message without padding: the first @p leading bytes of @p in
  // straight to @p out, adding them to @p produced, and the last block, which
  // carries the padding, to @p lastBlock.
  bool decipher(Worker& w, const unsigned char* in, long leading, unsigned char* out,
                long& produced, unsigned char* lastBlock) const {
#if THRIFTUSB_SM4_LIBGCRYPT
    if (w.cbcDecrypt != nullptr) {
      if (gcry_cipher_setiv(w.cbcDecrypt, iv, sizeof iv) != 0) {
        return false;
      }
      if (leading > 0) {
        if (gcry_cipher_decrypt(w.cbcDecrypt, out, static_cast<size_t>(leading), in,
                                static_cast<size_t>(leading)) != 0) {
          return false;
        }
        produced = leading;
      }
      // The handle carries the chain on from the last block deciphered above.
      return gcry_cipher_decrypt(w.cbcDecrypt, lastBlock, kBlock, in + leading, kBlock) == 0;
    }
#endif
    long lastProduced = 0;
    return begin(w, 0, 0) && update(w, in, leading, out, produced) && produced == leading &&
           update(w, in + leading, kBlock, lastBlock, lastProduced) && lastProduced == kBlock;
  }

  // A worker borrowed for the length of one call; null when none could be made.
  class Lease {
  public:
    explicit Lease(State& state) : state_(state), worker_(state.borrow()) {}
    ~Lease() {
      if (worker_) {
        state_.giveBack(std::move(worker_));
      }
    }
    Lease(const Lease&) = delete;
    Lease& operator=(const Lease&) = delete;

    Worker* get() const { return worker_.get(); }

  private:
    State& state_;
    std::unique_ptr<Worker> worker_;
  };
};

namespace {

// Ends a failed call: zeroes the @p written bytes already put at @p out, drops the
// errors OpenSSL queued for this thread and reports nothing produced.
int fail(unsigned char* out, long written, long* outLen) {
  if (written > 0) {
    OPENSSL_cleanse(out, static_cast<size_t>(written));
  }
  ERR_clear_error();
  if (outLen != nullptr) {
    *outLen = 0;
  }
  return -1;
}

} // namespace

Sm4Cipher::Sm4Cipher(const std::string& key, Mode mode, const std::string& iv) {
  if (key.size() != static_cast<size_t>(kBlock)) {
    throw std::invalid_argument("Sm4Cipher: the key must be 16 bytes long, not " +
                                std::to_string(key.size()));
  }
  const char* algorithm = nullptr;
  switch (mode) {
  case Mode::ECB:
    if (!iv.empty()) {
      throw std::invalid_argument(
          "Sm4Cipher: ECB takes no initialisation vector, but one of " +
          std::to_string(iv.size()) + " bytes was given");
    }
    algorithm = "SM4-ECB";
    break;
  case Mode::CBC:
    if (iv.size() != static_cast<size_t>(kBlock)) {
      throw std::invalid_argument(
          "Sm4Cipher: CBC needs an initialisation vector of 16 bytes, not " +
          std::to_string(iv.size()));
    }
    algorithm = "SM4-CBC";
    break;
  default:
    throw std::invalid_argument("Sm4Cipher: unknown mode " +
                                std::to_string(static_cast<int>(mode)));
  }

  state_.reset(new State);
  state_->mode = mode;
  std::memcpy(state_->key, key.data(), sizeof state_->key);
  if (mode == Mode::CBC) {
    std::memcpy(state_->iv, iv.data(), sizeof state_->iv);
  }
  state_->cipher = EVP_CIPHER_fetch(nullptr, algorithm, nullptr);
  if (state_->cipher == nullptr) {
    ERR_clear_error();
    throw std::runtime_error(std::string("Sm4Cipher: OpenSSL provides no ") + algorithm);
  }
#if THRIFTUSB_SM4_LIBGCRYPT
  if (mode == Mode::CBC) {
    initLibgcrypt();
  }
#endif
  // The first worker, made now so that a library that cannot cipher fails here.
  auto worker = state_->makeWorker();
  if (!worker) {
    ERR_clear_error();
    throw std::runtime_error("Sm4Cipher: cannot set up an SM4 cipher context");
  }
  state_->idle.push_back(std::move(worker));
}

Sm4Cipher::~Sm4Cipher() = default;

int Sm4Cipher::encrypt(const unsigned char* in, long inLen, unsigned char* out, long* outLen) {
  // The largest input whose padded length still fits a long.
  constexpr long kMaxInput = LONG_MAX - kBlock;
  if (outLen == nullptr || out == nullptr || inLen < 0 || inLen > kMaxInput ||
      (in == nullptr && inLen != 0)) {
    return fail(out, 0, outLen);
  }
  const long room = *outLen;
  // PKCS#7 always adds 1 to 16 bytes: the whole blocks of the input plus one more.
  const long required = (inLen & ~(kBlock - 1)) + kBlock;
  if (room < required) {
    return fail(out, 0, outLen);
  }

  const State::Lease worker(*state_);
  long produced = 0;
  if (worker.get() == nullptr || !state_->encipher(*worker.get(), in, inLen, out, produced)) {
    return fail(out, produced, outLen);
  }
  if (produced != required) {
    return fail(out, produced, outLen);
  }
  *outLen = produced;
  return 0;
}

int Sm4Cipher::decrypt(const unsigned char* in, long inLen, unsigned char* out, long* outLen) {
  if (outLen == nullptr || out == nullptr || in == nullptr || inLen <= 0 ||
      inLen % kBlock != 0 || *outLen < 0) {
    return fail(out, 0, outLen);
  }
  const long room = *outLen;
  // All blocks but the last hold plain text only and are deciphered straight into
  // the caller's buffer. The last one carries the padding and goes to a scratch
  // block first, so that neither its padding nor bytes beyond the room are written
  // before the padding has been checked.
  const long leading = inLen - kBlock;
  if (room < leading) {
    return fail(out, 0, outLen);
  }

  long produced = 0;
  unsigned char lastBlock[kBlock];
  // Padding is checked here rather than by EVP, which would write the whole last
  // block to the output before looking at it.
  const State::Lease worker(*state_);
  if (worker.get() == nullptr ||
      !state_->decipher(*worker.get(), in, leading, out, produced, lastBlock)) {
    OPENSSL_cleanse(lastBlock, sizeof lastBlock);
    return fail(out, produced, outLen);
  }

  // PKCS#7: the last byte p is 1 to 16 and the last p bytes all hold p. Every byte
  // is looked at whatever the outcome, so the time taken does not tell where the
  // padding went wrong.
  const unsigned pad = lastBlock[kBlock - 1];
  unsigned bad = static_cast<unsigned>(pad == 0) | static_cast<unsigned>(pad > kBlock);
  for (long i = 0; i < kBlock; ++i) {
    const unsigned inPadding = static_cast<unsigned>(i >= kBlock - static_cast<long>(pad));
    bad |= inPadding & static_cast<unsigned>(lastBlock[i] != pad);
  }
  const long tail = bad != 0 ? 0 : kBlock - static_cast<long>(pad);
  if (bad != 0 || room - leading < tail) {
    OPENSSL_cleanse(lastBlock, sizeof lastBlock);
    return fail(out, produced, outLen);
  }

  std::memcpy(out + leading, lastBlock, static_cast<size_t>(tail));
  OPENSSL_cleanse(lastBlock, sizeof lastBlock);
  *outLen = leading + tail;
  return 0;
}
