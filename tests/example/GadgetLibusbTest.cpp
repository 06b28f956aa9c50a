// The example's usb_libusb_client program, as a user runs it, calls the Gadget service
// on a gadget emulated by umockdev: the gadget's bulk OUT bytes feed the example's
// processor on a thread of the test, and its answers go back as bulk IN data.

#include <cstdlib>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>

#include <unistd.h>

#include <gtest/gtest.h>
#include <thrift/protocol/TBinaryProtocol.h>

#include <thriftusb/testing/EmulatedGadgetTransport.h>
#include <thriftusb/testing/EmulatedUsbBus.h>
#include <thriftusb/testing/TempDir.h>

#include "BlockingLink.h"
#include "Gadget.h"
#include "GadgetHandler.h"
#include "support/Bounded.h"
#include "support/ForkedChild.h"

using apache::thrift::protocol::TBinaryProtocol;
using namespace thriftusb::example;
using namespace thriftusb::test;
using namespace thriftusb::testing;

TEST(GadgetOverLibusb, ClientProgramCallsTheServiceFoundBySerialAndInterface) {
  Watchdog watchdog;
  EmulatedUsbBus bus;
  EmulatedUsbDevice& device =
      bus.add({0x1209, 0x0001, "GADGET-0042", {{{0, 0, 0xff, 0x00, 0x00, {{0x81}, {0x01}}}}}});
  std::ostringstream serverLog;
  PeerThread gadget([&] {
    GadgetProcessor processor(std::make_shared<GadgetHandler>(serverLog));
    serveUntilHangUp(processor, std::make_shared<TBinaryProtocol>(
                                    std::make_shared<EmulatedGadgetTransport>(device, kPeerLimit)));
  });

  // The program runs in a process of its own, which umockdev's preload library leads
  // to this test's emulated bus; a sanitized program must accept that library first,
  // and takes the emulation's ThreadSanitizer suppressions.
  TempDir dir;
  std::ofstream(dir.file("tsan.supp")) << kTsanSuppressions;
  auto options = [](const char* name) {
    const char* value = std::getenv(name);
    return std::string(name) + "=" + (value ? value : "") + ":";
  };
  const std::string asan = options("ASAN_OPTIONS") + "verify_asan_link_order=0";
  const std::string tsan = options("TSAN_OPTIONS") + "suppressions=" + dir.file("tsan.supp");
  const std::string ran = reportFromChild([&] {
    ::execl("/usr/bin/env", "env", "LD_PRELOAD=libumockdev-preload.so.0", asan.c_str(),
            tsan.c_str(), USB_LIBUSB_CLIENT_PROGRAM, "--serial", "0042", "1209:0001", "ff:00",
            nullptr);
    return std::string("cannot start the program");
  });
  device.unplug();
  gadget.join();
  EXPECT_EQ(ran, "") << "the program did not exit with 0";
  EXPECT_NE(serverLog.str().find("server: echo(20 bytes)"), std::string::npos) << serverLog.str();
}
