#include <thriftusb/transport/TUsbDevice.h>
#include <thriftusb/testing/PtyDevice.h>
#include <thriftusb/testing/VirtualCable.h>

#include <cerrno>
#include <cstring>
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
using Lines = std::vector<std::string>;

namespace {
constexpr unsigned kBlock = 16;
} // namespace

class TUsbDeviceModes : public ::testing::TestWithParam<bool> {};

TEST_P(TUsbDeviceModes, OpensOneOrTwoNodesInTheModeLogsThemAndClosesThem) {
  const int nonblock = GetParam() ? O_NONBLOCK : 0;
  PtyDevice pty;
  VirtualCable cable;
  LogCapture log;
  SyscallSpy spy;
  TUsbDevice one(pty.path(), GetParam(), kBlock, kBlock);
  TUsbDevice two(cable.host().readPath, cable.host().writePath, GetParam(), kBlock, kBlock);
  const auto before = openDescriptors();
  for (TUsbDevice* device : {&one, &one, &two}) { // opening it again does nothing
    ASSERT_EQ(device->open(), 0);
    EXPECT_TRUE(device->isOpen());
  }
  EXPECT_EQ(spy.openFlags(pty.path()), std::vector<int>{O_RDWR | nonblock});
  EXPECT_EQ(spy.openFlags(cable.host().readPath), std::vector<int>{O_RDONLY | nonblock});
  EXPECT_EQ(spy.openFlags(cable.host().writePath), std::vector<int>{O_WRONLY | nonblock});
  EXPECT_EQ(one.flush(), -1); // a terminal cannot be synchronised: fsync's result comes back
  for (TUsbDevice* device : {&one, &one, &two}) {
    EXPECT_EQ(device->close(), 0);
    EXPECT_FALSE(device->isOpen());
  }
  EXPECT_EQ(openDescriptors(), before);
  EXPECT_EQ(log.lines(), (Lines{"1 channel: " + pty.path(), "2 channels: " +
                                                               cable.host().readPath + " " +
                                                               cable.host().writePath}));
}

INSTANTIATE_TEST_SUITE_P(BlockingAndNonBlocking, TUsbDeviceModes, ::testing::Bool());

TEST(TUsbDeviceOpen, FailsWithoutLoggingAndHoldsNothing) {
  VirtualCable cable;
  LogCapture log;
  SyscallSpy spy;
  const std::string missing = cable.directory() + "/missing";
  const auto before = openDescriptors();
  // An empty one-node path counts as two-node mode with both paths missing.
  TUsbDevice emptyPath("", true, kBlock, kBlock);
  TUsbDevice noReadPath("", cable.host().writePath, true, kBlock, kBlock);
  TUsbDevice missingNode(missing, true, kBlock, kBlock);
  TUsbDevice missingReadNode(missing, cable.host().writePath, true, kBlock, kBlock);
  // The read node opens, the write node does not: the read node is closed again.
  TUsbDevice missingWriteNode(cable.host().readPath, missing, true, kBlock, kBlock);
  // Refused before the read node is opened: a blocking open of a FIFO would wait there.
  TUsbDevice noWritePath(cable.device().readPath, "", false, kBlock, kBlock);
  for (TUsbDevice* device : {&emptyPath, &noReadPath, &missingNode, &missingReadNode,
                             &missingWriteNode, &noWritePath}) {
    EXPECT_EQ(device->open(), -1);
    EXPECT_EQ(openDescriptors(), before);
  }
  EXPECT_TRUE(log.lines().empty());
  EXPECT_TRUE(spy.openFlags(cable.device().readPath).empty());
}

// One transfer on an open non-blocking channel: one system call (none for a refused
// length), nothing retried, failures logged except EAGAIN, EINTR reported as 0 (both
// directions share that rule; the reads show it).
struct TransferCase {
  const char* name;
  bool read;
  unsigned len;
  int error; // the system call fails with it; 0: it runs
  int64_t result;
};

class TUsbDeviceTransfer : public ::testing::TestWithParam<TransferCase> {};

TEST_P(TUsbDeviceTransfer, OneSystemCallUpToTheBlockSize) {
  const TransferCase& c = GetParam();
  VirtualCable cable;
  CablePeer peer(cable.host());
  SyscallSpy spy;
  TUsbDevice device(cable.host().readPath, cable.host().writePath, true, kBlock, kBlock);
  spy.watch(descriptorsOpenedBy([&] { EXPECT_EQ(device.open(), 0); }));
  LogCapture log;
  writeAll(peer.out.get(), "short");
  if (c.error != 0) {
    spy.failNext(c.read ? Sys::Read : Sys::Write, c.error);
  }
  std::vector<unsigned char> buf(kBlock + 1, 'x');
  EXPECT_EQ(c.read ? device.read(buf.data(), c.len) : device.write(buf.data(), c.len), c.result);
  EXPECT_EQ(spy.lengths(c.read ? Sys::Read : Sys::Write),
            c.len > kBlock ? std::vector<size_t>{} : std::vector<size_t>{c.len});
  const bool logged = c.error != 0 && c.error != EAGAIN;
  const std::string line =
      std::string("Failed to ") + (c.read ? "read " : "write ") + std::strerror(c.error) + ".";
  EXPECT_EQ(log.lines(), logged ? Lines{line} : Lines{});
  if (c.result > 0) {
    EXPECT_EQ(c.read ? std::string(buf.begin(), buf.begin() + c.result)
                     : readExactly(peer.in.get(), static_cast<size_t>(c.result)),
              c.read ? "short" : std::string(c.len, 'x'));
  }
  EXPECT_TRUE(device.isOpen());
}

INSTANTIATE_TEST_SUITE_P(
    Outcomes, TUsbDeviceTransfer,
    ::testing::Values(TransferCase{"read_data", true, kBlock, 0, 5},
                      TransferCase{"read_over_a_block", true, kBlock + 1, 0, -1},
                      TransferCase{"read_idle", true, kBlock, EAGAIN, 0},
                      TransferCase{"read_interrupted", true, 4, EINTR, 0},
                      TransferCase{"read_error", true, 4, EIO, -1},
                      TransferCase{"write_block", false, kBlock, 0, kBlock},
                      TransferCase{"write_over_a_block", false, kBlock + 1, 0, -1},
                      TransferCase{"write_error", false, 4, EIO, -1}),
    [](const auto& info) { return std::string(info.param.name); });

