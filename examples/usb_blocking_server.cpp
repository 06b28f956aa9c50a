// The device's side of the second example: serves the Gadget service over two USB
// device nodes through the blocking TUSBSocket, until the host hangs up.
//
//   usb_blocking_server READ_NODE WRITE_NODE
//
// READ_NODE carries the host's requests, WRITE_NODE the answers. Every call served is
// printed as one line. Exits 0 when the host has hung up (the read node reports end
// of data), 1 on any other failure.

#include <csignal>
#include <exception>
#include <iostream>
#include <memory>

#include "Gadget.h"
#include "GadgetHandler.h"
#include "BlockingLink.h"

using apache::thrift::transport::TTransportException;
using thriftusb::example::GadgetHandler;
using thriftusb::example::BlockingLink;
using thriftusb::example::GadgetProcessor;

int main(int argc, char** argv) {
  if (argc != 3) {
    std::cerr << "usage: " << argv[0] << " READ_NODE WRITE_NODE\n";
    return 2;
  }
  // Nodes that are FIFOs raise SIGPIPE when written without a reader; a failed write
  // must end the serving loop with a message instead of killing the program.
  std::signal(SIGPIPE, SIG_IGN);
  try {
    BlockingLink link(argv[1], argv[2]);
    GadgetProcessor processor(std::make_shared<GadgetHandler>(std::cout));
    link.socket->open();
    std::cout << "server: serving on " << argv[1] << " (in) and " << argv[2] << " (out)"
              << std::endl;
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
