#ifndef THRIFTUSB_EXAMPLES_CUPS_CUPSPRINTERCHANNEL_H
#define THRIFTUSB_EXAMPLES_CUPS_CUPSPRINTERCHANNEL_H

#include <atomic>
#include <cstdint>

#include <thriftusb/transport/UsbDevice.h>

namespace thriftusb {
namespace example {

/**
 * The printer's end of a link through a print job, for a CUPS backend: reads what
 * the filters send from standard input, and answers through the CUPS back channel
 * with cupsBackChannelWrite(), which the filters read with TCupsDevice.
 *
 * A non-blocking channel (nonblocking_ is true): read() polls standard input and
 * gives 0 when nothing is waiting, and -1 at end of data, when the filters are done,
 * so that the socket on it fails and the backend stops serving. write() hands the
 * bytes to the back channel at once, waiting up to 10 s for room; flush() has
 * nothing left to do.
 */
class CupsPrinterChannel : public apache::thrift::transport::UsbDevice {
public:
  /** @param blockSize largest length of one read() or write() */
  explicit CupsPrinterChannel(unsigned int blockSize);

  /** Marks the channel open; the streams belong to the process. @return 0 */
  int open() override;

  /** Marks the channel closed. @return 0 */
  int close() override;

  /** Whether open() was called more recently than close(). */
  bool isOpen() override;

  /** Nothing is buffered. @return 0 */
  int flush() override;

  /**
   * One read() of standard input if it has something.
   * @return bytes read; 0 when nothing is waiting; -1 at end of data, on a failure,
   *         on a closed channel or when @p len is above the block size
   */
  int64_t read(unsigned char* buf, unsigned int len) override;

  /**
   * Sends @p len bytes on the back channel.
   * @return @p len, or -1 on failure, on a closed channel or above the block size
   */
  int64_t write(const unsigned char* buf, unsigned int len) override;

  /** Does nothing. */
  void cancelIo() override;

  /** Does nothing. */
  void cancelIo(unsigned long) override;

private:
  std::atomic<bool> open_{false};
};

} // namespace example
} // namespace thriftusb

#endif
