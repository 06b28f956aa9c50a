// The example Gadget service reached through libusb: the host's LibusbLink (a
// TLibusbDevice driven by a TNonblockingUsbSocket's reader and writer threads) calls
// a gadget emulated by umockdev, whose bulk OUT bytes feed the example's processor on
// a thread of the test and whose answers go back as bulk IN data. Then the same with
// the usb_libusb_client program as the host, and the program's command line.

#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

#include <sys/wait.h>

#include <gtest/gtest.h>
#include <thrift/protocol/TBinaryProtocol.h>
#include <thrift/transport/TTransportException.h>

#include <thriftusb/testing/EmulatedGadgetTransport.h>
#include <thriftusb/testing/EmulatedUsbBus.h>
#include <thriftusb/testing/TempDir.h>

#include "BlockingLink.h"
#include "Gadget.h"
#include "GadgetCalls.h"
#include "GadgetHandler.h"
#include "LibusbLink.h"
#include "support/Bounded.h"
#include "support/ChildProcess.h"
#include "support/FdIo.h"
#include "support/LogCapture.h"

using apache::thrift::protocol::TBinaryProtocol;
using apache::thrift::transport::TTransportException;
using namespace thriftusb::example;
using namespace thriftusb::test;
using namespace thriftusb::testing;

namespace {

// A gadget on the emulated bus with a serial number, serving until unplugged.
class GadgetOverLibusb : public ::testing::Test {
protected:
  GadgetOverLibusb()
    : device_(bus_.add({0x1209, 0x0001, "GADGET-0042",
                        {{{0, 0, 0xff, 0x00, 0x00, {{0x81}, {0x01}}}}}})),
      server_([this] {
        GadgetProcessor processor(std::make_shared<GadgetHandler>(serverLog_));
        auto end = std::make_shared<EmulatedGadgetTransport>(device_, kPeerLimit);
        serverEnd_ = serveUntilHangUp(processor, std::make_shared<TBinaryProtocol>(end));
      }) {}

  // A failed test must not leave the server waiting for the host.
  ~GadgetOverLibusb() override { device_.unplug(); }

  // Unplugs the gadget and waits for its server to end.
  TTransportException unplug() {
    device_.unplug();
    server_.join();
    return serverEnd_;
  }

  Watchdog watchdog_;
  EmulatedUsbBus bus_;
  EmulatedUsbDevice& device_;
  std::ostringstream serverLog_;
  TTransportException serverEnd_;
  PeerThread server_;
};

const std::vector<std::string> kGadgetArgs = {"--serial", "0042", "1209:0001", "ff:00"};

} // namespace

TEST_F(GadgetOverLibusb, HostCallsTheServiceThroughReaderAndWriterThreads) {
  LogCapture log;
  LibusbTarget target;
  std::string error;
  ASSERT_TRUE(parseLibusbTarget(kGadgetArgs, target, error)) << error;
  LibusbLink link(target, 100);
  GadgetClient gadget(link.protocol);
  link.socket->open();

  std::ostringstream calls;
  EXPECT_TRUE(runCalls(gadget, calls)) << calls.str();
  // Many blocks each way, so that the answer spans many IN transfers.
  const std::string payload = patternBytes(40 * 1024, 5);
  std::string echoed;
  gadget.echo(echoed, payload);
  EXPECT_TRUE(echoed == payload) << "the echoed bytes differ from those sent";
  // While the link ran, the reader only waited for answers: no stall, no failure.
  for (const std::string& line : log.lines()) {
    EXPECT_EQ(line.rfind("*** bulk_transfer read timeout : 100!", 0), 0u) << line;
  }
  link.socket->close();
  EXPECT_EQ(unplug().getType(), TTransportException::END_OF_FILE);
}

TEST_F(GadgetOverLibusb, ClientProgramCallsTheServiceFromItsCommandLine) {
  // The program runs in a process of its own, which umockdev's preload library leads
  // to this test's emulated bus; a sanitized program must accept that library first,
  // and takes the emulation's ThreadSanitizer suppressions.
  TempDir dir;
  std::ofstream(dir.file("tsan.supp")) << kTsanSuppressions;
  auto options = [](const char* name) {
    const char* value = std::getenv(name);
    return std::string(name) + "=" + (value ? value : "") + ":";
  };
  std::vector<std::string> argv = {
      "/usr/bin/env", "LD_PRELOAD=libumockdev-preload.so.0",
      options("ASAN_OPTIONS") + "verify_asan_link_order=0",
      options("TSAN_OPTIONS") + "suppressions=" + dir.file("tsan.supp"), USB_LIBUSB_CLIENT_PROGRAM};
  argv.insert(argv.end(), kGadgetArgs.begin(), kGadgetArgs.end());
  ChildProcess client(argv);
  const int status = client.waitFor();
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "wait status " << status;
  unplug();
  EXPECT_NE(serverLog_.str().find("server: echo(20 bytes)"), std::string::npos) << serverLog_.str();
}

TEST(LibusbClientArguments, IdentifiersAndInterfaceInHexWithAnOptionalSerial) {
  struct Case {
    std::vector<std::string> args;
    bool valid;
    LibusbTarget target;
  } cases[] = {
      {{"1209:0001", "ff:00"}, true, {0x1209, 0x0001, "", 0xff, 0x00, 0}},
      {{"--serial", "AB 12", "1d6b:104", "FF:1:2"}, true, {0x1d6b, 0x0104, "AB 12", 0xff, 1, 2}},
      {{"1209:0001", "ff:00", "--serial", "x"}, true, {0x1209, 0x0001, "x", 0xff, 0, 0}},
      {{"1209", "ff:00"}, false, {}},
      {{"1209:10000", "ff:00"}, false, {}},
      {{"1209:0001:2", "ff:00"}, false, {}},
      {{"1209:0001", "ff:100"}, false, {}},
      {{"1209:0001", "ff"}, false, {}},
      {{"1209:0001", "ff:00:01:02"}, false, {}},
      {{"12g9:0001", "ff:00"}, false, {}},
      {{"1209:-1", "ff:00"}, false, {}},
      {{"1209:0001"}, false, {}},
      {{"1209:0001", "ff:00", "extra"}, false, {}},
      {{"1209:0001", "ff:00", "--serial"}, false, {}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(::testing::PrintToString(c.args));
    LibusbTarget target;
    std::string error;
    ASSERT_EQ(parseLibusbTarget(c.args, target, error), c.valid) << error;
    if (!c.valid) {
      EXPECT_FALSE(error.empty());
      continue;
    }
    auto fields = [](const LibusbTarget& t) {
      return std::tie(t.vendor, t.product, t.serial, t.interfaceClass, t.interfaceSubClass,
                      t.interfaceProtocol);
    };
    EXPECT_EQ(fields(target), fields(c.target));
  }
}
