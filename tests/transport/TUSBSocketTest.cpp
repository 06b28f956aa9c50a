#include <thriftusb/transport/TUSBSocket.h>
#include <thriftusb/testing/PtyDevice.h>
#include <thriftusb/testing/VirtualCable.h>

#include <cerrno>
#include <cstring>
#include <set>
#include <string>
#include <vector>

#include <fcntl.h>

#include <gtest/gtest.h>

#include "support/Bounded.h"
#include "support/Expect.h"
#include "support/FdIo.h"
#include "support/LogCapture.h"
#include "support/SyscallSpy.h"

using apache::thrift::transport::TTransportException;
using apache::thrift::transport::TUSBSocket;
using namespace thriftusb::test;
using namespace thriftusb::testing;

namespace {

constexpr int kBlock = 64;
const std::string kCloseLine = "usb device close succeed";
const std::string kOpenLine = "usb device open succeed";

const uint8_t* u8(const std::string& s) {
  return reinterpret_cast<const uint8_t*>(s.data());
}

void send(TUSBSocket& socket, const std::string& s) {
  socket.write(u8(s), static_cast<uint32_t>(s.size()));
}

// Reads @p len bytes with one call of `read`, which must report all of them.
std::string receive(TUSBSocket& socket, size_t len) {
  std::string out(len, '\0');
  EXPECT_EQ(socket.read(reinterpret_cast<uint8_t*>(&out[0]), static_cast<uint32_t>(len)), len);
  return out;
}

// A host-side transport on a virtual cable, opened, with the test's own ends of the
// FIFOs: `peerIn` reads what the transport writes, `peerOut` writes what it reads.
// The spy watches the transport's descriptors.
struct CableHost {
  explicit CableHost(int block = kBlock)
    : socket(cable.host().readPath, cable.host().writePath, 0, block) {
    spy.watch(descriptorsOpenedBy([&] { socket.open(); }));
    peerIn = openFd(cable.device().readPath, O_RDONLY | O_NONBLOCK);
    peerOut = openFd(cable.device().writePath, O_WRONLY | O_NONBLOCK);
  }

  VirtualCable cable;
  SyscallSpy spy;
  TUSBSocket socket;
  UniqueFd peerIn;
  UniqueFd peerOut;
};

} // namespace

// ---------------------------------------------------------------------------
// A transport that is not open

TEST(TUSBSocketClosed, RefusesEveryOperationWithNotOpenAndLogsEveryClose) {
  LogCapture log;
  {
    TUSBSocket socket("/nonexistent/usb", 0, kBlock);
    uint8_t buf[kBlock * 2] = {};
    EXPECT_FALSE(socket.isOpen());
    EXPECT_FALSE(socket.peek());
    EXPECT_FALSE(socket.hasPendingDataToRead());
    EXPECT_TRUE(throwsTransport([&] { socket.read(buf, 0); }, TTransportException::NOT_OPEN,
                                "Called read on non-open usb socket"));
    EXPECT_TRUE(throwsTransport([&] { socket.write(buf, 0); }, TTransportException::NOT_OPEN,
                                "Called write on non-open usb socket"));
    // Not open is reported before the length is looked at.
    EXPECT_TRUE(throwsTransport([&] { socket.write_partial(buf, sizeof buf); },
                                TTransportException::NOT_OPEN,
                                "Called write on non-open usb socket"));
    EXPECT_TRUE(throwsTransport([&] { socket.flush(); }, TTransportException::NOT_OPEN,
                                "Called flush on non-open usb socket"));
    socket.close();
    socket.close();
  } // the destructor logs the line too; nothing else logged anything
  EXPECT_EQ(log.lines(), (std::vector<std::string>{kCloseLine, kCloseLine, kCloseLine}));
}

// ---------------------------------------------------------------------------
// Opening and closing

TEST(TUSBSocketOpen, OneNodeUsesOneSilentReadWriteDescriptorAndReopens) {
  PtyDevice pty;
  LogCapture log;
  SyscallSpy spy;
  TUSBSocket socket(pty.path(), 0, kBlock);
  const auto before = openDescriptors();

  socket.open();
  const auto fds = newDescriptors(before, openDescriptors());
  EXPECT_EQ(accessModes(fds), std::multiset<int>{O_RDWR | O_NONBLOCK});
  EXPECT_EQ(spy.openFlags(pty.path()), std::vector<int>{O_RDWR | O_EXCL | O_NONBLOCK});
  EXPECT_TRUE(socket.peek());
  EXPECT_TRUE(socket.hasPendingDataToRead());
  socket.open(); // already open: nothing happens
  EXPECT_EQ(newDescriptors(before, openDescriptors()), fds);

  spy.watch(fds);
  socket.close();
  EXPECT_EQ(spy.count(Sys::Close), 1u);
  EXPECT_EQ(openDescriptors(), before);
  EXPECT_FALSE(socket.isOpen());
  EXPECT_EQ(log.lines(), std::vector<std::string>{kCloseLine}); // the opens logged nothing

  // Opened again, a failed write goes to the new descriptor and logs the write path,
  // which is empty in this mode.
  spy.watch(descriptorsOpenedBy([&] { socket.open(); }));
  log.clear();
  spy.failNext(Sys::Write, EIO);
  EXPECT_THROW(socket.write_partial(u8("ping"), 4), TTransportException);
  EXPECT_EQ(log.lines(), std::vector<std::string>{std::string("TUSBSocket::write_partial() : ") +
                                                  std::strerror(EIO)});
}

TEST(TUSBSocketOpen, TwoNodeOpensAReadAndAWriteDescriptorLogsOnceAndReopens) {
  VirtualCable cable;
  LogCapture log;
  SyscallSpy spy;
  TUSBSocket socket(cable.host().readPath, cable.host().writePath, 0, kBlock);
  const auto before = openDescriptors();

  for (int round = 0; round < 2; ++round) {
    socket.open();
    socket.open();
    EXPECT_EQ(accessModes(newDescriptors(before, openDescriptors())),
              (std::multiset<int>{O_RDONLY | O_NONBLOCK, O_WRONLY | O_NONBLOCK}));
    socket.close();
    EXPECT_EQ(openDescriptors(), before);
  }
  EXPECT_EQ(log.lines(), (std::vector<std::string>{kOpenLine, kCloseLine, kOpenLine, kCloseLine}));
  // Exclusive opens, never with O_CREAT: a missing node is an error, not a new file.
  EXPECT_EQ(spy.openFlags(cable.host().readPath),
            std::vector<int>(2, O_RDONLY | O_EXCL | O_NONBLOCK));
  EXPECT_EQ(spy.openFlags(cable.host().writePath),
            std::vector<int>(2, O_WRONLY | O_EXCL | O_NONBLOCK));
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

// ---------------------------------------------------------------------------
// Reading

TEST(TUSBSocketRead, ReturnsTheWholeLengthInBlocksOrThrowsAndStaysOpen) {
  CableHost host;
  Watchdog watchdog;
  EXPECT_EQ(receive(host.socket, 0), ""); // no system call: every call is checked below
  const std::string message = patternBytes(100);
  writeAll(host.peerOut.get(), message.substr(0, 30));
  // The rest comes only once the reader has found the node empty and paused.
  PeerThread peer([&] {
    if (!waitUntil([&] { return host.spy.count(Sys::Usleep) > 0; })) {
      throw std::runtime_error("the reader never paused");
    }
    writeAll(host.peerOut.get(), message.substr(30) + "next");
  });
  EXPECT_EQ(receive(host.socket, 100), message);
  peer.join();

  // Every request asked for the smaller of the missing bytes and the block size.
  size_t received = 0;
  for (const auto& call : host.spy.calls()) {
    if (call.call == Sys::Read) {
      EXPECT_EQ(call.length, std::min<size_t>(kBlock, 100 - received));
      received += call.result > 0 ? static_cast<size_t>(call.result) : 0;
    } else if (call.call == Sys::Usleep) {
      EXPECT_EQ(call.length, 1000u); // 1 ms between empty polls
    }
  }
  // Nothing beyond the request was taken from the node.
  EXPECT_EQ(receive(host.socket, 4), "next");

  LogCapture log;
  // EINTR is an error like any other here: only EAGAIN means "try again".
  for (int error : {EIO, EINTR}) {
    log.clear();
    host.spy.failNext(Sys::Read, error);
    const std::string text = std::strerror(error);
    EXPECT_TRUE(throwsTransport([&] { receive(host.socket, 8); }, TTransportException::UNKNOWN,
                                "TUSBSocket::read(): " + text));
    EXPECT_EQ(log.lines(), std::vector<std::string>{"TUSBSocket::read() " +
                                                    host.cable.host().readPath + ": " + text});
  }

  // End of data is a time-out, even after part of the request has arrived.
  host.cable.unplug();
  writeAll(host.peerOut.get(), "partial");
  host.peerOut.reset(); // the last writer goes: the node now reports end of data
  EXPECT_TRUE(throwsTransport([&] { receive(host.socket, 20); }, TTransportException::TIMED_OUT,
                              "recv timeout expired"));
  EXPECT_TRUE(host.socket.isOpen());
}

// ---------------------------------------------------------------------------
// Writing and flushing

TEST(TUSBSocketWrite, CutsDataIntoBlocksRetriesABusyNodeAtOnceAndAlwaysSynchronises) {
  CableHost host;
  host.spy.failNext(Sys::Fsync, EIO, 2); // results that write and flush ignore
  send(host.socket, "");                 // writes nothing, still synchronises
  host.spy.failNext(Sys::Write, EAGAIN, 3);
  const std::string message = patternBytes(150, 7);
  send(host.socket, message);
  EXPECT_EQ(readExactly(host.peerIn.get(), message.size()), message);
  EXPECT_EQ(host.spy.lengths(Sys::Write), (std::vector<size_t>{64, 64, 64, 64, 64, 22}));
  EXPECT_EQ(host.spy.count(Sys::Usleep), 0u);
  ASSERT_EQ(host.spy.count(Sys::Fsync), 2u);
  EXPECT_EQ(host.spy.calls().back().call, Sys::Fsync);

  host.spy.clearCalls();
  host.spy.failNext(Sys::Fsync, EIO);
  EXPECT_NO_THROW(host.socket.flush());
  const auto calls = host.spy.calls();
  ASSERT_EQ(calls.size(), 1u);
  EXPECT_EQ(calls[0].call, Sys::Fsync);
  EXPECT_EQ(statusFlags(calls[0].fd) & O_ACCMODE, O_WRONLY);
}

TEST(TUSBSocketWritePartial, TakesUpToOneBlockAndReportsEachOutcomeOfItsOneSystemCall) {
  CableHost host;
  LogCapture log;
  const std::string data = patternBytes(100);
  EXPECT_EQ(host.socket.write_partial(u8(data), kBlock), static_cast<uint32_t>(kBlock));
  EXPECT_TRUE(throwsTransport([&] { host.socket.write_partial(u8(data), kBlock + 1); },
                              TTransportException::BAD_ARGS,
                              "Buffer length must be less than 64"));
  host.spy.failNext(Sys::Write, EAGAIN);
  EXPECT_EQ(host.socket.write_partial(u8(data), 8), 0u);
  host.spy.returnNext(Sys::Write, 0);
  EXPECT_TRUE(throwsTransport([&] { host.socket.write_partial(u8(data), 8); },
                              TTransportException::NOT_OPEN, "Usb socket send returned 0."));
  EXPECT_EQ(host.spy.lengths(Sys::Write), (std::vector<size_t>{kBlock, 8, 8}));

  // A system error, here in the second block of a write, also ends that write.
  host.spy.returnNext(Sys::Write, 64);
  host.spy.failNext(Sys::Write, EIO);
  const std::string text = std::strerror(EIO);
  EXPECT_TRUE(throwsTransport([&] { send(host.socket, data); }, TTransportException::UNKNOWN,
                              "TUSBSocket::write_partial() : " + text));
  EXPECT_EQ(log.lines(), std::vector<std::string>{"TUSBSocket::write_partial() " +
                                                  host.cable.host().writePath + ": " + text});
  EXPECT_EQ(host.spy.count(Sys::Fsync), 0u); // neither write_partial nor the failed write
  EXPECT_TRUE(host.socket.isOpen());
}

// ---------------------------------------------------------------------------
// Block size 0 and the shared lock

TEST(TUSBSocketBlockSize, ZeroMakesEveryNonEmptyTransferFail) {
  CableHost host(0);
  writeAll(host.peerOut.get(), "12345");
  EXPECT_TRUE(throwsTransport([&] { receive(host.socket, 5); }, TTransportException::TIMED_OUT,
                              "recv timeout expired"));
  EXPECT_TRUE(throwsTransport([&] { send(host.socket, "12345"); }, TTransportException::NOT_OPEN,
                              "Usb socket send returned 0."));
  EXPECT_EQ(host.spy.lengths(Sys::Read), std::vector<size_t>{0});
  EXPECT_EQ(host.spy.lengths(Sys::Write), std::vector<size_t>{0});
}

TEST(TUSBSocketLocking, AWriteWaitsForAPendingReadOfAnotherThread) {
  CableHost host;
  Watchdog watchdog;
  std::string in;
  PeerThread reader([&] { in = receive(host.socket, 4); });
  ASSERT_TRUE(waitUntil([&] { return host.spy.count(Sys::Usleep) > 0; }));

  PeerThread writer([&] { send(host.socket, "reply"); });
  EXPECT_FALSE(writer.waitFor(std::chrono::milliseconds(200)));
  EXPECT_EQ(host.spy.count(Sys::Write), 0u);

  writeAll(host.peerOut.get(), "ping");
  reader.join();
  writer.join();
  EXPECT_EQ(in, "ping");
  EXPECT_EQ(readExactly(host.peerIn.get(), 5), "reply");
}
