// The device's side of the second example: serves the Gadget service over two USB
// device nodes through the blocking TUSBSocket, until the host hangs up.
//
//   usb_blocking_server [--waking] [--encrypted | --key HEX] READ_NODE WRITE_NODE
//
// READ_NODE carries the host's requests, WRITE_NODE the answers. Every call served is
// printed as one line. --waking waits for the node with poll() instead of polling
// it every millisecond. --encrypted encrypts every call with the demo's published key,
// --key with a key of one's own (32 hex digits); the host must use the same. Exits 0
// when the host has hung up (the read node reports end of data), 1 on any other
// failure, 2 on bad usage.

#include <csignal>
#include <exception>
#include <iostream>
#include <memory>

#include "BlockingLink.h"
#include "DemoOptions.h"
#include "Gadget.h"
#include "GadgetHandler.h"

using apache::thrift::transport::TTransportException;
using thriftusb::example::GadgetHandler;
using thriftusb::example::BlockingLink;
using thriftusb::example::GadgetProcessor;

int main(int argc, char** argv) {
  thriftusb::example::DemoOptions options;
  if (!thriftusb::example::parseDemoOptions(argc, argv, false, options)) {
    return 2;
  }
  // Nodes that are FIFOs raise SIGPIPE when written without a reader; a failed write
  // must end the serving loop with a message instead of killing the program.
  std::signal(SIGPIPE, SIG_IGN);
  thriftusb::example::prefixThriftLog("server");
  try {
    BlockingLink link(options.readNode, options.writeNode, options.cipher, options.waitMode);
    GadgetProcessor processor(std::make_shared<GadgetHandler>(std::cout));
    link.transport->open();
    std::cout << "server: serving on " << options.readNode << " (in) and " << options.writeNode
              << " (out)" << (options.cipher ? ", encrypted" : "") << std::endl;
    const auto end = thriftusb::example::serveUntilHangUp(processor, link.protocol);
    if (end.getType() != TTransportException::TIMED_OUT) {
      std::cerr << "server: link failed: " << end.what() << std::endl;
      return 1;
    }
    std::cout << "server: host hung up (" << end.what() << "), stopping" << std::endl;
    return 0;
  } catch (const std::exception& e) {
    std::cerr << "server: failed: " << e.what() << std::endl;
    return 1;
  }
}
