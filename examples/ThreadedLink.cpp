#include "ThreadedLink.h"

#include <thrift/protocol/TBinaryProtocol.h>
#include <thrift/transport/TTransport.h>

#include <thriftusb/transport/TServerNonblockingUsbSocket.h>

#include "demo_constants.h"

namespace thriftusb {
namespace example {

using apache::thrift::protocol::TBinaryProtocol;
using apache::thrift::protocol::TBinaryProtocolFactory;
using apache::thrift::server::TSimpleServer;
using apache::thrift::transport::TNonblockingUsbSocket;
using apache::thrift::transport::TServerNonblockingUsbSocket;
using apache::thrift::transport::TServerTransport;
using apache::thrift::transport::TTransportFactory;
using apache::thrift::transport::TUsbDevice;

ThreadedLink::ThreadedLink(const std::string& readPath, const std::string& writePath,
                           bool nonblocking)
  : device(std::make_shared<TUsbDevice>(readPath, writePath, nonblocking,
                                        g_demo_constants.BLOCK_SIZE,
                                        g_demo_constants.BLOCK_SIZE)),
    socket(std::make_shared<TNonblockingUsbSocket>(device, kHostTimeoutMs, kHostTimeoutMs,
                                                   kHostRingBytes)),
    protocol(std::make_shared<TBinaryProtocol>(socket)) {}

std::shared_ptr<TServerTransport> makeGadgetServerTransport(const std::string& readPath,
                                                            const std::string& writePath) {
  return std::make_shared<TServerNonblockingUsbSocket>(
      readPath, writePath, false, g_demo_constants.BLOCK_SIZE, g_demo_constants.BLOCK_SIZE);
}

std::shared_ptr<TSimpleServer> makeGadgetServer(
    const std::shared_ptr<TServerTransport>& serverTransport,
    const std::shared_ptr<GadgetIf>& handler) {
  return std::make_shared<TSimpleServer>(std::make_shared<GadgetProcessor>(handler),
                                         serverTransport,
                                         std::make_shared<TTransportFactory>(),
                                         std::make_shared<TBinaryProtocolFactory>());
}

} // namespace example
} // namespace thriftusb
