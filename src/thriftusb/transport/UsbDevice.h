#ifndef THRIFTUSB_TRANSPORT_USBDEVICE_H
#define THRIFTUSB_TRANSPORT_USBDEVICE_H

#include <chrono>
#include <cstdint>

namespace apache {
namespace thrift {
namespace transport {

/**
 * A raw, unframed, bidirectional byte channel to the other end of a USB link.
 *
 * A channel knows nothing of Thrift: it opens, moves bytes in blocks no larger than
 * its block sizes, and reports through its return values what happened. It never
 * throws; pacing, time-outs, threads and exceptions belong to the transport that
 * drives it. Every implementation keeps to these conventions:
 *
 * - open(), close(), flush(): 0 on success, -1 on failure. open() on an open channel
 *   and close() on a closed one return 0 and do nothing.
 * - read(), write(): greater than 0 for the bytes moved; 0 when nothing can move now
 *   (no data yet, device busy, call interrupted by a signal) and the caller may try
 *   again; negative when the channel is broken or the length exceeds the block size
 *   (refused without any I/O).
 *
 * One thread may read while another writes. Channels are shared through
 * std::shared_ptr<UsbDevice>.
 */
class UsbDevice {
public:
  /**
   * @param nonblocking        true when read() and write() return promptly with 0 when
   *                           nothing can move, so a transport may call them on its
   *                           caller's thread; false when they may block, so a
   *                           transport calls them from threads it can interrupt
   * @param maxReadBlockSize   largest length one read() accepts
   * @param maxWriteBlockSize  largest length one write() accepts
   */
  UsbDevice(bool nonblocking, unsigned int maxReadBlockSize, unsigned int maxWriteBlockSize);

  virtual ~UsbDevice() {}

  UsbDevice(const UsbDevice&) = delete;
  UsbDevice& operator=(const UsbDevice&) = delete;

  /** Makes the channel usable. @return 0, or -1 on failure */
  virtual int open() = 0;

  /** Releases the channel; isOpen() is false afterwards. @return 0, or -1 */
  virtual int close() = 0;

  /** @return true while the channel is usable */
  virtual bool isOpen() = 0;

  /** Pushes written bytes towards the device. @return 0, or -1 */
  virtual int flush() = 0;

  /**
   * Reads at most @p len bytes into @p buf.
   * @param buf  where the bytes go; room for @p len bytes
   * @param len  the most bytes to take
   * @return bytes read (> 0), 0 to try again, negative when broken or @p len is above
   *         the read block size
   */
  virtual int64_t read(unsigned char* buf, unsigned int len) = 0;

  /**
   * Writes at most @p len bytes from @p buf; a short count is returned as it is.
   * @param buf  the bytes to send
   * @param len  how many of them
   * @return bytes written (> 0), 0 to try again, negative when broken or @p len is
   *         above the write block size
   */
  virtual int64_t write(const unsigned char* buf, unsigned int len) = 0;

  /** Hook to abandon I/O in progress. */
  virtual void cancelIo() = 0;

  /** Hook to abandon I/O in progress; the argument is for the implementation to use. */
  virtual void cancelIo(unsigned long) = 0;

  /**
   * Waits until read() may find bytes, for at most @p limit. A transport in waking
   * mode calls it after a read() of a non-blocking channel gave 0. This default sleeps
   * @p limit, as a polling transport does; a channel that can be told when bytes
   * arrive ends the wait then.
   * @param limit  the longest the wait lasts
   */
  virtual void waitReadable(std::chrono::microseconds limit);

  /**
   * As waitReadable(), for a write() that gave 0: until write() may take bytes.
   * @param limit  the longest the wait lasts
   */
  virtual void waitWritable(std::chrono::microseconds limit);

  /** Whether read() and write() return promptly (see the constructor). */
  const bool nonblocking_;
  /** Largest length one read() accepts. */
  const uint32_t maxReadBlockSize_;
  /** Largest length one write() accepts. */
  const uint32_t maxWriteBlockSize_;
};

} // namespace transport
} // namespace thrift
} // namespace apache

#endif
