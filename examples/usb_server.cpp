// The device's side of the demo: serves the Gadget service with a Thrift server over
// two USB device nodes, one host after the other, on the threaded USB transport.
//
//   usb_server [--encrypted | --key HEX] READ_NODE WRITE_NODE
//
// READ_NODE carries the host's requests, WRITE_NODE the answers. Every call served is
// printed as one line. --encrypted encrypts every call with the demo's published key,
// --key with a key of one's own (32 hex digits); the host must use the same. The
// server runs until it receives SIGTERM. (SIGINT does not stop it: the threaded USB
// transport takes SIGINT over for the whole process to stop its own threads.) Exits 0
// after a clean stop, 1 on failure, 2 on bad usage.

#include <atomic>
#include <csignal>
#include <exception>
#include <iostream>
#include <memory>
#include <thread>

#include <pthread.h>

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
  // SIGTERM is taken by one thread of our own, which stops the server; every thread
  // started later inherits the blocked mask, so none of them is killed by it.
  sigset_t term;
  sigemptyset(&term);
  sigaddset(&term, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &term, nullptr);
  thriftusb::example::prefixThriftLog("server");
  std::shared_ptr<apache::thrift::server::TSimpleServer> server;
  try {
    server = thriftusb::example::makeGadgetServer(
        thriftusb::example::makeGadgetServerTransport(options.readNode, options.writeNode),
        std::make_shared<thriftusb::example::GadgetHandler>(std::cout), options.cipher);
  } catch (const std::exception& e) {
    std::cerr << "server: failed: " << e.what() << std::endl;
    return 1;
  }
  std::atomic<bool> serving{true};
  std::thread terminator([&server, &term, &serving] {
    int received = 0;
    sigwait(&term, &received);
    thriftusb::example::stopServer(*server, [&serving] { return !serving.load(); });
  });
  std::cout << "server: serving on " << options.readNode << " (in) and " << options.writeNode
            << " (out)" << (options.cipher ? ", encrypted" : "") << std::endl;
  int status = 0;
  try {
    server->serve();
    std::cout << "server: stopped" << std::endl;
  } catch (const std::exception& e) {
    std::cerr << "server: failed: " << e.what() << std::endl;
    status = 1;
  }
  // The terminator may still wait for its signal (serve() failed by itself): wake it.
  serving = false;
  pthread_kill(terminator.native_handle(), SIGTERM);
  terminator.join();
  return status;
}
