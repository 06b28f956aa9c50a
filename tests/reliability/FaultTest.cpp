// One row per fault a deployed link meets: the gadget's process killed while the host
// waits for its answer, the cable unplugged, the libusb gadget gone, the transport
// closed from another thread, frames cut short or with a bad header. The call under
// the fault must end with its transport exception, within its time-out plus a margin
// (never hang), and leave no thread and no descriptor behind. The messages themselves
// are checked by the unit tests of the code that throws them.

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
using Type = TTransportException::TTransportExceptionType;

namespace {

// How the call under a fault ended, timed from the fault.
struct Ended {
  bool threw = false;
  Type type = TTransportException::UNKNOWN;
  Clock::duration after{};
};

// Runs @p call on a thread of its own, provokes @p fault meanwhile, and returns how
// the call ended. Whether the fault comes before or during the call, it must end it.
Ended underFault(const std::function<void()>& call, const std::function<void()>& fault) {
  Ended ended;
  Clock::time_point end, start;
  PeerThread caller([&] {
    try {
      call();
    } catch (const TTransportException& e) {
      ended.threw = true;
      ended.type = e.getType();
    }
    end = Clock::now();
  });
  start = Clock::now();
  fault();
  caller.join(60s);
  ended.after = end - start;
  return ended;
}

// The gadget's process dies while the host waits for its answer, and nothing else
// holds the nodes any more (the cable unplugged): the threaded host's read time-out
// ends the call, the blocking host's read sees the end of data.
template <typename Link>
Ended peerKilled() {
  VirtualCable cable;
  const std::string toGadget = cable.device().readPath, fromGadget = cable.device().writePath;
  Link link(cable.host().readPath, cable.host().writePath);
  GadgetClient gadget(link.protocol);
  link.transport->open();
  // The gadget's process holds its nodes, takes a byte of the request and is killed.
  PeerThread peer([&] {
    EXPECT_EQ(reportFromChild([&] {
      ::execl("/bin/sh", "sh", "-c", "exec 4>\"$2\"; head -c1 \"$1\" >/dev/null; kill -9 $$", "sh",
              toGadget.c_str(), fromGadget.c_str(), nullptr);
      return std::string("no shell");
    }), "died, wait status " + std::to_string(SIGKILL));
  });
  const Ended ended = underFault([&] { gadget.ping(); }, [&] {
    peer.join();
    cable.unplug();
  });
  link.transport->close();
  return ended;
}

// Nobody reads the host's requests any more: its writes fail.
template <typename Link>
Ended unplugged() {
  VirtualCable cable;
  Link link(cable.host().readPath, cable.host().writePath);
  link.transport->open();
  const std::string bytes = patternBytes(100);
  const Ended ended = underFault(
      [&] {
        for (int i = 0; i < 1000; ++i) {
          link.transport->write(reinterpret_cast<const uint8_t*>(bytes.data()), 100);
          link.transport->flush();
        }
      },
      [&] { cable.unplug(); });
  link.transport->close();
  return ended;
}

// The application closes the threaded host from another thread while a call waits
// for its answer.
Ended closedFromAnotherThread() {
  VirtualCable cable;
  ThreadedLink link(cable.host().readPath, cable.host().writePath);
  const UniqueFd requests = openFd(cable.device().readPath, O_RDONLY | O_NONBLOCK);
  GadgetClient gadget(link.protocol);
  link.transport->open();
  return underFault([&] { gadget.ping(); }, [&] {
    readExactly(requests.get(), 1); // the request is out: the call waits for the answer
    link.transport->close();
  });
}

// The encrypted threaded host reads a header for 48 bytes of which 20 come.
Ended frameCutShort() {
  VirtualCable cable;
  ThreadedLink link(cable.host().readPath, cable.host().writePath, false, makeDemoCipher());
  const UniqueFd answers = openFd(cable.device().writePath, O_WRONLY | O_NONBLOCK);
  link.transport->open();
  uint8_t buf[64];
  const Ended ended = underFault([&] { link.transport->read(buf, sizeof buf); },
                                 [&] { writeAll(answers.get(), std::string("\0\0\0\x30", 4) + patternBytes(20)); });
  link.transport->close();
  return ended;
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
  const Ended ended = underFault([&] { gadget.ping(); }, [&] {
    ASSERT_FALSE(device.takeOut(1, kPeerLimit).empty());
    device.unplug();
  });
  link.socket->close();
  return ended;
}

struct FaultRow {
  const char* name;
  std::function<Ended()> provoke;
  Type type;
  std::chrono::milliseconds within;
  // The emulated bus's own threads and descriptors come and go as GLib pleases.
  bool countsResources = true;
};

class Fault : public ::testing::TestWithParam<FaultRow> {};

TEST_P(Fault, EndsTheCallWithItsExceptionInTimeAndLeavesNothingBehind) {
  const FaultRow& row = GetParam();
  Watchdog watchdog(60s);
  const Resources before = Resources::now();
  const Ended ended = row.provoke();
  EXPECT_TRUE(ended.threw) << "the call returned";
  EXPECT_EQ(ended.type, row.type);
  EXPECT_LT(std::chrono::duration_cast<std::chrono::milliseconds>(ended.after).count(),
            (row.within + 1500ms).count()); // room for a loaded machine and a sanitizer
  if (row.countsResources) {
    EXPECT_TRUE(backTo(before));
  }
}

INSTANTIATE_TEST_SUITE_P(
    Rows, Fault,
    ::testing::Values(
        FaultRow{"PeerKilledThreaded", peerKilled<ThreadedLink>, TTransportException::TIMED_OUT,
                 std::chrono::milliseconds(kHostTimeoutMs)},
        FaultRow{"PeerKilledBlocking", peerKilled<BlockingLink>, TTransportException::TIMED_OUT,
                 0ms},
        FaultRow{"UnpluggedThreaded", unplugged<ThreadedLink>, TTransportException::INTERRUPTED,
                 0ms},
        FaultRow{"UnpluggedBlocking", unplugged<BlockingLink>, TTransportException::UNKNOWN, 0ms},
        FaultRow{"ClosedFromAnotherThread", closedFromAnotherThread,
                 TTransportException::INTERRUPTED, 0ms},
        // A header for 48 bytes of which 20 come: the socket's read time-out, not the
        // frames' 300 s wait for a frame.
        FaultRow{"FrameCutShort", frameCutShort, TTransportException::TIMED_OUT, std::chrono::milliseconds(kHostTimeoutMs)},
        FaultRow{"GadgetUnpluggedThroughLibusb", gadgetUnplugged, TTransportException::INTERRUPTED,
                 0ms, false}),
    [](const auto& info) { return std::string(info.param.name); });

} // namespace
