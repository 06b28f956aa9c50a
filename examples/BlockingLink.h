#ifndef THRIFTUSB_EXAMPLES_BLOCKINGLINK_H
#define THRIFTUSB_EXAMPLES_BLOCKINGLINK_H

#include <memory>
#include <string>

#include <thrift/TProcessor.h>
#include <thrift/protocol/TProtocol.h>
#include <thrift/transport/TTransportException.h>

#include <thriftusb/cipher/Sm4Cipher.h>
#include <thriftusb/transport/TUSBSocket.h>

namespace thriftusb {
namespace example {

/**
 * One end of a gadget's USB link: a TUSBSocket in two-node mode on a read node and a
 * write node (the service's BLOCK_SIZE as its block size), encrypted frames
 * (TSecurityTransport) when a cipher is given, and the binary protocol on top. Both
 * the host and the device build one; nothing is opened here: open and close
 * `transport` when the caller decides.
 */
struct BlockingLink {
  /**
   * @param readPath   node that carries the peer's bytes to this end
   * @param writePath  node that carries this end's bytes to the peer
   * @param cipher     encrypts every call when set; null: no framing
   * @param waitMode   how the transport waits for the node
   */
  BlockingLink(const std::string& readPath, const std::string& writePath,
               std::shared_ptr<Sm4Cipher> cipher = nullptr,
               apache::thrift::transport::WaitMode waitMode =
                   apache::thrift::transport::WaitMode::Polling);

  std::shared_ptr<apache::thrift::transport::TUSBSocket> socket;
  /** The outermost transport: the encrypted frames, or `socket` itself. */
  std::shared_ptr<apache::thrift::transport::TTransport> transport;
  std::shared_ptr<apache::thrift::protocol::TProtocol> protocol;
};

/**
 * Answers the calls that arrive on @p protocol with @p processor, one after the
 * other, until the transport fails, and returns that failure.
 *
 * The usual end is the host hanging up: once the host has closed its nodes and
 * nothing else holds the read node open, TUSBSocket reads end of data and reports
 * TIMED_OUT "recv timeout expired".
 *
 * @throws apache::thrift::protocol::TProtocolException when a request is malformed,
 *         also when a message is neither a call nor a one-way call (the processor
 *         refuses it and the stream cannot be followed any further)
 */
apache::thrift::transport::TTransportException serveUntilHangUp(
    apache::thrift::TProcessor& processor,
    const std::shared_ptr<apache::thrift::protocol::TProtocol>& protocol);

} // namespace example
} // namespace thriftusb

#endif
