// The example's Gadget server (makeGadgetServer, as usb_server runs it) on a virtual
// cable serves hosts one after the other: a host that vanishes half way through a
// request costs that connection only. (The programs themselves talk to each other in
// the example_demo tests.)

#include <atomic>
#include <chrono>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <thrift/protocol/TProtocol.h>

#include <thriftusb/transport/TServerNonblockingUsbSocket.h>
#include <thriftusb/testing/ServerRunner.h>
#include <thriftusb/testing/VirtualCable.h>

#include "Gadget.h"
#include "GadgetCalls.h"
#include "GadgetHandler.h"
#include "ThreadedLink.h"
#include "demo_constants.h"
#include "support/Bounded.h"

using apache::thrift::server::TServer;
using apache::thrift::transport::TServerNonblockingUsbSocket;
using namespace thriftusb::example;
using namespace thriftusb::test;
using namespace thriftusb::testing;
using Clock = std::chrono::steady_clock;

TEST(GadgetServer, ServesTheNextHostAfterOneVanishedMidCallAndStopsPromptly) {
  Watchdog watchdog(std::chrono::seconds(60));
  VirtualCable cable;
  const auto block = static_cast<unsigned>(g_demo_constants.BLOCK_SIZE);
  auto transport = std::make_shared<TServerNonblockingUsbSocket>(
      cable.device().readPath, cable.device().writePath, false, block, block);
  // An accept begins only once the previous connection is closed.
  std::atomic<int> accepts{0};
  transport->setPreOpenCallback([&](std::vector<std::string>) { ++accepts; });
  std::ostringstream serverLog;
  ServerRunner server(makeGadgetServer(transport, std::make_shared<GadgetHandler>(serverLog)));
  const auto host = cable.host();

  // Half a request, as from a host killed while it was writing: the server waits for
  // the rest for its read time-out, then drops the connection and the half request.
  ThreadedLink vanishing(host.readPath, host.writePath);
  vanishing.socket->open();
  vanishing.protocol->writeMessageBegin("echo", apache::thrift::protocol::T_CALL, 1);
  vanishing.socket->flush();
  vanishing.socket->close();
  ASSERT_TRUE(waitUntil([&] { return accepts >= 2; }));
  EXPECT_EQ(serverLog.str(), "");

  ThreadedLink next(host.readPath, host.writePath);
  GadgetClient gadget(next.protocol);
  next.socket->open();
  std::ostringstream calls;
  EXPECT_TRUE(runCalls(gadget, calls)) << calls.str();

  // The server is inside the connection, waiting for the next call: stop ends it
  // within a polling step of the server transport.
  const auto start = Clock::now();
  server.stop();
  EXPECT_LT(Clock::now() - start, std::chrono::milliseconds(1500));
  next.socket->close();
}

TEST(ServerRunner, StopRethrowsWhatServeFailedWith) {
  // A server whose serve() fails by itself, as one whose transport cannot listen.
  struct FailingServer : TServer {
    FailingServer() : TServer(std::make_shared<GadgetProcessor>(nullptr)) {}
    void serve() override { throw std::runtime_error("cannot listen"); }
  };
  ServerRunner server(std::make_shared<FailingServer>());
  ASSERT_TRUE(waitUntil([&] { return !server.running(); }));
  EXPECT_THROW(server.stop(), std::runtime_error);
  EXPECT_NO_THROW(server.stop()); // stopped once: nothing more to do
}
