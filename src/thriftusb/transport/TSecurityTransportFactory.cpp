#include <thriftusb/transport/TSecurityTransportFactory.h>

#include <utility>

#include <thriftusb/transport/TSecurityTransport.h>

namespace apache {
namespace thrift {
namespace transport {

TSecurityTransportFactory::TSecurityTransportFactory(std::shared_ptr<Sm4Cipher> cipher,
                                                     uint32_t bufReclaimThresh,
                                                     uint32_t maxFrameSize)
  : cipher_(std::move(cipher)), bufReclaimThresh_(bufReclaimThresh), maxFrameSize_(maxFrameSize) {
  detail::securityframe::checkSettings("TSecurityTransportFactory", cipher_.get(), true,
                                       maxFrameSize_);
}

TSecurityTransportFactory::~TSecurityTransportFactory() = default;

std::shared_ptr<TTransport> TSecurityTransportFactory::getTransport(
    std::shared_ptr<TTransport> trans) {
  return std::make_shared<TSecurityTransport>(std::move(trans), cipher_, bufReclaimThresh_,
                                              maxFrameSize_);
}

} // namespace transport
} // namespace thrift
} // namespace apache
