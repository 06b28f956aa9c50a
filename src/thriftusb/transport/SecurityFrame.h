#ifndef THRIFTUSB_TRANSPORT_SECURITYFRAME_H
#define THRIFTUSB_TRANSPORT_SECURITYFRAME_H

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <memory>

#include <thrift/transport/TTransportException.h>

#include <thriftusb/util/ThriftCompat.h>

class Sm4Cipher;

namespace apache {
namespace thrift {
namespace transport {
namespace detail {

/**
 * The frame format and the buffer handling that TSecurityTransport and
 * TNonblockingSecurityTransport share. Not for applications.
 *
 * A frame is a 4-byte signed big-endian body length N followed by N body bytes: the
 * SM4 cipher text of the payload (encrypted frames) or the payload itself (plain
 * frames). Everything a transport buffers between two flushes is one payload.
 */
namespace securityframe {

/** Size of the length header in front of every frame body. */
constexpr uint32_t kHeaderSize = 4;

/** Size of a write buffer when a transport is made and after a flush gives it back. */
constexpr uint32_t kDefaultWriteBufferSize = 1024;

/** Largest number of bytes a transport buffers for one frame, header slot included. */
constexpr uint32_t kMaxBufferedBytes = 0x7FFFFFFF;

/**
 * Largest payload whose cipher-text room (n & ~15) + 16 still fits the signed 32-bit
 * header: 2^31 - 17 bytes. Larger payloads are refused while they are written.
 */
constexpr uint32_t kMaxEncryptedPayload = kMaxBufferedBytes - 16;

/** Largest value accepted as a maximum frame size: the header is signed. */
constexpr uint32_t kMaxFrameSizeLimit = 0x7FFFFFFF;

/** Default largest frame body accepted, as the runtime's TFramedTransport: 256 MiB. */
constexpr uint32_t kDefaultMaxFrameSize = 256 * 1024 * 1024;

/** Default reclaim threshold: no buffer is ever given back. */
constexpr uint32_t kDefaultBufReclaimThresh = 0xFFFFFFFF;

/** Room for the cipher text of an @p n byte payload: whole blocks plus one block. */
constexpr uint32_t cipherRoom(uint32_t n) {
  return (n & ~15u) + 16u;
}

/**
 * Largest write buffer (header slot included) an encrypted or a plain transport
 * fills. The write buffer never grows beyond it, so that even writes that fit the
 * buffer and bypass writeSlow() cannot exceed it.
 */
constexpr uint32_t maxBufferedBytes(bool encrypted) {
  return encrypted ? kHeaderSize + kMaxEncryptedPayload : kMaxBufferedBytes;
}

/** Stores @p n, most significant byte first, into @p out[0..3]. */
void encodeFrameSize(uint32_t n, uint8_t* out);

/** The signed 32-bit big-endian value of @p in[0..3]. */
int32_t decodeFrameSize(const uint8_t* in);

/**
 * Checks a decoded frame length, in this order: negative (UNKNOWN "Frame size has
 * negative value"), above @p maxFrameSize compared as signed 32-bit (CORRUPTED_DATA
 * "Received an oversized frame"), and for encrypted frames 0 or not a whole number
 * of blocks (CORRUPTED_DATA "Received an invalid encrypt size frame").
 *
 * @return the length as an unsigned count
 */
uint32_t checkFrameSize(int32_t n, uint32_t maxFrameSize, bool encrypted);

/**
 * Ends a frame whose header broke off after 1 to 3 bytes.
 *
 * @throws TTransportException END_OF_FILE "No more data to read after partial frame
 *         header.", always
 */
[[noreturn]] void failPartialHeader();

/**
 * Refuses settings no frame could work with: a missing cipher where @p encrypted, a
 * maximum frame size above 2^31 - 1 (it would read as negative and refuse every
 * frame).
 *
 * @throws std::invalid_argument naming @p owner
 */
void checkSettings(const char* owner, const Sm4Cipher* cipher, bool encrypted,
                   uint32_t maxFrameSize);

/**
 * Refuses a missing inner transport.
 *
 * @throws std::invalid_argument naming @p owner
 */
void checkTransport(const char* owner, const TTransport* transport);

/**
 * Runs the cipher's encrypt() on @p n payload bytes into @p out, which has room for
 * cipherRoom(n) bytes, and returns the low 32 bits of the reported length.
 */
uint32_t encrypt(Sm4Cipher& cipher, const uint8_t* payload, uint32_t n, uint8_t* out);

/**
 * Runs the cipher's decrypt() on the @p n body bytes into @p out of @p room bytes and
 * returns the low 32 bits of the reported payload length.
 */
uint32_t decrypt(Sm4Cipher& cipher, const uint8_t* body, uint32_t n, uint8_t* out,
                 uint32_t room);

/** Replaces @p buf by a new array of exactly @p size bytes (the old one is released). */
inline void reallocate(std::unique_ptr<uint8_t[]>& buf, uint32_t& bufSize, uint32_t size) {
  buf.reset(new uint8_t[size]);
  bufSize = size;
}

} // namespace securityframe

/**
 * The operations both framed transports perform alike, on their own members. Each
 * transport class declares this struct its friend; the transport is passed in as
 * @p t. The read pointers rBase_ and rBound_ and the write pointers wBase_ and
 * wBound_ are those of the runtime's TBufferBase.
 */
struct SecurityFrameOps {
  /**
   * Gives @p t a new, empty write buffer of the standard 1024 bytes (header slot
   * reserved): when it is made, and when a flush gives a larger one back.
   */
  template <class T>
  static void resetWriteBuffer(T& t) {
    securityframe::reallocate(t.wBuf_, t.wBufSize_, securityframe::kDefaultWriteBufferSize);
    t.setWriteBuffer(t.wBuf_.get() + securityframe::kHeaderSize,
                     t.wBufSize_ - securityframe::kHeaderSize);
  }

  /**
   * Buffers @p len bytes that do not fit the free room, doubling the write buffer as
   * often as needed (never beyond @p limit bytes).
   *
   * @throws TTransportException BAD_ARGS @p overLimitMessage when the buffered bytes,
   *         header slot included, would exceed @p limit; nothing changes then.
   */
  template <class T>
  static void writeSlow(T& t, const uint8_t* buf, uint32_t len, uint32_t limit,
                        const char* overLimitMessage) {
    const auto have = static_cast<uint32_t>(t.wBase_ - t.wBuf_.get());
    const uint64_t need = static_cast<uint64_t>(have) + len;
    if (need > limit) {
      throw TTransportException(TTransportException::BAD_ARGS, overLimitMessage);
    }
    uint64_t size = std::max<uint64_t>(t.wBufSize_, 1);
    while (size < need) {
      size *= 2;
    }
    size = std::min<uint64_t>(size, limit);

    std::unique_ptr<uint8_t[]> grown(new uint8_t[size]);
    std::memcpy(grown.get(), t.wBuf_.get(), have);
    t.wBuf_ = std::move(grown);
    t.wBufSize_ = static_cast<uint32_t>(size);
    t.setWriteBuffer(t.wBuf_.get() + have, t.wBufSize_ - have);
    std::memcpy(t.wBase_, buf, len);
    t.wBase_ += len;
  }

  /**
   * Sends what was buffered since the last flush as one frame (none when nothing
   * was), flushes the inner transport, then gives back buffers above the reclaim
   * threshold. The write buffer is emptied before anything is sent, so a throwing
   * inner write loses that frame's payload and the inner flush does not happen.
   */
  template <class T>
  static void flush(T& t, bool encrypted) {
    uint8_t* const payload = t.wBuf_.get() + securityframe::kHeaderSize;
    const auto n = static_cast<uint32_t>(t.wBase_ - payload);
    securityframe::encodeFrameSize(n, t.wBuf_.get());
    if (n > 0) {
      t.wBase_ = payload;
      if (encrypted) {
        sendEncrypted(t, payload, n);
      } else {
        // The header slot in front of the payload makes the frame: no copy.
        t.transport_->write(t.wBuf_.get(), securityframe::kHeaderSize + n);
      }
    }
    t.transport_->flush();

    if (t.wBufSize_ > t.bufReclaimThresh_) {
      resetWriteBuffer(t);
    }
    if (t.wCipherBufSize_ > t.bufReclaimThresh_) {
      t.wCipherBuf_.reset();
      t.wCipherBufSize_ = 0;
    }
  }

  /**
   * Reads a frame body of @p n bytes into rBuf_, which grows to exactly @p n bytes
   * when it is smaller. The read buffer is empty from here until the frame is served,
   * also when the inner read-all throws.
   */
  template <class T>
  static void readBody(T& t, uint32_t n) {
    t.setReadBuffer(nullptr, 0);
    if (n > t.rBufSize_) {
      securityframe::reallocate(t.rBuf_, t.rBufSize_, n);
    }
    if (n > 0) {
      t.transport_->readAll(t.rBuf_.get(), n);
    }
  }

  /**
   * Decrypts the @p n body bytes in rBuf_ into rPlainBuf_ (grown to exactly @p n
   * bytes when smaller; the whole capacity is offered to the cipher) and serves the
   * payload that the cipher reports.
   */
  template <class T>
  static void decryptBody(T& t, uint32_t n) {
    if (n > t.rPlainBufSize_) {
      securityframe::reallocate(t.rPlainBuf_, t.rPlainBufSize_, n);
    }
    const uint32_t length = securityframe::decrypt(*t.cipher_, t.rBuf_.get(), n,
                                                   t.rPlainBuf_.get(), t.rPlainBufSize_);
    serve(t, t.rPlainBuf_.get(), length);
  }

  /**
   * Makes @p length bytes at @p payload the unread bytes of the current frame. Every
   * frame starts a new message for the runtime's message-size accounting (Thrift
   * 0.14 and later), so that a connection is never cut off by the sum of its
   * traffic.
   */
  template <class T>
  static void serve(T& t, uint8_t* payload, uint32_t length) {
    t.setReadBuffer(payload, length);
    if constexpr (compat::kHasConfiguration) {
      t.resetConsumedMessageSize();
    }
  }

  /**
   * Slow path of read(): hands out what is left of the current frame without touching
   * the inner transport; only when nothing is left, takes in the next frame and hands
   * out its first bytes. Never mixes bytes of two frames.
   *
   * @return bytes delivered; 0 when readFrame() found no frame (or an empty one)
   */
  template <class T>
  static uint32_t readSlow(T& t, uint8_t* buf, uint32_t len) {
    // Whatever is left of the current frame, and nothing more: the next frame may
    // not have arrived and a read must not wait for it. Only an exhausted frame
    // makes way for the next one.
    if (t.rBase_ == t.rBound_ && !t.readFrame()) {
      return 0;
    }
    const uint32_t give = std::min(len, static_cast<uint32_t>(t.rBound_ - t.rBase_));
    if (give > 0) {
      std::memcpy(buf, t.rBase_, give);
      t.rBase_ += give;
    }
    return give;
  }

  /**
   * Bytes of the frame just read, its 4 header bytes included (the payload length
   * plus 4; 4 when no frame is buffered); then gives back rBuf_ when it exceeds the
   * reclaim threshold, dropping what is unread of the frame.
   *
   * @param frameStart  where the current frame's payload begins (rPlainBuf_ for
   *                    encrypted frames, rBuf_ for plain ones)
   */
  template <class T>
  static uint32_t readEnd(T& t, const uint8_t* frameStart) {
    const uint32_t bytes =
        securityframe::kHeaderSize +
        (t.rBound_ != nullptr ? static_cast<uint32_t>(t.rBound_ - frameStart) : 0);
    if (t.rBufSize_ > t.bufReclaimThresh_) {
      t.rBuf_.reset();
      t.rBufSize_ = 0;
      t.setReadBuffer(nullptr, 0);
    }
    return bytes;
  }

  /** Buffered payload bytes plus the 4-byte header slot. */
  template <class T>
  static uint32_t writeEnd(const T& t) {
    return static_cast<uint32_t>(t.wBase_ - t.wBuf_.get());
  }

private:
  // Encrypts the payload into wCipherBuf_ behind its header slot (growing it to
  // exactly room + 4 bytes) and sends header and cipher text with one write.
  template <class T>
  static void sendEncrypted(T& t, const uint8_t* payload, uint32_t n) {
    const uint32_t room = securityframe::cipherRoom(n);
    if (t.wCipherBufSize_ < room + securityframe::kHeaderSize) {
      securityframe::reallocate(t.wCipherBuf_, t.wCipherBufSize_,
                                room + securityframe::kHeaderSize);
    }
    uint8_t* const frame = t.wCipherBuf_.get();
    const uint32_t length =
        securityframe::encrypt(*t.cipher_, payload, n, frame + securityframe::kHeaderSize);
    securityframe::encodeFrameSize(length, frame);
    t.transport_->write(frame, securityframe::kHeaderSize + length);
  }
};

} // namespace detail
} // namespace transport
} // namespace thrift
} // namespace apache

#endif
