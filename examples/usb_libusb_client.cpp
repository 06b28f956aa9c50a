// The host's side of the demo against a real gadget reached through libusb: calls
// each method of the Gadget service once and checks every answer.
//
//   usb_libusb_client [--serial TEXT] VENDOR:PRODUCT CLASS:SUBCLASS[:PROTOCOL]
//
// The device is the first with the identifiers (hex, as lsusb shows them) whose
// serial number contains TEXT; the interface is the first with the class, subclass
// and protocol (hex; protocol 0 or left out: any) that has a bulk IN and a bulk OUT
// endpoint. A kernel driver bound to it is detached. The gadget serves the calls
// unencrypted on those endpoints. The program needs access to the device's node
// under /dev/bus/usb (a udev rule, or root).
//
// Prints each call with its answer; exits 0 when every answer is right, 1 otherwise,
// 2 on bad usage.

#include <exception>
#include <iostream>
#include <string>
#include <vector>

#include "DemoOptions.h"
#include "GadgetCalls.h"
#include "LibusbLink.h"

using thriftusb::example::GadgetClient;
using thriftusb::example::LibusbLink;
using thriftusb::example::LibusbTarget;

int main(int argc, char** argv) {
  LibusbTarget target;
  std::string error;
  if (!thriftusb::example::parseLibusbTarget(std::vector<std::string>(argv + 1, argv + argc),
                                             target, error)) {
    std::cerr << argv[0] << ": " << error << "\nusage: " << argv[0] << " "
              << thriftusb::example::kLibusbTargetUsage << std::endl;
    return 2;
  }
  thriftusb::example::prefixThriftLog("client");
  try {
    LibusbLink link(target);
    GadgetClient gadget(link.protocol);
    link.socket->open();
    const bool allRight = thriftusb::example::runCalls(gadget, std::cout);
    link.socket->close();
    std::cout << "client: " << (allRight ? "all answers right" : "some answers WRONG")
              << std::endl;
    return allRight ? 0 : 1;
  } catch (const std::exception& e) {
    std::cerr << "client: failed: " << e.what() << std::endl;
    return 1;
  }
}
