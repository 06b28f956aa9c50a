// The device's side of the demo: serves the Gadget service with a Thrift server over
// two USB device nodes, one host after the other, on the threaded USB transport.
//
//   usb_server [--connections N] READ_NODE WRITE_NODE
//
// READ_NODE carries the host's requests, WRITE_NODE the answers. Every call served is
// printed as one line. With --connections N the server stops after serving N hosts;
// without it, it serves until it receives SIGTERM. (SIGINT does not stop it: the
// threaded USB transport takes SIGINT over for the whole process to stop its own
// threads.) Exits 0 after a clean stop, 1 on failure, 2 on bad usage.

#include <atomic>
#include <csignal>
#include <cstdlib>
#include <exception>
#include <iostream>
#include <memory>
#include <string>
#include <thread>

#include <pthread.h>

#include <thrift/TOutput.h>
#include <thrift/server/TServer.h>

#include "GadgetHandler.h"
#include "ThreadedLink.h"

using apache::thrift::server::TServer;
using apache::thrift::server::TServerEventHandler;

namespace {

struct Options {
  long connections = 0; // 0: no limit
  std::string readNode;
  std::string writeNode;
};

bool parse(int argc, char** argv, Options& options) {
  int arg = 1;
  if (argc == 5 && std::string(argv[1]) == "--connections") {
    char* end = nullptr;
    options.connections = std::strtol(argv[2], &end, 10);
    if (*end != '\0' || options.connections < 1) {
      return false;
    }
    arg = 3;
  } else if (argc != 3) {
    return false;
  }
  options.readNode = argv[arg];
  options.writeNode = argv[arg + 1];
  return true;
}

/** Counts the hosts served and stops the server after the last one allowed. */
class ConnectionLimit : public TServerEventHandler {
public:
  ConnectionLimit(TServer& server, long limit) : server_(server), limit_(limit) {}

  void deleteContext(void*, std::shared_ptr<apache::thrift::protocol::TProtocol>,
                     std::shared_ptr<apache::thrift::protocol::TProtocol>) override {
    const long served = ++served_;
    std::cout << "server: host " << served << " gone" << std::endl;
    if (limit_ > 0 && served >= limit_) {
      server_.stop();
    }
  }

private:
  TServer& server_;
  const long limit_;
  std::atomic<long> served_{0};
};

void printThriftLog(const char* line) {
  std::cerr << "server: thrift: " << line << std::endl;
}

} // namespace

int main(int argc, char** argv) {
  Options options;
  if (!parse(argc, argv, options)) {
    std::cerr << "usage: " << argv[0] << " [--connections N] READ_NODE WRITE_NODE\n";
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
  apache::thrift::GlobalOutput.setOutputFunction(printThriftLog);
  try {
    auto handler = std::make_shared<thriftusb::example::GadgetHandler>(std::cout);
    auto server = thriftusb::example::makeGadgetServer(
        thriftusb::example::makeGadgetServerTransport(options.readNode, options.writeNode),
        handler);
    server->setServerEventHandler(std::make_shared<ConnectionLimit>(*server, options.connections));
    std::thread terminator([&server, &term] {
      int received = 0;
      sigwait(&term, &received);
      server->stop();
    });
    terminator.detach();
    std::cout << "server: serving on " << options.readNode << " (in) and " << options.writeNode
              << " (out)" << std::endl;
    server->serve();
    std::cout << "server: stopped" << std::endl;
    return 0;
  } catch (const std::exception& e) {
    std::cerr << "server: failed: " << e.what() << std::endl;
    return 1;
  }
}
