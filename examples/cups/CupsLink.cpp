#include "CupsLink.h"

#include <string>

#include <thrift/protocol/TBinaryProtocol.h>

#include <thriftusb/transport/TNonblockingSecurityTransport.h>

#include "DemoOptions.h"

namespace thriftusb {
namespace example {

using apache::thrift::protocol::TBinaryProtocol;
using apache::thrift::transport::TNonblockingSecurityTransport;
using apache::thrift::transport::TNonblockingUsbSocket;
using apache::thrift::transport::UsbDevice;

namespace {

// A socket on a non-blocking channel has no ring buffers; the size is not used.
constexpr int kUnusedRingBytes = 1;

} // namespace

CupsLink::CupsLink(std::shared_ptr<UsbDevice> device, bool encrypted)
  : socket(std::make_shared<TNonblockingUsbSocket>(std::move(device), kCupsTimeoutMs,
                                                   kCupsTimeoutMs, kUnusedRingBytes)),
    transport(std::make_shared<TNonblockingSecurityTransport>(
        socket, encrypted ? makeDemoCipher() : nullptr, encrypted)),
    protocol(std::make_shared<TBinaryProtocol>(transport)) {}

bool parseGadgetUri(const char* uri, bool& encrypted) {
  const std::string text = uri ? uri : "";
  if (text == "thriftusb-gadget:/plain" || text == "thriftusb-gadget:/encrypted") {
    encrypted = text == "thriftusb-gadget:/encrypted";
    return true;
  }
  return false;
}

} // namespace example
} // namespace thriftusb
