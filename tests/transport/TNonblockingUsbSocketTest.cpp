#include <thriftusb/transport/TNonblockingUsbSocket.h>
#include <thriftusb/transport/TUsbDevice.h>
#include <thriftusb/testing/VirtualCable.h>

#include <cerrno>
#include <chrono>
#include <functional>
#include <memory>
#include <string>

#include <sys/ioctl.h>

#include <gtest/gtest.h>

#include "support/Bytes.h"
#include "support/Expect.h"
#include "support/FdIo.h"
#include "support/LogCapture.h"
#include "support/SyscallSpy.h"
#include "support/WaitModes.h"

using apache::thrift::transport::TNonblockingUsbSocket;
using apache::thrift::transport::TTransportException;
using apache::thrift::transport::TUsbDevice;
using namespace thriftusb::test;
using namespace thriftusb::testing;
using namespace std::chrono_literals;

namespace {

constexpr unsigned kBlock = 64;

// The transport on the host end of a cable (not opened), and the test's peer. By
// default its rings hold less than a transfer of the tests, so that every byte has to
// wait for room in them.
struct Link {
  explicit Link(bool nonblocking, WaitMode mode, int readTimeout = 1000,
                int writeTimeout = 1000, int bufferSize = 100)
    : device(std::make_shared<TUsbDevice>(cable.host().readPath, cable.host().writePath,
                                          nonblocking, kBlock, kBlock)),
      socket(device, readTimeout, writeTimeout, bufferSize) {
    socket.setWaitMode(mode);
  }
  void send(const std::string& bytes) {
    socket.write(u8(bytes), static_cast<uint32_t>(bytes.size()));
  }
  // The bytes the peer has not read from the cable yet: 65536 when its FIFO is full.
  int unread() {
    int queued = -1;
    ::ioctl(peer.in.get(), FIONREAD, &queued);
    return queued;
  }
  VirtualCable cable;
  CablePeer peer{cable.host()};
  std::shared_ptr<TUsbDevice> device;
  TNonblockingUsbSocket socket;
  Watchdog watchdog;
};

} // namespace

// Each test runs with the channel blocking and non-blocking, polling and waking.
class TNonblockingUsbSocketModes : public ::testing::TestWithParam<std::tuple<bool, WaitMode>> {
protected:
  bool nonblocking() const { return std::get<0>(GetParam()); }
  WaitMode mode() const { return std::get<1>(GetParam()); }
};

TEST_P(TNonblockingUsbSocketModes, CarriesDataBothWaysInChunksOfTheBlockSize) {
  Link link(nonblocking(), mode());
  link.socket.open();
  const std::string request = patternBytes(1000, 5);
  link.send(request);
  if (nonblocking()) {
    // Non-blocking mode flushes the channel, and a FIFO cannot be synchronised.
    EXPECT_TRUE(throwsTransport([&] { link.socket.flush(); }, TTransportException::INTERRUPTED,
                                "Failed to flush usb device."));
  } else {
    link.socket.flush(); // waits until the writer thread has taken every byte
  }
  EXPECT_EQ(readExactly(link.peer.in.get(), request.size()), request);
  const std::string reply = patternBytes(700, 6);
  writeAll(link.peer.out.get(), reply);
  std::string in(reply.size(), '\0');
  EXPECT_EQ(link.socket.readAll(u8(in), static_cast<uint32_t>(in.size())), reply.size());
  EXPECT_EQ(in, reply);
  EXPECT_EQ(link.socket.read(u8(in), kBlock), 0u); // nothing more: at once, nothing
  link.socket.close();
  EXPECT_FALSE(link.socket.isOpen());
}

TEST_P(TNonblockingUsbSocketModes, RefuseLengthsOverABlockAndGiveUpAfterTheTimeOutWithoutProgress) {
  Link link(nonblocking(), mode(), 50, 50, 8192);
  LogCapture log;
  uint8_t buf[kBlock + 1] = {};
  // Refused before anything else is looked at, even on a closed transport.
  EXPECT_TRUE(throwsTransport([&] { link.socket.read(buf, kBlock + 1); },
                              TTransportException::BAD_ARGS,
                              "The \"len\" must be no more than max read block size."));
  EXPECT_TRUE(throwsTransport([&] { link.socket.write_partial(buf, kBlock + 1); },
                              TTransportException::BAD_ARGS,
                              "The \"len\" must be no more than max write block size."));
  link.socket.open();
  const auto start = std::chrono::steady_clock::now();
  EXPECT_TRUE(throwsTransport([&] { link.socket.readAll(buf, 8); },
                              TTransportException::TIMED_OUT, "read timeout."));
  EXPECT_GE(std::chrono::steady_clock::now() - start, 50ms);
  const std::string last = log.lines().empty() ? "" : log.lines().back();
  EXPECT_EQ(last.rfind("read timeout. ", 0), 0u) << last;
  EXPECT_EQ(last.substr(last.size() - 6), " >= 50") << last;
  // Nobody reads the cable: its FIFO (and in blocking mode the ring) fills up.
  EXPECT_TRUE(throwsTransport([&] { link.send(patternBytes(1 << 20)); },
                              TTransportException::TIMED_OUT, "write timeout."));
}

INSTANTIATE_TEST_SUITE_P(BlockingAndNonBlocking, TNonblockingUsbSocketModes,
                         ::testing::Combine(::testing::Bool(), kWaitModes));

// A broken channel ends the thread that met it, and the calls that need that thread
// fail from then on.
class TNonblockingUsbSocketBroken
  : public ::testing::TestWithParam<std::tuple<bool, WaitMode>> {};

TEST_P(TNonblockingUsbSocketBroken, ChannelEndsItsThreadAndItsCallsFail) {
  const bool reading = std::get<0>(GetParam());
  Link link(false, std::get<1>(GetParam()));
  LogCapture log;
  SyscallSpy spy; // outlives the transport's threads
  spy.watch(descriptorsOpenedBy([&] { link.socket.open(); }));
  spy.failNext(reading ? Sys::Read : Sys::Write, EIO);
  uint8_t byte = 'x';
  if (reading) {
    writeAll(link.peer.out.get(), "x"); // ends a read already waiting in the kernel
  } else {
    link.socket.write_partial(&byte, 1); // the writer thread takes it and fails
  }
  const std::string exit = reading ? "read thread exit." : "write thread exit at 1.";
  EXPECT_TRUE(waitUntil([&] { return log.count(exit) == 1; })) << exit;
  const auto transfer = [&] {
    reading ? link.socket.read(&byte, 1) : link.socket.write_partial(&byte, 1);
  };
  EXPECT_TRUE(throwsTransport(transfer, TTransportException::INTERRUPTED,
                              reading ? "Failed to read." : "Failed to write."));
  link.socket.close();
}

INSTANTIATE_TEST_SUITE_P(ReadAndWrite, TNonblockingUsbSocketBroken,
                         ::testing::Combine(::testing::Bool(), kWaitModes));

// A call that waits on a blocking-mode transport, and what it fails with once another
// thread closes the transport.
struct Waiting {
  const char* name;
  size_t bytes; // written before the call (Flush) or by it (Write)
  std::function<void(Link&, const std::string&)> call;
  const char* message;
  friend void PrintTo(const Waiting& call, std::ostream* out) { *out << call.name; }
};

class TNonblockingUsbSocketCloseDuring
  : public ::testing::TestWithParam<std::tuple<Waiting, WaitMode>> {};

TEST_P(TNonblockingUsbSocketCloseDuring, EndsTheWaitingCallWithInterruptedAtOnce) {
  const Waiting& call = std::get<0>(GetParam());
  // Time-outs far away: only the close can end the call. The peer reads nothing, so
  // the FIFO fills (64 KiB) and the writer thread blocks inside the channel's write;
  // a 1 MiB write then waits for room in the queue, and a flush after a write that
  // fits waits for the queue to drain.
  Link link(false, std::get<1>(GetParam()), 60000, 60000, 65536);
  LogCapture log;
  link.socket.open();
  const std::string data = patternBytes(call.bytes);
  PeerThread waiting([&] { call.call(link, data); });
  ASSERT_TRUE(waitUntil([&] { return link.unread() == (data.empty() ? 0 : 65536); }));
  ASSERT_FALSE(waiting.waitFor(100ms));
  const auto start = std::chrono::steady_clock::now();
  link.socket.close();
  EXPECT_TRUE(throwsTransport([&] { waiting.join(); }, TTransportException::INTERRUPTED,
                              call.message));
  EXPECT_LT(std::chrono::steady_clock::now() - start, 1s);
  EXPECT_EQ(log.count("read thread exit."), 1u);
  EXPECT_EQ(log.count("write thread exit at 2."), 1u);
}

INSTANTIATE_TEST_SUITE_P(
    Calls, TNonblockingUsbSocketCloseDuring,
    ::testing::Combine(::testing::Values(
        Waiting{"ReadAll", 0,
                [](Link& l, const std::string&) {
                  uint8_t buf[8];
                  l.socket.readAll(buf, 8);
                },
                "Failed to read."},
        Waiting{"Write", 1 << 20, [](Link& l, const std::string& d) { l.send(d); },
                "Failed to write."},
        Waiting{"Flush", 65536 + 2048,
                [](Link& l, const std::string& d) {
                  l.send(d);
                  l.socket.flush();
                },
                "Failed to flush usb device."}),
                       kWaitModes),
    [](const auto& info) {
      return std::get<0>(info.param).name + ::testing::PrintToString(std::get<1>(info.param));
    });

class TNonblockingUsbSocketBlocking : public ::testing::TestWithParam<WaitMode> {};

// Waking mode waits on the real clock: this test takes its 3 s there.
TEST_P(TNonblockingUsbSocketBlocking, FlushFailsAfterThreeSecondsWithoutProgress) {
  Link link(false, GetParam(), 60000, 60000, 8192);
  link.socket.open();
  link.send(patternBytes(65536 + 2048));
  // Let the FIFO fill before time goes virtual: the writer thread then blocks with its
  // next block, and the queue stays as it is.
  ASSERT_TRUE(waitUntil([&] { return link.unread() == 65536; }));
  SyscallSpy spy;
  spy.setVirtualTime(true);
  const auto start = std::chrono::steady_clock::now();
  EXPECT_TRUE(throwsTransport([&] { link.socket.flush(); }, TTransportException::TIMED_OUT,
                              "flush timeout."));
  const auto took = std::chrono::steady_clock::now() - start;
  EXPECT_GE(took, 3s);
  EXPECT_LT(took, 4s);
  spy.setVirtualTime(false);
  link.socket.close();
}

INSTANTIATE_TEST_SUITE_P(Modes, TNonblockingUsbSocketBlocking, kWaitModes);
