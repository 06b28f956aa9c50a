#ifndef THRIFTUSB_TRANSPORT_TCUSTOMBUFFEREDTRANSPORTFACTORY_H
#define THRIFTUSB_TRANSPORT_TCUSTOMBUFFEREDTRANSPORTFACTORY_H

#include <cstdint>
#include <memory>

#include <thrift/transport/TTransport.h>

namespace apache {
namespace thrift {
namespace transport {

/**
 * Wraps every transport given to it in the runtime's TBufferedTransport, with read
 * and write buffers of the sizes chosen when the factory is built.
 *
 * A server given this factory buffers each accepted connection with those sizes
 * instead of the runtime's default. The factory is immutable after construction
 * and keeps no reference to the transports it makes, so getTransport() may be
 * called from several threads at once.
 */
class TCustomBufferedTransportFactory : public TTransportFactory {
public:
  /**
   * Stores the buffer sizes; they reach TBufferedTransport unchecked.
   *
   * @param readBufferSize   bytes in the read buffer of each transport made
   * @param writeBufferSize  bytes in the write buffer of each transport made
   */
  TCustomBufferedTransportFactory(unsigned int readBufferSize, unsigned int writeBufferSize);

  /** Nothing to release. */
  ~TCustomBufferedTransportFactory() override;

  /**
   * Makes a new TBufferedTransport over @p trans, which it keeps a reference to,
   * with both buffers allocated at their full sizes. Nothing is opened, read or
   * written.
   *
   * @param trans  the transport to wrap (the connection a server accepted)
   * @return the new buffered transport
   * @throws std::bad_alloc when the buffers cannot be allocated; nothing is made then
   */
  std::shared_ptr<TTransport> getTransport(std::shared_ptr<TTransport> trans) override;

private:
  uint32_t readBufferSize_;
  uint32_t writeBufferSize_;
};

} // namespace transport
} // namespace thrift
} // namespace apache

#endif
