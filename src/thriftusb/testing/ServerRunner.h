#ifndef THRIFTUSB_TESTING_SERVERRUNNER_H
#define THRIFTUSB_TESTING_SERVERRUNNER_H

#include <chrono>
#include <future>
#include <memory>
#include <thread>

#include <thrift/TProcessor.h>
#include <thrift/protocol/TProtocol.h>
#include <thrift/server/TServer.h>
#include <thrift/transport/TTransport.h>

#include <thriftusb/transport/TServerNonblockingUsbSocket.h>

namespace thriftusb {
namespace testing {

/**
 * Runs a Thrift server's serve() on a thread of its own, and stops it so that
 * serve() has surely returned.
 *
 * TServer::stop() alone may leave serve() running for a whole connection: it closes
 * the current connection before the server transport is marked interrupted, and a
 * serving thread that gets back to accept in between opens one more connection,
 * which then waits for a host (up to 300 s with framed transports). stop() therefore
 * interrupts the server transport again every 100 ms until serve() has returned:
 * each time it closes the connection handed out last, and accept, now interrupted,
 * fails.
 */
class ServerRunner {
public:
  /**
   * Serves @p processor with a TSimpleServer on @p serverTransport, one connection
   * after the other: each connection goes through @p transportFactory (null: used as
   * it is) and speaks the protocol of @p protocolFactory (null: binary).
   *
   * @param processor         the service's processor
   * @param serverTransport   where the connections come from
   * @param transportFactory  wraps each connection; null: none
   * @param protocolFactory   the protocol of each connection; null: TBinaryProtocol
   * @throws std::system_error when the thread cannot be started
   */
  ServerRunner(
      std::shared_ptr<apache::thrift::TProcessor> processor,
      std::shared_ptr<apache::thrift::transport::TServerNonblockingUsbSocket> serverTransport,
      std::shared_ptr<apache::thrift::transport::TTransportFactory> transportFactory = nullptr,
      std::shared_ptr<apache::thrift::protocol::TProtocolFactory> protocolFactory = nullptr);

  /**
   * Runs serve() of @p server, which must serve on a TServerNonblockingUsbSocket (or
   * on a server transport whose interrupt() makes accept fail as that one's does).
   *
   * @param server  the server to run
   * @throws std::system_error when the thread cannot be started
   */
  explicit ServerRunner(std::shared_ptr<apache::thrift::server::TServer> server);

  /** Stops the server as stop() does, if it still runs; never throws. */
  ~ServerRunner();

  ServerRunner(const ServerRunner&) = delete;
  ServerRunner& operator=(const ServerRunner&) = delete;

  /**
   * Stops the server and returns once serve() has returned. Calling it again does
   * nothing.
   *
   * @throws whatever serve() threw, when it ended by a failure of its own
   */
  void stop();

  /** @return whether serve() is still running: false once it has returned, whyever */
  bool running() const;

  /** @return the server being run */
  apache::thrift::server::TServer& server() const { return *server_; }

private:
  std::shared_ptr<apache::thrift::server::TServer> server_;
  std::future<void> served_;
  std::thread thread_;
};

} // namespace testing
} // namespace thriftusb

#endif
