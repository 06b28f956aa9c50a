#ifndef THRIFTUSB_TRANSPORT_TNONBLOCKINGSECURITYTRANSPORT_H
#define THRIFTUSB_TRANSPORT_TNONBLOCKINGSECURITYTRANSPORT_H

#include <cstdint>
#include <memory>
#include <string>

#include <thrift/transport/TBufferTransports.h>
#include <thrift/transport/TTransport.h>
#include <thrift/transport/TVirtualTransport.h>

#include <thriftusb/cipher/Sm4Cipher.h>
#include <thriftusb/transport/SecurityFrame.h>
#include <thriftusb/transport/TNonblockingUsbSocket.h>
#include <thriftusb/util/ThriftCompat.h>

namespace apache {
namespace thrift {
namespace transport {

/**
 * Framed transport, encrypted with SM4 or plain, for an inner transport whose read()
 * returns at once with whatever has arrived, possibly nothing (TNonblockingUsbSocket).
 *
 * All bytes written between two flushes go out at the flush as one frame: a 4-byte
 * big-endian length, then the cipher text of those bytes, or the bytes themselves
 * when encryption is off. Plain frames are those of the runtime's TFramedTransport,
 * sent straight from the write buffer and served straight from the read buffer.
 *
 * While waiting for a frame, a read polls the inner transport every 10 ms and gives
 * up after 300 s with TIMED_OUT "readFrame timeout."; it never reports that there
 * is no frame. Once a header has begun, the rest of the frame is read with the inner
 * readAll(), bounded by the inner transport's own time-out.
 *
 * Reads and writes that fit the buffers take the runtime's inline fast paths; only
 * frame boundaries reach the slow paths below. Destruction neither flushes nor
 * closes the inner transport: bytes not flushed are lost.
 */
class TNonblockingSecurityTransport
  : public TVirtualTransport<TNonblockingSecurityTransport, TBufferBase> {
public:
  /**
   * Wraps @p transport. Opens nothing.
   *
   * @param transport         the inner transport, shared
   * @param cipher            the cipher for both directions, shared; may be null
   *                          when @p encrypted is false (it is never called then)
   * @param encrypted         true: frames are encrypted; false: plain frames. Both
   *                          ends of a link must agree.
   * @param bufReclaimThresh  a buffer larger than this is given back after a flush
   *                          (write side) or a readEnd() (read side); the default
   *                          keeps every buffer
   * @param maxFrameSize      the largest frame body accepted, at most 2^31 - 1;
   *                          default 256 MiB
   * @throws std::invalid_argument when @p transport is null, @p cipher is null while
   *         @p encrypted is true, or @p maxFrameSize exceeds 2^31 - 1
   */
  TNonblockingSecurityTransport(
      std::shared_ptr<TTransport> transport, std::shared_ptr<Sm4Cipher> cipher,
      bool encrypted = true,
      uint32_t bufReclaimThresh = detail::securityframe::kDefaultBufReclaimThresh,
      uint32_t maxFrameSize = detail::securityframe::kDefaultMaxFrameSize);

  /** Releases the buffers; does not flush or close the inner transport. */
  ~TNonblockingSecurityTransport() override;

  /**
   * Chooses how the wait for a frame paces itself: WaitMode::Polling, the default,
   * asks the inner transport every 10 ms; WaitMode::Waking waits for the inner
   * transport to announce bytes, at most 10 ms at a time, where it can (a
   * TNonblockingUsbSocket can), and polls otherwise. Over a TNonblockingUsbSocket in
   * waking mode the frame wait wakes whatever is set here, so a server switched to
   * waking mode wakes in the frame transports its factory puts on top.
   * @param mode  the mode of the frame wait from now on
   */
  void setWaitMode(WaitMode mode) { waitMode_ = mode; }

  /** @return the mode set by setWaitMode(), WaitMode::Polling by default */
  WaitMode getWaitMode() const { return waitMode_; }

  TNonblockingSecurityTransport(const TNonblockingSecurityTransport&) = delete;
  TNonblockingSecurityTransport& operator=(const TNonblockingSecurityTransport&) = delete;

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
   * Sends the bytes written since the last flush as one frame, encrypted or plain, if
   * there are any, and flushes the inner transport in any case. The write buffer is
   * empty afterwards, also when the inner write throws (that frame is lost then).
   * Then gives back write buffers larger than the reclaim threshold.
   */
  void flush() override;

  /**
   * Ends the read of a message: gives back the body read buffer if it exceeds the
   * reclaim threshold, dropping what is unread of the frame.
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
   * is, waits for the next frame and returns up to @p len of its bytes.
   *
   * @param buf  where the bytes go
   * @param len  the most bytes to deliver
   * @return bytes delivered; 0 only for an empty plain frame
   * @throws TTransportException as readFrame()
   */
  uint32_t readSlow(uint8_t* buf, uint32_t len) override;

  /**
   * Slow path of write(): grows the write buffer by doubling and buffers @p len bytes.
   *
   * @param buf  the bytes to buffer
   * @param len  how many of them
   * @throws TTransportException BAD_ARGS "Attempted to write over 2 GB to
   *         TNonblockingSecurityTransport." when the frame would exceed 2^31 - 1
   *         bytes; the bytes buffered before stay.
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
   * Takes in one frame: waits for the header, polling every 10 ms, then checks it,
   * reads the body and, in encrypted mode, decrypts it.
   *
   * @return true; a frame that does not come ends in an exception
   * @throws TTransportException TIMED_OUT "readFrame timeout." when no header byte
   *         has come for 300 s, END_OF_FILE "No more data to read after partial frame
   *         header.", UNKNOWN "Frame size has negative value", CORRUPTED_DATA
   *         "Received an oversized frame" or (encrypted mode) "Received an invalid
   *         encrypt size frame"; the body is not read after a failed check.
   */
  virtual bool readFrame();

  /**
   * Diagnostic hook for bytes as ASCII and hex; does nothing.
   * @param begin  first byte
   * @param end    one past the last byte
   */
  void printAH(unsigned char* begin, unsigned char* end);

  /**
   * Diagnostic hook for a plain frame body; does nothing.
   * @param begin  first byte
   * @param end    one past the last byte
   */
  void printAscii(unsigned char* begin, unsigned char* end);

  /**
   * Diagnostic hook for cipher text and decrypted payloads; does nothing.
   * @param begin  first byte
   * @param end    one past the last byte
   */
  void printHex(unsigned char* begin, unsigned char* end);

  /** Read-all with the runtime's fast path over the buffered bytes. */
  using TBufferBase::readAll;

protected:
  friend struct detail::SecurityFrameOps;

  /** The inner transport. */
  std::shared_ptr<TTransport> transport_;
  /** The cipher for both directions; never called in plain mode. */
  std::shared_ptr<Sm4Cipher> cipher_;
  /** Capacity of rBuf_. */
  uint32_t rBufSize_;
  /** Capacity of wBuf_. */
  uint32_t wBufSize_;
  /** Capacity of wCipherBuf_ (stays 0 in plain mode). */
  uint32_t wCipherBufSize_;
  /** Capacity of rPlainBuf_ (stays 0 in plain mode). */
  uint32_t rPlainBufSize_;
  /** Body of the last frame received, as it came; plain frames are served from it. */
  std::unique_ptr<uint8_t[]> rBuf_;
  /** Outgoing payload behind a 4-byte header slot; plain frames are sent from it. */
  std::unique_ptr<uint8_t[]> wBuf_;
  /** Outgoing encrypted frame: 4-byte header, then the cipher text. */
  std::unique_ptr<uint8_t[]> wCipherBuf_;
  /** Decrypted payload of the current encrypted frame. */
  std::unique_ptr<uint8_t[]> rPlainBuf_;
  /** Buffers larger than this are given back after a flush or a readEnd(). */
  uint32_t bufReclaimThresh_;
  /** Largest frame body accepted (compared as signed 32-bit). */
  uint32_t maxFrameSize_;
  /** Whether frames are encrypted; fixed at construction. */
  bool encrypted_;

private:
  TNonblockingUsbSocket* wakingInner() const;

  WaitMode waitMode_ = WaitMode::Polling;
};

} // namespace transport
} // namespace thrift
} // namespace apache

#endif
