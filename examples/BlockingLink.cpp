#include "BlockingLink.h"

#include <thrift/protocol/TBinaryProtocol.h>
#include <thrift/protocol/TProtocolException.h>

#include <thriftusb/transport/TSecurityTransport.h>

#include "DemoOptions.h"
#include "demo_constants.h"

namespace thriftusb {
namespace example {

using apache::thrift::protocol::TBinaryProtocol;
using apache::thrift::protocol::TProtocolException;
using apache::thrift::transport::TSecurityTransport;
using apache::thrift::transport::TTransportException;
using apache::thrift::transport::TUSBSocket;

namespace {

// The transport's first integer argument is stored and never read; 0 says so.
constexpr int kReserved = 0;

} // namespace

BlockingLink::BlockingLink(const std::string& readPath, const std::string& writePath,
                           std::shared_ptr<Sm4Cipher> cipher,
                           apache::thrift::transport::WaitMode waitMode)
  : socket(std::make_shared<TUSBSocket>(readPath, writePath, kReserved,
                                        g_demo_constants.BLOCK_SIZE)),
    transport(withFrames<TSecurityTransport>(socket, std::move(cipher))),
    protocol(std::make_shared<TBinaryProtocol>(transport)) {
  socket->setWaitMode(waitMode);
}

TTransportException serveUntilHangUp(
    apache::thrift::TProcessor& processor,
    const std::shared_ptr<apache::thrift::protocol::TProtocol>& protocol) {
  try {
    for (;;) {
      if (!processor.process(protocol, protocol, nullptr)) {
        throw TProtocolException(TProtocolException::INVALID_DATA,
                                 "a message that is not a call: the stream is lost");
      }
    }
  } catch (const TTransportException& end) {
    return end;
  }
}

} // namespace example
} // namespace thriftusb
