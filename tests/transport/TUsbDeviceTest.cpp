#include <thriftusb/transport/TUsbDevice.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <string>
#include <vector>

#include <fcntl.h>
#include <pthread.h>

#include <gtest/gtest.h>

#include "support/Bounded.h"
#include "support/FdIo.h"
#include "support/LogCapture.h"
#include "support/PtyDevice.h"
#include "support/SyscallSpy.h"
#include "support/VirtualCable.h"

using apache::thrift::transport::TUsbDevice;
using namespace thriftusb::test;

namespace {

constexpr unsigned kBlock = 16;

std::string errorText(int error) {
  return std::strerror(error);
}

// A host-side channel on a virtual cable, opened, with the test's ends of the FIFOs
// (`peerIn` reads what the channel writes, `peerOut` writes what it reads) and a spy
// on the channel's descriptors.
struct CableChannel {
  explicit CableChannel(bool nonblocking)
    : device(cable.host().readPath, cable.host().writePath, nonblocking, kBlock, kBlock) {
    fds = descriptorsOpenedBy([&] { EXPECT_EQ(device.open(), 0); });
    spy.watch(fds);
    peerIn = openFd(cable.device().readPath, O_RDONLY | O_NONBLOCK);
    peerOut = openFd(cable.device().writePath, O_WRONLY | O_NONBLOCK);
  }

  VirtualCable cable;
  SyscallSpy spy;
  TUsbDevice device;
  std::set<int> fds;
  UniqueFd peerIn;
  UniqueFd peerOut;
};

} // namespace

// ---------------------------------------------------------------------------
// Opening and closing

class TUsbDeviceModes : public ::testing::TestWithParam<bool> {};

TEST_P(TUsbDeviceModes, OneNodeOpensOneReadWriteDescriptorAndClosesItOnce) {
  const bool nonblocking = GetParam();
  PtyDevice pty;
  LogCapture log;
  SyscallSpy spy;
  TUsbDevice device(pty.path(), nonblocking, kBlock, kBlock);
  const auto before = openDescriptors();

  ASSERT_EQ(device.open(), 0);
  const auto fds = newDescriptors(before, openDescriptors());
  ASSERT_EQ(fds.size(), 1u);
  const int flags = statusFlags(*fds.begin());
  EXPECT_EQ(flags & O_ACCMODE, O_RDWR);
  EXPECT_EQ((flags & O_NONBLOCK) != 0, nonblocking);
  EXPECT_TRUE(device.isOpen());
  EXPECT_EQ(log.lines(), std::vector<std::string>{"1 channel: " + pty.path()});

  EXPECT_EQ(device.open(), 0); // already open: nothing happens
  EXPECT_EQ(newDescriptors(before, openDescriptors()), fds);
  EXPECT_EQ(log.lines().size(), 1u);

  spy.watch(fds);
  EXPECT_EQ(device.flush(), -1); // a terminal cannot be synchronised: fsync's result comes back
  EXPECT_EQ(device.close(), 0);
  EXPECT_EQ(spy.count(Sys::Close), 1u);
  ASSERT_EQ(spy.count(Sys::Fsync), 1u);
  EXPECT_EQ(spy.calls().front().fd, *fds.begin());
  EXPECT_EQ(openDescriptors(), before);
  EXPECT_FALSE(device.isOpen());
  EXPECT_EQ(device.close(), 0);
}

TEST_P(TUsbDeviceModes, TwoNodeOpensReadAndWriteDescriptorsAndCanReopen) {
  const bool nonblocking = GetParam();
  VirtualCable cable;
  LogCapture log;
  TUsbDevice device(cable.host().readPath, cable.host().writePath, nonblocking, kBlock, kBlock);
  const auto before = openDescriptors();

  for (int round = 0; round < 2; ++round) {
    ASSERT_EQ(device.open(), 0);
    const auto fds = newDescriptors(before, openDescriptors());
    ASSERT_EQ(fds.size(), 2u);
    std::vector<int> modes;
    for (int fd : fds) {
      EXPECT_EQ((statusFlags(fd) & O_NONBLOCK) != 0, nonblocking);
      modes.push_back(statusFlags(fd) & O_ACCMODE);
    }
    std::sort(modes.begin(), modes.end());
    EXPECT_EQ(modes, (std::vector<int>{O_RDONLY, O_WRONLY}));
    EXPECT_EQ(device.close(), 0);
    EXPECT_EQ(openDescriptors(), before);
  }
  const std::string line = "2 channels: " + cable.host().readPath + " " + cable.host().writePath;
  EXPECT_EQ(log.lines(), (std::vector<std::string>{line, line}));
}

INSTANTIATE_TEST_SUITE_P(BlockingAndNonBlocking, TUsbDeviceModes, ::testing::Bool());

TEST(TUsbDeviceOpen, FailsWithoutLoggingAndHoldsNothing) {
  VirtualCable cable;
  LogCapture log;
  const std::string missing = cable.directory() + "/missing";
  const auto before = openDescriptors();

  // An empty one-node path counts as two-node mode with both paths missing.
  TUsbDevice emptyPath("", true, kBlock, kBlock);
  TUsbDevice noReadPath("", cable.host().writePath, true, kBlock, kBlock);
  TUsbDevice missingNode(missing, true, kBlock, kBlock);
  TUsbDevice missingReadNode(missing, cable.host().writePath, true, kBlock, kBlock);
  // The read node opens, the write node does not: the read node is closed again.
  TUsbDevice missingWriteNode(cable.host().readPath, missing, true, kBlock, kBlock);

  for (TUsbDevice* device :
       {&emptyPath, &noReadPath, &missingNode, &missingReadNode, &missingWriteNode}) {
    EXPECT_EQ(device->open(), -1);
    EXPECT_FALSE(device->isOpen());
    EXPECT_EQ(openDescriptors(), before);
  }
  EXPECT_TRUE(log.lines().empty());
}

// ---------------------------------------------------------------------------
// Reading and writing

TEST(TUsbDeviceTransfer, LengthAboveTheBlockSizeIsRefusedWithoutIo) {
  CableChannel channel(true);
  LogCapture log;
  std::vector<unsigned char> buf(kBlock + 1, 'x');

  EXPECT_EQ(channel.device.write(buf.data(), kBlock + 1), -1);
  EXPECT_EQ(channel.device.read(buf.data(), kBlock + 1), -1);
  EXPECT_EQ(channel.spy.count(Sys::Write) + channel.spy.count(Sys::Read), 0u);

  EXPECT_EQ(channel.device.write(buf.data(), kBlock), static_cast<int64_t>(kBlock));
  EXPECT_EQ(readExactly(channel.peerIn.get(), kBlock), std::string(kBlock, 'x'));
  writeAll(channel.peerOut.get(), std::string(kBlock, 'y'));
  EXPECT_EQ(channel.device.read(buf.data(), kBlock), static_cast<int64_t>(kBlock));
  EXPECT_EQ(channel.spy.lengths(Sys::Write), std::vector<size_t>{kBlock});
  EXPECT_EQ(channel.spy.lengths(Sys::Read), std::vector<size_t>{kBlock});
  EXPECT_TRUE(log.lines().empty());
}

TEST(TUsbDeviceTransfer, MovesWhatIsThereInOneCallAndGivesZeroWhenIdle) {
  CableChannel channel(true);
  LogCapture log;
  unsigned char buf[kBlock] = {};

  EXPECT_EQ(channel.device.read(buf, kBlock), 0); // no data yet: silently "try again"
  writeAll(channel.peerOut.get(), "short");
  EXPECT_EQ(channel.device.read(buf, kBlock), 5);
  EXPECT_EQ(std::string(reinterpret_cast<char*>(buf), 5), "short");
  EXPECT_EQ(channel.spy.count(Sys::Read), 2u);

  channel.spy.failNext(Sys::Write, EAGAIN);
  EXPECT_EQ(channel.device.write(buf, 5), 0);
  EXPECT_TRUE(log.lines().empty());
}

TEST(TUsbDeviceTransfer, FailedCallsAreLoggedInterruptedOnesGiveZero) {
  CableChannel channel(true);
  LogCapture log;
  unsigned char buf[kBlock] = {};

  channel.spy.failNext(Sys::Write, EINTR);
  EXPECT_EQ(channel.device.write(buf, 4), 0);
  channel.spy.failNext(Sys::Write, EIO);
  EXPECT_EQ(channel.device.write(buf, 4), -1);
  channel.spy.failNext(Sys::Read, EIO);
  EXPECT_EQ(channel.device.read(buf, 4), -1);
  EXPECT_EQ(log.lines(), (std::vector<std::string>{"Failed to write " + errorText(EINTR) + ".",
                                                   "Failed to write " + errorText(EIO) + ".",
                                                   "Failed to read " + errorText(EIO) + "."}));
  EXPECT_TRUE(channel.device.isOpen()); // a failed call never closes the channel
}

TEST(TUsbDeviceTransfer, ReadOnAClosedChannelReportsABadDescriptor) {
  VirtualCable cable;
  LogCapture log;
  TUsbDevice device(cable.host().readPath, cable.host().writePath, true, kBlock, kBlock);
  unsigned char buf[4];
  EXPECT_EQ(device.read(buf, sizeof buf), -1);
  EXPECT_EQ(log.lines(), std::vector<std::string>{"Failed to read " + errorText(EBADF) + "."});
}

TEST(TUsbDeviceTransfer, FlushReturnsTheSynchronisationResult) {
  CableChannel channel(true);
  EXPECT_EQ(channel.device.flush(), -1); // a FIFO cannot be synchronised
  channel.spy.returnNext(Sys::Fsync, 0);
  EXPECT_EQ(channel.device.flush(), 0);
  const auto calls = channel.spy.calls();
  ASSERT_EQ(calls.size(), 2u);
  for (const auto& call : calls) {
    EXPECT_EQ(call.call, Sys::Fsync);
    EXPECT_EQ(statusFlags(call.fd) & O_ACCMODE, O_WRONLY);
  }
}

namespace {

std::atomic<int> signalsHandled{0};

void countSignal(int) {
  signalsHandled.fetch_add(1);
}

// Installs a SIGUSR1 handler whose interrupted system calls are not restarted, and
// restores the old disposition afterwards.
class NonRestartingSignal {
public:
  NonRestartingSignal() {
    struct sigaction action {};
    action.sa_handler = countSignal;
    sigemptyset(&action.sa_mask);
    action.sa_flags = 0; // no SA_RESTART
    sigaction(SIGUSR1, &action, &previous_);
  }
  ~NonRestartingSignal() { sigaction(SIGUSR1, &previous_, nullptr); }

private:
  struct sigaction previous_ {};
};

} // namespace

TEST(TUsbDeviceTransfer, BlockingReadInterruptedBySignalGivesZeroAfterItsLogLine) {
  CableChannel channel(false);
  NonRestartingSignal handler;
  LogCapture log;
  std::atomic<int64_t> result{-2};
  std::atomic<pthread_t> readerThread{};
  std::atomic<bool> started{false};

  PeerThread reader([&] {
    readerThread = pthread_self();
    started = true;
    unsigned char buf[kBlock];
    result = channel.device.read(buf, kBlock); // blocks: nobody writes
  });
  ASSERT_TRUE(waitUntil([&] { return started.load(); }));
  // A signal that arrives before the thread is inside read() is handled and lost,
  // so keep signalling until the read returns.
  ASSERT_TRUE(waitUntil(
      [&] {
        pthread_kill(readerThread.load(), SIGUSR1);
        return result.load() != -2;
      },
      kPeerLimit, std::chrono::milliseconds(5)));
  reader.join();

  EXPECT_EQ(result.load(), 0);
  EXPECT_EQ(log.lines(), std::vector<std::string>{"Failed to read " + errorText(EINTR) + "."});
}
