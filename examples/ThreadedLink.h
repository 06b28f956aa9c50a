#ifndef THRIFTUSB_EXAMPLES_THREADEDLINK_H
#define THRIFTUSB_EXAMPLES_THREADEDLINK_H

#include <memory>
#include <string>

#include <thrift/protocol/TProtocol.h>
#include <thrift/server/TSimpleServer.h>
#include <thrift/transport/TServerTransport.h>
#include <thrift/transport/TTransport.h>

#include <thriftusb/cipher/Sm4Cipher.h>
#include <thriftusb/transport/TNonblockingUsbSocket.h>
#include <thriftusb/transport/TUsbDevice.h>

#include "Gadget.h"

namespace thriftusb {
namespace example {

/** Read and write time-out of the host's transport, in milliseconds. */
constexpr int kHostTimeoutMs = 3000;
/** Size of each of the host transport's two ring buffers, in bytes. */
constexpr int kHostRingBytes = 1 << 20;

/**
 * The host's end of a gadget's USB link on the threaded stack: a TUsbDevice on a
 * read node and a write node, a TNonblockingUsbSocket on it, encrypted frames
 * (TNonblockingSecurityTransport) when a cipher is given, and the binary protocol on
 * top. Nothing is opened here: open and close `transport`.
 *
 * The protocol talks to the socket directly: its reads are readAll calls, which wait
 * for the answer up to the read time-out. The runtime's TBufferedTransport would not
 * do here: it refills its buffer with a single read, which on this socket never
 * waits, and takes an empty one for the end of the stream.
 */
struct ThreadedLink {
  /**
   * @param readPath     node that carries the gadget's answers
   * @param writePath    node that carries the requests
   * @param nonblocking  drive the channel on the caller's thread instead of from a
   *                     reader and a writer thread (the nodes must support fsync)
   * @param cipher       encrypts every call when set; null: no framing
   * @param waitMode     how the transport waits (the frames follow it)
   */
  ThreadedLink(const std::string& readPath, const std::string& writePath,
               bool nonblocking = false, std::shared_ptr<Sm4Cipher> cipher = nullptr,
               apache::thrift::transport::WaitMode waitMode =
                   apache::thrift::transport::WaitMode::Polling);

  std::shared_ptr<apache::thrift::transport::TUsbDevice> device;
  std::shared_ptr<apache::thrift::transport::TNonblockingUsbSocket> socket;
  /** The outermost transport: the encrypted frames, or `socket` itself. */
  std::shared_ptr<apache::thrift::transport::TTransport> transport;
  std::shared_ptr<apache::thrift::protocol::TProtocol> protocol;
};

/**
 * The gadget's server transport: the read node and the write node of the device's
 * end, in blocking mode, with the service's BLOCK_SIZE as the block size.
 */
std::shared_ptr<apache::thrift::transport::TServerTransport> makeGadgetServerTransport(
    const std::string& readPath, const std::string& writePath,
    apache::thrift::transport::WaitMode waitMode = apache::thrift::transport::WaitMode::Polling);

/**
 * A Thrift server answering the Gadget service with @p handler over @p serverTransport:
 * one host at a time, with the binary protocol. Without @p cipher the protocol sits
 * straight on each connection's socket (not buffered, for the reason given at
 * ThreadedLink), and a connection ends when the host has been silent for the socket's
 * read time-out. With it, every connection carries encrypted frames, and waits up to
 * the frames' own time-out for the host's next call. serve() runs until stopped
 * (thriftusb::testing::ServerRunner runs and stops it).
 */
std::shared_ptr<apache::thrift::server::TSimpleServer> makeGadgetServer(
    const std::shared_ptr<apache::thrift::transport::TServerTransport>& serverTransport,
    const std::shared_ptr<GadgetIf>& handler, std::shared_ptr<Sm4Cipher> cipher = nullptr);

} // namespace example
} // namespace thriftusb

#endif
