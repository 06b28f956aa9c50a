#include <thriftusb/transport/TUSBSocket.h>
#include <thriftusb/testing/PtyDevice.h>
#include <thriftusb/testing/VirtualCable.h>

#include <cerrno>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

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
using Sizes = std::vector<size_t>;

namespace {

constexpr int kBlock = 64;
const std::string kCloseLine = "usb device close succeed";

// The transport on the host end of a cable, open, its descriptors watched by the spy.
struct Host {
  Host() {
    spy.watch(descriptorsOpenedBy([&] { socket.open(); }));
    log.clear();
  }
  std::string receive(size_t len) {
    std::string out(len, '\0');
    EXPECT_EQ(socket.read(u8(out), static_cast<uint32_t>(len)), len);
    return out;
  }
  VirtualCable cable;
  CablePeer peer{cable.host()};
  SyscallSpy spy;
  LogCapture log;
  TUSBSocket socket{cable.host().readPath, cable.host().writePath, 0, kBlock};
};

} // namespace

TEST(TUSBSocketClosed, RefusesEveryTransferWithNotOpenAndLogsEachClose) {
  LogCapture log;
  {
    TUSBSocket socket("/nonexistent/usb", 0, kBlock);
    uint8_t buf[kBlock * 2] = {};
    EXPECT_FALSE(socket.isOpen() || socket.peek() || socket.hasPendingDataToRead());
    for (const auto& [call, what] : std::vector<std::pair<std::function<void()>, std::string>>{
             {[&] { socket.read(buf, 1); }, "read"},
             {[&] { socket.write(buf, 1); }, "write"},
             {[&] { socket.write_partial(buf, sizeof buf); }, "write"}, // before the length
             {[&] { socket.flush(); }, "flush"}}) {
      EXPECT_TRUE(throwsTransport(call, TTransportException::NOT_OPEN,
                                  "Called " + what + " on non-open usb socket"));
    }
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
  const int flags = O_EXCL | O_NONBLOCK;
  EXPECT_EQ(spy.openFlags(pty.path()), std::vector<int>{O_RDWR | flags});
  EXPECT_EQ(spy.openFlags(cable.host().readPath), std::vector<int>{O_RDONLY | flags});
  EXPECT_EQ(spy.openFlags(cable.host().writePath), std::vector<int>{O_WRONLY | flags});
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
    EXPECT_EQ(openDescriptors(), before);
  }
  EXPECT_TRUE(log.lines().empty());
}

TEST(TUSBSocketRead, WaitsForTheWholeLengthInBlocksPollingEveryMillisecond) {
  Host host;
  const std::string message = patternBytes(100);
  writeAll(host.peer.out.get(), message.substr(0, 30));
  // The rest comes only once the reader has found the node empty and paused.
  PeerThread peer([&] {
    ASSERT_TRUE(waitUntil([&] { return host.spy.count(Sys::Usleep) > 0; }));
    writeAll(host.peer.out.get(), message.substr(30) + "next");
  });
  EXPECT_EQ(host.receive(100), message);
  peer.join();
  // Each read asks for the smaller of the missing bytes and the block: 64 until 6 are left.
  const Sizes reads = host.spy.lengths(Sys::Read), sleeps = host.spy.lengths(Sys::Usleep);
  EXPECT_EQ(Sizes(reads.begin(), reads.end() - 1), Sizes(reads.size() - 1, kBlock));
  EXPECT_EQ(reads.back(), 6u);
  EXPECT_EQ(sleeps, Sizes(sleeps.size(), 1000)) << "the pause between empty polls";
  EXPECT_EQ(host.receive(4), "next"); // nothing beyond the request was taken
}

TEST(TUSBSocketRead, ASystemErrorThrowsAndLogsAndEndOfDataIsATimeOut) {
  Host host;
  // EINTR is an error like any other here: only EAGAIN means "try again".
  host.spy.failNext(Sys::Read, EINTR);
  const std::string text = std::strerror(EINTR);
  EXPECT_TRUE(throwsTransport([&] { host.receive(8); }, TTransportException::UNKNOWN,
                              "TUSBSocket::read(): " + text));
  EXPECT_EQ(host.log.lines(),
            Lines{"TUSBSocket::read() " + host.cable.host().readPath + ": " + text});
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
  EXPECT_EQ(host.spy.count(Sys::Fsync), 1u);
  host.socket.flush(); // synchronises again, writing nothing
  EXPECT_EQ(readExactly(host.peer.in.get(), message.size()), message);
  EXPECT_EQ(host.spy.lengths(Sys::Write), (Sizes{64, 64, 64, 64, 64, 22}));
  EXPECT_EQ(host.spy.count(Sys::Usleep), 0u);
  EXPECT_EQ(host.spy.count(Sys::Fsync), 2u);
}

TEST(TUSBSocketWritePartial, RefusesMoreThanABlockAndReportsAFailedSystemCall) {
  Host host;
  const std::string data = patternBytes(kBlock + 1);
  const auto writePartial = [&](uint32_t len) { host.socket.write_partial(u8(data), len); };
  EXPECT_TRUE(throwsTransport([&] { writePartial(kBlock + 1); }, TTransportException::BAD_ARGS,
                              "Buffer length must be less than 64"));
  host.spy.script(Sys::Write, 0); // would be retried for ever
  EXPECT_TRUE(throwsTransport([&] { writePartial(8); }, TTransportException::NOT_OPEN,
                              "Usb socket send returned 0."));
  host.spy.failNext(Sys::Write, EIO);
  const std::string text = std::strerror(EIO);
  EXPECT_TRUE(throwsTransport([&] { writePartial(8); }, TTransportException::UNKNOWN,
                              "TUSBSocket::write_partial() : " + text));
  EXPECT_EQ(host.log.lines(),
            Lines{"TUSBSocket::write_partial() " + host.cable.host().writePath + ": " + text});
  EXPECT_EQ(host.spy.lengths(Sys::Write), Sizes(2, 8)); // one call each, none synchronised
  EXPECT_EQ(host.spy.count(Sys::Fsync), 0u);
  EXPECT_TRUE(host.socket.isOpen());
}
