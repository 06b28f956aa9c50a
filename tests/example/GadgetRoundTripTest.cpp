// The example Gadget service end to end in one process: the generated client on the
// host's end of a virtual cable, the example's processor and handler on the device's
// end, TUSBSocket with the binary protocol on both.

#include <cstdint>
#include <limits>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <thrift/TApplicationException.h>
#include <thrift/transport/TTransportException.h>

#include <thriftusb/testing/VirtualCable.h>

#include "Gadget.h"
#include "GadgetHandler.h"
#include "BlockingLink.h"
#include "demo_constants.h"
#include "support/Bounded.h"
#include "support/FdIo.h"

using apache::thrift::TApplicationException;
using apache::thrift::transport::TTransportException;
using namespace thriftusb::example;
using namespace thriftusb::test;
using namespace thriftusb::testing;

namespace {

std::vector<std::string> linesOf(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) {
    lines.push_back(line);
  }
  return lines;
}

// A gadget serving on the device's end of a cable, and a client on the host's end,
// both transports open. The server runs until hangUp().
class GadgetRoundTrip : public ::testing::Test {
protected:
  GadgetRoundTrip()
    : device_(cable_.device().readPath, cable_.device().writePath),
      host_(cable_.host().readPath, cable_.host().writePath),
      gadget_(host_.protocol) {
    device_.socket->open();
    host_.socket->open();
    server_ = std::make_unique<PeerThread>([this] {
      GadgetProcessor processor(std::make_shared<GadgetHandler>(serverLog_));
      serverEnd_ = serveUntilHangUp(processor, device_.protocol);
    });
  }

  ~GadgetRoundTrip() override {
    if (server_) {
      try {
        hangUp();
      } catch (const std::exception& e) {
        ADD_FAILURE() << "server failed: " << e.what();
      }
    }
  }

  // The host closes its end and the cable is unplugged: the server's next read sees
  // end of data. Waits for the server loop to end and returns how it ended.
  TTransportException hangUp() {
    host_.socket->close();
    cable_.unplug();
    auto server = std::move(server_);
    server->join();
    return serverEnd_;
  }

  // The lines the handler wrote; complete once hangUp() has returned.
  std::vector<std::string> serverLines() const { return linesOf(serverLog_.str()); }

  Watchdog watchdog_;
  VirtualCable cable_;
  BlockingLink device_;
  BlockingLink host_;
  GadgetClient gadget_;
  std::ostringstream serverLog_;
  TTransportException serverEnd_;
  std::unique_ptr<PeerThread> server_;
};

} // namespace

TEST_F(GadgetRoundTrip, CallsInARowEachGetTheirOwnAnswerUntilTheHostHangsUp) {
  const std::string binary("\x00\xff\x80\x7f\x00", 5);
  std::string echoed;

  gadget_.ping();
  gadget_.echo(echoed, "a");
  EXPECT_EQ(echoed, "a");
  gadget_.echo(echoed, "");
  EXPECT_EQ(echoed, "");
  gadget_.echo(echoed, binary);
  EXPECT_EQ(echoed, binary);
  EXPECT_EQ(gadget_.divide(84, 2), 42);
  EXPECT_EQ(gadget_.divide(-7, 2), -3);
  Stats stats;
  gadget_.stats(stats);
  EXPECT_EQ(stats.calls, 7);
  EXPECT_EQ(stats.bytesEchoed, 6);

  // The server stops with end of data once the host has hung up.
  const TTransportException end = hangUp();
  EXPECT_EQ(end.getType(), TTransportException::TIMED_OUT);
  EXPECT_STREQ(end.what(), "recv timeout expired");
  const std::vector<std::string> expected = {
      "server: ping()",
      "server: echo(1 bytes)",
      "server: echo(0 bytes)",
      "server: echo(5 bytes)",
      "server: divide(84, 2) = 42",
      "server: divide(-7, 2) = -3",
      "server: stats() = {calls: 7, bytesEchoed: 6}",
  };
  EXPECT_EQ(serverLines(), expected);
}

TEST_F(GadgetRoundTrip, LargeBinaryIsCutIntoBlocksAndComesBackWhole) {
  // 200 blocks of the link's block size each way, more than a FIFO holds at once.
  const std::string payload = patternBytes(100 * 1024, 7);
  ASSERT_GT(payload.size(), 100u * static_cast<size_t>(g_demo_constants.BLOCK_SIZE));

  std::string echoed;
  gadget_.echo(echoed, payload);
  ASSERT_EQ(echoed.size(), payload.size());
  EXPECT_TRUE(echoed == payload) << "the echoed bytes differ from those sent";

  // The link stays in step after the long message.
  gadget_.ping();
  Stats stats;
  gadget_.stats(stats);
  EXPECT_EQ(stats.bytesEchoed, static_cast<int64_t>(payload.size()));
}

TEST_F(GadgetRoundTrip, DeclaredAndUndeclaredFailuresArriveAsTheirOwnTypesAndTheLinkGoesOn) {
  try {
    gadget_.divide(7, 0);
    ADD_FAILURE() << "divide(7, 0) returned instead of throwing DivideByZero";
  } catch (const DivideByZero& e) {
    EXPECT_EQ(e.dividend, 7);
    EXPECT_EQ(e.message, "cannot divide 7 by zero");
  }
  EXPECT_EQ(gadget_.divide(7, 1), 7);
  const int32_t min = std::numeric_limits<int32_t>::min();
  try {
    gadget_.divide(min, -1);
    ADD_FAILURE() << "divide(min, -1) returned instead of failing";
  } catch (const TApplicationException& e) {
    EXPECT_STREQ(e.what(), "quotient of -2147483648 / -1 does not fit in i32");
  }
  EXPECT_EQ(gadget_.divide(min, 1), min);
}
