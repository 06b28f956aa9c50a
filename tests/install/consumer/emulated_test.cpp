// The consumer's service tested through libusb: the host's real stack on TLibusbDevice
// against an emulated gadget whose answers come from the service's processor.
#include <memory>
#include <string>
#include <thread>

#include <gtest/gtest.h>
#include <thrift/protocol/TBinaryProtocol.h>
#include <thriftusb/testing/EmulatedGadgetTransport.h>
#include <thriftusb/testing/EmulatedUsbBus.h>
#include <thriftusb/transport/TLibusbDevice.h>
#include <thriftusb/transport/TNonblockingUsbSocket.h>

#include "Calculator.h"
#include "CalculatorHandler.h"
#include "calc_constants.h"

using namespace apache::thrift;
using namespace apache::thrift::transport;
using thriftusb::testing::EmulatedUsbDevice;

#if defined(__SANITIZE_THREAD__)
// Built with ThreadSanitizer: the emulation's known false alarms are not reported.
extern "C" const char* __tsan_default_suppressions() {
  return thriftusb::testing::kTsanSuppressions;
}
#endif

TEST(Calculator, AnswersThroughLibusb) {
  thriftusb::testing::EmulatedUsbBus bus;
  // 1209:0001, serial CALC-0042, one configuration with interface 0, alternate
  // setting 0, class ff/00/00, bulk IN 0x81 and bulk OUT 0x01.
  EmulatedUsbDevice& gadget =
      bus.add({0x1209, 0x0001, "CALC-0042", {{{0, 0, 0xff, 0x00, 0x00, {{0x81}, {0x01}}}}}});
  // The gadget's side: the service's processor on the device's bulk pipes, each
  // flushed answer one IN transfer, until the device is unplugged.
  std::thread device([&gadget] {
    calc::CalculatorProcessor processor(std::make_shared<CalculatorHandler>());
    auto protocol = std::make_shared<protocol::TBinaryProtocol>(
        std::make_shared<thriftusb::testing::EmulatedGadgetTransport>(gadget));
    try {
      while (processor.process(protocol, protocol, nullptr)) {
      }
    } catch (const TTransportException&) { // unplugged
    }
  });

  const auto block = static_cast<unsigned>(calc::g_calc_constants.BLOCK_SIZE);
  auto usb = std::make_shared<TLibusbDevice>(0x1209, 0x0001, "0042", 0xff, 0x00, 0x00, false,
                                             100, 3000, block, block, true);
  auto socket = std::make_shared<TNonblockingUsbSocket>(usb, 3000, 3000, 1 << 20);
  calc::CalculatorClient calculator(std::make_shared<protocol::TBinaryProtocol>(socket));
  socket->open();
  EXPECT_EQ(calculator.divide(7, 2), 3);
  EXPECT_THROW(calculator.divide(1, 0), calc::DivideByZero);
  socket->close();

  gadget.unplug();
  device.join();
}
