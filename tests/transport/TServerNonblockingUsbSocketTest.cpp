#include <thriftusb/transport/TServerNonblockingUsbSocket.h>
#include <thriftusb/testing/PtyDevice.h>
#include <thriftusb/testing/TempDir.h>
#include <thriftusb/testing/VirtualCable.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include <fcntl.h>
#include <unistd.h>

#include <gtest/gtest.h>
#include <thrift/transport/TTransportException.h>

#include "support/Bounded.h"
#include "support/Expect.h"
#include "support/FdIo.h"
#include "support/LogCapture.h"
#include "support/SyscallSpy.h"

using apache::thrift::transport::TServerNonblockingUsbSocket;
using apache::thrift::transport::TTransport;
using apache::thrift::transport::TTransportException;
using namespace thriftusb::test;
using namespace thriftusb::testing;
using namespace std::chrono_literals;
using Paths = std::vector<std::string>;

namespace {

constexpr unsigned kBlock = 64;

// Whether accept fails as it must on a stopped server.
::testing::AssertionResult acceptFails(TServerNonblockingUsbSocket& server) {
  return throwsTransport([&] { server.accept(); }, TTransportException::UNKNOWN,
                         "Server usb socket is closed.");
}

} // namespace

// ---------------------------------------------------------------------------
// Listening, interrupting and the socket descriptor

TEST(TServerNonblockingUsbSocketState, AcceptWhileStoppedFailsAtOnceAndListenRearmsIt) {
  Watchdog watchdog;
  PtyDevice pty;
  SyscallSpy spy;
  TServerNonblockingUsbSocket server(pty.path(), true, kBlock, kBlock);
  std::vector<Paths> calls;
  server.setPreOpenCallback([&](Paths paths) { calls.push_back(paths); });

  EXPECT_TRUE(server.isOpen());
  for (auto stop : {&TServerNonblockingUsbSocket::interrupt, &TServerNonblockingUsbSocket::close}) {
    (server.*stop)();
    EXPECT_FALSE(server.isOpen());
    EXPECT_TRUE(acceptFails(server));
    EXPECT_EQ(spy.count(Sys::Usleep), 0u) << "a stopped server must fail without sleeping";
    server.listen();
    EXPECT_TRUE(server.isOpen());
  }

  // Rearmed; the very first accept still sleeps one step before its attempt.
  const auto transport = server.accept();
  EXPECT_TRUE(transport->isOpen());
  EXPECT_EQ(calls, std::vector<Paths>{{pty.path()}}); // none from the stopped accepts
  EXPECT_EQ(spy.lengths(Sys::Usleep), std::vector<size_t>{100000});
  EXPECT_EQ(server.getSocketFD(), -1);
}

// ---------------------------------------------------------------------------
// Nodes that cannot be opened

TEST(TServerNonblockingUsbSocketRetry, MissingNodeIsRetriedWithTheCallbackBeforeEveryAttempt) {
  Watchdog watchdog;
  PtyDevice pty;
  TempDir dir;
  const std::string node = dir.file("gadget");
  SyscallSpy spy;
  spy.setInstantSleeps(true);
  LogCapture output;
  TServerNonblockingUsbSocket server(node, true, kBlock, kBlock);
  std::vector<Paths> calls;
  std::vector<size_t> stepsBeforeCall;
  // The third call makes the node appear, as a gadget set-up callback would.
  server.setPreOpenCallback([&](Paths paths) {
    calls.push_back(paths);
    stepsBeforeCall.push_back(spy.count(Sys::Usleep));
    if (calls.size() == 3) {
      ASSERT_EQ(::symlink(pty.path().c_str(), node.c_str()), 0);
    }
  });

  EXPECT_TRUE(server.accept()->isOpen());
  EXPECT_EQ(calls, (std::vector<Paths>{{node}, {node}, {node}}));
  // One step before the first attempt, two (after the failure, before the next) per retry.
  EXPECT_EQ(stepsBeforeCall, (std::vector<size_t>{1, 3, 5}));
  EXPECT_EQ(spy.lengths(Sys::Usleep), std::vector<size_t>(5, 100000)); // and no other sleep
  // The failed attempts leave no trace in the log; only the channel's open line.
  EXPECT_EQ(output.lines(), std::vector<std::string>{"1 channel: " + node});
}

// An empty one-node path means two-node mode with empty paths, which never open. (The
// pace of the attempts is checked in virtual time above.)
TEST(TServerNonblockingUsbSocketRetry, RetriesUntilInterruptedFromAnotherThread) {
  TServerNonblockingUsbSocket server("", true, kBlock, kBlock);
  std::atomic<int> calls{0};
  server.setPreOpenCallback([&](Paths paths) {
    EXPECT_EQ(paths, (Paths{"", ""}));
    ++calls;
  });

  ::testing::AssertionResult outcome = ::testing::AssertionFailure() << "accept did not end";
  PeerThread acceptor([&] { outcome = acceptFails(server); });
  ASSERT_TRUE(waitUntil([&] { return calls >= 2; }, 5000ms));
  server.interrupt();
  ASSERT_TRUE(acceptor.waitFor(2000ms)) << "accept ignored the interrupt";
  acceptor.join();
  EXPECT_TRUE(outcome);
}

// ---------------------------------------------------------------------------
// The pre-open callback

TEST(TServerNonblockingUsbSocketCallback, TwoNodeModePassesReadNodeFirstAndUsesBothNodes) {
  Watchdog watchdog;
  VirtualCable cable;
  const auto device = cable.device();
  TServerNonblockingUsbSocket server(device.readPath, device.writePath, true, kBlock, kBlock);
  std::vector<Paths> calls;
  server.setPreOpenCallback([&](Paths paths) { calls.push_back(paths); });

  const auto transport = server.accept();
  EXPECT_EQ(calls, (std::vector<Paths>{{device.readPath, device.writePath}}));

  // Bytes from the host arrive through the read node, answers leave through the other.
  const auto hostOut = openFd(cable.host().writePath, O_WRONLY | O_NONBLOCK);
  const auto hostIn = openFd(cable.host().readPath, O_RDONLY | O_NONBLOCK);
  writeAll(hostOut.get(), "ping");
  uint8_t request[4] = {};
  transport->readAll(request, sizeof request);
  EXPECT_EQ(std::string(request, request + sizeof request), "ping");
  // Non-blocking mode writes straight to the node (no flush: fsync of a FIFO fails).
  transport->write(reinterpret_cast<const uint8_t*>("pong"), 4);
  EXPECT_EQ(readExactly(hostIn.get(), 4), "pong");
}

TEST(TServerNonblockingUsbSocketConnections, HoldAHostsBurstOfMegabytesUnread) {
  Watchdog watchdog;
  VirtualCable cable;
  constexpr unsigned kBigBlock = 4096;
  TServerNonblockingUsbSocket server(cable.device().readPath, cable.device().writePath, false,
                                     kBigBlock, kBigBlock);
  const auto transport = server.accept();
  // Each connection's rings hold 4 MiB: the host's 2 MiB all leave the cable before
  // the service reads a byte of them.
  const std::string burst = patternBytes(2 << 20);
  const auto hostOut = openFd(cable.host().writePath, O_WRONLY | O_NONBLOCK);
  writeAll(hostOut.get(), burst);
  std::string got(burst.size(), '\0');
  for (size_t at = 0; at < got.size(); at += kBigBlock) {
    transport->readAll(reinterpret_cast<uint8_t*>(&got[at]), kBigBlock);
  }
  EXPECT_TRUE(got == burst);
  transport->close();
}

TEST(TServerNonblockingUsbSocketCallback, ItsExceptionsLeaveAcceptUnchangedWithoutRetry) {
  Watchdog watchdog;
  PtyDevice pty;
  TServerNonblockingUsbSocket server(pty.path(), true, kBlock, kBlock);
  const auto first = server.accept(); // no callback set: nothing to call
  first->close();

  int calls = 0;
  server.setPreOpenCallback([&](Paths) {
    ++calls;
    throw TTransportException(TTransportException::NOT_OPEN, "gadget not ready");
  });
  EXPECT_TRUE(throwsTransport([&] { server.accept(); }, TTransportException::NOT_OPEN,
                              "gadget not ready"));
  EXPECT_EQ(calls, 1) << "a transport exception of the callback is not a failed open";

  server.setPreOpenCallback([](Paths) { throw std::runtime_error("no power"); });
  EXPECT_THROW(server.accept(), std::runtime_error);

  // The failed accepts kept the previous transport as the one to interrupt.
  first->open();
  server.interruptChildren();
  EXPECT_FALSE(first->isOpen());

  // An empty callback removes it.
  server.setPreOpenCallback({});
  EXPECT_TRUE(server.accept()->isOpen());
}

// ---------------------------------------------------------------------------
// One transport at a time

TEST(TServerNonblockingUsbSocketOneAtATime, AcceptWaitsUntilTheOpenTransportIsClosedOrAnInterrupt) {
  PtyDevice pty;
  TServerNonblockingUsbSocket server(pty.path(), true, kBlock, kBlock);
  const auto first = server.accept();

  std::shared_ptr<TTransport> second;
  PeerThread acceptor([&] { second = server.accept(); });
  EXPECT_FALSE(acceptor.waitFor(500ms)) << "accept did not wait for the open transport";
  first->close();
  ASSERT_TRUE(acceptor.waitFor(2000ms));
  acceptor.join();
  EXPECT_TRUE(second->isOpen()); // so not the first, which is closed

  // Waiting for the second, an accept fails on an interrupt, which closes the second.
  ::testing::AssertionResult outcome = ::testing::AssertionFailure() << "accept did not end";
  PeerThread waiting([&] { outcome = acceptFails(server); });
  EXPECT_FALSE(waiting.waitFor(300ms));
  server.interrupt();
  ASSERT_TRUE(waiting.waitFor(2000ms));
  waiting.join();
  EXPECT_TRUE(outcome);
  EXPECT_FALSE(second->isOpen());
}

TEST(TServerNonblockingUsbSocketOneAtATime, InterruptChildrenFromAnotherThreadLetsAcceptGoOn) {
  PtyDevice pty;
  SyscallSpy spy;
  spy.setInstantSleeps(true);
  TServerNonblockingUsbSocket server(pty.path(), true, kBlock, kBlock);
  server.interruptChildren(); // nothing handed out yet: nothing to do

  constexpr size_t kAccepts = 20;
  std::vector<std::shared_ptr<TTransport>> accepted;
  PeerThread acceptor([&] {
    while (accepted.size() < kAccepts) {
      accepted.push_back(server.accept());
    }
  });
  // Closing each child from here is what lets the next accept proceed.
  while (!acceptor.waitFor(1ms)) {
    server.interruptChildren();
  }
  acceptor.join();
  ASSERT_EQ(accepted.size(), kAccepts);
  for (size_t i = 1; i < kAccepts; ++i) {
    EXPECT_NE(accepted[i], accepted[i - 1]);
    EXPECT_FALSE(accepted[i - 1]->isOpen());
  }
  EXPECT_TRUE(server.isOpen()) << "closing children must not stop the server";
}

// ---------------------------------------------------------------------------
// Stopping closes the transport handed out (threaded transports)

TEST(TServerNonblockingUsbSocketStop, InterruptFailsTheThreadedTransportsReadsAndListenResumes) {
  PtyDevice pty;
  std::shared_ptr<TTransport> second;
  {
    TServerNonblockingUsbSocket server(pty.path(), false, kBlock, kBlock);
    const auto first = server.accept();
    uint8_t byte = 0;
    const auto readFails = [&](const std::function<void()>& read) {
      return throwsTransport(read, TTransportException::INTERRUPTED, "Failed to read.");
    };

    ::testing::AssertionResult pending = ::testing::AssertionFailure() << "read did not end";
    PeerThread reader([&] { pending = readFails([&] { first->readAll(&byte, 1); }); });
    EXPECT_FALSE(reader.waitFor(200ms)) << "nothing was sent: the read should still wait";
    server.interrupt();
    // Well before the transport's own 3000 ms read time-out.
    ASSERT_TRUE(reader.waitFor(2000ms));
    reader.join();
    EXPECT_TRUE(pending);
    EXPECT_TRUE(readFails([&] { first->read(&byte, 1); }));

    server.listen();
    second = server.accept();
    // A new transport, whose reader thread works: a byte from the peer is delivered.
    writeAll(pty.peerFd(), "x");
    second->readAll(&byte, 1);
    EXPECT_EQ(byte, 'x');
  }
  EXPECT_FALSE(second->isOpen()) << "destroying the server closes the transport handed out";
}
