#ifndef THRIFTUSB_PROTOCOL_TNULLPROTOCOL_H
#define THRIFTUSB_PROTOCOL_TNULLPROTOCOL_H

#include <cstdint>
#include <memory>
#include <string>

#include <thrift/protocol/TVirtualProtocol.h>
#include <thrift/transport/TTransport.h>

namespace apache {
namespace thrift {
namespace protocol {

/**
 * Staging buffer of TNullProtocol::readBinary(), shared by every instance in the
 * process. After a call it holds the bytes of that call's read, followed by
 * whatever earlier reads left behind. It has no lock: no two readBinary() calls may
 * run at the same time anywhere in the process.
 */
extern uint8_t buf[8192];

/**
 * A protocol with no encoding: readBinary() hands over whatever one read of the
 * transport delivers, with no length prefix or other framing.
 *
 * It lets code that holds a TProtocol take raw bytes from a transport. Every other
 * read operation, and every write operation, is the runtime's default and throws
 * TProtocolException NOT_IMPLEMENTED, so the protocol cannot carry ordinary Thrift
 * messages. skip() is the runtime's generic one: a string is skipped by one
 * readBinary(), any other type meets a refusing read and throws.
 *
 * One instance may be used from one thread at a time, and because of the shared
 * staging buffer no two instances may read at the same time.
 */
class TNullProtocol : public TVirtualProtocol<TNullProtocol, TProtocolDefaults> {
public:
  /**
   * Reads from @p trans; holds a reference to it.
   * @param trans  the transport whose bytes readBinary() hands over
   */
  explicit TNullProtocol(std::shared_ptr<transport::TTransport> trans);

  /**
   * Replaces @p str with the bytes of one read of the transport, at most 8192 of
   * them; bytes beyond those stay in the transport for the next call. A transport
   * that delivers nothing gives an empty string.
   *
   * @param str  receives the bytes
   * @return the number of bytes read, also 0
   * @throws TTransportException whatever the transport's read() throws; @p str is
   *         then left as it was
   */
  uint32_t readBinary(std::string& str);
};

} // namespace protocol
} // namespace thrift
} // namespace apache

#endif
