#ifndef THRIFTUSB_CIPHER_SM4CIPHER_H
#define THRIFTUSB_CIPHER_SM4CIPHER_H

#include <memory>
#include <string>

/**
 * SM4 block cipher (GB/T 32907-2016: 16-byte blocks, 128-bit key) with PKCS#7
 * padding, one whole buffer per call.
 *
 * This class lives in its own library, libsm4-cipher.so, with the interface of the
 * platform's cipher library, so that a program holding that library can link it in
 * place of this one. The cipher work is done by OpenSSL's SM4; a library built with
 * the CMake option THRIFTUSB_SM4_LIBGCRYPT deciphers CBC with libgcrypt's SM4
 * instead, which is several times faster there and gives the same bytes.
 *
 * Every call stands alone: encrypt() pads its input with 1 to 16 bytes (each holding
 * the pad count, a whole block when the input is already a multiple of 16 bytes)
 * and, in CBC mode, starts again from the initialisation vector given at
 * construction; decrypt() expects exactly what one encrypt() call produced.
 *
 * Both operations report through a return code and an in/out length, never by an
 * exception: on entry @p *outLen is the number of bytes available at @p out, on
 * return the number of bytes produced. Nothing is ever written beyond that room.
 *
 * Thread safety: encrypt() and decrypt() may be called on one object from any number
 * of threads at the same time, so one cipher can serve every transport of a server
 * or a host that talks to several devices at once. Each call ciphers with a context
 * of its own, taken from a small pool that grows to the most calls that ever ran at
 * once and is kept for the object's life. Construction and destruction must not
 * overlap any call. The key is wiped from memory when the object is destroyed.
 */
class Sm4Cipher {
public:
  /** Block cipher mode of operation. */
  enum class Mode {
    ECB, ///< each block enciphered on its own; no initialisation vector
    CBC  ///< cipher block chaining from a 16-byte initialisation vector
  };

  /**
   * Sets up the cipher.
   *
   * @param key   the 16-byte key
   * @param mode  the mode of operation
   * @param iv    the 16-byte initialisation vector for CBC; must be empty for ECB
   * @throws std::invalid_argument when the key or the initialisation vector has the
   *         wrong length for @p mode
   * @throws std::runtime_error when OpenSSL (or, for CBC in a library built with
   *         THRIFTUSB_SM4_LIBGCRYPT, libgcrypt) offers no SM4
   */
  Sm4Cipher(const std::string& key, Mode mode, const std::string& iv = "");

  /** Frees the cipher context and wipes the key and the initialisation vector. */
  ~Sm4Cipher();

  Sm4Cipher(const Sm4Cipher&) = delete;
  Sm4Cipher& operator=(const Sm4Cipher&) = delete;

  /**
   * Encrypts @p inLen bytes with PKCS#7 padding.
   *
   * The cipher text is (inLen & ~15) + 16 bytes long; that much room must be
   * available, or nothing is written. An empty input gives one block of padding.
   *
   * @param in      the plain text (may be null when @p inLen is 0)
   * @param inLen   its length, 0 or more
   * @param out     where the cipher text goes
   * @param outLen  on entry the room at @p out; on return the cipher-text length
   * @return 0 on success; -1, with @p *outLen set to 0, when an argument is null or
   *         negative, the room is too small or OpenSSL fails
   */
  int encrypt(const unsigned char* in, long inLen, unsigned char* out, long* outLen);

  /**
   * Decrypts what one encrypt() call produced and removes its padding.
   *
   * The room need only hold the plain text, which is 1 to 16 bytes shorter than the
   * cipher text; nothing is written past it. On failure whatever was already
   * written to @p out is zeroed again.
   *
   * @param in      the cipher text
   * @param inLen   its length: a positive multiple of 16
   * @param out     where the plain text goes
   * @param outLen  on entry the room at @p out; on return the plain-text length
   * @return 0 on success; -1, with @p *outLen set to 0, when an argument is null or
   *         negative, @p inLen is 0 or not a multiple of 16, the padding is not
   *         valid PKCS#7, the room is too small or OpenSSL fails
   */
  int decrypt(const unsigned char* in, long inLen, unsigned char* out, long* outLen);

private:
  struct State;
  std::unique_ptr<State> state_;
};

#endif
