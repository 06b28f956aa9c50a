#include <thriftusb/protocol/TNullProtocol.h>

#include <utility>

namespace apache {
namespace thrift {
namespace protocol {

uint8_t buf[8192];

TNullProtocol::TNullProtocol(std::shared_ptr<transport::TTransport> trans)
  : TVirtualProtocol<TNullProtocol, TProtocolDefaults>(std::move(trans)) {}

uint32_t TNullProtocol::readBinary(std::string& str) {
  // The reference keeps the transport alive for the whole call, even if another
  // owner lets go of it meanwhile.
  const std::shared_ptr<transport::TTransport> trans = getTransport();
  const uint32_t n = trans->read(buf, sizeof buf);
  str.assign(reinterpret_cast<const char*>(buf), n);
  return n;
}

} // namespace protocol
} // namespace thrift
} // namespace apache
