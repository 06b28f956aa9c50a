#ifndef THRIFTUSB_TRANSPORT_TSERVERNONBLOCKINGUSBSOCKET_H
#define THRIFTUSB_TRANSPORT_TSERVERNONBLOCKINGUSBSOCKET_H

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <thrift/transport/TServerTransport.h>
#include <thrift/transport/TTransport.h>

#include <thriftusb/transport/TNonblockingUsbSocket.h>
#include <thriftusb/util/ThriftCompat.h>
#include <thriftusb/util/WakeSignal.h>

namespace apache {
namespace thrift {
namespace transport {

/**
 * Thrift server transport over USB device node files: one node for both directions
 * (one-node mode) or a node to read and a node to write (two-node mode).
 *
 * There is no listening socket: a connection is a freshly opened channel. Each accept
 * creates a TUsbDevice on the configured node(s), wraps it in a TNonblockingUsbSocket
 * (read and write time-outs 3000 ms, ring buffers of 4 MiB), opens it and returns it.
 * One connection at a time is handed out: while the transport returned last is still
 * open, the next accept waits. A node that cannot be opened is retried about every
 * 200 ms until it opens or the server transport is interrupted. All waiting polls in
 * 100 ms steps.
 *
 * interrupt(), interruptChildren() and close() may be called from another thread
 * while accept() waits; accept notices within one polling step.
 */
class TServerNonblockingUsbSocket : public TServerTransport {
public:
  /** Callback told the device node path(s) before every attempt to open them. */
  using PreOpenCallback = std::function<void(std::vector<std::string>)>;

  /**
   * One-node mode: @p path is read and written. Opens nothing. An empty @p path makes
   * every open attempt fail (the server then retries until interrupted).
   *
   * @param path               device node used for both directions
   * @param nonblocking        passed to every channel; false makes the transports
   *                           handed out run a reader and a writer thread each
   * @param maxReadBlockSize   read block size of every channel
   * @param maxWriteBlockSize  write block size of every channel
   */
  TServerNonblockingUsbSocket(const std::string& path, bool nonblocking,
                              unsigned int maxReadBlockSize, unsigned int maxWriteBlockSize);

  /**
   * Two-node mode: bytes are read from @p readPath and written to @p writePath.
   * Opens nothing.
   *
   * @param readPath           device node read from (the host's requests)
   * @param writePath          device node written to (the answers)
   * @param nonblocking        as in the one-node constructor
   * @param maxReadBlockSize   read block size of every channel
   * @param maxWriteBlockSize  write block size of every channel
   */
  TServerNonblockingUsbSocket(const std::string& readPath, const std::string& writePath,
                              bool nonblocking, unsigned int maxReadBlockSize,
                              unsigned int maxWriteBlockSize);

  /** Closes the server transport, which closes the transport handed out last. */
  ~TServerNonblockingUsbSocket() override;

  TServerNonblockingUsbSocket(const TServerNonblockingUsbSocket&) = delete;
  TServerNonblockingUsbSocket& operator=(const TServerNonblockingUsbSocket&) = delete;

  /**
   * Replaces the pre-open callback. It is called on the accepting thread with the
   * node path (one-node mode) or the read path then the write path (two-node mode)
   * before every open attempt; an exception it throws leaves accept() unchanged.
   * An empty function removes the callback. Not to be called while accept() runs.
   *
   * @param callback  called with the path(s) before each open attempt
   */
  void setPreOpenCallback(PreOpenCallback callback);

  /**
   * Chooses how accept waits, and the mode of every transport handed out from then
   * on (TNonblockingUsbSocket::setWaitMode()). WaitMode::Polling, the default, looks
   * every 100 ms; with WaitMode::Waking accept goes on as soon as the transport handed
   * out last is closed, and an interrupt() ends its waits at once. The 100 ms pause
   * before each open attempt stays.
   * @param mode  the mode of accept's waits and of the transports handed out from now on
   */
  void setWaitMode(WaitMode mode) { waitMode_ = mode; }

  /** @return the mode set by setWaitMode(), WaitMode::Polling by default */
  WaitMode getWaitMode() const { return waitMode_; }

  /**
   * @return true while accept() may hand out transports, that is while the server
   *         transport is not interrupted (from construction or listen() until
   *         interrupt() or close())
   */
  bool isOpen() const THRIFTUSB_SERVER_TRANSPORT_IS_OPEN_OVERRIDE;

  /** Makes accept() work again after interrupt() or close(). No I/O. */
  void listen() override;

  /** Makes accept() fail, after closing the transport handed out last. */
  void interrupt() override;

  /**
   * Closes the transport handed out last, if any, whether or not it is still open;
   * its user's pending and next reads and writes fail with INTERRUPTED.
   */
  void interruptChildren() override;

  /** @return -1: there is no socket. */
  int getSocketFD() override;

  /** Same as interrupt(); a later listen() makes the object usable again. */
  void close() override;

protected:
  /**
   * Waits until the transport handed out last is closed, then opens a new one on the
   * node(s), retrying every 200 ms or so while they cannot be opened.
   *
   * @return the new transport, open
   * @throws TTransportException UNKNOWN "Server usb socket is closed." when interrupted
   *         (at entry, after a wait step or after a failed attempt); whatever the
   *         pre-open callback throws; exceptions of open() other than
   *         TTransportException.
   */
  std::shared_ptr<TTransport> acceptImpl() override;

private:
  std::shared_ptr<TNonblockingUsbSocket> currentChild() const;
  std::shared_ptr<TNonblockingUsbSocket> openChild() const;
  void replaceChild(std::shared_ptr<TNonblockingUsbSocket> child);
  std::shared_ptr<TNonblockingUsbSocket> makeChild();
  void throwIfInterrupted() const;
  void waitForChild(const std::shared_ptr<TNonblockingUsbSocket>& child);
  void pause();

  int socketFd_;
  std::string path_;
  std::string readPath_;
  std::string writePath_;
  bool nonblocking_;
  std::shared_ptr<TNonblockingUsbSocket> child_;
  uint32_t maxReadBlockSize_;
  uint32_t maxWriteBlockSize_;
  std::atomic<bool> interrupted_;
  PreOpenCallback preOpenCallback_;
  // Guards the child_ pointer only: held while it is read or replaced, never while
  // waiting, calling the callback or opening.
  mutable std::mutex childMutex_;
  std::atomic<WaitMode> waitMode_{WaitMode::Polling};
  // Told by interrupt(): ends accept's waits in waking mode.
  WakeSignal interruptSignal_;
};

} // namespace transport
} // namespace thrift
} // namespace apache

#endif
