#ifndef THRIFTUSB_TRANSPORT_TNONBLOCKINGUSBSOCKET_H
#define THRIFTUSB_TRANSPORT_TNONBLOCKINGUSBSOCKET_H

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <mutex>
#include <thread>

#include <thrift/transport/TTransport.h>
#include <thrift/transport/TVirtualTransport.h>

#include <thriftusb/transport/UsbDevice.h>
#include <thriftusb/util/ThriftCompat.h>
#include <thriftusb/util/WakeSignal.h>
#include <thriftusb/util/ring_buffer_s.h>

namespace apache {
namespace thrift {
namespace transport {

/**
 * Per-thread stop flag of the reader and writer threads. The SIGINT handler that
 * blocking-mode transports install sets the receiving thread's copy to 1; nothing
 * resets it. Static TLS, so that the handler never allocates.
 */
extern thread_local volatile int quit __attribute__((tls_model("initial-exec")));

/**
 * Thrift transport over any device channel (UsbDevice), whose read() never waits and
 * whose readAll(), write() and flush() poll in 10 ms steps up to a time-out.
 *
 * The channel's nonblocking_ chooses the mode:
 * - blocking mode: the channel's calls may block, so open() starts a reader thread and
 *   a writer thread that move bytes between the channel and two ring buffers; the
 *   application's threads only touch the ring buffers. close() stops each thread with
 *   SIGINT (pthread_kill) and joins it. Building such a transport installs a
 *   process-wide SIGINT handler that only sets the receiving thread's quit flag: from
 *   then on SIGINT no longer ends the process.
 * - non-blocking mode: no threads; every call goes to the channel on the caller's
 *   thread, which polls while the channel has nothing to give or take.
 *
 * Time-outs limit a silence: readAll() fails when no byte has arrived for readTimeout
 * ms, write() when no byte could be handed over for writeTimeout ms, flush() (blocking
 * mode) when the writer thread has taken nothing for 3 s.
 *
 * setWaitMode(WaitMode::Waking) ends each wait as soon as what it waits for has
 * happened (bytes queued or taken, a thread ended, the transport closed; in
 * non-blocking mode, the channel ready), the 10 ms step staying the longest single
 * wait. The time-outs are counted the same way in both modes.
 */
class TNonblockingUsbSocket : public TVirtualTransport<TNonblockingUsbSocket, TTransportDefaults> {
public:
  /**
   * Keeps @p device and the settings; in blocking mode makes the two ring buffers and
   * installs the SIGINT handler. Opens nothing.
   *
   * @param device        the channel, shared with whoever made it
   * @param readTimeout   ms readAll() may go without receiving a byte
   * @param writeTimeout  ms write() may go without handing over a byte
   * @param bufferSize    capacity in bytes of each ring buffer (blocking mode); at least 1
   */
  TNonblockingUsbSocket(std::shared_ptr<UsbDevice> device, int readTimeout, int writeTimeout,
                        int bufferSize);

  /** Closes the transport. */
  ~TNonblockingUsbSocket() override;

  TNonblockingUsbSocket(const TNonblockingUsbSocket&) = delete;
  TNonblockingUsbSocket& operator=(const TNonblockingUsbSocket&) = delete;

  /** @return the channel's isOpen(); the threads play no part */
  bool isOpen() const override;

  /**
   * Not supported: the transport cannot tell whether bytes are waiting without
   * taking them.
   * @return nothing; it always throws
   * @throws TTransportException UNKNOWN "Not supported.", always.
   */
  bool peek() override;

  /**
   * Opens the channel and, in blocking mode, starts the reader and writer threads.
   * On a transport whose threads still run, nothing more happens; threads that ended
   * by themselves are joined and replaced.
   *
   * @throws TTransportException NOT_OPEN when the channel cannot be opened or a thread
   *         cannot be started (nothing is left running then).
   */
  void open() override;

  /**
   * Blocking mode: stops and joins the reader, then the writer; then closes the
   * channel. Queued bytes stay in the ring buffers for a later open(). Does nothing
   * when the channel is not open (but still joins threads left from an earlier open).
   */
  void close() override;

  /**
   * Non-blocking mode: flushes the channel. Blocking mode: waits until the writer
   * thread has taken every queued byte.
   *
   * @throws TTransportException INTERRUPTED when the channel's flush fails or the
   *         writer thread is not running, TIMED_OUT "flush timeout." after a 3 s stall.
   */
  void flush() override;

  /**
   * Delivers what has arrived, up to @p len bytes; never waits.
   *
   * @param buf  where the bytes go
   * @param len  the most bytes to deliver; at most the channel's read block size
   * @return bytes delivered, 0 when nothing has arrived
   * @throws TTransportException BAD_ARGS when @p len exceeds the channel's read block
   *         size, INTERRUPTED when the channel failed or the reader thread is not running.
   */
  uint32_t read(uint8_t* buf, uint32_t len);

  /**
   * Delivers exactly @p len bytes, polling every 10 ms while nothing arrives.
   *
   * @param buf  where the bytes go
   * @param len  the bytes to deliver
   * @return @p len
   * @throws TTransportException TIMED_OUT "read timeout." after readTimeout ms without a
   *         byte, and whatever read() throws.
   */
  uint32_t readAll(uint8_t* buf, uint32_t len);

  /**
   * Hands over up to @p len bytes; never waits.
   *
   * @param buf  the bytes to send
   * @param len  how many of them; at most the channel's write block size
   * @return bytes accepted, 0 when the channel or the queue cannot take any now
   * @throws TTransportException BAD_ARGS when @p len exceeds the channel's write block
   *         size, INTERRUPTED when the channel failed or the writer thread is not running.
   */
  uint32_t write_partial(const uint8_t* buf, uint32_t len);

  /**
   * Hands over all @p len bytes, polling every 10 ms while none can be taken.
   *
   * @param buf  the bytes to send
   * @param len  how many of them
   * @throws TTransportException TIMED_OUT "write timeout." after writeTimeout ms without
   *         progress, and whatever write_partial() throws.
   */
  void write(const uint8_t* buf, uint32_t len);

  /**
   * Chooses how readAll(), write(), flush() and the two threads wait: polling in 10 ms
   * steps (WaitMode::Polling, the default) or waking as soon as the awaited change
   * happens (WaitMode::Waking). May be called at any time; a wait under way ends
   * within one step either way.
   * @param mode  the mode of the waits from now on
   */
  void setWaitMode(WaitMode mode) { waitMode_ = mode; }

  /** @return the mode set by setWaitMode(), WaitMode::Polling by default */
  WaitMode getWaitMode() const { return waitMode_; }

  /**
   * For a reader above this transport that waits for bytes itself (a frame
   * transport): take this before a read() that may find nothing, and hand it to
   * waitReadable() when it did.
   * @return a ticket of the read side
   */
  WakeSignal::Ticket readTicket() const { return readSignal_.ticket(); }

  /**
   * Waits until bytes may have arrived since @p ticket was taken, the reader thread
   * has ended or the transport is closed, for at most @p limit; whatever this
   * transport's own mode. In non-blocking mode it waits for the channel.
   * @param ticket  from readTicket(), taken before the read() that found nothing
   * @param limit   the longest the wait lasts
   */
  void waitReadable(WakeSignal::Ticket ticket, std::chrono::microseconds limit);

  /**
   * Waits until the transport is closed, for at most @p limit; returns at once when
   * it is not open. For an owner that hands out one connection at a time.
   * @param limit  the longest the wait lasts
   */
  void waitClosed(std::chrono::microseconds limit);

  /** Body of the reader thread; not for callers. */
  void readLoop();

  /** Body of the writer thread; not for callers. */
  void writeLoop();

private:
  enum class Side { Read, Write };

  bool blockingMode() const { return !device_->nonblocking_; }
  void startThreads();
  void stopThreads();
  static void stopThread(std::thread& thread, const std::atomic<bool>& running,
                         WakeSignal& signal);
  WakeSignal& signalOf(Side side) { return side == Side::Read ? readSignal_ : writeSignal_; }
  void pause(Side side, WakeSignal::Ticket seen);

  std::shared_ptr<UsbDevice> device_;
  std::shared_ptr<ring_buffer_s> readBuffer_;
  std::shared_ptr<ring_buffer_s> writeBuffer_;
  std::thread readThread_;
  std::thread writeThread_;
  std::atomic<bool> readRunning_;
  std::atomic<bool> writeRunning_;
  std::mutex openMutex_;
  std::recursive_mutex readMutex_;
  std::recursive_mutex writeMutex_;
  int readTimeout_;
  int writeTimeout_;
  int bufferSize_;
  std::atomic<WaitMode> waitMode_;
  // Told of every change a waiter of that side may wait for: bytes queued or taken in
  // its ring, its thread ended or told to stop.
  WakeSignal readSignal_;
  WakeSignal writeSignal_;
  // Told when close() has closed the channel.
  WakeSignal closeSignal_;
};

} // namespace transport
} // namespace thrift
} // namespace apache

#endif
