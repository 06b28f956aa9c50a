#ifndef THRIFTUSB_TRANSPORT_TCUPSDEVICE_H
#define THRIFTUSB_TRANSPORT_TCUPSDEVICE_H

#include <atomic>
#include <cstdint>

#include <thriftusb/transport/UsbDevice.h>

namespace apache {
namespace thrift {
namespace transport {

/**
 * Device channel for a program that CUPS runs as a filter inside a print job: the
 * bytes written go to standard output, on with the job towards the printer, and the
 * bytes the printer sends back are read from the CUPS back channel (descriptor 3)
 * with libcups' cupsBackChannelRead().
 *
 * The channel opens and closes nothing: both streams belong to the process, and
 * open() and close() only switch a flag. read() never waits: it polls the back
 * channel and gives 0 when nothing is waiting, at end of data, and when the back
 * channel is missing or unusable. write() puts the bytes into standard output's
 * buffer, where they stay until flush() (or until the buffer fills): a transport
 * must flush the channel for them to leave, which TNonblockingUsbSocket does only
 * when this channel is made with nonblocking true.
 *
 * No log lines, no exceptions, no lock: read() and write() touch different streams,
 * and the standard I/O stream's own lock orders writes and flushes.
 */
class TCupsDevice : public UsbDevice {
public:
  /**
   * A closed channel. Touches neither stream.
   *
   * @param nonblocking        passed to UsbDevice; true lets TNonblockingUsbSocket
   *                           drive the channel on its caller's thread and flush it
   * @param maxReadBlockSize   largest length one read() accepts
   * @param maxWriteBlockSize  largest length one write() accepts
   */
  TCupsDevice(bool nonblocking, unsigned int maxReadBlockSize, unsigned int maxWriteBlockSize);

  /** Closes the channel (clears the flag); the streams are left as they are. */
  ~TCupsDevice() override;

  /** Marks the channel open. @return 0 */
  int open() override;

  /** Marks the channel closed; neither flushes nor closes standard output. @return 0 */
  int close() override;

  /** @return whether open() was called more recently than close() */
  bool isOpen() override;

  /** fflush() of standard output. @return 0, whatever fflush() reports */
  int flush() override;

  /**
   * Takes what the printer has sent, without waiting.
   * @param buf  where the bytes go
   * @param len  the most bytes to take
   * @return bytes read; 0 when nothing is waiting, at end of data or when the back
   *         channel is unusable; -1 when the channel is closed or @p len is above the
   *         read block size
   */
  int64_t read(unsigned char* buf, unsigned int len) override;

  /**
   * One fwrite() of @p len bytes to standard output; nothing is flushed.
   * @param buf  the bytes to send
   * @param len  how many of them
   * @return @p len, or -1 when the channel is closed, @p len is above the write block
   *         size (nothing written) or the stream took fewer bytes
   */
  int64_t write(const unsigned char* buf, unsigned int len) override;

  /** Does nothing. */
  void cancelIo() override;

  /** Does nothing; the argument is not used. */
  void cancelIo(unsigned long) override;

private:
  // Atomic: the owner may ask isOpen() on one thread while another opens or closes.
  std::atomic<bool> open_;
};

} // namespace transport
} // namespace thrift
} // namespace apache

#endif
