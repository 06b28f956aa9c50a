#include "ThreadedLink.h"


#include <thrift/protocol/TBinaryProtocol.h>
#include <thrift/transport/TTransport.h>

#include <thriftusb/transport/TNonblockingSecurityTransport.h>
#include <thriftusb/transport/TNonblockingSecurityTransportFactory.h>
#include <thriftusb/transport/TServerNonblockingUsbSocket.h>

#include "DemoOptions.h"
#include "demo_constants.h"

namespace thriftusb {
namespace example {

using apache::thrift::protocol::TBinaryProtocol;
using apache::thrift::protocol::TBinaryProtocolFactory;
using apache::thrift::server::TSimpleServer;
using apache::thrift::transport::TNonblockingSecurityTransport;
using apache::thrift::transport::TNonblockingSecurityTransportFactory;
using apache::thrift::transport::TNonblockingUsbSocket;
using apache::thrift::transport::TServerNonblockingUsbSocket;
using apache::thrift::transport::TServerTransport;
using apache::thrift::transport::TTransportFactory;
using apache::thrift::transport::TUsbDevice;
using apache::thrift::transport::WaitMode;

ThreadedLink::ThreadedLink(const std::string& readPath, const std::string& writePath,
                           bool nonblocking, std::shared_ptr<Sm4Cipher> cipher,
                           WaitMode waitMode)
  : device(std::make_shared<TUsbDevice>(readPath, writePath, nonblocking,
                                        g_demo_constants.BLOCK_SIZE,
                                        g_demo_constants.BLOCK_SIZE)),
    socket(std::make_shared<TNonblockingUsbSocket>(device, kHostTimeoutMs, kHostTimeoutMs,
                                                   kHostRingBytes)),
    transport(withFrames<TNonblockingSecurityTransport>(socket, std::move(cipher))),
    protocol(std::make_shared<TBinaryProtocol>(transport)) {
  socket->setWaitMode(waitMode);
}

std::shared_ptr<TServerTransport> makeGadgetServerTransport(const std::string& readPath,
                                                            const std::string& writePath,
                                                            WaitMode waitMode) {
  auto server = std::make_shared<TServerNonblockingUsbSocket>(
      readPath, writePath, false, g_demo_constants.BLOCK_SIZE, g_demo_constants.BLOCK_SIZE);
  server->setWaitMode(waitMode); // passed on to every connection it hands out
  return server;
}

std::shared_ptr<TSimpleServer> makeGadgetServer(
    const std::shared_ptr<TServerTransport>& serverTransport,
    const std::shared_ptr<GadgetIf>& handler, std::shared_ptr<Sm4Cipher> cipher) {
  std::shared_ptr<TTransportFactory> connections =
      cipher ? std::make_shared<TNonblockingSecurityTransportFactory>(std::move(cipher))
             : std::make_shared<TTransportFactory>();
  return std::make_shared<TSimpleServer>(std::make_shared<GadgetProcessor>(handler),
                                         serverTransport, connections,
                                         std::make_shared<TBinaryProtocolFactory>());
}

} // namespace example
} // namespace thriftusb
