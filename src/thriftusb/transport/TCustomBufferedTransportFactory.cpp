#include <thriftusb/transport/TCustomBufferedTransportFactory.h>

#include <utility>

#include <thrift/transport/TBufferTransports.h>

namespace apache {
namespace thrift {
namespace transport {

TCustomBufferedTransportFactory::TCustomBufferedTransportFactory(unsigned int readBufferSize,
                                                                 unsigned int writeBufferSize)
  : readBufferSize_(readBufferSize), writeBufferSize_(writeBufferSize) {}

TCustomBufferedTransportFactory::~TCustomBufferedTransportFactory() = default;

std::shared_ptr<TTransport> TCustomBufferedTransportFactory::getTransport(
    std::shared_ptr<TTransport> trans) {
  return std::make_shared<TBufferedTransport>(std::move(trans), readBufferSize_,
                                              writeBufferSize_);
}

} // namespace transport
} // namespace thrift
} // namespace apache
