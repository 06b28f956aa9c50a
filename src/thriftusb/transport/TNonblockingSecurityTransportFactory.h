#ifndef THRIFTUSB_TRANSPORT_TNONBLOCKINGSECURITYTRANSPORTFACTORY_H
#define THRIFTUSB_TRANSPORT_TNONBLOCKINGSECURITYTRANSPORTFACTORY_H

#include <cstdint>
#include <memory>

#include <thrift/transport/TTransport.h>

#include <thriftusb/cipher/Sm4Cipher.h>
#include <thriftusb/transport/SecurityFrame.h>

namespace apache {
namespace thrift {
namespace transport {

/**
 * Wraps every transport given to it in a new TNonblockingSecurityTransport with the
 * settings chosen when the factory is built. All transports made share the factory's
 * cipher object, which may serve connections that run in parallel on several threads
 * (Sm4Cipher may be called from any number of threads at once).
 */
class TNonblockingSecurityTransportFactory : public TTransportFactory {
public:
  /**
   * Stores the settings, checked as TNonblockingSecurityTransport checks them.
   *
   * @param cipher            the cipher of every transport made; may be null when
   *                          @p encrypted is false
   * @param encrypted         whether the transports made encrypt their frames
   * @param bufReclaimThresh  reclaim threshold of every transport made
   * @param maxFrameSize      largest frame body every transport made accepts
   * @throws std::invalid_argument when @p cipher is null while @p encrypted is true,
   *         or @p maxFrameSize exceeds 2^31 - 1
   */
  explicit TNonblockingSecurityTransportFactory(
      std::shared_ptr<Sm4Cipher> cipher, bool encrypted = true,
      uint32_t bufReclaimThresh = detail::securityframe::kDefaultBufReclaimThresh,
      uint32_t maxFrameSize = detail::securityframe::kDefaultMaxFrameSize);

  /** Nothing to release but the cipher reference. */
  ~TNonblockingSecurityTransportFactory() override;

  /**
   * Makes a new TNonblockingSecurityTransport over @p trans. Nothing is opened, read
   * or written.
   *
   * @param trans  the transport to wrap (the connection a server accepted)
   * @return the new framed transport
   * @throws std::invalid_argument when @p trans is null
   */
  std::shared_ptr<TTransport> getTransport(std::shared_ptr<TTransport> trans) override;

private:
  std::shared_ptr<Sm4Cipher> cipher_;
  bool encrypted_;
  uint32_t bufReclaimThresh_;
  uint32_t maxFrameSize_;
};

} // namespace transport
} // namespace thrift
} // namespace apache

#endif
