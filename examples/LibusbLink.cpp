#include "LibusbLink.h"

#include <cerrno>
#include <cstdlib>

#include <thrift/protocol/TBinaryProtocol.h>

#include "ThreadedLink.h"
#include "demo_constants.h"

namespace thriftusb {
namespace example {

using apache::thrift::protocol::TBinaryProtocol;
using apache::thrift::transport::TLibusbDevice;
using apache::thrift::transport::TNonblockingUsbSocket;

namespace {

// Splits "a:b[:c]" into hex numbers of at most @p max each; @p count of them are
// required, @p optional more allowed.
bool hexFields(const std::string& text, size_t count, size_t optional, unsigned long max,
               std::vector<uint16_t>& fields) {
  fields.clear();
  size_t start = 0;
  for (;;) {
    const size_t end = text.find(':', start);
    const std::string field = text.substr(start, end == std::string::npos ? end : end - start);
    char* rest = nullptr;
    errno = 0;
    const unsigned long value = std::strtoul(field.c_str(), &rest, 16);
    if (field.empty() || *rest != '\0' || errno != 0 || value > max || field[0] == '-' ||
        field[0] == '+') {
      return false;
    }
    fields.push_back(static_cast<uint16_t>(value));
    if (end == std::string::npos) {
      break;
    }
    start = end + 1;
  }
  return fields.size() >= count && fields.size() <= count + optional;
}

} // namespace

bool parseLibusbTarget(const std::vector<std::string>& args, LibusbTarget& target,
                       std::string& error) {
  LibusbTarget parsed;
  std::vector<std::string> positional;
  for (size_t i = 0; i < args.size(); ++i) {
    if (args[i] == "--serial") {
      if (++i == args.size()) {
        error = "--serial needs a text";
        return false;
      }
      parsed.serial = args[i];
    } else {
      positional.push_back(args[i]);
    }
  }
  if (positional.size() != 2) {
    error = "expected VENDOR:PRODUCT and CLASS:SUBCLASS[:PROTOCOL]";
    return false;
  }
  std::vector<uint16_t> ids;
  if (!hexFields(positional[0], 2, 0, 0xffff, ids)) {
    error = "not VENDOR:PRODUCT in hex: " + positional[0];
    return false;
  }
  std::vector<uint16_t> kind;
  if (!hexFields(positional[1], 2, 1, 0xff, kind)) {
    error = "not CLASS:SUBCLASS[:PROTOCOL] in hex: " + positional[1];
    return false;
  }
  parsed.vendor = ids[0];
  parsed.product = ids[1];
  parsed.interfaceClass = kind[0];
  parsed.interfaceSubClass = kind[1];
  parsed.interfaceProtocol = kind.size() > 2 ? kind[2] : 0;
  target = parsed;
  return true;
}

LibusbLink::LibusbLink(const LibusbTarget& target, unsigned transferTimeoutMs)
  : device(std::make_shared<TLibusbDevice>(
        target.vendor, target.product, target.serial.c_str(), target.interfaceClass,
        target.interfaceSubClass, target.interfaceProtocol, false, transferTimeoutMs,
        kHostTimeoutMs, g_demo_constants.BLOCK_SIZE, g_demo_constants.BLOCK_SIZE, true)),
    socket(std::make_shared<TNonblockingUsbSocket>(device, kHostTimeoutMs, kHostTimeoutMs,
                                                   kHostRingBytes)),
    protocol(std::make_shared<TBinaryProtocol>(socket)) {}

} // namespace example
} // namespace thriftusb
