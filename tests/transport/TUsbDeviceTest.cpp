#include <thriftusb/transport/TUsbDevice.h>
#include <thriftusb/testing/PtyDevice.h>
#include <thriftusb/testing/VirtualCable.h>

#include <cerrno>
#include <cstring>
#include <set>
#include <string>
#include <vector>

#include <fcntl.h>

#include <gtest/gtest.h>

#include "support/FdIo.h"
#include "support/LogCapture.h"
#include "support/SyscallSpy.h"

using apache::thrift::transport::TUsbDevice;
using namespace thriftusb::test;
using namespace thriftusb::testing;

namespace {

constexpr unsigned kBlock = 16;

// The line logged when the @p call system call fails with @p error.
std::string failed(const std::string& call, int error) {
  return "Failed to " + call + " " + std::strerror(error) + ".";
}

} // namespace

// ---------------------------------------------------------------------------
// Opening and closing

class TUsbDeviceModes : public ::testing::TestWithParam<bool> {
protected:
  const int nonblock = GetParam() ? O_NONBLOCK : 0;
};

TEST_P(TUsbDeviceModes, OneNodeOpensOneReadWriteDescriptorAndClosesItOnce) {
  PtyDevice pty;
  LogCapture log;
  SyscallSpy spy;
  TUsbDevice device(pty.path(), GetParam(), kBlock, kBlock);
  const auto before = openDescriptors();

  ASSERT_EQ(device.open(), 0);
  const auto fds = newDescriptors(before, openDescriptors());
  ASSERT_EQ(accessModes(fds), std::multiset<int>{O_RDWR | nonblock});
  EXPECT_TRUE(device.isOpen());
  EXPECT_EQ(device.open(), 0); // already open: nothing happens
  EXPECT_EQ(newDescriptors(before, openDescriptors()), fds);
  EXPECT_EQ(log.lines(), std::vector<std::string>{"1 channel: " + pty.path()});

  spy.watch(fds);
  EXPECT_EQ(device.flush(), -1); // a terminal cannot be synchronised: fsync's result comes back
  EXPECT_EQ(device.close(), 0);
  EXPECT_EQ(spy.count(Sys::Close), 1u);
  EXPECT_EQ(spy.count(Sys::Fsync), 1u); // on the one descriptor, the only one watched
  EXPECT_EQ(openDescriptors(), before);
  EXPECT_FALSE(device.isOpen());
  EXPECT_EQ(device.close(), 0);
}

TEST_P(TUsbDeviceModes, TwoNodeOpensReadAndWriteDescriptorsAndCanReopen) {
  VirtualCable cable;
  LogCapture log;
  TUsbDevice device(cable.host().readPath, cable.host().writePath, GetParam(), kBlock, kBlock);
  const auto before = openDescriptors();

  for (int round = 0; round < 2; ++round) {
    ASSERT_EQ(device.open(), 0);
    EXPECT_EQ(accessModes(newDescriptors(before, openDescriptors())),
              (std::multiset<int>{O_RDONLY | nonblock, O_WRONLY | nonblock}));
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

  // A missing write path is refused before the read node is opened: a blocking open
  // of a FIFO would wait there for a writer.
  SyscallSpy spy;
  TUsbDevice noWritePath(cable.host().readPath, "", false, kBlock, kBlock);
  EXPECT_EQ(noWritePath.open(), -1);
  EXPECT_TRUE(spy.openFlags(cable.host().readPath).empty());
}

// ---------------------------------------------------------------------------
// Reading, writing and flushing

TEST(TUsbDeviceTransfer, OneSystemCallUpToTheBlockSizeWithTheResultConventions) {
  // A non-blocking channel on a virtual cable; the test reads what it writes from
  // `peerIn` and writes what it reads to `peerOut`.
  VirtualCable cable;
  SyscallSpy spy;
  TUsbDevice device(cable.host().readPath, cable.host().writePath, true, kBlock, kBlock);
  spy.watch(descriptorsOpenedBy([&] { EXPECT_EQ(device.open(), 0); }));
  const auto peerIn = openFd(cable.device().readPath, O_RDONLY | O_NONBLOCK);
  const auto peerOut = openFd(cable.device().writePath, O_WRONLY | O_NONBLOCK);
  LogCapture log;
  std::vector<unsigned char> buf(kBlock + 1, 'x');

  EXPECT_EQ(device.read(buf.data(), kBlock), 0); // no data yet: silently "try again"
  EXPECT_EQ(device.write(buf.data(), kBlock + 1), -1);
  EXPECT_EQ(device.read(buf.data(), kBlock + 1), -1);
  EXPECT_EQ(device.write(buf.data(), kBlock), static_cast<int64_t>(kBlock));
  EXPECT_EQ(readExactly(peerIn.get(), kBlock), std::string(kBlock, 'x'));
  writeAll(peerOut.get(), "short");
  EXPECT_EQ(device.read(buf.data(), kBlock), 5);
  EXPECT_EQ(std::string(buf.begin(), buf.begin() + 5), "short");
  spy.failNext(Sys::Write, EAGAIN);
  EXPECT_EQ(device.write(buf.data(), 5), 0);

  // Failed calls are logged (checked at the end); interrupted ones give 0, the others -1.
  spy.failNext(Sys::Write, EINTR);
  EXPECT_EQ(device.write(buf.data(), 4), 0);
  spy.failNext(Sys::Write, EIO);
  EXPECT_EQ(device.write(buf.data(), 3), -1);
  spy.failNext(Sys::Read, EINTR);
  EXPECT_EQ(device.read(buf.data(), 4), 0);
  spy.failNext(Sys::Read, EIO);
  EXPECT_EQ(device.read(buf.data(), 3), -1);
  // One system call each, none for the refused lengths: nothing is retried.
  EXPECT_EQ(spy.lengths(Sys::Read), (std::vector<size_t>{kBlock, kBlock, 4, 3}));
  EXPECT_EQ(spy.lengths(Sys::Write), (std::vector<size_t>{kBlock, 5, 4, 3}));

  // Flush synchronises the write node and returns the result.
  spy.clearCalls();
  EXPECT_EQ(device.flush(), -1); // a FIFO cannot be synchronised
  spy.returnNext(Sys::Fsync, 0);
  EXPECT_EQ(device.flush(), 0);
  const auto calls = spy.calls();
  ASSERT_EQ(calls.size(), 2u);
  for (const auto& call : calls) {
    EXPECT_EQ(call.call, Sys::Fsync);
    EXPECT_EQ(statusFlags(call.fd) & O_ACCMODE, O_WRONLY);
  }

  // No failure closed the channel; once closed, the read system call itself fails.
  EXPECT_TRUE(device.isOpen());
  EXPECT_EQ(device.close(), 0);
  EXPECT_EQ(device.read(buf.data(), 4), -1);
  // Nothing else was logged: not the idle read, the refused lengths, EAGAIN or flush.
  EXPECT_EQ(log.lines(),
            (std::vector<std::string>{failed("write", EINTR), failed("write", EIO),
                                      failed("read", EINTR), failed("read", EIO),
                                      failed("read", EBADF)}));
}
