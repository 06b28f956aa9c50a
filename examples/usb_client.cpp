// The host's side of the demo: calls each method of the Gadget service once over two
// USB device nodes and checks every answer.
//
//   usb_client [--blocking] READ_NODE WRITE_NODE
//
// READ_NODE carries the gadget's answers, WRITE_NODE the requests. The client talks
// through the threaded USB transport, or with --blocking through the blocking
// TUSBSocket (for usb_blocking_server). Prints each call with its answer; exits 0 when
// every answer is right, 1 otherwise, 2 on bad usage.

#include <csignal>
#include <exception>
#include <iostream>
#include <string>

#include "BlockingLink.h"
#include "GadgetCalls.h"
#include "ThreadedLink.h"

using thriftusb::example::BlockingLink;
using thriftusb::example::GadgetClient;
using thriftusb::example::ThreadedLink;

namespace {

// Both links offer the transport to open and close as `socket`, and a protocol.
template <typename Link>
bool callEveryMethod(Link& link) {
  GadgetClient gadget(link.protocol);
  link.socket->open();
  const bool allRight = thriftusb::example::runCalls(gadget, std::cout);
  link.socket->close();
  return allRight;
}

} // namespace

int main(int argc, char** argv) {
  const bool blocking = argc == 4 && std::string(argv[1]) == "--blocking";
  if (argc != 3 && !blocking) {
    std::cerr << "usage: " << argv[0] << " [--blocking] READ_NODE WRITE_NODE\n";
    return 2;
  }
  const std::string readNode = argv[argc - 2];
  const std::string writeNode = argv[argc - 1];
  // Nodes that are FIFOs raise SIGPIPE when written without a reader; a failed write
  // must end with a message instead of killing the program.
  std::signal(SIGPIPE, SIG_IGN);
  try {
    bool allRight;
    if (blocking) {
      BlockingLink link(readNode, writeNode);
      allRight = callEveryMethod(link);
    } else {
      ThreadedLink link(readNode, writeNode);
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
