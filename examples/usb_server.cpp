// The device's side of the demo: serves the Gadget service with a Thrift server over
// two USB device nodes, one host after the other, on the threaded USB transport.
//
//   usb_server [--waking] [--encrypted | --key HEX] READ_NODE WRITE_NODE
//
// READ_NODE carries the host's requests, WRITE_NODE the answers. Every call served is
// printed as one line. --waking makes every wait of the connections end as soon as
// what it waits for has happened, instead of polling. --encrypted encrypts every call
// with the demo's published key, --key with a key of one's own (32 hex digits); the
// host must use the same. The server runs until it receives SIGTERM. (SIGINT does not
// stop it: the threaded USB transport takes SIGINT over for the whole process to stop
// its own threads.) Exits 0 after a clean stop, 1 on failure, 2 on bad usage.

#include <csignal>
#include <ctime>
#include <exception>
#include <iostream>
#include <memory>

#include <pthread.h>

#include <thriftusb/testing/ServerRunner.h>

#include "DemoOptions.h"
#include "GadgetHandler.h"
#include "ThreadedLink.h"

int main(int argc, char** argv) {
  thriftusb::example::DemoOptions options;
  if (!thriftusb::example::parseDemoOptions(argc, argv, false, options)) {
    return 2;
  }
  // Nodes that are FIFOs raise SIGPIPE when written without a reader; a failed write
  // must end the connection with an exception instead of killing the program.
  std::signal(SIGPIPE, SIG_IGN);
  // SIGTERM is taken by the main thread, which stops the server; every thread started
  // later inherits the blocked mask, so none of them is killed by it.
  sigset_t term;
  sigemptyset(&term);
  sigaddset(&term, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &term, nullptr);
  thriftusb::example::prefixThriftLog("server");
  try {
    // serve() runs on the runner's thread; this one waits for SIGTERM, or for serve()
    // to end by itself, looking every 100 ms.
    thriftusb::testing::ServerRunner runner(thriftusb::example::makeGadgetServer(
        thriftusb::example::makeGadgetServerTransport(options.readNode, options.writeNode,
                                                      options.waitMode),
        std::make_shared<thriftusb::example::GadgetHandler>(std::cout), options.cipher));
    std::cout << "server: serving on " << options.readNode << " (in) and " << options.writeNode
              << " (out)" << (options.cipher ? ", encrypted" : "") << std::endl;
    const timespec step{0, 100 * 1000 * 1000};
    while (runner.running() && sigtimedwait(&term, nullptr, &step) < 0) {
    }
    runner.stop();
    std::cout << "server: stopped" << std::endl;
    return 0;
  } catch (const std::exception& e) {
    std::cerr << "server: failed: " << e.what() << std::endl;
    return 1;
  }
}
