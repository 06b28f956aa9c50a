// Faults on the libusb and CUPS channels, each under the threaded transport it is used
// with: on the host's libusb link a gadget that is unplugged or falls silent in the
// middle of a call; inside a CUPS filter a printer that never answers and a backend
// that has gone. Each call must end with the transport's exception within its time-out
// plus a margin, and closing must give back what the link held.

#include <chrono>
#include <csignal>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <string>

#include <fcntl.h>
#include <unistd.h>

#include <gtest/gtest.h>
#include <thrift/transport/TTransportException.h>

#include <thriftusb/transport/TCupsDevice.h>
#include <thriftusb/transport/TLibusbDevice.h>
#include <thriftusb/transport/TNonblockingUsbSocket.h>
#include <thriftusb/testing/EmulatedUsbBus.h>

#include "support/Bounded.h"
#include "support/Expect.h"
#include "support/FdIo.h"
#include "support/ForkedChild.h"
#include "support/LogCapture.h"

using apache::thrift::transport::TCupsDevice;
using apache::thrift::transport::TLibusbDevice;
using apache::thrift::transport::TNonblockingUsbSocket;
using apache::thrift::transport::TTransportException;
using namespace thriftusb::test;
using namespace thriftusb::testing;
using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

namespace {

constexpr int kTimeoutMs = 300;
// How late past its time-out a call may end on a loaded machine.
constexpr milliseconds kMargin{1000};
constexpr unsigned kBlock = 512;
const std::string kRequest = "a request of the host";

long msSince(Clock::time_point start) {
  return static_cast<long>(
      std::chrono::duration_cast<milliseconds>(Clock::now() - start).count());
}

const uint8_t* u8(const std::string& bytes) {
  return reinterpret_cast<const uint8_t*>(bytes.data());
}

// Whether a thread of this process is named @p name.
bool threadNamed(const std::string& name) {
  for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
    std::string comm;
    std::getline(std::ifstream(task.path() / "comm"), comm);
    if (comm == name) {
      return true;
    }
  }
  return false;
}

// ---------------------------------------------------------------------------
// libusb: the host's TLibusbDevice in blocking mode, driven by the threaded
// transport's reader and writer threads, against a gadget emulated by umockdev.

class LibusbChannelFault : public ::testing::Test {
protected:
  LibusbChannelFault()
    : gadget_(bus_.add({0x1209, 0x0001, "", {{{0, 0, 0xff, 0x00, 0x00, {{0x81}, {0x01}}}}}})),
      socket_(std::make_shared<TLibusbDevice>(0x1209, 0x0001, 0xff, 0x00, false, 100, 100,
                                              kBlock, kBlock, true),
              kTimeoutMs, kTimeoutMs, 1 << 16) {}

  // What the closed link must have given back: its reader and writer threads (each
  // logged its end once), the device node, and the libusb context with its event
  // thread. The emulation's own threads and descriptors come and go as GLib pleases,
  // so a count of the process's threads and descriptors would measure those too.
  void expectReleased(const LogCapture& log) {
    EXPECT_EQ(log.count("read thread exit."), 1u);
    EXPECT_EQ(log.count("write thread exit at 2."), 1u);
    EXPECT_TRUE(waitUntil([&] { return gadget_.observed().openHandles == 0; }))
        << "the device node is still open";
    EXPECT_FALSE(threadNamed("libusb_event")) << "the libusb context was not ended";
  }

  // Sends a request, and waits until the gadget has it and the reader thread waits
  // in an IN transfer for the answer.
  void sendRequest() {
    socket_.open();
    socket_.write(u8(kRequest), static_cast<uint32_t>(kRequest.size()));
    socket_.flush();
    ASSERT_EQ(gadget_.takeOut(kRequest.size(), kPeerLimit), kRequest);
    ASSERT_TRUE(waitUntil([&] { return gadget_.observed().urbs[0x81] > 0; }));
  }

  Watchdog watchdog_;
  EmulatedUsbBus bus_;
  EmulatedUsbDevice& gadget_;
  TNonblockingUsbSocket socket_;
};

TEST_F(LibusbChannelFault, GadgetUnpluggedMidCallEndsTheWaitingReadWithInterrupted) {
  LogCapture log;
  sendRequest();
  uint8_t answer[8];
  Clock::time_point unplugged;
  PeerThread host([&] {
    EXPECT_TRUE(throwsTransport([&] { socket_.readAll(answer, sizeof answer); },
                                TTransportException::INTERRUPTED, "Failed to read."));
  });
  unplugged = Clock::now();
  gadget_.unplug();
  host.join();
  EXPECT_LT(msSince(unplugged), kMargin.count());
  // Broken, not closed: the transport leaves closing to its owner.
  EXPECT_TRUE(socket_.isOpen());
  socket_.close();
  EXPECT_FALSE(socket_.isOpen());
  expectReleased(log);
}

TEST_F(LibusbChannelFault, SilentGadgetEndsTheCallWithTheReadTimeOut) {
  LogCapture log;
  sendRequest();
  uint8_t answer[8];
  const auto start = Clock::now();
  EXPECT_TRUE(throwsTransport([&] { socket_.readAll(answer, sizeof answer); },
                              TTransportException::TIMED_OUT, "read timeout."));
  const long took = msSince(start);
  EXPECT_GE(took, kTimeoutMs);
  EXPECT_LT(took, kTimeoutMs + kMargin.count());
  // The link itself still works: a late answer is read by the next call.
  gadget_.queue(Pipe::In, {"late"});
  EXPECT_EQ(socket_.readAll(answer, 4), 4u);
  EXPECT_EQ(std::string(reinterpret_cast<char*>(answer), 4), "late");
  socket_.close();
  expectReleased(log);
}

// ---------------------------------------------------------------------------
// CUPS: the filter's TCupsDevice in non-blocking mode under the threaded transport,
// in a child process set up as cupsd sets up a filter: descriptor 3 is the back
// channel, standard output a pipe towards the backend. SIGPIPE is ignored, as a filter
// writing to a pipe must; the test checks the process survives a backend that has gone.

enum class Backend { Listening, Gone };

// Runs @p body in such a child and returns its report, or what went wrong with it.
std::string runInFilter(Backend backend, const std::function<std::string()>& body) {
  int back[2];
  int out[2];
  if (::pipe(back) != 0 || ::pipe(out) != 0) {
    return "no pipes";
  }
  // The printer's end of the back channel stays open and silent, and so does the
  // backend's end of standard output unless it has gone before the filter starts.
  UniqueFd printer(back[1]), backendEnd(out[0]), backIn(back[0]), toBackend(out[1]);
  if (backend == Backend::Gone) {
    backendEnd.reset();
  }
  return reportFromChild([&] {
    ::dup2(backIn.get(), 3);
    ::fcntl(3, F_SETFL, O_NONBLOCK);
    ::dup2(toBackend.get(), STDOUT_FILENO);
    std::setvbuf(stdout, nullptr, _IOFBF, BUFSIZ);
    std::signal(SIGPIPE, SIG_IGN);
    return body();
  });
}

// What @p call threw: "<type> <message>", with "late" added when it ended later than
// @p limitMs; "returned" when it threw nothing.
std::string outcome(const std::function<void()>& call, long limitMs) {
  const auto start = Clock::now();
  try {
    call();
  } catch (const TTransportException& e) {
    return std::to_string(e.getType()) + " " + e.what() + (msSince(start) > limitMs ? " late" : "");
  }
  return "returned";
}

std::unique_ptr<TNonblockingUsbSocket> filterSocket() {
  // A non-blocking channel has no ring buffers: their size is not used.
  return std::make_unique<TNonblockingUsbSocket>(std::make_shared<TCupsDevice>(true, kBlock, kBlock),
                                                 kTimeoutMs, kTimeoutMs, 1);
}

TEST(CupsChannelFault, PrinterThatNeverAnswersEndsTheCallWithTheReadTimeOut) {
  const std::string report = runInFilter(Backend::Listening, [] {
    auto socket = filterSocket();
    socket->open();
    socket->write(u8(kRequest), static_cast<uint32_t>(kRequest.size()));
    socket->flush();
    uint8_t answer[8];
    return outcome([&] { socket->readAll(answer, sizeof answer); },
                   kTimeoutMs + static_cast<long>(kMargin.count()));
  });
  EXPECT_EQ(report, std::to_string(TTransportException::TIMED_OUT) + " read timeout.");
}

TEST(CupsChannelFault, BackendGoneFailsTheWriteThatReachesThePipeAndTheFilterLives) {
  const std::string report = runInFilter(Backend::Gone, [] {
    auto socket = filterSocket();
    socket->open();
    // More than the standard output stream buffers, so that a write reaches the pipe.
    const std::string call = patternBytes(4 * BUFSIZ);
    return outcome([&] { socket->write(u8(call), static_cast<uint32_t>(call.size())); },
                   kTimeoutMs + static_cast<long>(kMargin.count()));
  });
  EXPECT_EQ(report, std::to_string(TTransportException::INTERRUPTED) + " Failed to write.");
}

} // namespace
