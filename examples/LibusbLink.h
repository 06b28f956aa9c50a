#ifndef THRIFTUSB_EXAMPLES_LIBUSBLINK_H
#define THRIFTUSB_EXAMPLES_LIBUSBLINK_H

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include <thrift/protocol/TProtocol.h>

#include <thriftusb/transport/TLibusbDevice.h>
#include <thriftusb/transport/TNonblockingUsbSocket.h>

namespace thriftusb {
namespace example {

/**
 * How long each bulk transfer of the host's libusb channel may wait, in milliseconds.
 * The reader thread waits this long for the gadget at a time, so closing the link
 * takes up to this long; every wait that ends without data logs one line.
 */
constexpr unsigned kLibusbTransferTimeoutMs = 200;

/** Which device and interface the host reaches through libusb. */
struct LibusbTarget {
  uint16_t vendor = 0;
  uint16_t product = 0;
  /** A piece of the serial number; empty: any device with the identifiers. */
  std::string serial;
  uint16_t interfaceClass = 0;
  uint16_t interfaceSubClass = 0;
  /** 0: any protocol. */
  uint16_t interfaceProtocol = 0;
};

/** The command line that parseLibusbTarget() reads. */
constexpr const char* kLibusbTargetUsage =
    "[--serial TEXT] VENDOR:PRODUCT CLASS:SUBCLASS[:PROTOCOL]";

/**
 * Reads kLibusbTargetUsage from @p args (the arguments after the program name): the
 * identifiers and the interface's class, subclass and protocol in hex, as lsusb shows
 * them ("1209:0001 ff:00").
 *
 * @param error  receives what is wrong when the result is false
 * @return whether @p args were right; @p target is filled then
 */
bool parseLibusbTarget(const std::vector<std::string>& args, LibusbTarget& target,
                       std::string& error);

/**
 * The host's end of a gadget's link through libusb: a TLibusbDevice with a libusb
 * context of its own, in blocking mode (the transport's reader and writer threads wait
 * in its transfers), the service's BLOCK_SIZE as block size, a TNonblockingUsbSocket
 * with the host's time-outs and ring buffers, and the binary protocol on the socket
 * (not buffered, for the reason given at ThreadedLink). Nothing is opened here: open
 * and close `socket`.
 */
struct LibusbLink {
  /**
   * @param target             the device and interface
   * @param transferTimeoutMs  bound of each bulk IN and control transfer
   */
  explicit LibusbLink(const LibusbTarget& target,
                      unsigned transferTimeoutMs = kLibusbTransferTimeoutMs);

  std::shared_ptr<apache::thrift::transport::TLibusbDevice> device;
  std::shared_ptr<apache::thrift::transport::TNonblockingUsbSocket> socket;
  std::shared_ptr<apache::thrift::protocol::TProtocol> protocol;
};

} // namespace example
} // namespace thriftusb

#endif
