#include <thriftusb/transport/TServerNonblockingUsbSocket.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
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
#include "support/PtyDevice.h"
#include "support/SyscallSpy.h"
#include "support/TempDir.h"
#include "support/VirtualCable.h"

using apache::thrift::transport::TServerNonblockingUsbSocket;
using apache::thrift::transport::TTransport;
using apache::thrift::transport::TTransportException;
using namespace thriftusb::test;
using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;
using Paths = std::vector<std::string>;

namespace {

constexpr unsigned kBlock = 64;
const std::string kClosed = "Server usb socket is closed.";

// The pre-open callback's calls, recorded from whichever thread accepts. `onCall` runs
// after each call is recorded and is told how many calls there have been.
class CallbackLog {
public:
  explicit CallbackLog(std::function<void(size_t)> onCall = {}) : onCall_(std::move(onCall)) {}

  TServerNonblockingUsbSocket::PreOpenCallback callback() {
    return [this](Paths paths) {
      size_t calls;
      {
        std::lock_guard<std::mutex> lock(mutex_);
        paths_.push_back(std::move(paths));
        times_.push_back(Clock::now());
        calls = paths_.size();
      }
      if (onCall_) {
        onCall_(calls);
      }
    };
  }

  std::vector<Paths> paths() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return paths_;
  }
  std::vector<Clock::time_point> times() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return times_;
  }
  size_t count() const { return paths().size(); }

private:
  std::function<void(size_t)> onCall_;
  mutable std::mutex mutex_;
  std::vector<Paths> paths_;
  std::vector<Clock::time_point> times_;
};

// The server's 100 ms polling steps among the sleeps the spy saw.
size_t pollSteps(const SyscallSpy& spy) {
  size_t steps = 0;
  for (size_t micros : spy.lengths(Sys::Usleep)) {
    steps += micros == 100000 ? 1 : 0;
  }
  return steps;
}

long long msSince(Clock::time_point start) {
  return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count();
}

} // namespace

// ---------------------------------------------------------------------------
// Listening, interrupting and the socket descriptor

TEST(TServerNonblockingUsbSocketState, SocketFdIsAlwaysMinusOneAndIsOpenFollowsInterrupt) {
  TServerNonblockingUsbSocket server("/dev/null", true, kBlock, kBlock);
  EXPECT_EQ(server.getSocketFD(), -1);
  EXPECT_TRUE(server.isOpen());
  server.interrupt();
  EXPECT_FALSE(server.isOpen());
  EXPECT_EQ(server.getSocketFD(), -1);
  server.listen();
  EXPECT_TRUE(server.isOpen());
  server.close();
  EXPECT_FALSE(server.isOpen());
  EXPECT_EQ(server.getSocketFD(), -1);
}

TEST(TServerNonblockingUsbSocketState, AcceptWhileStoppedFailsAtOnceAndListenRearmsIt) {
  Watchdog watchdog;
  PtyDevice pty;
  SyscallSpy spy;
  CallbackLog log;
  TServerNonblockingUsbSocket server(pty.path(), true, kBlock, kBlock);
  server.setPreOpenCallback(log.callback());

  for (auto stop : {&TServerNonblockingUsbSocket::interrupt, &TServerNonblockingUsbSocket::close}) {
    (server.*stop)();
    EXPECT_TRUE(throwsTransport([&] { server.accept(); }, TTransportException::UNKNOWN, kClosed));
    EXPECT_TRUE(throwsTransport([&] { server.accept(); }, TTransportException::UNKNOWN, kClosed));
    EXPECT_EQ(pollSteps(spy), 0u) << "a stopped server must fail without sleeping";
    EXPECT_EQ(log.count(), 0u);
    server.listen();
  }

  // Rearmed; the very first accept still sleeps one step before its attempt.
  const auto transport = server.accept();
  ASSERT_TRUE(transport);
  EXPECT_TRUE(transport->isOpen());
  EXPECT_EQ(log.paths(), std::vector<Paths>{{pty.path()}});
  EXPECT_EQ(pollSteps(spy), 1u);
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
  std::vector<size_t> stepsBeforeCall;
  // The third call makes the node appear, as a gadget set-up callback would.
  CallbackLog log([&](size_t calls) {
    stepsBeforeCall.push_back(pollSteps(spy));
    if (calls == 3) {
      ASSERT_EQ(::symlink(pty.path().c_str(), node.c_str()), 0);
    }
  });
  TServerNonblockingUsbSocket server(node, true, kBlock, kBlock);
  server.setPreOpenCallback(log.callback());

  const auto transport = server.accept();
  EXPECT_TRUE(transport->isOpen());
  EXPECT_EQ(log.paths(), (std::vector<Paths>{{node}, {node}, {node}}));
  // One step before the first attempt, two (after the failure, before the next) per retry.
  EXPECT_EQ(stepsBeforeCall, (std::vector<size_t>{1, 3, 5}));
  EXPECT_EQ(pollSteps(spy), 5u);
  // The failed attempts leave no trace in the log; only the channel's open line.
  EXPECT_EQ(output.lines(), std::vector<std::string>{"1 channel: " + node});
}

TEST(TServerNonblockingUsbSocketRetry, RetriesAbout200MsApartUntilInterruptedFromAnotherThread) {
  TempDir dir;
  CallbackLog log;
  TServerNonblockingUsbSocket server(dir.file("absent"), true, kBlock, kBlock);
  server.setPreOpenCallback(log.callback());

  ::testing::AssertionResult outcome = ::testing::AssertionFailure() << "accept did not end";
  PeerThread acceptor([&] {
    outcome = throwsTransport([&] { server.accept(); }, TTransportException::UNKNOWN, kClosed);
  });
  ASSERT_TRUE(waitUntil([&] { return log.count() >= 4; }, 5000ms));
  const auto times = log.times();
  for (size_t i = 1; i < times.size(); ++i) {
    const auto gap = std::chrono::duration_cast<std::chrono::milliseconds>(times[i] - times[i - 1]);
    EXPECT_GE(gap.count(), 180) << "attempt " << i;
    EXPECT_LE(gap.count(), 2000) << "attempt " << i;
  }

  const auto stoppedAt = Clock::now();
  server.interrupt();
  ASSERT_TRUE(acceptor.waitFor(2000ms)) << "accept ignored the interrupt";
  acceptor.join();
  EXPECT_TRUE(outcome);
  EXPECT_LE(msSince(stoppedAt), 2000);
}

TEST(TServerNonblockingUsbSocketRetry, EmptyOneNodePathActsAsTwoNodeModeThatNeverOpens) {
  Watchdog watchdog;
  SyscallSpy spy;
  spy.setInstantSleeps(true);
  TServerNonblockingUsbSocket server("", true, kBlock, kBlock);
  CallbackLog log([&](size_t calls) {
    if (calls == 2) {
      server.interrupt(); // this attempt still runs; the failure after it ends accept
    }
  });
  server.setPreOpenCallback(log.callback());

  EXPECT_TRUE(throwsTransport([&] { server.accept(); }, TTransportException::UNKNOWN, kClosed));
  EXPECT_EQ(log.paths(), (std::vector<Paths>{{"", ""}, {"", ""}}));
}

// ---------------------------------------------------------------------------
// The pre-open callback

TEST(TServerNonblockingUsbSocketCallback, TwoNodeModePassesReadNodeFirstAndUsesBothNodes) {
  Watchdog watchdog;
  VirtualCable cable;
  const auto device = cable.device();
  CallbackLog log;
  TServerNonblockingUsbSocket server(device.readPath, device.writePath, true, kBlock, kBlock);
  server.setPreOpenCallback(log.callback());

  const auto transport = server.accept();
  EXPECT_EQ(log.paths(), (std::vector<Paths>{{device.readPath, device.writePath}}));

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

TEST(TServerNonblockingUsbSocketOneAtATime, SecondAcceptWaitsUntilTheFirstTransportIsClosed) {
  PtyDevice pty;
  TServerNonblockingUsbSocket server(pty.path(), true, kBlock, kBlock);
  const auto first = server.accept();

  std::shared_ptr<TTransport> second;
  PeerThread acceptor([&] { second = server.accept(); });
  EXPECT_FALSE(acceptor.waitFor(500ms)) << "accept did not wait for the open transport";

  const auto closedAt = Clock::now();
  first->close();
  ASSERT_TRUE(acceptor.waitFor(2000ms));
  acceptor.join();
  EXPECT_LE(msSince(closedAt), 2000);
  ASSERT_TRUE(second);
  EXPECT_NE(second, first);
  EXPECT_TRUE(second->isOpen());
  EXPECT_FALSE(first->isOpen());
}

TEST(TServerNonblockingUsbSocketOneAtATime, InterruptDuringTheWaitClosesTheTransportAndFails) {
  PtyDevice pty;
  TServerNonblockingUsbSocket server(pty.path(), true, kBlock, kBlock);
  const auto first = server.accept();

  ::testing::AssertionResult outcome = ::testing::AssertionFailure() << "accept did not end";
  PeerThread acceptor([&] {
    outcome = throwsTransport([&] { server.accept(); }, TTransportException::UNKNOWN, kClosed);
  });
  EXPECT_FALSE(acceptor.waitFor(300ms));
  server.interrupt();
  ASSERT_TRUE(acceptor.waitFor(2000ms));
  acceptor.join();
  EXPECT_TRUE(outcome);
  EXPECT_FALSE(first->isOpen());
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

    ::testing::AssertionResult pending = ::testing::AssertionFailure() << "read did not end";
    PeerThread reader([&] {
      uint8_t byte = 0;
      pending = throwsTransport([&] { first->readAll(&byte, 1); },
                                TTransportException::INTERRUPTED, "Failed to read.");
    });
    EXPECT_FALSE(reader.waitFor(200ms)) << "nothing was sent: the read should still wait";
    server.interrupt();
    // Well before the transport's own 3000 ms read time-out.
    ASSERT_TRUE(reader.waitFor(2000ms));
    reader.join();
    EXPECT_TRUE(pending);
    uint8_t byte = 0;
    EXPECT_TRUE(throwsTransport([&] { first->read(&byte, 1); }, TTransportException::INTERRUPTED,
                                "Failed to read."));
    EXPECT_TRUE(throwsTransport([&] { server.accept(); }, TTransportException::UNKNOWN, kClosed));

    server.listen();
    second = server.accept();
    EXPECT_NE(second, first);
    EXPECT_TRUE(second->isOpen());
    // Its reader thread works: a byte from the peer is delivered.
    writeAll(pty.peerFd(), "x");
    second->readAll(&byte, 1);
    EXPECT_EQ(byte, 'x');
  }
  EXPECT_FALSE(second->isOpen()) << "destroying the server closes the transport handed out";
}
