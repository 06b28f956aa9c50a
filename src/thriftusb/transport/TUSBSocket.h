#ifndef THRIFTUSB_TRANSPORT_TUSBSOCKET_H
#define THRIFTUSB_TRANSPORT_TUSBSOCKET_H

#include <atomic>
#include <cstdint>
#include <mutex>
#include <string>

#include <thrift/transport/TTransport.h>
#include <thrift/transport/TVirtualTransport.h>

#include <thriftusb/util/ThriftCompat.h>
#include <thriftusb/util/WakeSignal.h>

namespace apache {
namespace thrift {
namespace transport {

/**
 * Blocking Thrift transport over USB device node files.
 *
 * Reads and writes one node (one-node mode, used for both directions) or a pair of
 * nodes (two-node mode: one read, one written) on the caller's thread, with no
 * buffering and no threads of its own. The nodes are opened non-blocking and
 * exclusively; where a socket would wait in the kernel this transport polls:
 * read() sleeps 1 ms whenever the node has no data and returns only with the whole
 * requested length, and write() hands every byte over in blocks and then
 * synchronises the write node.
 *
 * read(), write() and write_partial() share one recursive mutex, so a read that
 * waits for its answer keeps writers of other threads waiting: the transport carries
 * one conversation at a time, as a Thrift client or server drives it.
 */
class TUSBSocket : public TVirtualTransport<TUSBSocket, TTransportDefaults> {
public:
  /**
   * One-node mode: @p path is read and written. Opens nothing.
   *
   * @param path          device node used for both directions
   * @param reserved      kept for callers of the original interface; the transport
   *                      stores it and never reads it
   * @param maxBlockSize  largest byte count of one read or write system call, and the
   *                      largest length write_partial() accepts (compared unsigned)
   */
  TUSBSocket(const std::string& path, int reserved, int maxBlockSize);

  /**
   * Two-node mode: bytes are read from @p readPath and written to @p writePath.
   * Opens nothing.
   *
   * @param readPath      device node read from
   * @param writePath     device node written to
   * @param reserved      stored, never read (see the one-node constructor)
   * @param maxBlockSize  largest byte count of one system call
   */
  TUSBSocket(const std::string& readPath, const std::string& writePath, int reserved,
             int maxBlockSize);

  /** Closes the transport; this always logs the close line. */
  ~TUSBSocket() override;

  TUSBSocket(const TUSBSocket&) = delete;
  TUSBSocket& operator=(const TUSBSocket&) = delete;

  /** @return true when the node (or both nodes) is open */
  bool isOpen() const override;

  /**
   * @return isOpen(): a device node cannot be asked for pending bytes cheaply
   */
  bool peek() override;

  /**
   * Opens the node(s) with O_EXCL and O_NONBLOCK; does nothing when already open.
   * In two-node mode logs "usb device open succeed".
   *
   * @throws TTransportException NOT_OPEN when a node cannot be opened; no descriptor
   *         is left open then.
   */
  void open() override;

  /**
   * Closes whatever is open and logs "usb device close succeed", on every call.
   * Must not be called while another thread is inside read() or write().
   */
  void close() override;

  /**
   * Synchronises the write node with fsync(); its result is not examined.
   *
   * @throws TTransportException NOT_OPEN when the transport is closed.
   */
  void flush() override;

  /** @return isOpen() */
  virtual bool hasPendingDataToRead();

  /**
   * Reads exactly @p len bytes, polling every millisecond while the node has none.
   * Waits for as long as the peer stays silent.
   *
   * @param buf  where the bytes go
   * @param len  the bytes to read
   * @return @p len
   * @throws TTransportException NOT_OPEN when closed, TIMED_OUT when the node reports
   *         end of data, UNKNOWN when the system call fails.
   */
  virtual uint32_t read(uint8_t* buf, uint32_t len);

  /**
   * Writes all @p len bytes in blocks of at most the block size, retrying at once
   * while the node is busy, then synchronises the write node (also when @p len is 0).
   *
   * @param buf  the bytes to send
   * @param len  how many of them
   * @throws TTransportException as write_partial() does.
   */
  virtual void write(const uint8_t* buf, uint32_t len);

  /**
   * Makes one write system call of @p len bytes.
   *
   * @param buf  the bytes to send
   * @param len  how many of them; at most the block size
   * @return the bytes accepted, 0 when the node cannot take data now
   * @throws TTransportException NOT_OPEN when closed or when the node accepts 0 bytes,
   *         BAD_ARGS when @p len exceeds the block size, UNKNOWN when the system call
   *         fails.
   */
  virtual uint32_t write_partial(const uint8_t* buf, uint32_t len);

  /**
   * Chooses how read() waits for bytes and write() for a busy node to take more:
   * WaitMode::Polling (the default) sleeps 1 ms between reads and retries a busy node
   * at once; WaitMode::Waking waits on the node itself with poll(2), at most 1 ms at a
   * time, in both directions. May be called at any time.
   * @param mode  the mode of the waits from now on
   */
  void setWaitMode(WaitMode mode) { waitMode_ = mode; }

  /** @return the mode set by setWaitMode(), WaitMode::Polling by default */
  WaitMode getWaitMode() const { return waitMode_; }

private:
  std::string readPath_;
  std::string writePath_;
  int readFd_;
  int writeFd_;
  bool twoChannels_;
  int reserved_;
  int maxBlockSize_;
  std::recursive_mutex mutex_;
  std::atomic<WaitMode> waitMode_{WaitMode::Polling};
};

} // namespace transport
} // namespace thrift
} // namespace apache

#endif
