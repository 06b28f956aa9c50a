#include <thriftusb/transport/TUSBSocket.h>
#include <thriftusb/testing/PtyDevice.h>
#include <thriftusb/testing/VirtualCable.h>

#include <cerrno>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include <fcntl.h>

#include <gtest/gtest.h>

#include "support/Bounded.h"
#include "support/Bytes.h"
#include "support/Expect.h"
#include "support/FdIo.h"
#include "support/LogCapture.h"
#include "support/SyscallSpy.h"

using apache::thrift::transport::TTransportException;
using apache::thrift::transport::TUSBSocket;
using namespace thriftusb::test;
using namespace thriftusb::testing;
using Lines = std::vector<std::string>;

namespace {

constexpr int kBlock = 64;
const std::string kCloseLine = "usb device close succeed";

// The transport on the host end of a cable, open, its descriptors watched by the spy.
struct Host {
  Host() { spy.watch(descriptorsOpenedBy([&] { socket.open(); })); }
  std::string receive(size_t len) {
    std::string out(len, '\0');
    EXPECT_EQ(socket.read(u8(out), static_cast<uint32_t>(len)), len);
    return out;
  }
  VirtualCable cable;
  CablePeer peer{cable.host()};
  SyscallSpy spy;
  TUSBSocket socket{cable.host().readPath, cable.host().writePath, 0, kBlock};
};

} // namespace

TEST(TUSBSocketClosed, RefusesEveryTransferWithNotOpenAndLogsEachClose) {
  LogCapture log;
  {
    TUSBSocket socket("/nonexistent/usb", 0, kBlock);
    uint8_t buf[kBlock * 2] = {};
    EXPECT_FALSE(socket.isOpen() || socket.peek() || socket.hasPendingDataToRead());
    EXPECT_TRUE(throwsTransport([&] { socket.read(buf, 1); }, TTransportException::NOT_OPEN,
                                "Called read on non-open usb socket"));
    EXPECT_TRUE(throwsTransport([&] { socket.write(buf, 1); }, TTransportException::NOT_OPEN,
                                "Called write on non-open usb socket"));
    // Not open is reported before the length is looked at.
    EXPECT_TRUE(throwsTransport([&] { socket.write_partial(buf, sizeof buf); },
                                TTransportException::NOT_OPEN,
                                "Called write on non-open usb socket"));
    EXPECT_TRUE(throwsTransport([&] { socket.flush(); }, TTransportException::NOT_OPEN,
                                "Called flush on non-open usb socket"));
    socket.close();
  } // the destructor closes too
  EXPECT_EQ(log.lines(), Lines(2, kCloseLine));
}

TEST(TUSBSocketOpen, OpensEachNodeExclusivelyOnceAndClosesWhatItOpened) {
  PtyDevice pty;
  VirtualCable cable;
  LogCapture log;
  SyscallSpy spy;
  TUSBSocket one(pty.path(), 0, kBlock);
  TUSBSocket two(cable.host().readPath, cable.host().writePath, 0, kBlock);
  const auto before = openDescriptors();
  for (TUSBSocket* socket : {&one, &two}) {
    socket->open();
    socket->open(); // already open: nothing happens
    EXPECT_TRUE(socket->isOpen() && socket->peek() && socket->hasPendingDataToRead());
  }
  // Never O_CREAT: a missing node is an error, not a new file.
  EXPECT_EQ(spy.openFlags(pty.path()), std::vector<int>{O_RDWR | O_EXCL | O_NONBLOCK});
  EXPECT_EQ(spy.openFlags(cable.host().readPath), std::vector<int>{O_RDONLY | O_EXCL | O_NONBLOCK});
  EXPECT_EQ(spy.openFlags(cable.host().writePath),
            std::vector<int>{O_WRONLY | O_EXCL | O_NONBLOCK});
  one.close();
  two.close();
  EXPECT_EQ(openDescriptors(), before);
  EXPECT_FALSE(one.isOpen() || two.isOpen());
  // Only the two-node open logs.
  EXPECT_EQ(log.lines(), (Lines{"usb device open succeed", kCloseLine, kCloseLine}));
}

TEST(TUSBSocketOpen, MissingNodesThrowNotOpenAndHoldNothing) {
  VirtualCable cable;
  LogCapture log;
  const std::string missing = cable.directory() + "/missing";
  const auto before = openDescriptors();
  TUSBSocket oneNode(missing, 0, kBlock);
  TUSBSocket noReadNode(missing, cable.host().writePath, 0, kBlock);
  // The read node opens, the write node does not: the read node is closed again.
  TUSBSocket noWriteNode(cable.host().readPath, missing, 0, kBlock);
  for (TUSBSocket* socket : {&oneNode, &noReadNode, &noWriteNode}) {
    const std::string node = socket == &noWriteNode ? "writing" : "reading";
    EXPECT_TRUE(throwsTransport([&] { socket->open(); }, TTransportException::NOT_OPEN,
                                "Not found usb " + node + " device: " + missing));
    EXPECT_FALSE(socket->isOpen());
    EXPECT_EQ(openDescriptors(), before);
  }
  EXPECT_TRUE(log.lines().empty());
}

TEST(TUSBSocketRead, WaitsForTheWholeLengthInBlocksPollingEveryMillisecond) {
  Host host;
  Watchdog watchdog;
  const std::string message = patternBytes(100);
  writeAll(host.peer.out.get(), message.substr(0, 30));
  // The rest comes only once the reader has found the node empty and paused.
  PeerThread peer([&] {
    if (!waitUntil([&] { return host.spy.count(Sys::Usleep) > 0; })) {
      throw std::runtime_error("the reader never paused");
    }
    writeAll(host.peer.out.get(), message.substr(30) + "next");
  });
  EXPECT_EQ(host.receive(100), message);
  peer.join();
  size_t received = 0;
  for (const auto& call : host.spy.calls()) {
    if (call.call == Sys::Read) { // the smaller of the missing bytes and the block
      EXPECT_EQ(call.length, std::min<size_t>(kBlock, 100 - received));
      received += call.result > 0 ? static_cast<size_t>(call.result) : 0;
    } else {
      EXPECT_EQ(call.length, 1000u) << "the pause between empty polls";
    }
  }
  EXPECT_EQ(host.receive(4), "next"); // nothing beyond the request was taken
}

TEST(TUSBSocketRead, ASystemErrorThrowsAndLogsAndEndOfDataIsATimeOut) {
  Host host;
  LogCapture log;
  // EINTR is an error like any other here: only EAGAIN means "try again".
  for (int error : {EIO, EINTR}) {
    log.clear();
    host.spy.failNext(Sys::Read, error);
    const std::string text = std::strerror(error);
    EXPECT_TRUE(throwsTransport([&] { host.receive(8); }, TTransportException::UNKNOWN,
                                "TUSBSocket::read(): " + text));
    EXPECT_EQ(log.lines(), Lines{"TUSBSocket::read() " + host.cable.host().readPath + ": " + text});
  }
  // End of data, even after part of the request has arrived.
  host.cable.unplug();
  writeAll(host.peer.out.get(), "partial");
  host.peer.out.reset();
  EXPECT_TRUE(throwsTransport([&] { host.receive(20); }, TTransportException::TIMED_OUT,
                              "recv timeout expired"));
  EXPECT_TRUE(host.socket.isOpen());
}

TEST(TUSBSocketWrite, CutsDataIntoBlocksRetriesABusyNodeAtOnceAndSynchronises) {
  Host host;
  host.spy.failNext(Sys::Fsync, EIO); // a result that write ignores
  host.spy.failNext(Sys::Write, EAGAIN, 3);
  const std::string message = patternBytes(150, 7);
  host.socket.write(u8(message), static_cast<uint32_t>(message.size()));
  EXPECT_EQ(readExactly(host.peer.in.get(), message.size()), message);
  EXPECT_EQ(host.spy.lengths(Sys::Write), (std::vector<size_t>{64, 64, 64, 64, 64, 22}));
  EXPECT_EQ(host.spy.count(Sys::Usleep), 0u);
  EXPECT_EQ(host.spy.calls().back().call, Sys::Fsync);
  host.spy.clearCalls();
  host.socket.flush();
  ASSERT_EQ(host.spy.calls().size(), 1u);
  EXPECT_EQ(host.spy.calls()[0].call, Sys::Fsync);
}

// write_partial: one system call of at most one block, each outcome of it.
struct PartialCase {
  const char* name;
  std::function<void(SyscallSpy&)> script;
  uint32_t len;
  uint32_t result; // when nothing is thrown
  TTransportException::TTransportExceptionType type;
  std::string message; // empty: nothing thrown
};

class TUSBSocketWritePartial : public ::testing::TestWithParam<PartialCase> {};

TEST_P(TUSBSocketWritePartial, ReportsTheOutcomeOfItsOneSystemCall) {
  const PartialCase& c = GetParam();
  Host host;
  LogCapture log;
  c.script(host.spy);
  const std::string data = patternBytes(kBlock + 1);
  if (c.message.empty()) {
    EXPECT_EQ(host.socket.write_partial(u8(data), c.len), c.result);
  } else {
    EXPECT_TRUE(throwsTransport([&] { host.socket.write_partial(u8(data), c.len); }, c.type,
                                c.message));
  }
  EXPECT_EQ(host.spy.count(Sys::Write), c.len > kBlock ? 0u : 1u);
  EXPECT_EQ(host.spy.count(Sys::Fsync), 0u);
  EXPECT_TRUE(host.socket.isOpen());
  const Lines logged = {"TUSBSocket::write_partial() " + host.cable.host().writePath + ": " +
                        std::strerror(EIO)};
  EXPECT_EQ(log.lines(), c.message.rfind("TUSBSocket", 0) == 0 ? logged : Lines{});
}

INSTANTIATE_TEST_SUITE_P(
    Outcomes, TUSBSocketWritePartial,
    ::testing::Values(
        PartialCase{"whole_block", [](SyscallSpy&) {}, kBlock, kBlock, {}, ""},
        PartialCase{"over_a_block", [](SyscallSpy&) {}, kBlock + 1, 0,
                    TTransportException::BAD_ARGS, "Buffer length must be less than 64"},
        PartialCase{"busy", [](SyscallSpy& s) { s.failNext(Sys::Write, EAGAIN); }, 8, 0, {}, ""},
        PartialCase{"zero", [](SyscallSpy& s) { s.returnNext(Sys::Write, 0); }, 8, 0,
                    TTransportException::NOT_OPEN, "Usb socket send returned 0."},
        PartialCase{"error", [](SyscallSpy& s) { s.failNext(Sys::Write, EIO); }, 8, 0,
                    TTransportException::UNKNOWN,
                    std::string("TUSBSocket::write_partial() : ") + std::strerror(EIO)}),
    [](const auto& info) { return std::string(info.param.name); });

