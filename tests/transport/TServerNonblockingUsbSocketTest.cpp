#include <thriftusb/transport/TServerNonblockingUsbSocket.h>
#include <thriftusb/testing/PtyDevice.h>
#include <thriftusb/testing/TempDir.h>
#include <thriftusb/testing/VirtualCable.h>

#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include <unistd.h>

#include <gtest/gtest.h>
#include <thrift/transport/TTransportException.h>

#include "support/Bounded.h"
#include "support/Bytes.h"
#include "support/Expect.h"
#include "support/FdIo.h"
#include "support/LogCapture.h"
#include "support/SyscallSpy.h"
#include "support/WaitModes.h"

using apache::thrift::transport::TNonblockingUsbSocket;
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

// Every test runs polling and waking.
class TServerNonblockingUsbSocketModes : public ::testing::TestWithParam<WaitMode> {};

TEST_P(TServerNonblockingUsbSocketModes, AcceptWhileStoppedFailsAndListenRearmsIt) {
  Watchdog watchdog;
  PtyDevice pty;
  TServerNonblockingUsbSocket server(pty.path(), true, kBlock, kBlock);
  server.setWaitMode(GetParam());
  std::vector<Paths> calls;
  server.setPreOpenCallback([&](Paths paths) { calls.push_back(paths); });
  EXPECT_TRUE(server.isOpen());
  for (auto stop : {&TServerNonblockingUsbSocket::interrupt, &TServerNonblockingUsbSocket::close}) {
    (server.*stop)();
    EXPECT_FALSE(server.isOpen());
    EXPECT_TRUE(acceptFails(server));
    server.listen();
    EXPECT_TRUE(server.isOpen());
  }
  const auto connection = std::dynamic_pointer_cast<TNonblockingUsbSocket>(server.accept());
  EXPECT_TRUE(connection->isOpen());
  EXPECT_EQ(connection->getWaitMode(), GetParam()) << "the server's mode is the connection's";
  EXPECT_EQ(calls, std::vector<Paths>{{pty.path()}}); // none from the stopped accepts
}

TEST_P(TServerNonblockingUsbSocketModes, MissingNodeIsRetriedWithTheCallbackBeforeEveryAttempt) {
  Watchdog watchdog;
  PtyDevice pty;
  TempDir dir;
  const std::string node = dir.file("gadget");
  SyscallSpy spy;
  spy.setVirtualTime(true);
  LogCapture output;
  TServerNonblockingUsbSocket server(node, true, kBlock, kBlock);
  server.setWaitMode(GetParam());
  std::vector<Paths> calls;
  // The third call makes the node appear, as a gadget set-up callback would.
  server.setPreOpenCallback([&](Paths paths) {
    calls.push_back(paths);
    if (calls.size() == 3) {
      ASSERT_EQ(::symlink(pty.path().c_str(), node.c_str()), 0);
    }
  });
  const auto start = std::chrono::steady_clock::now();
  EXPECT_TRUE(server.accept()->isOpen());
  const auto took = std::chrono::steady_clock::now() - start;
  EXPECT_EQ(calls, (std::vector<Paths>{{node}, {node}, {node}}));
  // 100 ms before each attempt, and after each failed one; waking waits in real time.
  EXPECT_GE(took, 500ms);
  EXPECT_LT(took, 700ms);
  // The failed attempts leave no trace in the log; only the channel's open line.
  EXPECT_EQ(output.lines(), std::vector<std::string>{"1 channel: " + node});
}

TEST_P(TServerNonblockingUsbSocketModes, UseBothNodesAndHoldAHostsBurstOfMegabytesUnread) {
  Watchdog watchdog;
  VirtualCable cable;
  CablePeer host(cable.device());
  constexpr unsigned kBigBlock = 4096;
  TServerNonblockingUsbSocket server(cable.device().readPath, cable.device().writePath, false,
                                     kBigBlock, kBigBlock);
  server.setWaitMode(GetParam());
  std::vector<Paths> calls;
  server.setPreOpenCallback([&](Paths paths) { calls.push_back(paths); });
  const auto transport = server.accept();
  EXPECT_EQ(calls, (std::vector<Paths>{{cable.device().readPath, cable.device().writePath}}));
  // Each connection's rings hold 4 MiB: the host's 2 MiB all leave the cable before
  // the service reads a byte of them.
  const std::string burst = patternBytes(2 << 20);
  writeAll(host.out.get(), burst);
  std::string got(burst.size(), '\0');
  for (size_t at = 0; at < got.size(); at += kBigBlock) {
    transport->readAll(u8(got) + at, kBigBlock);
  }
  EXPECT_TRUE(got == burst);
  transport->write(u8("pong"), 4); // answers leave through the other node
  transport->flush();
  EXPECT_EQ(readExactly(host.in.get(), 4), "pong");
}

TEST_P(TServerNonblockingUsbSocketModes, AcceptWaitsForTheConnectionAndInterruptEndsBoth) {
  PtyDevice pty;
  std::shared_ptr<TTransport> second, third;
  {
    TServerNonblockingUsbSocket server(pty.path(), false, kBlock, kBlock);
    server.setWaitMode(GetParam());
    const auto first = server.accept();
    PeerThread acceptor([&] { second = server.accept(); });
    EXPECT_FALSE(acceptor.waitFor(500ms)) << "accept did not wait for the open transport";
    server.interruptChildren(); // from another thread than the accept's
    acceptor.join(2000ms);
    EXPECT_FALSE(first->isOpen());
    EXPECT_TRUE(server.isOpen()) << "closing children must not stop the server";
    // A read on the connection (long before its 3 s time-out) and an accept waiting for
    // it both fail on an interrupt, which closes the connection.
    uint8_t byte = 0;
    auto read = ::testing::AssertionFailure(), accept = ::testing::AssertionFailure();
    PeerThread reader([&] {
      read = throwsTransport([&] { second->readAll(&byte, 1); }, TTransportException::INTERRUPTED,
                             "Failed to read.");
    });
    PeerThread waiting([&] { accept = acceptFails(server); });
    EXPECT_FALSE(waiting.waitFor(300ms));
    server.interrupt();
    reader.join(2000ms);
    waiting.join(2000ms);
    EXPECT_TRUE(read);
    EXPECT_TRUE(accept);
    EXPECT_FALSE(second->isOpen());
    server.listen();
    third = server.accept();
    EXPECT_TRUE(third->isOpen());
  }
  EXPECT_FALSE(third->isOpen()) << "destroying the server closes the transport handed out";
}

INSTANTIATE_TEST_SUITE_P(WaitModes, TServerNonblockingUsbSocketModes, kWaitModes);
