#include <thriftusb/testing/ServerRunner.h>

#include <utility>

#include <thrift/protocol/TBinaryProtocol.h>
#include <thrift/server/TSimpleServer.h>

namespace thriftusb {
namespace testing {

namespace {

// How often stop() interrupts the server transport again while serve() runs.
constexpr std::chrono::milliseconds kInterruptStep(100);

} // namespace

ServerRunner::ServerRunner(
    std::shared_ptr<apache::thrift::TProcessor> processor,
    std::shared_ptr<apache::thrift::transport::TServerNonblockingUsbSocket> serverTransport,
    std::shared_ptr<apache::thrift::transport::TTransportFactory> transportFactory,
    std::shared_ptr<apache::thrift::protocol::TProtocolFactory> protocolFactory)
  : ServerRunner(std::make_shared<apache::thrift::server::TSimpleServer>(
        std::move(processor), std::move(serverTransport),
        transportFactory ? std::move(transportFactory)
                         : std::make_shared<apache::thrift::transport::TTransportFactory>(),
        protocolFactory ? std::move(protocolFactory)
                        : std::make_shared<apache::thrift::protocol::TBinaryProtocolFactory>())) {}

ServerRunner::ServerRunner(std::shared_ptr<apache::thrift::server::TServer> server)
  : server_(std::move(server)) {
  std::packaged_task<void()> serve([server = server_] { server->serve(); });
  served_ = serve.get_future();
  thread_ = std::thread(std::move(serve));
}

ServerRunner::~ServerRunner() {
  try {
    stop();
  } catch (...) {
    // serve()'s own failure: the owner did not ask for it, so it is dropped here.
  }
}

void ServerRunner::stop() {
  if (!thread_.joinable()) {
    return;
  }
  server_->stop();
  while (served_.wait_for(kInterruptStep) != std::future_status::ready) {
    server_->getServerTransport()->interrupt();
  }
  thread_.join();
  served_.get();
}

bool ServerRunner::running() const {
  return thread_.joinable() &&
         served_.wait_for(std::chrono::seconds(0)) != std::future_status::ready;
}

} // namespace testing
} // namespace thriftusb
