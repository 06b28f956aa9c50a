// One row per fault a deployed link meets: the gadget's process killed while the host
// waits for its answer, the cable unplugged, the libusb gadget gone, frames cut short.
// The call under the fault must end with its transport exception, within its time-out
// plus a margin (never hang), and leave no thread and no descriptor behind. The
// messages themselves, and a close from another thread, are checked by the unit tests
// of the code that throws them.

#include <chrono>
#include <csignal>
#include <functional>
#include <string>

#include <fcntl.h>

#include <gtest/gtest.h>
#include <thrift/transport/TTransportException.h>

#include <thriftusb/testing/EmulatedUsbBus.h>
#include <thriftusb/testing/VirtualCable.h>

#include "BlockingLink.h"
#include "DemoOptions.h"
#include "Gadget.h"
#include "LibusbLink.h"
#include "ThreadedLink.h"
#include "support/Bounded.h"
#include "support/ForkedChild.h"
#include "support/FdIo.h"
#include "support/Resources.h"

using apache::thrift::transport::TTransportException;
using namespace thriftusb::example;
using namespace thriftusb::test;
using namespace thriftusb::testing;
using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

namespace {

// How the call under a fault ended: the type of exception it threw (-1: it returned),
// and when, timed from the fault.
struct Ended {
  int type = -1;
  Clock::duration after{};
};

// Runs @p call on a thread of its own, provokes @p fault meanwhile, and returns how
// the call ended. Whether the fault comes before or during the call, it must end it.
Ended underFault(const std::function<void()>& call, const std::function<void()>& fault) {
  PeerThread caller(call);
  const auto start = Clock::now();
  fault();
  Ended ended;
  try {
    caller.join(60s);
  } catch (const TTransportException& e) {
    ended.type = e.getType();
  }
  ended.after = Clock::now() - start;
  return ended;
}

// The gadget's process dies while the host waits for its answer, and nothing else
// holds the nodes any more (the cable unplugged): the threaded host's read time-out
// ends the call, the blocking host's read sees the end of data.
template <typename Link>
Ended peerKilled() {
  VirtualCable cable;
  const auto gadgetEnd = cable.device();
  Link link(cable.host().readPath, cable.host().writePath);
  GadgetClient gadget(link.protocol);
  link.transport->open();
  // The gadget's process holds its nodes, takes a byte of the request and is killed.
  PeerThread peer([&] {
    EXPECT_EQ(reportFromChild([&] {
      ::execl("/bin/sh", "sh", "-c", "exec 4>\"$2\"; head -c1 \"$1\" >/dev/null; kill -9 $$",
              "sh", gadgetEnd.readPath.c_str(), gadgetEnd.writePath.c_str(), nullptr);
      return std::string("no shell");
    }), "died, wait status " + std::to_string(SIGKILL));
  });
  return underFault([&] { gadget.ping(); }, [&] {
    peer.join();
    cable.unplug();
  });
}

// Nobody reads the host's requests any more: its writes fail.
template <typename Link>
Ended unplugged() {
  VirtualCable cable;
  Link link(cable.host().readPath, cable.host().writePath);
  link.transport->open();
  const std::string bytes = patternBytes(100);
  return underFault([&] {
    for (int i = 0; i < 1000; ++i) {
      link.transport->write(reinterpret_cast<const uint8_t*>(bytes.data()), 100);
      link.transport->flush();
    }
  }, [&] { cable.unplug(); });
}

// The encrypted threaded host reads a header for 48 bytes of which 20 come: the
// socket's read time-out ends the read, not the frames' 300 s wait for a frame.
Ended frameCutShort() {
  VirtualCable cable;
  ThreadedLink link(cable.host().readPath, cable.host().writePath, false, makeDemoCipher());
  const UniqueFd answers = openFd(cable.device().writePath, O_WRONLY | O_NONBLOCK);
  link.transport->open();
  uint8_t buf[64];
  return underFault([&] { link.transport->read(buf, sizeof buf); }, [&] {
    writeAll(answers.get(), std::string("\0\0\0\x30", 4) + patternBytes(20));
  });
}

// The host reaches the gadget through libusb; the gadget is unplugged while the host
// waits for its answer.
Ended gadgetUnplugged() {
  EmulatedUsbBus bus;
  EmulatedUsbDevice& device =
      bus.add({0x1209, 0x0001, "", {{{0, 0, 0xff, 0x00, 0x00, {{0x81}, {0x01}}}}}});
  LibusbLink link({0x1209, 0x0001, "", 0xff, 0x00, 0});
  GadgetClient gadget(link.protocol);
  link.socket->open();
  return underFault([&] { gadget.ping(); }, [&] {
    ASSERT_FALSE(device.takeOut(1, kPeerLimit).empty());
    device.unplug();
  });
}

struct FaultRow {
  const char* name;
  std::function<Ended()> provoke;
  int type;
  int withinMs = 0;
  // The emulated bus's own threads and descriptors come and go as GLib pleases.
  bool countsResources = true;
};

class Fault : public ::testing::TestWithParam<FaultRow> {};

TEST_P(Fault, EndsTheCallWithItsExceptionInTimeAndLeavesNothingBehind) {
  const FaultRow& row = GetParam();
  Watchdog watchdog(60s);
  const Resources before = Resources::now();
  const Ended ended = row.provoke();
  EXPECT_EQ(ended.type, row.type) << "-1: the call returned";
  // Room for a loaded machine and a sanitizer.
  EXPECT_LT(ended.after, std::chrono::milliseconds(row.withinMs) + 1500ms);
  if (row.countsResources) {
    EXPECT_TRUE(backTo(before));
  }
}

INSTANTIATE_TEST_SUITE_P(
    Rows, Fault,
    ::testing::Values(
        FaultRow{"PeerKilledThreaded", peerKilled<ThreadedLink>, TTransportException::TIMED_OUT,
                 kHostTimeoutMs},
        FaultRow{"PeerKilledBlocking", peerKilled<BlockingLink>, TTransportException::TIMED_OUT},
        FaultRow{"UnpluggedThreaded", unplugged<ThreadedLink>, TTransportException::INTERRUPTED},
        FaultRow{"UnpluggedBlocking", unplugged<BlockingLink>, TTransportException::UNKNOWN},
        FaultRow{"FrameCutShort", frameCutShort, TTransportException::TIMED_OUT, kHostTimeoutMs},
        FaultRow{"GadgetUnpluggedThroughLibusb", gadgetUnplugged,
                 TTransportException::INTERRUPTED, 0, false}),
    [](const auto& info) { return std::string(info.param.name); });

} // namespace
