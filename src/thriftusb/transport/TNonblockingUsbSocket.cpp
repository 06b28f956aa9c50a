#include <thriftusb/transport/TNonblockingUsbSocket.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <system_error>

#include <pthread.h>
#include <unistd.h>

#include <thrift/TOutput.h>
#include <thrift/transport/TTransportException.h>

namespace apache {
namespace thrift {
namespace transport {

thread_local volatile int quit __attribute__((tls_model("initial-exec"))) = 0;

namespace {

using Clock = std::chrono::steady_clock;

// Every wait of this transport is a poll with this step.
constexpr useconds_t kPollMicros = 10000;
constexpr std::chrono::microseconds kPollStep(kPollMicros);

// How long close() gives a thread to leave its loop before it signals it again.
constexpr int kStopChecks = 10;
constexpr useconds_t kStopCheckMicros = 1000;

// A writer thread that takes nothing from the queue for this long fails a flush.
constexpr auto kFlushStallLimit = std::chrono::nanoseconds(2999999999LL);

extern "C" void setQuitOnSigint(int) {
  quit = 1;
}

// SIGINT sets the receiving thread's quit and interrupts the system call it is
// blocked in (no restart), so a loop thread blocked in its channel returns and sees
// its flag. glibc's signal() honours the siginterrupt() made before it.
// (glibc marks siginterrupt deprecated in favour of sigaction; the pair below is
// exactly a sigaction without SA_RESTART.)
void installSigintHandler() {
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
  ::siginterrupt(SIGINT, 1);
#pragma GCC diagnostic pop
  ::signal(SIGINT, setQuitOnSigint);
}

// A loop thread starts with the signal mask of the thread that opened the transport.
// Where that thread blocks SIGINT (an application that takes its signals with
// sigwait, say), the loop thread would never receive the SIGINT that close() sends it
// and close() would wait for it for ever; so each loop thread accepts SIGINT for
// itself. A SIGINT sent before this is held pending and arrives here.
void acceptStopSignal() {
  sigset_t stop;
  sigemptyset(&stop);
  sigaddset(&stop, SIGINT);
  ::pthread_sigmask(SIG_UNBLOCK, &stop, nullptr);
}

[[noreturn]] void fail(TTransportException::TTransportExceptionType type, const char* message) {
  throw TTransportException(type, message);
}

// Moves `len` bytes in chunks of at most `block` bytes with `transfer(offset, chunk)`,
// which returns how many it moved, possibly 0. After an attempt that moved nothing it
// waits with `pause(ticket)`, the ticket from `look()` taken before that attempt; once
// nothing has moved for `timeoutMs` (counted from the first empty attempt after the
// last progress) it calls `timedOut(elapsedMs)`, which throws.
template <typename Look, typename Transfer, typename Pause, typename TimedOut>
void moveAll(uint32_t len, uint32_t block, int timeoutMs, Look look, Transfer transfer,
             Pause pause, TimedOut timedOut) {
  uint32_t left = len;
  uint32_t offset = 0;
  bool waiting = false;
  Clock::time_point start;
  while (left > 0) {
    const auto seen = look();
    const uint32_t moved = transfer(offset, std::min(left, block));
    if (moved > 0) {
      left -= std::min(moved, left);
      offset += moved;
      waiting = false;
      continue;
    }
    if (!waiting) {
      start = Clock::now();
    }
    const long long elapsedMs =
        std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count();
    if (timeoutMs <= elapsedMs) {
      timedOut(elapsedMs);
    }
    pause(seen);
    waiting = true;
  }
}

} // namespace

TNonblockingUsbSocket::TNonblockingUsbSocket(std::shared_ptr<UsbDevice> device, int readTimeout,
                                             int writeTimeout, int bufferSize)
  : device_(std::move(device)),
    readRunning_(false),
    writeRunning_(false),
    readTimeout_(readTimeout),
    writeTimeout_(writeTimeout),
    bufferSize_(bufferSize),
    waitMode_(WaitMode::Polling) {
  if (!device_) {
    fail(TTransportException::BAD_ARGS, "No usb device given.");
  }
  if (!blockingMode()) {
    return;
  }
  if (bufferSize_ < 1) {
    fail(TTransportException::BAD_ARGS, "The ring buffer size must be at least 1 byte.");
  }
  readBuffer_ = std::make_shared<ring_buffer_s>(static_cast<unsigned long>(bufferSize_));
  writeBuffer_ = std::make_shared<ring_buffer_s>(static_cast<unsigned long>(bufferSize_));
  installSigintHandler();
}

TNonblockingUsbSocket::~TNonblockingUsbSocket() {
  TNonblockingUsbSocket::close();
}

bool TNonblockingUsbSocket::isOpen() const {
  return device_->isOpen();
}

bool TNonblockingUsbSocket::peek() {
  fail(TTransportException::UNKNOWN, "Not supported.");
}

void TNonblockingUsbSocket::open() {
  std::lock_guard<std::mutex> lock(openMutex_);
  if (device_->open() < 0) {
    fail(TTransportException::NOT_OPEN, "Failed to open usb device.");
  }
  if (!blockingMode() || (readRunning_ && writeRunning_)) {
    return;
  }
  // Threads of an earlier open that ended by themselves (the channel failed) are
  // joined and replaced; one that still runs is stopped first.
  stopThreads();
  startThreads();
}

void TNonblockingUsbSocket::startThreads() {
  // Each flag is set before its thread starts, so a thread that ends at once clears
  // it for good; it is cleared again if the thread cannot be started.
  readRunning_ = true;
  try {
    readThread_ = std::thread(&TNonblockingUsbSocket::readLoop, this);
  } catch (const std::system_error&) {
    readRunning_ = false;
    device_->close();
    closeSignal_.notify();
    fail(TTransportException::NOT_OPEN, "Failed to start usb transport threads.");
  }
  writeRunning_ = true;
  try {
    writeThread_ = std::thread(&TNonblockingUsbSocket::writeLoop, this);
  } catch (const std::system_error&) {
    writeRunning_ = false;
    stopThread(readThread_, readRunning_, readSignal_);
    device_->close();
    closeSignal_.notify();
    fail(TTransportException::NOT_OPEN, "Failed to start usb transport threads.");
  }
}

void TNonblockingUsbSocket::stopThreads() {
  stopThread(readThread_, readRunning_, readSignal_);
  stopThread(writeThread_, writeRunning_, writeSignal_);
}

void TNonblockingUsbSocket::stopThread(std::thread& thread, const std::atomic<bool>& running,
                                       WakeSignal& signal) {
  if (!thread.joinable()) {
    return;
  }
  // A SIGINT that lands after the loop tested its flag but before it entered a
  // blocking channel call sets the flag without interrupting that call. So the
  // thread is signalled again until it has left its loop: the next signal finds it
  // inside the call and interrupts it. A thread waiting for its ring is woken too.
  while (running) {
    ::pthread_kill(thread.native_handle(), SIGINT);
    signal.notify();
    for (int i = 0; i < kStopChecks && running; ++i) {
      ::usleep(kStopCheckMicros);
    }
  }
  thread.join();
}

void TNonblockingUsbSocket::close() {
  std::lock_guard<std::mutex> lock(openMutex_);
  if (!device_->isOpen()) {
    // Nothing to close; threads left over (their channel was closed by another
    // owner) are still stopped and joined.
    stopThreads();
    return;
  }
  stopThreads();
  if (device_->close() < 0) {
    GlobalOutput.printf("Failed to close usb device.");
  }
  closeSignal_.notify();
}

void TNonblockingUsbSocket::pause(Side side, WakeSignal::Ticket seen) {
  if (waitMode_ == WaitMode::Polling) {
    ::usleep(kPollMicros);
  } else if (blockingMode()) {
    signalOf(side).waitFor(seen, kPollStep);
  } else if (side == Side::Read) {
    device_->waitReadable(kPollStep);
  } else {
    device_->waitWritable(kPollStep);
  }
}

void TNonblockingUsbSocket::waitReadable(WakeSignal::Ticket ticket,
                                         std::chrono::microseconds limit) {
  if (blockingMode()) {
    readSignal_.waitFor(ticket, limit);
  } else {
    device_->waitReadable(limit);
  }
}

void TNonblockingUsbSocket::waitClosed(std::chrono::microseconds limit) {
  const WakeSignal::Ticket seen = closeSignal_.ticket();
  if (isOpen()) {
    closeSignal_.waitFor(seen, limit);
  }
}

uint32_t TNonblockingUsbSocket::read(uint8_t* buf, uint32_t len) {
  std::lock_guard<std::recursive_mutex> lock(readMutex_);
  if (len > device_->maxReadBlockSize_) {
    fail(TTransportException::BAD_ARGS, "The \"len\" must be no more than max read block size.");
  }
  if (!blockingMode()) {
    const int64_t got = device_->read(buf, len);
    if (got < 0) {
      fail(TTransportException::INTERRUPTED, "Failed to read.");
    }
    return static_cast<uint32_t>(got);
  }
  // Bytes still queued are not delivered once the reader has stopped: the caller
  // learns at once that the link is gone. They are delivered after the next open().
  if (!readRunning_) {
    fail(TTransportException::INTERRUPTED, "Failed to read.");
  }
  const size_t got = readBuffer_->read(buf, len);
  if (got > 0) {
    readSignal_.notify();
  }
  return static_cast<uint32_t>(got);
}

uint32_t TNonblockingUsbSocket::readAll(uint8_t* buf, uint32_t len) {
  std::lock_guard<std::recursive_mutex> lock(readMutex_);
  moveAll(
      len, device_->maxReadBlockSize_, readTimeout_, [this] { return readSignal_.ticket(); },
      [&](uint32_t offset, uint32_t chunk) {
        const uint32_t got = read(buf + offset, chunk);
        const uint32_t left = len - offset;
        if (got > left) {
          // Only a channel that breaks its contract delivers more than it was asked
          // for; the count is cut so that it never runs past the caller's buffer.
          GlobalOutput.printf("readBytes > left, %d > %d, size %d", got, left, chunk);
          return left;
        }
        return got;
      },
      [this](WakeSignal::Ticket seen) { pause(Side::Read, seen); },
      [&](long long elapsedMs) {
        GlobalOutput.printf("read timeout. %f >= %d", static_cast<double>(elapsedMs),
                            readTimeout_);
        fail(TTransportException::TIMED_OUT, "read timeout.");
      });
  return len;
}

uint32_t TNonblockingUsbSocket::write_partial(const uint8_t* buf, uint32_t len) {
  std::lock_guard<std::recursive_mutex> lock(writeMutex_);
  if (len > device_->maxWriteBlockSize_) {
    fail(TTransportException::BAD_ARGS,
         "The \"len\" must be no more than max write block size.");
  }
  if (!blockingMode()) {
    const int64_t put = device_->write(buf, len);
    if (put < 0) {
      fail(TTransportException::INTERRUPTED, "Failed to write.");
    }
    return static_cast<uint32_t>(put);
  }
  if (!writeRunning_) {
    fail(TTransportException::INTERRUPTED, "Failed to write.");
  }
  const size_t put = writeBuffer_->write(buf, len);
  if (put > 0) {
    writeSignal_.notify();
  }
  return static_cast<uint32_t>(put);
}

void TNonblockingUsbSocket::write(const uint8_t* buf, uint32_t len) {
  std::lock_guard<std::recursive_mutex> lock(writeMutex_);
  moveAll(
      len, device_->maxWriteBlockSize_, writeTimeout_, [this] { return writeSignal_.ticket(); },
      [&](uint32_t offset, uint32_t chunk) { return write_partial(buf + offset, chunk); },
      [this](WakeSignal::Ticket seen) { pause(Side::Write, seen); },
      [](long long) { fail(TTransportException::TIMED_OUT, "write timeout."); });
}

void TNonblockingUsbSocket::flush() {
  std::lock_guard<std::recursive_mutex> lock(writeMutex_);
  if (!blockingMode()) {
    if (device_->flush() < 0) {
      fail(TTransportException::INTERRUPTED, "Failed to flush usb device.");
    }
    return;
  }
  // Waits for the writer thread to drain the queue; fails only when it has taken
  // nothing for the stall limit, however long the whole flush lasts.
  size_t last = writeBuffer_->size();
  bool stalled = false;
  Clock::time_point stallStart;
  for (;;) {
    const WakeSignal::Ticket seen = writeSignal_.ticket();
    if (!writeRunning_ || writeBuffer_->size() == 0) {
      break;
    }
    const size_t current = writeBuffer_->size();
    if (current != last) {
      stalled = false;
    } else {
      if (!stalled) {
        stallStart = Clock::now();
      }
      if (Clock::now() - stallStart > kFlushStallLimit) {
        fail(TTransportException::TIMED_OUT, "flush timeout.");
      }
      stalled = true;
    }
    pause(Side::Write, seen);
    last = current;
  }
  if (!writeRunning_) {
    fail(TTransportException::INTERRUPTED, "Failed to flush usb device.");
  }
}

void TNonblockingUsbSocket::readLoop() {
  acceptStopSignal();
  const uint32_t blockSize = device_->maxReadBlockSize_;
  auto block = std::make_unique<uint8_t[]>(blockSize);
  while (quit == 0) {
    const int64_t got = device_->read(block.get(), blockSize);
    if (got < 0) {
      break;
    }
    if (got == 0) {
      ::usleep(kPollMicros);
      continue;
    }
    // Queue everything that arrived, waiting while the queue is full; a stop drops
    // what is not queued yet.
    size_t stored = 0;
    while (stored < static_cast<size_t>(got) && quit == 0) {
      const WakeSignal::Ticket seen = readSignal_.ticket();
      const size_t n = readBuffer_->write(block.get() + stored, static_cast<size_t>(got) - stored);
      if (n == 0) {
        pause(Side::Read, seen);
      } else {
        readSignal_.notify();
      }
      stored += n;
    }
  }
  readRunning_ = false;
  readSignal_.notify();
  block.reset();
  GlobalOutput.printf("read thread exit.");
}

void TNonblockingUsbSocket::writeLoop() {
  acceptStopSignal();
  const uint32_t blockSize = device_->maxWriteBlockSize_;
  auto block = std::make_unique<uint8_t[]>(blockSize);
  bool channelFailed = false;
  while (quit == 0 && !channelFailed) {
    const WakeSignal::Ticket seen = writeSignal_.ticket();
    const size_t taken = writeBuffer_->read(block.get(), blockSize);
    if (taken == 0) {
      pause(Side::Write, seen);
      continue;
    }
    writeSignal_.notify();
    // A block is written completely before the next is taken, so the channel sees
    // the bytes in queue order; a stop drops the unwritten rest.
    size_t written = 0;
    while (written < taken && quit == 0) {
      const int64_t put =
          device_->write(block.get() + written, static_cast<unsigned int>(taken - written));
      if (put < 0) {
        channelFailed = true;
        break;
      }
      if (put == 0) {
        ::usleep(kPollMicros);
      }
      written += static_cast<size_t>(put);
    }
  }
  writeRunning_ = false;
  writeSignal_.notify();
  block.reset();
  GlobalOutput.printf(channelFailed ? "write thread exit at 1." : "write thread exit at 2.");
}

} // namespace transport
} // namespace thrift
} // namespace apache
