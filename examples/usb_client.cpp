// The host's side of the demo: calls each method of the Gadget service once over two
// USB device nodes and checks every answer.
//
//   usb_client [--blocking] [--waking] [--encrypted | --key HEX] READ_NODE WRITE_NODE
//
// READ_NODE carries the gadget's answers, WRITE_NODE the requests. The client talks
// through the threaded USB transport, or with --blocking through the blocking
// TUSBSocket (for usb_blocking_server). --waking ends every wait as soon as what it
// waits for has happened, instead of polling. --encrypted encrypts every call with the
// demo's published key, --key with a key of one's own (32 hex digits), as the server
// does. Prints each call with its answer; exits 0 when every answer is right, 1
// otherwise, 2 on bad usage.

#include <csignal>
#include <exception>
#include <iostream>

#include "BlockingLink.h"
#include "DemoOptions.h"
#include "GadgetCalls.h"
#include "ThreadedLink.h"

using thriftusb::example::BlockingLink;
using thriftusb::example::GadgetClient;
using thriftusb::example::ThreadedLink;

namespace {

// Both links offer the transport to open and close, and a protocol.
template <typename Link>
bool callEveryMethod(Link& link) {
  GadgetClient gadget(link.protocol);
  link.transport->open();
  const bool allRight = thriftusb::example::runCalls(gadget, std::cout);
  link.transport->close();
  return allRight;
}

} // namespace

int main(int argc, char** argv) {
  thriftusb::example::DemoOptions options;
  if (!thriftusb::example::parseDemoOptions(argc, argv, true, options)) {
    return 2;
  }
  // Nodes that are FIFOs raise SIGPIPE when written without a reader; a failed write
  // must end with a message instead of killing the program.
  std::signal(SIGPIPE, SIG_IGN);
  thriftusb::example::prefixThriftLog("client");
  try {
    bool allRight;
    if (options.blocking) {
      BlockingLink link(options.readNode, options.writeNode, options.cipher, options.waitMode);
      allRight = callEveryMethod(link);
    } else {
      ThreadedLink link(options.readNode, options.writeNode, false, options.cipher,
                        options.waitMode);
      allRight = callEveryMethod(link);
    }
    std::cout << "client: " << (allRight ? "all answers right" : "some answers WRONG")
              << std::endl;
    return allRight ? 0 : 1;
  } catch (const std::exception& e) {
    std::cerr << "client: failed: " << e.what() << std::endl;
    return 1;
  }
}
