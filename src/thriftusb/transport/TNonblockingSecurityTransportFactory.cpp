#include <thriftusb/transport/TNonblockingSecurityTransportFactory.h>

#include <utility>

#include <thriftusb/transport/TNonblockingSecurityTransport.h>

namespace apache {
namespace thrift {
namespace transport {

TNonblockingSecurityTransportFactory::TNonblockingSecurityTransportFactory(
    std::shared_ptr<Sm4Cipher> cipher, bool encrypted, uint32_t bufReclaimThresh,
    uint32_t maxFrameSize)
  : cipher_(std::move(cipher)),
    encrypted_(encrypted),
    bufReclaimThresh_(bufReclaimThresh),
    maxFrameSize_(maxFrameSize) {
  detail::securityframe::checkSettings("TNonblockingSecurityTransportFactory", cipher_.get(),
                                       encrypted_, maxFrameSize_);
}

TNonblockingSecurityTransportFactory::~TNonblockingSecurityTransportFactory() = default;

std::shared_ptr<TTransport> TNonblockingSecurityTransportFactory::getTransport(
    std::shared_ptr<TTransport> trans) {
  return std::make_shared<TNonblockingSecurityTransport>(std::move(trans), cipher_, encrypted_,
                                                         bufReclaimThresh_, maxFrameSize_);
}

} // namespace transport
} // namespace thrift
} // namespace apache
