#ifndef THRIFTUSB_TRANSPORT_TSECURITYTRANSPORTFACTORY_H
#define THRIFTUSB_TRANSPORT_TSECURITYTRANSPORTFACTORY_H

#include <cstdint>
#include <memory>

#include <thrift/transport/TTransport.h>

#include <thriftusb/cipher/Sm4Cipher.h>
#include <thriftusb/transport/SecurityFrame.h>

namespace apache {
namespace thrift {
namespace transport {

/**
 * Wraps every transport given to it in a new TSecurityTransport with the settings
 * chosen when the factory is built. All transports made share the factory's cipher
 * object, which may serve connections that run in parallel on several threads
 * (Sm4Cipher may be called from any number of threads at once).
 */
class TSecurityTransportFactory : public TTransportFactory {
public:
  /**
   * Stores the settings, checked as TSecurityTransport checks them.
   *
   * @param cipher            the cipher of every transport made
   * @param bufReclaimThresh  reclaim threshold of every transport made
   * @param maxFrameSize      largest frame body every transport made accepts
   * @throws std::invalid_argument when @p cipher is null or @p maxFrameSize exceeds
   *         2^31 - 1
   */
  explicit TSecurityTransportFactory(
      std::shared_ptr<Sm4Cipher> cipher,
      uint32_t bufReclaimThresh = detail::securityframe::kDefaultBufReclaimThresh,
      uint32_t maxFrameSize = detail::securityframe::kDefaultMaxFrameSize);

  /** Nothing to release but the cipher reference. */
  ~TSecurityTransportFactory() override;

  /**
   * Makes a new TSecurityTransport over @p trans. Nothing is opened, read or written.
   *
   * @param trans  the transport to wrap (the connection a server accepted)
   * @return the new framed transport
   * @throws std::invalid_argument when @p trans is null
   */
  std::shared_ptr<TTransport> getTransport(std::shared_ptr<TTransport> trans) override;

private:
  std::shared_ptr<Sm4Cipher> cipher_;
  uint32_t bufReclaimThresh_;
  uint32_t maxFrameSize_;
};

} // namespace transport
} // namespace thrift
} // namespace apache

#endif
