#ifndef THRIFTUSB_TRANSPORT_TUSBDEVICE_H
#define THRIFTUSB_TRANSPORT_TUSBDEVICE_H

#include <atomic>
#include <string>

#include <thriftusb/transport/UsbDevice.h>
#include <thriftusb/util/WakeSignal.h>

namespace apache {
namespace thrift {
namespace transport {

/**
 * Device channel over USB device node files: one node for both directions
 * (one-node mode) or one node to read and one to write (two-node mode).
 *
 * Each read() and write() is exactly one system call on the caller's buffer. With
 * nonblocking_ the nodes are opened O_NONBLOCK and an idle node gives 0; without it
 * a call may block until data moves or a signal interrupts it (then it gives 0 too,
 * so that an interrupted thread can return to its loop). Nodes are never opened
 * exclusively and never created. Logs through the Thrift runtime's GlobalOutput;
 * holds no lock.
 */
class TUsbDevice : public UsbDevice {
public:
  /**
   * One-node mode over @p path. Opens nothing. An empty @p path makes open() fail.
   *
   * @param path               device node read and written
   * @param nonblocking        open the node with O_NONBLOCK, so that read() and
   *                           write() never wait (see UsbDevice)
   * @param maxReadBlockSize   largest length one read() accepts
   * @param maxWriteBlockSize  largest length one write() accepts
   */
  TUsbDevice(const std::string& path, bool nonblocking, unsigned int maxReadBlockSize,
             unsigned int maxWriteBlockSize);

  /**
   * Two-node mode: reads @p readPath, writes @p writePath. Opens nothing.
   *
   * @param readPath           device node read from (the peer's bytes)
   * @param writePath          device node written to
   * @param nonblocking        as in the one-node constructor
   * @param maxReadBlockSize   largest length one read() accepts
   * @param maxWriteBlockSize  largest length one write() accepts
   */
  TUsbDevice(const std::string& readPath, const std::string& writePath, bool nonblocking,
             unsigned int maxReadBlockSize, unsigned int maxWriteBlockSize);

  /** Closes the channel. */
  ~TUsbDevice() override;

  /**
   * Opens the node(s); logs "1 channel: <path>" or "2 channels: <read> <write>".
   * @return 0 (also when already open), -1 when a node cannot be opened, with nothing
   *         left open
   */
  int open() override;

  /** Closes the node(s). @return 0 */
  int close() override;

  /** @return true when both descriptors are open */
  bool isOpen() override;

  /** fsync() of the write node. @return its result, 0 or -1 */
  int flush() override;

  /**
   * One read() system call. Logs "Failed to read <error>." for failures other than
   * EAGAIN.
   * @param buf  where the bytes go
   * @param len  the most bytes to take
   * @return bytes read, 0 (no data, end of data, EAGAIN or EINTR), -1
   */
  int64_t read(unsigned char* buf, unsigned int len) override;

  /**
   * One write() system call. Logs "Failed to write <error>." for failures other than
   * EAGAIN.
   * @param buf  the bytes to send
   * @param len  how many of them
   * @return bytes written, 0 (EAGAIN or EINTR), -1
   */
  int64_t write(const unsigned char* buf, unsigned int len) override;

  /** Does nothing. */
  void cancelIo() override;

  /** Does nothing; the argument is not used. */
  void cancelIo(unsigned long) override;

  /**
   * Waits with poll(2) on the read node.
   * @param limit  the longest the wait lasts
   */
  void waitReadable(std::chrono::microseconds limit) override;

  /**
   * Waits with poll(2) on the write node.
   * @param limit  the longest the wait lasts
   */
  void waitWritable(std::chrono::microseconds limit) override;

private:
  std::string path_;
  std::string readPath_;
  std::string writePath_;
  // Atomic: a transport's owner may ask isOpen() on one thread while another closes
  // the channel (a server polling the connection it handed out, for instance).
  std::atomic<int> readFd_;
  std::atomic<int> writeFd_;
  DescriptorWait readWait_{DescriptorWait::For::Reading};
  DescriptorWait writeWait_{DescriptorWait::For::Writing};
};

} // namespace transport
} // namespace thrift
} // namespace apache

#endif
