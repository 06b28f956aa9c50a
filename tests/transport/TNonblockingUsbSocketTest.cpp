#include <thriftusb/transport/TNonblockingUsbSocket.h>

#include <chrono>
#include <csignal>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include <fcntl.h>

#include <gtest/gtest.h>

#include <thriftusb/transport/TUsbDevice.h>

#include "support/Bounded.h"
#include "support/Expect.h"
#include "support/FdIo.h"
#include "support/LogCapture.h"
#include "support/VirtualCable.h"

using apache::thrift::transport::TNonblockingUsbSocket;
using apache::thrift::transport::TTransportException;
using apache::thrift::transport::TUsbDevice;
using namespace thriftusb::test;
using namespace std::chrono_literals;

namespace {

constexpr unsigned kBlock = 64;

size_t threadCount() {
  size_t n = 0;
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/task")) {
    (void)entry;
    ++n;
  }
  return n;
}

// A transport on the host end of a virtual cable, with the test's own ends of the
// FIFOs: `peerIn` reads what the transport writes, `peerOut` writes what it reads.
struct CableLink {
  CableLink(bool nonblocking, int readTimeout = 1000, int writeTimeout = 1000,
            int bufferSize = 4096)
    : device(std::make_shared<TUsbDevice>(cable.host().readPath, cable.host().writePath,
                                          nonblocking, kBlock, kBlock)),
      socket(device, readTimeout, writeTimeout, bufferSize),
      peerIn(openFd(cable.device().readPath, O_RDONLY | O_NONBLOCK)),
      peerOut(openFd(cable.device().writePath, O_WRONLY | O_NONBLOCK)) {}

  VirtualCable cable;
  std::shared_ptr<TUsbDevice> device;
  TNonblockingUsbSocket socket;
  UniqueFd peerIn;
  UniqueFd peerOut;
};

std::vector<uint8_t> bytesOf(const std::string& s) {
  return std::vector<uint8_t>(s.begin(), s.end());
}

} // namespace

class TNonblockingUsbSocketModes : public ::testing::TestWithParam<bool> {};

TEST_P(TNonblockingUsbSocketModes, CarriesDataBothWaysInChunksOfTheBlockSize) {
  CableLink link(GetParam());
  Watchdog watchdog;
  link.socket.open();
  ASSERT_TRUE(link.socket.isOpen());

  const std::string request = patternBytes(1000, 5); // many blocks
  const auto out = bytesOf(request);
  link.socket.write(out.data(), static_cast<uint32_t>(out.size()));
  if (GetParam()) {
    // Non-blocking mode flushes the channel, and a FIFO cannot be synchronised.
    EXPECT_TRUE(throwsTransport([&] { link.socket.flush(); }, TTransportException::INTERRUPTED,
                                "Failed to flush usb device."));
  } else {
    link.socket.flush(); // waits until the writer thread has taken every byte
  }
  EXPECT_EQ(readExactly(link.peerIn.get(), request.size()), request);

  const std::string reply = patternBytes(700, 6);
  writeAll(link.peerOut.get(), reply);
  std::vector<uint8_t> in(reply.size());
  EXPECT_EQ(link.socket.readAll(in.data(), static_cast<uint32_t>(in.size())), reply.size());
  EXPECT_EQ(std::string(in.begin(), in.end()), reply);

  // Nothing more has arrived: read() returns at once with nothing.
  EXPECT_EQ(link.socket.read(in.data(), kBlock), 0u);
  EXPECT_EQ(link.socket.readAll(in.data(), 0), 0u);
  link.socket.close();
  EXPECT_FALSE(link.socket.isOpen());
}

TEST_P(TNonblockingUsbSocketModes, LengthAboveTheBlockSizeIsRefusedFirst) {
  CableLink link(GetParam());
  std::vector<uint8_t> buf(kBlock + 1);
  // Refused before anything else is looked at, even on a closed transport.
  EXPECT_TRUE(throwsTransport([&] { link.socket.read(buf.data(), kBlock + 1); },
                              TTransportException::BAD_ARGS,
                              "The \"len\" must be no more than max read block size."));
  EXPECT_TRUE(throwsTransport([&] { link.socket.write_partial(buf.data(), kBlock + 1); },
                              TTransportException::BAD_ARGS,
                              "The \"len\" must be no more than max write block size."));
  EXPECT_TRUE(throwsTransport([&] { link.socket.peek(); }, TTransportException::UNKNOWN,
                              "Not supported."));
}

TEST_P(TNonblockingUsbSocketModes, ReadAllGivesUpAfterASilenceOfTheReadTimeout) {
  CableLink link(GetParam(), 50);
  LogCapture log;
  link.socket.open();
  Watchdog watchdog;
  uint8_t buf[8];

  const auto start = std::chrono::steady_clock::now();
  EXPECT_TRUE(throwsTransport([&] { link.socket.readAll(buf, sizeof buf); },
                              TTransportException::TIMED_OUT, "read timeout."));
  const auto took = std::chrono::steady_clock::now() - start;
  EXPECT_GE(took, 50ms);
  EXPECT_LT(took, 2s);
  const auto lines = log.lines();
  ASSERT_FALSE(lines.empty());
  EXPECT_EQ(lines.back().rfind("read timeout. ", 0), 0u) << lines.back();
  EXPECT_NE(lines.back().find(" >= 50"), std::string::npos) << lines.back();
}

INSTANTIATE_TEST_SUITE_P(BlockingAndNonBlocking, TNonblockingUsbSocketModes, ::testing::Bool());

TEST(TNonblockingUsbSocketTimeouts, ZeroReadTimeoutFailsAtTheFirstEmptyAttempt) {
  CableLink link(true, 0);
  LogCapture log;
  link.socket.open();
  uint8_t buf[8];
  const auto start = std::chrono::steady_clock::now();
  EXPECT_TRUE(throwsTransport([&] { link.socket.readAll(buf, sizeof buf); },
                              TTransportException::TIMED_OUT, "read timeout."));
  EXPECT_LT(std::chrono::steady_clock::now() - start, 10ms); // no polling step slept
  ASSERT_FALSE(log.lines().empty());
  EXPECT_EQ(log.lines().back(), "read timeout. 0.000000 >= 0");
}

TEST(TNonblockingUsbSocketTimeouts, ATricklingPeerNeverTimesOutAReadAll) {
  CableLink link(false, 150);
  link.socket.open();
  Watchdog watchdog;
  // One byte every 100 ms: the whole call takes far longer than the time-out, but
  // no silence reaches it.
  PeerThread peer([&] {
    for (char c : std::string("trickle")) {
      std::this_thread::sleep_for(100ms);
      writeAll(link.peerOut.get(), std::string(1, c));
    }
  });
  uint8_t buf[7];
  EXPECT_EQ(link.socket.readAll(buf, sizeof buf), 7u);
  peer.join();
  EXPECT_EQ(std::string(reinterpret_cast<char*>(buf), 7), "trickle");
}

TEST(TNonblockingUsbSocketBlocking, ClosedTransportRefusesWithInterrupted) {
  CableLink link(false);
  uint8_t buf[kBlock] = {};
  for (int round = 0; round < 2; ++round) { // never opened, then opened and closed
    EXPECT_TRUE(throwsTransport([&] { link.socket.read(buf, kBlock); },
                                TTransportException::INTERRUPTED, "Failed to read."));
    EXPECT_TRUE(throwsTransport([&] { link.socket.write_partial(buf, kBlock); },
                                TTransportException::INTERRUPTED, "Failed to write."));
    EXPECT_TRUE(throwsTransport([&] { link.socket.flush(); }, TTransportException::INTERRUPTED,
                                "Failed to flush usb device."));
    link.socket.open();
    link.socket.close();
  }
}

TEST(TNonblockingUsbSocketBlocking, CloseFromAnotherThreadEndsAWaitingReadAll) {
  CableLink link(false, 60000);
  link.socket.open();
  Watchdog watchdog;
  uint8_t buf[8];
  PeerThread reader([&] { link.socket.readAll(buf, sizeof buf); });
  ASSERT_FALSE(reader.waitFor(50ms)); // it waits: nothing arrives

  const auto start = std::chrono::steady_clock::now();
  link.socket.close();
  try {
    reader.join();
    ADD_FAILURE() << "readAll returned although the transport was closed";
  } catch (const TTransportException& e) {
    EXPECT_EQ(e.getType(), TTransportException::INTERRUPTED);
    EXPECT_STREQ(e.what(), "Failed to read.");
  }
  EXPECT_LT(std::chrono::steady_clock::now() - start, 1s);
}

TEST(TNonblockingUsbSocketBlocking, CloseStopsAWriterBlockedInTheChannel) {
  // The peer reads nothing: the FIFO fills, the writer thread blocks inside the
  // channel's write, the queue fills, and write() waits. close() must interrupt the
  // blocked thread and end the waiting write with INTERRUPTED.
  CableLink link(false, 1000, 60000, 256);
  LogCapture log;
  link.socket.open();
  Watchdog watchdog;
  const auto data = bytesOf(patternBytes(1 << 20));
  PeerThread writer([&] { link.socket.write(data.data(), static_cast<uint32_t>(data.size())); });
  ASSERT_FALSE(writer.waitFor(100ms));

  link.socket.close();
  EXPECT_TRUE(throwsTransport([&] { writer.join(); }, TTransportException::INTERRUPTED,
                              "Failed to write."));
  EXPECT_EQ(log.count("read thread exit."), 1u);
  EXPECT_EQ(log.count("write thread exit at 2."), 1u);
}

TEST(TNonblockingUsbSocketBlocking, OpenCloseCyclesLeaveNoThreadOrDescriptorBehind) {
  VirtualCable cable;
  auto cycles = [&](int count) {
    auto device = std::make_shared<TUsbDevice>(cable.host().readPath, cable.host().writePath,
                                               false, kBlock, kBlock);
    TNonblockingUsbSocket socket(device, 1000, 1000, 1024);
    Watchdog watchdog(std::chrono::minutes(3), "open/close cycles");
    for (int i = 0; i < count; ++i) {
      socket.open();
      socket.open(); // a second open on running threads changes nothing
      socket.close();
    }
  };
  // One cycle first: a sanitizer runtime starts a helper thread of its own with the
  // first thread the program creates.
  cycles(1);
  const size_t threadsBefore = threadCount();
  const auto fdsBefore = openDescriptors();
  cycles(1000);
  EXPECT_EQ(threadCount(), threadsBefore);
  EXPECT_EQ(openDescriptors(), fdsBefore);
}

TEST(TNonblockingUsbSocketBlocking, SigintNoLongerEndsTheProcess) {
  CableLink link(false);
  // The handler only sets this thread's quit flag.
  ASSERT_EQ(std::raise(SIGINT), 0);
  EXPECT_EQ(apache::thrift::transport::quit, 1);
}
