// The example Gadget service behind real Thrift servers on the USB server transport:
// TSimpleServer on the two nodes of a virtual cable, TThreadedServer on the one node of
// a pseudo-terminal, hosts on the threaded transport in both of its modes, hosts that
// come and go, and a host that vanishes mid-call. (A server process killed mid-call:
// the fault matrix's ServerKilledMidCall, on every stack.)

#include <atomic>
#include <chrono>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <thrift/protocol/TBinaryProtocol.h>
#include <thrift/server/TThreadedServer.h>
#include <thrift/transport/TFDTransport.h>

#include <thriftusb/transport/TServerNonblockingUsbSocket.h>
#include <thriftusb/testing/PtyDevice.h>
#include <thriftusb/testing/ServerRunner.h>
#include <thriftusb/testing/VirtualCable.h>

#include "DemoOptions.h"
#include "Gadget.h"
#include "GadgetCalls.h"
#include "GadgetHandler.h"
#include "ThreadedLink.h"
#include "demo_constants.h"
#include "support/Bounded.h"
#include "support/FdIo.h"
#include "support/SyscallSpy.h"

using apache::thrift::protocol::TBinaryProtocol;
using apache::thrift::protocol::TBinaryProtocolFactory;
using apache::thrift::server::TServer;
using apache::thrift::server::TThreadedServer;
using apache::thrift::transport::TFDTransport;
using apache::thrift::transport::TServerNonblockingUsbSocket;
using apache::thrift::transport::TTransportFactory;
using namespace thriftusb::example;
using namespace thriftusb::test;
using namespace thriftusb::testing;
using Clock = std::chrono::steady_clock;

namespace {

// One polling step of the server transport's accept and of the threaded transport,
// with room for a loaded machine.
constexpr auto kPrompt = std::chrono::milliseconds(1500);

// The service's block size, read when used: the constant is set up by another
// translation unit's static initialisation.
unsigned blockSize() {
  return static_cast<unsigned>(g_demo_constants.BLOCK_SIZE);
}

// How long stopping @p server takes, until its serve() has returned.
Clock::duration timeToStop(ServerRunner& server) {
  const auto start = Clock::now();
  server.stop();
  return Clock::now() - start;
}

/** A host on the threaded transport that runs every Gadget call once over @p link. */
void callEveryMethod(ThreadedLink& link) {
  GadgetClient gadget(link.protocol);
  std::ostringstream log;
  link.socket->open();
  EXPECT_TRUE(runCalls(gadget, log)) << log.str();
  link.socket->close();
}

class GadgetServerOnTheCable : public ::testing::Test {
protected:
  // The server counts its accept attempts: an attempt begins only once the previous
  // connection is closed, so from then on nothing of that connection can take a
  // host's bytes off the cable any more.
  std::shared_ptr<TServer> makeServer(std::shared_ptr<Sm4Cipher> cipher = nullptr) {
    auto transport = std::make_shared<TServerNonblockingUsbSocket>(
        cable_.device().readPath, cable_.device().writePath, false, blockSize(), blockSize());
    transport->setPreOpenCallback([this](std::vector<std::string>) { ++accepts_; });
    return makeGadgetServer(transport, std::make_shared<GadgetHandler>(serverLog_),
                            std::move(cipher));
  }

  bool waitForAccepts(int count) {
    return waitUntil([&] { return accepts_ >= count; });
  }

  Watchdog watchdog_{std::chrono::seconds(60)};
  VirtualCable cable_;
  std::ostringstream serverLog_;
  std::atomic<int> accepts_{0};
};

} // namespace

TEST_F(GadgetServerOnTheCable, SimpleServerServesHostsOneAfterTheOtherInBothModes) {
  ServerRunner server(makeServer());
  const auto host = cable_.host();

  ThreadedLink first(host.readPath, host.writePath);
  callEveryMethod(first);
  // The server lets the connection go once the host has been silent for its read
  // time-out, and accepts the next one on fresh transport threads.
  ASSERT_TRUE(waitForAccepts(2));

  // Non-blocking mode flushes the channel with fsync, which FIFOs lack and a device
  // whose driver synchronises its endpoint has: the spy stands in for that driver.
  ThreadedLink second(host.readPath, host.writePath, true);
  SyscallSpy spy;
  spy.watch(descriptorsOpenedBy([&] { second.socket->open(); }));
  spy.returnNext(Sys::Fsync, 0, 1000);
  callEveryMethod(second);

  ThreadedLink third(host.readPath, host.writePath);
  callEveryMethod(third);

  // The server is inside a connection, waiting for the next call: stop ends it.
  EXPECT_LT(timeToStop(server), kPrompt);
}

TEST_F(GadgetServerOnTheCable, EncryptedFramesCarryEveryCallAndALargeEcho) {
  const auto cipher = makeDemoCipher();
  ServerRunner server(makeServer(cipher));
  ThreadedLink link(cable_.host().readPath, cable_.host().writePath, false, cipher);
  GadgetClient gadget(link.protocol);
  link.transport->open();
  std::ostringstream log;
  EXPECT_TRUE(runCalls(gadget, log)) << log.str();

  // One frame of 256 KiB each way, cut into 512-byte blocks on the cable.
  const std::string payload = patternBytes(256 * 1024, 3);
  std::string echoed;
  gadget.echo(echoed, payload);
  EXPECT_TRUE(echoed == payload) << "the echoed bytes differ from those sent";
  link.transport->close();
}

TEST_F(GadgetServerOnTheCable, HostThatVanishesMidCallCostsOneConnectionOnly) {
  ServerRunner server(makeServer());
  const auto host = cable_.host();

  // Half a request, as from a host killed while it was writing: the server waits for
  // the rest for its read time-out, then drops the connection and the half request.
  ThreadedLink vanishing(host.readPath, host.writePath);
  vanishing.socket->open();
  vanishing.protocol->writeMessageBegin("echo", apache::thrift::protocol::T_CALL, 1);
  vanishing.socket->flush();
  vanishing.socket->close();
  ASSERT_TRUE(waitForAccepts(2));
  EXPECT_EQ(serverLog_.str(), "");

  ThreadedLink next(host.readPath, host.writePath);
  callEveryMethod(next);
}

TEST(GadgetServerOnAPty, ThreadedServerServesOneNodeAndStopsPromptlyMidConnection) {
  Watchdog watchdog(std::chrono::seconds(30));
  PtyDevice pty;
  std::ostringstream serverLog;
  ServerRunner server(std::make_shared<TThreadedServer>(
      std::make_shared<GadgetProcessor>(std::make_shared<GadgetHandler>(serverLog)),
      std::make_shared<TServerNonblockingUsbSocket>(pty.path(), false, blockSize(), blockSize()),
      std::make_shared<TTransportFactory>(), std::make_shared<TBinaryProtocolFactory>()));

  // The host holds the other side of the line: the runtime's own transport on the
  // terminal's master.
  auto line = std::make_shared<TFDTransport>(pty.peerFd(), TFDTransport::NO_CLOSE_ON_DESTROY);
  GadgetClient gadget(std::make_shared<TBinaryProtocol>(line));
  std::ostringstream log;
  EXPECT_TRUE(runCalls(gadget, log)) << log.str();

  // The host stays connected; TThreadedServer waits for its connection, which the
  // server transport interrupts.
  EXPECT_LT(timeToStop(server), kPrompt);
  EXPECT_NE(serverLog.str().find("server: divide(84, 2) = 42"), std::string::npos);
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
