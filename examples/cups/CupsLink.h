#ifndef THRIFTUSB_EXAMPLES_CUPS_CUPSLINK_H
#define THRIFTUSB_EXAMPLES_CUPS_CUPSLINK_H

#include <memory>

#include <thrift/protocol/TProtocol.h>
#include <thrift/transport/TTransport.h>

#include <thriftusb/transport/TNonblockingUsbSocket.h>
#include <thriftusb/transport/UsbDevice.h>

namespace thriftusb {
namespace example {

/** Read and write time-out of the socket of either end, in milliseconds. */
constexpr int kCupsTimeoutMs = 3000;

/**
 * One end of the Gadget service's link through a print job: a TNonblockingUsbSocket
 * on @p device, framed by TNonblockingSecurityTransport (SM4 with the demo's key, or
 * plain frames), and the binary protocol on top. The filter (the host) builds it on
 * a TCupsDevice, the backend (the printer) on a CupsPrinterChannel. Nothing is opened
 * here: open and close `transport`.
 *
 * The channel must be non-blocking: in that mode the socket flushes the channel at
 * every flush of the frames, which is what sends a TCupsDevice's bytes out of
 * standard output's buffer. (In blocking mode the socket's writer thread never
 * flushes the channel, and a request would sit in the buffer until it filled.)
 * While waiting for an answer the frames poll the socket every 10 ms.
 */
struct CupsLink {
  /**
   * @param device     the channel, made with nonblocking true
   * @param encrypted  encrypted frames when true, plain frames when false; both ends
   *                   must agree
   */
  CupsLink(std::shared_ptr<apache::thrift::transport::UsbDevice> device, bool encrypted);

  /** The socket on the channel. */
  std::shared_ptr<apache::thrift::transport::TNonblockingUsbSocket> socket;
  /** The frames on `socket`: the transport to open, flush and close. */
  std::shared_ptr<apache::thrift::transport::TTransport> transport;
  /** The binary protocol on `transport`, for a client or a processor. */
  std::shared_ptr<apache::thrift::protocol::TProtocol> protocol;
};

/**
 * The framing that a queue's device URI asks for: "thriftusb-gadget:/plain" or
 * "thriftusb-gadget:/encrypted". cupsd hands the URI to the backend and to the
 * filters in the environment variable DEVICE_URI.
 *
 * @param uri        the device URI; null when the variable is not set
 * @param encrypted  set to the framing when the URI is one of the two
 * @return whether it is
 */
bool parseGadgetUri(const char* uri, bool& encrypted);

} // namespace example
} // namespace thriftusb

#endif
