#include <thriftusb/transport/TNonblockingUsbSocket.h>

#include <chrono>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <ostream>
#include <string>
#include <utility>
#include <vector>

#include <cerrno>

#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/syscall.h>

#include <gtest/gtest.h>

#include <thriftusb/transport/TUsbDevice.h>
#include <thriftusb/testing/VirtualCable.h>

#include "support/Bounded.h"
#include "support/Expect.h"
#include "support/FdIo.h"
#include "support/LogCapture.h"
#include "support/Resources.h"
#include "support/SyscallSpy.h"

using apache::thrift::transport::TNonblockingUsbSocket;
using apache::thrift::transport::TTransportException;
using apache::thrift::transport::TUsbDevice;
using namespace thriftusb::test;
using namespace thriftusb::testing;
using namespace std::chrono_literals;

namespace {

constexpr unsigned kBlock = 64;

// Whether some thread of this process is inside the write system call (the writer
// thread blocked on a full FIFO: no other thread of these tests writes).
bool aThreadIsBlockedInWrite() {
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/task")) {
    std::ifstream syscall(entry.path() / "syscall");
    long number = -1;
    if (syscall >> number && number == SYS_write) {
      return true;
    }
  }
  return false;
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

INSTANTIATE_TEST_SUITE_P(BlockingAndNonBlocking, TNonblockingUsbSocketModes, ::testing::Bool());

TEST(TNonblockingUsbSocketTimeouts, ReadAllGivesUpAfterASilenceOfTheReadTimeout) {
  Watchdog watchdog;
  const std::pair<bool, int> cases[] = {{false, 50}, {true, 50}, {true, 0}};
  for (const auto& [nonblocking, timeout] : cases) {
    SCOPED_TRACE(std::to_string(nonblocking) + " " + std::to_string(timeout));
    CableLink link(nonblocking, timeout);
    LogCapture log;
    link.socket.open();
    uint8_t buf[8];
    const auto start = std::chrono::steady_clock::now();
    EXPECT_TRUE(throwsTransport([&] { link.socket.readAll(buf, sizeof buf); },
                                TTransportException::TIMED_OUT, "read timeout."));
    const auto took = std::chrono::steady_clock::now() - start;
    EXPECT_GE(took, std::chrono::milliseconds(timeout));
    EXPECT_LT(took, timeout == 0 ? 10ms : 2s); // 0: fails at the first empty attempt, unslept
    const auto lines = log.lines();
    ASSERT_FALSE(lines.empty());
    const std::string limit = " >= " + std::to_string(timeout);
    EXPECT_EQ(lines.back().rfind("read timeout. ", 0), 0u) << lines.back();
    EXPECT_EQ(lines.back().substr(lines.back().size() - limit.size()), limit) << lines.back();
    if (timeout == 0) {
      EXPECT_EQ(lines.back(), "read timeout. 0.000000 >= 0");
    }
  }
}

TEST(TNonblockingUsbSocketTimeouts, WriteGivesUpWhenNothingMovesForTheWriteTimeout) {
  Watchdog watchdog;
  for (const bool nonblocking : {false, true}) {
    SCOPED_TRACE(nonblocking);
    CableLink link(nonblocking, 1000, 50);
    link.socket.open();
    // Nobody reads the cable: its FIFO (and in blocking mode the ring) fills up.
    const auto data = bytesOf(patternBytes(1 << 20));
    EXPECT_TRUE(throwsTransport(
        [&] { link.socket.write(data.data(), static_cast<uint32_t>(data.size())); },
        TTransportException::TIMED_OUT, "write timeout."));
    link.socket.close();
  }
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

// A call that waits on a blocking-mode transport, and what it fails with once another
// thread closes the transport.
enum class Waiting { ReadAll, Write, Flush };

std::ostream& operator<<(std::ostream& out, Waiting call) {
  const char* names[] = {"ReadAll", "Write", "Flush"};
  return out << names[static_cast<int>(call)];
}

std::string nameOf(const ::testing::TestParamInfo<Waiting>& info) {
  return ::testing::PrintToString(info.param);
}

class TNonblockingUsbSocketCloseDuring : public ::testing::TestWithParam<Waiting> {};

TEST_P(TNonblockingUsbSocketCloseDuring, EndsTheWaitingCallWithInterruptedWithinAPollingStep) {
  // Time-outs far away: only the close can end the call. The peer reads nothing, so
  // the FIFO fills (64 KiB) and the writer thread blocks inside the channel's write;
  // a 1 MiB write then waits for room in the queue, and a flush after a write that
  // fits waits for the queue to drain.
  CableLink link(false, 60000, 60000, 8192);
  LogCapture log;
  link.socket.open();
  Watchdog watchdog;
  uint8_t buf[8];
  const auto data = bytesOf(patternBytes(GetParam() == Waiting::Write ? 1 << 20 : 65536 + 2048));
  std::function<void()> call;
  const char* message = "Failed to write.";
  switch (GetParam()) {
  case Waiting::ReadAll:
    call = [&] { link.socket.readAll(buf, sizeof buf); };
    message = "Failed to read.";
    break;
  case Waiting::Write:
    call = [&] { link.socket.write(data.data(), static_cast<uint32_t>(data.size())); };
    break;
  case Waiting::Flush:
    link.socket.write(data.data(), static_cast<uint32_t>(data.size()));
    call = [&] { link.socket.flush(); };
    message = "Failed to flush usb device.";
    break;
  }
  PeerThread waiting(call);
  ASSERT_FALSE(waiting.waitFor(100ms));

  const auto start = std::chrono::steady_clock::now();
  link.socket.close();
  EXPECT_TRUE(throwsTransport([&] { waiting.join(); }, TTransportException::INTERRUPTED, message));
  EXPECT_LT(std::chrono::steady_clock::now() - start, 1s);
  EXPECT_EQ(log.count("read thread exit."), 1u);
  EXPECT_EQ(log.count("write thread exit at 2."), 1u);
}

INSTANTIATE_TEST_SUITE_P(Calls, TNonblockingUsbSocketCloseDuring,
                         ::testing::Values(Waiting::ReadAll, Waiting::Write, Waiting::Flush),
                         nameOf);

TEST(TNonblockingUsbSocketBlocking, FlushFailsAfterThreeSecondsWithoutProgress) {
  CableLink link(false, 60000, 60000, 8192);
  link.socket.open();
  const auto data = bytesOf(patternBytes(65536 + 2048));
  link.socket.write(data.data(), static_cast<uint32_t>(data.size()));
  // Wait until the FIFO is full and the writer thread has taken its next block and
  // blocks with it: from then on the queue stays as it is.
  ASSERT_TRUE(waitUntil([&] {
    int queued = 0;
    return ::ioctl(link.peerIn.get(), FIONREAD, &queued) == 0 && queued == 65536 &&
           aThreadIsBlockedInWrite();
  }));

  // The writer thread is stuck in the full FIFO; the flush's polls pass in virtual
  // time, 10 ms each, until the stall reaches 3 s.
  SyscallSpy spy;
  spy.setVirtualTime(true);
  EXPECT_TRUE(throwsTransport([&] { link.socket.flush(); }, TTransportException::TIMED_OUT,
                              "flush timeout."));
  spy.setVirtualTime(false);
  const auto sleeps = spy.lengths(Sys::Usleep);
  ASSERT_FALSE(sleeps.empty());
  EXPECT_EQ(sleeps.front(), 10000u);
  EXPECT_GE(sleeps.size(), 300u);
  EXPECT_LE(sleeps.size(), 302u);
  link.socket.close();
}

TEST(TNonblockingUsbSocketBlocking, FailureToStartTheWriterLeavesNothingRunningOrOpen) {
  CableLink link(false);
  link.socket.open(); // the first threads of the program: sanitizer helpers start now
  link.socket.close();
  const Resources before = Resources::now();
  {
    SyscallSpy spy;
    spy.failThreadStart(1, EAGAIN); // the reader starts, the writer does not
    EXPECT_TRUE(throwsTransport([&] { link.socket.open(); }, TTransportException::NOT_OPEN,
                                "Failed to start usb transport threads."));
  }
  EXPECT_FALSE(link.device->isOpen());
  EXPECT_TRUE(backTo(before));

  link.socket.open(); // nothing of the failed attempt is in the way
  const auto data = bytesOf("after");
  link.socket.write(data.data(), static_cast<uint32_t>(data.size()));
  link.socket.flush();
  EXPECT_EQ(readExactly(link.peerIn.get(), data.size()), "after");
  link.socket.close();
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
  const Resources before = Resources::now();
  cycles(1000);
  EXPECT_TRUE(backTo(before));
}

TEST(TNonblockingUsbSocketBlocking, SigintNoLongerEndsTheProcess) {
  CableLink link(false);
  // The handler only sets this thread's quit flag.
  ASSERT_EQ(std::raise(SIGINT), 0);
  EXPECT_EQ(apache::thrift::transport::quit, 1);
}
