#include <thriftusb/transport/TUSBSocket.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

#include <fcntl.h>

#include <gtest/gtest.h>

#include "support/Bounded.h"
#include "support/Expect.h"
#include "support/FdIo.h"
#include "support/LogCapture.h"
#include "support/PtyDevice.h"
#include "support/SyscallSpy.h"
#include "support/VirtualCable.h"

using apache::thrift::transport::TTransportException;
using apache::thrift::transport::TUSBSocket;
using namespace thriftusb::test;

namespace {

constexpr int kBlock = 64;
const std::string kCloseLine = "usb device close succeed";
const std::string kOpenLine = "usb device open succeed";

std::vector<uint8_t> bytesOf(const std::string& s) {
  return std::vector<uint8_t>(s.begin(), s.end());
}

std::string stringOf(const uint8_t* data, size_t len) {
  return std::string(reinterpret_cast<const char*>(data), len);
}

// A host-side transport on a virtual cable, opened, with the test's own ends of the
// FIFOs: `peerIn` reads what the transport writes, `peerOut` writes what it reads.
// The spy watches the transport's descriptors.
struct CableHost {
  explicit CableHost(int block = kBlock)
    : socket(cable.host().readPath, cable.host().writePath, 0, block) {
    socketFds = descriptorsOpenedBy([&] { socket.open(); });
    spy.watch(socketFds);
    peerIn = openFd(cable.device().readPath, O_RDONLY | O_NONBLOCK);
    peerOut = openFd(cable.device().writePath, O_WRONLY | O_NONBLOCK);
  }

  VirtualCable cable;
  SyscallSpy spy;
  TUSBSocket socket;
  std::set<int> socketFds;
  UniqueFd peerIn;
  UniqueFd peerOut;
};

} // namespace

// ---------------------------------------------------------------------------
// A transport that is not open

TEST(TUSBSocketClosed, RefusesEveryOperationWithNotOpen) {
  LogCapture log;
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
  EXPECT_TRUE(log.lines().empty());
}

TEST(TUSBSocketClosed, CloseAndDestructorAlwaysLogTheCloseLine) {
  LogCapture log;
  {
    TUSBSocket socket("/nonexistent/usb", 0, kBlock);
    socket.close();
    socket.close();
  }
  EXPECT_EQ(log.lines(), (std::vector<std::string>{kCloseLine, kCloseLine, kCloseLine}));
}

// ---------------------------------------------------------------------------
// Opening and closing

TEST(TUSBSocketOpen, OneNodeOpensOneReadWriteDescriptorSilentlyAndClosesItOnce) {
  PtyDevice pty;
  LogCapture log;
  SyscallSpy spy;
  TUSBSocket socket(pty.path(), 0, kBlock);
  const auto before = openDescriptors();

  socket.open();
  const auto fds = newDescriptors(before, openDescriptors());
  ASSERT_EQ(fds.size(), 1u);
  const int flags = statusFlags(*fds.begin());
  EXPECT_EQ(flags & O_ACCMODE, O_RDWR);
  EXPECT_NE(flags & O_NONBLOCK, 0);
  EXPECT_TRUE(socket.isOpen());
  EXPECT_TRUE(socket.peek());
  EXPECT_TRUE(socket.hasPendingDataToRead());
  EXPECT_TRUE(log.lines().empty());

  socket.open(); // already open: nothing happens
  EXPECT_EQ(newDescriptors(before, openDescriptors()), fds);
  EXPECT_TRUE(log.lines().empty());

  spy.watch(fds);
  socket.close();
  EXPECT_EQ(spy.count(Sys::Close), 1u);
  EXPECT_EQ(openDescriptors(), before);
  EXPECT_FALSE(socket.isOpen());
  EXPECT_EQ(log.lines(), std::vector<std::string>{kCloseLine});
}

TEST(TUSBSocketOpen, TwoNodeOpensReadAndWriteDescriptorsAndLogsOnce) {
  VirtualCable cable;
  LogCapture log;
  TUSBSocket socket(cable.host().readPath, cable.host().writePath, 0, kBlock);
  const auto before = openDescriptors();

  socket.open();
  socket.open();
  const auto fds = newDescriptors(before, openDescriptors());
  ASSERT_EQ(fds.size(), 2u);
  std::vector<int> modes;
  for (int fd : fds) {
    EXPECT_NE(statusFlags(fd) & O_NONBLOCK, 0);
    modes.push_back(statusFlags(fd) & O_ACCMODE);
  }
  std::sort(modes.begin(), modes.end());
  EXPECT_EQ(modes, (std::vector<int>{O_RDONLY, O_WRONLY}));
  EXPECT_EQ(log.lines(), std::vector<std::string>{kOpenLine});

  socket.close();
  EXPECT_EQ(openDescriptors(), before);
  EXPECT_EQ(log.lines(), (std::vector<std::string>{kOpenLine, kCloseLine}));
}

TEST(TUSBSocketOpen, MissingNodesThrowNotOpenAndHoldNothing) {
  VirtualCable cable;
  LogCapture log;
  const std::string missing = cable.directory() + "/missing";
  const auto before = openDescriptors();

  TUSBSocket oneNode(missing, 0, kBlock);
  EXPECT_TRUE(throwsTransport([&] { oneNode.open(); }, TTransportException::NOT_OPEN,
                              "Not found usb reading device: " + missing));
  EXPECT_FALSE(oneNode.isOpen());

  TUSBSocket noReadNode(missing, cable.host().writePath, 0, kBlock);
  EXPECT_TRUE(throwsTransport([&] { noReadNode.open(); }, TTransportException::NOT_OPEN,
                              "Not found usb reading device: " + missing));

  // The read node opens, the write node does not: the read node is closed again.
  TUSBSocket noWriteNode(cable.host().readPath, missing, 0, kBlock);
  EXPECT_TRUE(throwsTransport([&] { noWriteNode.open(); }, TTransportException::NOT_OPEN,
                              "Not found usb writing device: " + missing));
  EXPECT_FALSE(noWriteNode.isOpen());
  EXPECT_EQ(openDescriptors(), before);
  EXPECT_TRUE(log.lines().empty());
}

TEST(TUSBSocketOpen, ReopensAfterCloseAndCarriesDataAgain) {
  CableHost host;
  host.socket.close();
  EXPECT_FALSE(host.socket.isOpen());

  host.socket.open();
  const auto data = bytesOf("again");
  host.socket.write(data.data(), static_cast<uint32_t>(data.size()));
  EXPECT_EQ(readExactly(host.peerIn.get(), data.size()), "again");
}

// ---------------------------------------------------------------------------
// Reading

TEST(TUSBSocketRead, ReturnsOnlyTheWholeLengthAskingForAtMostOneBlockAtATime) {
  CableHost host;
  const std::string message = patternBytes(100);
  writeAll(host.peerOut.get(), message.substr(0, 30));
  // The rest comes only once the reader has found the node empty and paused.
  PeerThread peer([&] {
    if (!waitUntil([&] { return host.spy.count(Sys::Usleep) > 0; })) {
      throw std::runtime_error("the reader never paused");
    }
    writeAll(host.peerOut.get(), message.substr(30) + "next");
  });
  Watchdog watchdog;

  uint8_t buf[100] = {};
  EXPECT_EQ(host.socket.read(buf, sizeof buf), 100u);
  peer.join();
  EXPECT_EQ(stringOf(buf, sizeof buf), message);

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
  uint8_t rest[4] = {};
  EXPECT_EQ(host.socket.read(rest, sizeof rest), 4u);
  EXPECT_EQ(stringOf(rest, sizeof rest), "next");
}

TEST(TUSBSocketRead, ZeroLengthMakesNoSystemCall) {
  CableHost host;
  uint8_t buf[1];
  EXPECT_EQ(host.socket.read(buf, 0), 0u);
  EXPECT_EQ(host.spy.count(Sys::Read), 0u);
}

TEST(TUSBSocketRead, EndOfDataThrowsTimedOutEvenAfterPartOfTheRequest) {
  CableHost host;
  host.cable.unplug();
  writeAll(host.peerOut.get(), "partial");
  host.peerOut.reset(); // the last writer goes: the node now reports end of data
  Watchdog watchdog;

  uint8_t buf[20] = {};
  EXPECT_TRUE(throwsTransport([&] { host.socket.read(buf, sizeof buf); },
                              TTransportException::TIMED_OUT, "recv timeout expired"));
  EXPECT_TRUE(host.socket.isOpen()); // a failed read leaves the transport open
}

TEST(TUSBSocketRead, SystemErrorsAreLoggedAndThrownAsUnknown) {
  CableHost host;
  LogCapture log;
  uint8_t buf[8] = {};
  // EINTR is an error like any other here: only EAGAIN means "try again".
  for (int error : {EIO, EINTR}) {
    log.clear();
    host.spy.failNext(Sys::Read, error);
    const std::string text = std::strerror(error);
    EXPECT_TRUE(throwsTransport([&] { host.socket.read(buf, sizeof buf); },
                                TTransportException::UNKNOWN, "TUSBSocket::read(): " + text));
    EXPECT_EQ(log.lines(), std::vector<std::string>{"TUSBSocket::read() " +
                                                    host.cable.host().readPath + ": " + text});
    EXPECT_TRUE(host.socket.isOpen());
  }
}

// ---------------------------------------------------------------------------
// Writing

TEST(TUSBSocketWrite, CutsDataIntoBlocksThenSynchronisesTheWriteNode) {
  CableHost host;
  const std::string message = patternBytes(150, 7);
  const auto data = bytesOf(message);

  host.socket.write(data.data(), static_cast<uint32_t>(data.size()));
  EXPECT_EQ(readExactly(host.peerIn.get(), data.size()), message);
  EXPECT_EQ(host.spy.lengths(Sys::Write), (std::vector<size_t>{64, 64, 22}));
  const auto calls = host.spy.calls();
  ASSERT_FALSE(calls.empty());
  EXPECT_EQ(calls.back().call, Sys::Fsync);
  EXPECT_EQ(host.spy.count(Sys::Fsync), 1u);
}

TEST(TUSBSocketWrite, ZeroLengthStillSynchronises) {
  CableHost host;
  uint8_t buf[1] = {};
  host.socket.write(buf, 0);
  EXPECT_EQ(host.spy.count(Sys::Write), 0u);
  EXPECT_EQ(host.spy.count(Sys::Fsync), 1u);
}

TEST(TUSBSocketWrite, BusyNodeIsAskedAgainAtOnce) {
  CableHost host;
  host.spy.failNext(Sys::Write, EAGAIN, 3);
  const auto data = bytesOf(patternBytes(100, 3));

  host.socket.write(data.data(), static_cast<uint32_t>(data.size()));
  EXPECT_EQ(host.spy.lengths(Sys::Write), (std::vector<size_t>{64, 64, 64, 64, 36}));
  EXPECT_EQ(host.spy.count(Sys::Usleep), 0u);
  EXPECT_EQ(readExactly(host.peerIn.get(), data.size()), std::string(data.begin(), data.end()));
}

TEST(TUSBSocketWrite, FailureOfOneBlockEndsTheWriteWithoutSynchronising) {
  CableHost host;
  host.spy.returnNext(Sys::Write, 64);
  host.spy.failNext(Sys::Write, EIO);
  const auto data = bytesOf(patternBytes(100));
  EXPECT_TRUE(throwsTransport(
      [&] { host.socket.write(data.data(), static_cast<uint32_t>(data.size())); },
      TTransportException::UNKNOWN,
      std::string("TUSBSocket::write_partial() : ") + std::strerror(EIO)));
  EXPECT_EQ(host.spy.count(Sys::Fsync), 0u);
  EXPECT_TRUE(host.socket.isOpen());
}

TEST(TUSBSocketWritePartial, AcceptsExactlyTheBlockSizeAndRefusesOneMore) {
  CableHost host;
  const auto data = bytesOf(patternBytes(kBlock + 1));

  EXPECT_EQ(host.socket.write_partial(data.data(), kBlock), static_cast<uint32_t>(kBlock));
  EXPECT_TRUE(throwsTransport([&] { host.socket.write_partial(data.data(), kBlock + 1); },
                              TTransportException::BAD_ARGS,
                              "Buffer length must be less than 64"));
  EXPECT_EQ(host.spy.lengths(Sys::Write), std::vector<size_t>{kBlock});
  EXPECT_EQ(host.spy.count(Sys::Fsync), 0u); // write_partial never synchronises
}

TEST(TUSBSocketWritePartial, ReportsBusyNodeAsZeroAndZeroAcceptedAsNotOpen) {
  CableHost host;
  uint8_t buf[8] = {};
  host.spy.failNext(Sys::Write, EAGAIN);
  EXPECT_EQ(host.socket.write_partial(buf, sizeof buf), 0u);

  host.spy.returnNext(Sys::Write, 0);
  EXPECT_TRUE(throwsTransport([&] { host.socket.write_partial(buf, sizeof buf); },
                              TTransportException::NOT_OPEN, "Usb socket send returned 0."));
}

TEST(TUSBSocketWritePartial, SystemErrorNamesTheWriteNodeInTheLogOnly) {
  CableHost host;
  LogCapture log;
  uint8_t buf[8] = {};
  host.spy.failNext(Sys::Write, EIO);
  const std::string text = std::strerror(EIO);

  EXPECT_TRUE(throwsTransport([&] { host.socket.write_partial(buf, sizeof buf); },
                              TTransportException::UNKNOWN,
                              "TUSBSocket::write_partial() : " + text));
  EXPECT_EQ(log.lines(), std::vector<std::string>{"TUSBSocket::write_partial() " +
                                                  host.cable.host().writePath + ": " + text});
}

TEST(TUSBSocketWritePartial, OneNodeModeLogsAnEmptyPath) {
  PtyDevice pty;
  SyscallSpy spy;
  TUSBSocket socket(pty.path(), 0, kBlock);
  spy.watch(descriptorsOpenedBy([&] { socket.open(); }));
  LogCapture log;
  uint8_t buf[8] = {};
  spy.failNext(Sys::Write, EIO);

  EXPECT_THROW(socket.write_partial(buf, sizeof buf), TTransportException);
  EXPECT_EQ(log.lines(), std::vector<std::string>{std::string("TUSBSocket::write_partial() : ") +
                                                  std::strerror(EIO)});
}

// ---------------------------------------------------------------------------
// Flush, block size 0, one-node data, and the shared lock

TEST(TUSBSocketFlush, SynchronisesTheWriteNodeAndIgnoresItsResult) {
  CableHost host;
  host.spy.failNext(Sys::Fsync, EIO);
  EXPECT_NO_THROW(host.socket.flush());
  EXPECT_NO_THROW(host.socket.flush());
  const auto calls = host.spy.calls();
  ASSERT_EQ(calls.size(), 2u);
  for (const auto& call : calls) {
    EXPECT_EQ(call.call, Sys::Fsync);
    EXPECT_EQ(statusFlags(call.fd) & O_ACCMODE, O_WRONLY);
  }
}

TEST(TUSBSocketBlockSize, ZeroMakesEveryNonEmptyTransferFail) {
  CableHost host(0);
  uint8_t buf[5] = {};
  writeAll(host.peerOut.get(), "12345");
  EXPECT_TRUE(throwsTransport([&] { host.socket.read(buf, sizeof buf); },
                              TTransportException::TIMED_OUT, "recv timeout expired"));
  EXPECT_TRUE(throwsTransport([&] { host.socket.write(buf, sizeof buf); },
                              TTransportException::NOT_OPEN, "Usb socket send returned 0."));
  EXPECT_EQ(host.spy.lengths(Sys::Read), std::vector<size_t>{0});
  EXPECT_EQ(host.spy.lengths(Sys::Write), std::vector<size_t>{0});
}

TEST(TUSBSocketOneNode, CarriesBothDirectionsThroughOneNode) {
  PtyDevice pty;
  TUSBSocket socket(pty.path(), 0, kBlock);
  socket.open();
  Watchdog watchdog;

  const std::string request = patternBytes(200, 11);
  const auto out = bytesOf(request);
  socket.write(out.data(), static_cast<uint32_t>(out.size()));
  EXPECT_EQ(readExactly(pty.peerFd(), request.size()), request);

  const std::string reply = patternBytes(130, 12);
  writeAll(pty.peerFd(), reply);
  std::vector<uint8_t> in(reply.size());
  EXPECT_EQ(socket.readAll(in.data(), static_cast<uint32_t>(in.size())), reply.size());
  EXPECT_EQ(std::string(in.begin(), in.end()), reply);
}

TEST(TUSBSocketLocking, AWriteWaitsForAPendingReadOfAnotherThread) {
  CableHost host;
  Watchdog watchdog;
  uint8_t in[4] = {};
  PeerThread reader([&] { host.socket.read(in, sizeof in); });
  ASSERT_TRUE(waitUntil([&] { return host.spy.count(Sys::Usleep) > 0; }));

  const auto out = bytesOf("reply");
  PeerThread writer([&] { host.socket.write(out.data(), static_cast<uint32_t>(out.size())); });
  EXPECT_FALSE(writer.waitFor(std::chrono::milliseconds(200)));
  EXPECT_EQ(host.spy.count(Sys::Write), 0u);

  writeAll(host.peerOut.get(), "ping");
  reader.join();
  writer.join();
  EXPECT_EQ(stringOf(in, sizeof in), "ping");
  EXPECT_EQ(readExactly(host.peerIn.get(), out.size()), "reply");
}
