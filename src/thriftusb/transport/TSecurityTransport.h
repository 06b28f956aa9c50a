#ifndef THRIFTUSB_TRANSPORT_TSECURITYTRANSPORT_H
#define THRIFTUSB_TRANSPORT_TSECURITYTRANSPORT_H

#include <cstdint>
#include <memory>
#include <string>

#include <thrift/transport/TBufferTransports.h>
#include <thrift/transport/TTransport.h>
#include <thrift/transport/TVirtualTransport.h>

#include <thriftusb/cipher/Sm4Cipher.h>
#include <thriftusb/transport/SecurityFrame.h>
#include <thriftusb/util/ThriftCompat.h>

namespace apache {
namespace thrift {
namespace transport {

/**
 * Framed transport that encrypts every frame with SM4.
 *
 * All bytes written between two flushes go out at the flush as one frame: a 4-byte
 * big-endian length, then the cipher text of those bytes. Reads take in one whole
 * frame at a time, decrypt it and are served from the plain bytes.
 *
 * Made for an inner transport whose read() waits for data (TUSBSocket): a read on
 * this transport blocks as long as the inner one does, and when the inner read()
 * reports the end of data before a frame starts, a read here returns 0 bytes.
 * TNonblockingSecurityTransport is the variant for an inner transport whose read()
 * returns at once.
 *
 * Reads and writes that fit the buffers take the runtime's inline fast paths; only
 * frame boundaries reach the slow paths below. Destruction neither flushes nor
 * closes the inner transport: bytes not flushed are lost.
 */
class TSecurityTransport : public TVirtualTransport<TSecurityTransport, TBufferBase> {
public:
  /**
   * Wraps @p transport. Opens nothing.
   *
   * @param transport         the inner transport, shared
   * @param cipher            the cipher for both directions, shared; both ends need
   *                          one made with the same key and mode
   * @param bufReclaimThresh  a buffer larger than this is given back after a flush
   *                          (write side) or a readEnd() (read side); the default
   *                          keeps every buffer
   * @param maxFrameSize      the largest frame body accepted, at most 2^31 - 1;
   *                          default 256 MiB
   * @throws std::invalid_argument when @p transport or @p cipher is null or
   *         @p maxFrameSize exceeds 2^31 - 1
   */
  TSecurityTransport(std::shared_ptr<TTransport> transport, std::shared_ptr<Sm4Cipher> cipher,
                     uint32_t bufReclaimThresh = detail::securityframe::kDefaultBufReclaimThresh,
                     uint32_t maxFrameSize = detail::securityframe::kDefaultMaxFrameSize);

  /** Releases the buffers; does not flush or close the inner transport. */
  ~TSecurityTransport() override;

  TSecurityTransport(const TSecurityTransport&) = delete;
  TSecurityTransport& operator=(const TSecurityTransport&) = delete;

  /** @return whether the inner transport is open */
  bool isOpen() const override;

  /**
   * @return true when unread bytes of a frame are buffered; otherwise the inner
   *         transport's peek()
   */
  bool peek() override;

  /** Opens the inner transport. */
  void open() override;

  /** Flushes (sending what is buffered), then closes the inner transport. */
  void close() override;

  /**
   * Sends the bytes written since the last flush as one encrypted frame, if there are
   * any, and flushes the inner transport in any case. The write buffer is empty
   * afterwards, also when the inner write throws (that frame is lost then). Then
   * gives back write buffers larger than the reclaim threshold.
   */
  void flush() override;

  /**
   * Ends the read of a message: gives back the cipher-text read buffer if it exceeds
   * the reclaim threshold, dropping what is unread of the frame.
   *
   * @return the bytes of the frame just read, header included (payload length + 4)
   */
  uint32_t readEnd() override;

  /** @return the bytes buffered for the next frame plus the 4-byte header slot */
  uint32_t writeEnd() override;

  /** @return the inner transport's origin */
  const std::string getOrigin() const override;

  /**
   * Slow path of read(): returns what is left of the current frame, or, when nothing
   * is, takes in the next frame and returns up to @p len of its bytes.
   *
   * @param buf  where the bytes go
   * @param len  the most bytes to deliver
   * @return bytes delivered; 0 when the inner transport has no next frame
   */
  uint32_t readSlow(uint8_t* buf, uint32_t len) override;

  /**
   * Slow path of write(): grows the write buffer by doubling and buffers @p len bytes.
   *
   * @param buf  the bytes to buffer
   * @param len  how many of them
   * @throws TTransportException BAD_ARGS "Attempted to write over 2 GB to
   *         TSecurityTransport." when the frame would exceed 2^31 - 1 bytes; the
   *         bytes buffered before stay.
   */
  void writeSlow(const uint8_t* buf, uint32_t len) override;

  /**
   * Nothing can be borrowed beyond the bytes buffered.
   * @param buf  not used
   * @param len  not used
   * @return null, always
   */
  const uint8_t* borrowSlow(uint8_t* buf, uint32_t* len) override;

  /**
   * Takes in one frame: header, checks, body, decryption.
   *
   * @return false when the inner read() gives 0 bytes before the first header byte
   * @throws TTransportException END_OF_FILE "No more data to read after partial
   *         frame header.", UNKNOWN "Frame size has negative value", CORRUPTED_DATA
   *         "Received an oversized frame" or "Received an invalid encrypt size frame";
   *         the body is not read after a failed check.
   */
  virtual bool readFrame();

  /** Read-all with the runtime's fast path over the buffered bytes. */
  using TBufferBase::readAll;

protected:
  friend struct detail::SecurityFrameOps;

  /** The inner transport. */
  std::shared_ptr<TTransport> transport_;
  /** The cipher for both directions. */
  std::shared_ptr<Sm4Cipher> cipher_;
  /** Capacity of rBuf_. */
  uint32_t rBufSize_;
  /** Capacity of wBuf_. */
  uint32_t wBufSize_;
  /** Capacity of wCipherBuf_. */
  uint32_t wCipherBufSize_;
  /** Capacity of rPlainBuf_. */
  uint32_t rPlainBufSize_;
  /** Body of the last frame received, as it came (cipher text). */
  std::unique_ptr<uint8_t[]> rBuf_;
  /** Outgoing payload behind a 4-byte header slot. */
  std::unique_ptr<uint8_t[]> wBuf_;
  /** Outgoing frame: 4-byte header, then the cipher text. */
  std::unique_ptr<uint8_t[]> wCipherBuf_;
  /** Decrypted payload of the current frame. */
  std::unique_ptr<uint8_t[]> rPlainBuf_;
  /** Buffers larger than this are given back after a flush or a readEnd(). */
  uint32_t bufReclaimThresh_;
  /** Largest frame body accepted (compared as signed 32-bit). */
  uint32_t maxFrameSize_;
};

} // namespace transport
} // namespace thrift
} // namespace apache

#endif
