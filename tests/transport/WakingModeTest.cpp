// What waking mode alone can break: a wake-up that comes late or never, and a wait that
// spins where it should wait. Everything else runs in both modes in each class's tests.
#include <thriftusb/testing/PtyDevice.h>
#include <thriftusb/testing/TempDir.h>
#include <thriftusb/testing/VirtualCable.h>
#include <thriftusb/transport/TNonblockingSecurityTransport.h>
#include <thriftusb/transport/TServerNonblockingUsbSocket.h>
#include <thriftusb/transport/TUSBSocket.h>
#include <thriftusb/transport/TUsbDevice.h>

#include <algorithm>
#include <chrono>
#include <fstream>
#include <functional>
#include <vector>

#include <gtest/gtest.h>

#include "support/Bytes.h"
#include "support/Expect.h"
#include "support/FdIo.h"
#include "support/SyscallSpy.h"
#include "support/WaitModes.h"

using namespace apache::thrift::transport;
using namespace thriftusb::test;
using namespace thriftusb::testing;
using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

namespace {

constexpr unsigned kBlock = 64;

std::shared_ptr<TNonblockingUsbSocket> threaded(const std::string& read, const std::string& write,
                                                bool nonblocking, int timeoutMs = 3000) {
  auto socket = std::make_shared<TNonblockingUsbSocket>(
      std::make_shared<TUsbDevice>(read, write, nonblocking, kBlock, kBlock), timeoutMs,
      timeoutMs, 1 << 16);
  socket->setWaitMode(WaitMode::Waking);
  return socket;
}

// A stack on the host end of a cable, how long it would wait per round trip if nothing
// woke it, and how long the peer takes to answer: long enough that every answer must be
// waited for, short against the step.
struct Stack {
  const char* name;
  Clock::duration step;
  Clock::duration replyDelay;
  std::function<std::shared_ptr<TTransport>(const VirtualCable::End&)> open;
  bool flush = true; // a FIFO cannot be synchronised: non-blocking mode does not flush
  size_t wireBytes = 1;
  friend void PrintTo(const Stack& stack, std::ostream* out) { *out << stack.name; }
};

class WakingRoundTrip : public ::testing::TestWithParam<Stack> {};

} // namespace

TEST(WakeSignal, ANotifyIsNeverLostAndAWaitWithoutOneLastsItsLimit) {
  WakeSignal signal;
  const auto seen = signal.ticket();
  signal.notify(); // after the look, before the wait: the wait must not start
  auto start = Clock::now();
  signal.waitFor(seen, 10s);
  EXPECT_LT(Clock::now() - start, 1s);
  PeerThread waiter([&, seen = signal.ticket()] { signal.waitFor(seen, 10s); });
  signal.notify();
  EXPECT_TRUE(waiter.waitFor(1000ms)) << "another thread's notify did not end the wait";
  start = Clock::now();
  signal.waitFor(signal.ticket(), 20ms);
  EXPECT_GE(Clock::now() - start, 20ms);
}

// Against an echo peer, the median round trip takes well under one polling step.
TEST_P(WakingRoundTrip, TakesFarLessThanAPollingStep) {
  VirtualCable cable;
  CablePeer peer(cable.host());
  const auto transport = GetParam().open(cable.host());
  transport->open();
  constexpr int kTrips = 30;
  PeerThread echo([&] {
    for (int i = 0; i < kTrips; ++i) {
      const std::string request = readExactly(peer.in.get(), GetParam().wireBytes);
      std::this_thread::sleep_for(GetParam().replyDelay); // the device at work
      writeAll(peer.out.get(), request);
    }
  });
  std::vector<Clock::duration> trips;
  for (int i = 0; i < kTrips; ++i) {
    const auto start = Clock::now();
    uint8_t byte = static_cast<uint8_t>(i);
    transport->write(&byte, 1);
    if (GetParam().flush) {
      transport->flush();
    }
    transport->readAll(&byte, 1);
    EXPECT_EQ(byte, static_cast<uint8_t>(i));
    trips.push_back(Clock::now() - start);
  }
  echo.join();
  std::nth_element(trips.begin(), trips.begin() + kTrips / 2, trips.end());
  EXPECT_LT(trips[kTrips / 2], GetParam().step / 2);
}

INSTANTIATE_TEST_SUITE_P(
    Stacks, WakingRoundTrip,
    ::testing::Values(
        Stack{"ThreadedBlocking", 10ms, 2ms,
              [](const VirtualCable::End& e) { return threaded(e.readPath, e.writePath, false); }},
        Stack{"ThreadedNonBlocking", 10ms, 2ms,
              [](const VirtualCable::End& e) { return threaded(e.readPath, e.writePath, true); },
              false},
        Stack{"PlainFramesOverThreaded", 10ms, 2ms,
              [](const VirtualCable::End& e) {
                return std::make_shared<TNonblockingSecurityTransport>(
                    threaded(e.readPath, e.writePath, false), nullptr, false);
              },
              true, 5},
        Stack{"UsbSocket", 1ms, 0ms,
              [](const VirtualCable::End& e) {
                auto socket = std::make_shared<TUSBSocket>(e.readPath, e.writePath, 0, kBlock);
                socket->setWaitMode(WaitMode::Waking);
                return socket;
              }}),
    [](const auto& info) { return std::string(info.param.name); });

// A node that is full is waited for: a slow reader costs a few system calls, not a
// core spinning on EAGAIN.
TEST(WakingUsbSocket, WaitsForAFullNodeInsteadOfRetryingIt) {
  VirtualCable cable;
  CablePeer peer(cable.host());
  TUSBSocket socket(cable.host().readPath, cable.host().writePath, 0, 1 << 16);
  socket.setWaitMode(WaitMode::Waking);
  SyscallSpy spy;
  spy.watch(descriptorsOpenedBy([&] { socket.open(); }));
  const std::string data = patternBytes(4 << 16);
  PeerThread slowReader([&] {
    for (int i = 0; i < 4; ++i) {
      std::this_thread::sleep_for(20ms); // a device that drains one FIFO's worth at a time
      EXPECT_EQ(readExactly(peer.in.get(), 1 << 16), data.substr(size_t(i) << 16, 1 << 16));
    }
  });
  socket.write(u8(data), static_cast<uint32_t>(data.size()));
  slowReader.join();
  EXPECT_LT(spy.count(Sys::Write), 100u);
}

// A descriptor that claims to be ready and has nothing (a regular file at its end, a
// driver without poll support) costs what polling costs, not a spinning core.
TEST(WakingThreadedNonBlocking, ANodeAlwaysReadyWithNothingIsNotSpunOn) {
  TempDir dir;
  const std::string node = dir.file("always-ready");
  std::ofstream{node};
  const auto socket = threaded(node, node, true, 200);
  SyscallSpy spy;
  spy.watch(descriptorsOpenedBy([&] { socket->open(); }));
  uint8_t byte;
  EXPECT_TRUE(throwsTransport([&] { socket->readAll(&byte, 1); }, TTransportException::TIMED_OUT,
                              "read timeout."));
  EXPECT_LT(spy.count(Sys::Read), 50u); // 200 ms of 10 ms steps, every other one slept
}

// Accept goes on as soon as the connection it waits for closes: from each close to the
// next open attempt (the callback) passes the 100 ms pause and hardly more, where
// polling would add up to 100 ms each time. An interrupt ends that pause at once.
TEST(WakingServer, AcceptFollowsEachCloseAndAnInterruptAtOnce) {
  PtyDevice pty;
  TServerNonblockingUsbSocket server(pty.path(), false, kBlock, kBlock);
  server.setWaitMode(WaitMode::Waking);
  Clock::time_point attempt;
  server.setPreOpenCallback([&](std::vector<std::string>) { attempt = Clock::now(); });
  auto current = server.accept();
  Clock::duration total{};
  for (int i = 0; i < 8; ++i) {
    std::shared_ptr<TTransport> next;
    PeerThread acceptor([&] { next = server.accept(); });
    ASSERT_FALSE(acceptor.waitFor(50ms)) << "accept did not wait for the open connection";
    current->close();
    const auto closed = Clock::now();
    if (i == 7) {
      std::this_thread::sleep_for(30ms); // well into the pause before the next attempt
      const auto interrupted = Clock::now();
      server.interrupt();
      EXPECT_TRUE(throwsTransport([&] { acceptor.join(); }, TTransportException::UNKNOWN,
                                  "Server usb socket is closed."));
      EXPECT_LT(Clock::now() - interrupted, 50ms);
      break;
    }
    acceptor.join();
    total += attempt - closed;
    current = next;
  }
  EXPECT_GE(total, 690ms);
  EXPECT_LT(total, 750ms);
}
