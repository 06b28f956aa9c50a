#include "Bench.h"

#include <cerrno>
#include <system_error>

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <thrift/transport/TBufferTransports.h>
#include <thrift/transport/TFDTransport.h>
#include <thrift/transport/TSocket.h>
#include <thrift/transport/TVirtualTransport.h>

#include <thriftusb/cipher/Sm4Cipher.h>
#include <thriftusb/transport/TNonblockingSecurityTransport.h>
#include <thriftusb/transport/TNonblockingUsbSocket.h>
#include <thriftusb/transport/TSecurityTransport.h>
#include <thriftusb/testing/VirtualCable.h>
#include <thriftusb/transport/TUSBSocket.h>
#include <thriftusb/transport/TUsbDevice.h>

namespace thriftusb {
namespace bench {

using namespace apache::thrift::transport;
using testing::VirtualCable;

void Connection::close() {
  device.transport->close();
  host.transport->close();
}

namespace {

[[noreturn]] void failErrno(const std::string& what) {
  throw std::system_error(errno, std::generic_category(), what);
}

int openNode(const std::string& path, int flags) {
  const int fd = ::open(path.c_str(), flags | O_CLOEXEC);
  if (fd < 0) {
    failErrno("cannot open " + path);
  }
  return fd;
}

// The runtime's TFDTransport on the read FIFO and on the write FIFO, joined into one
// transport for TFramedTransport (a FIFO carries one direction only).
class FdPairTransport : public TVirtualTransport<FdPairTransport> {
public:
  explicit FdPairTransport(const VirtualCable::End& end)
    : in_(openNode(end.readPath, O_RDONLY), TFDTransport::CLOSE_ON_DESTROY),
      out_(openNode(end.writePath, O_WRONLY), TFDTransport::CLOSE_ON_DESTROY) {}

  bool isOpen() const override { return in_.isOpen() && out_.isOpen(); }
  void close() override {
    in_.close();
    out_.close();
  }
  uint32_t read(uint8_t* buf, uint32_t len) { return in_.read(buf, len); }
  void write(const uint8_t* buf, uint32_t len) { out_.write(buf, len); }

private:
  TFDTransport in_;
  TFDTransport out_;
};

// The device-node channel on a FIFO. In non-blocking mode TNonblockingUsbSocket's flush
// calls fsync(), which fails on a FIFO with EINVAL (it has nothing to synchronise) and
// would make every flush an error; this channel still makes the call and takes that
// one answer for success.
class FifoUsbDevice : public TUsbDevice {
public:
  using TUsbDevice::TUsbDevice;

  int flush() override {
    const int result = TUsbDevice::flush();
    return result < 0 && errno == EINVAL ? 0 : result;
  }
};

// The transports' first integer argument is stored and never read.
constexpr int kReserved = 0;

std::shared_ptr<Sm4Cipher> makeCipher(bool encrypted) {
  return encrypted ? std::make_shared<Sm4Cipher>(kBenchKey, Sm4Cipher::Mode::CBC, kBenchIv)
                   : nullptr;
}

std::shared_ptr<TTransport> openUsbSocket(const VirtualCable::End& end, const StackOptions& o) {
  auto socket = std::make_shared<TUSBSocket>(end.readPath, end.writePath, kReserved,
                                             static_cast<int>(o.blockBytes));
  socket->setWaitMode(o.waiting);
  socket->open();
  return socket;
}

std::shared_ptr<TTransport> openThreaded(const VirtualCable::End& end, const StackOptions& o,
                                         bool nonblocking) {
  auto device = std::make_shared<FifoUsbDevice>(end.readPath, end.writePath, nonblocking,
                                                o.blockBytes, o.blockBytes);
  auto socket =
      std::make_shared<TNonblockingUsbSocket>(device, o.timeoutMs, o.timeoutMs, o.ringBytes);
  socket->setWaitMode(o.waiting);
  socket->open();
  return socket;
}

Link both(std::shared_ptr<TTransport> transport) {
  return {transport, transport};
}

// TCP loopback: a stream goes through TSocket itself, calls through TFramedTransport
// on it, as a Thrift application on TCP makes them.
// (Not TServerSocket: it defers the accept until the first bytes or a second passes.)
Connection connectTcp() {
  const int listener = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof address;
  auto* raw = reinterpret_cast<sockaddr*>(&address);
  if (listener < 0 || ::bind(listener, raw, sizeof address) != 0 || ::listen(listener, 1) != 0 ||
      ::getsockname(listener, raw, &length) != 0) {
    failErrno("cannot listen on the loopback interface");
  }
  auto client = std::make_shared<TSocket>("127.0.0.1", ntohs(address.sin_port));
  client->open();
  const int accepted = ::accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
  ::close(listener);
  if (accepted < 0) {
    failErrno("accept");
  }
  auto server = std::make_shared<TSocket>(accepted);
  Connection c;
  c.host = {std::make_shared<TFramedTransport>(client), client};
  c.device = {std::make_shared<TFramedTransport>(server), server};
  return c;
}

bool has(const std::string& id, const char* part) {
  return id.find(part) != std::string::npos;
}

// Opens one end of @p stack on a cable's node pair.
Link openEnd(const Stack& stack, const VirtualCable::End& end, const StackOptions& o) {
  if (stack.id == "framed-fd") {
    return both(std::make_shared<TFramedTransport>(std::make_shared<FdPairTransport>(end)));
  }
  if (!stack.threaded) {
    auto socket = openUsbSocket(end, o);
    return both(has(stack.id, "sm4")
                    ? std::make_shared<TSecurityTransport>(socket, makeCipher(true))
                    : socket);
  }
  auto socket = openThreaded(end, o, has(stack.id, "-nb"));
  if (!has(stack.id, "nbsec")) {
    return both(socket);
  }
  const bool encrypted = has(stack.id, "sm4");
  auto security =
      std::make_shared<TNonblockingSecurityTransport>(socket, makeCipher(encrypted), encrypted);
  security->setWaitMode(o.waiting);
  return both(security);
}

} // namespace

const std::vector<Stack>& allStacks() {
  static const std::vector<Stack> stacks = {
      {"framed-fd", "TFramedTransport/TFDTransport", true, false, 0},
      {"tcp", "TSocket (TCP loopback)", false, false, 0},
      {"usbsocket", "TUSBSocket", false, false, 1000},
      {"threaded", "TNonblockingUsbSocket (blocking mode)", false, true, 10000},
      {"nbsec-plain", "TNonblockingSecurityTransport plain / blocking mode", true, true, 10000},
      {"nbsec-sm4", "TNonblockingSecurityTransport SM4 / blocking mode", true, true, 10000},
      {"threaded-nb", "TNonblockingUsbSocket (non-blocking mode)", false, true, 10000},
      {"nbsec-plain-nb", "TNonblockingSecurityTransport plain / non-blocking mode", true, true,
       10000},
      {"nbsec-sm4-nb", "TNonblockingSecurityTransport SM4 / non-blocking mode", true, true, 10000},
      {"sec-sm4", "TSecurityTransport SM4 / TUSBSocket", true, false, 1000},
  };
  return stacks;
}

Connection connect(const Stack& stack, const StackOptions& options) {
  if (stack.id == "tcp") {
    return connectTcp();
  }
  auto cable = std::make_shared<VirtualCable>();
  // The size belongs to the pipe, which the cable keeps alive: set through a descriptor
  // of our own.
  for (const std::string& path : {cable->host().readPath, cable->host().writePath}) {
    const int fd = openNode(path, O_RDWR);
    const int result = ::fcntl(fd, F_SETPIPE_SZ, options.pipeBytes);
    ::close(fd);
    if (result < 0) {
      failErrno("cannot size " + path);
    }
  }
  Connection c;
  c.medium = cable;
  c.device = openEnd(stack, cable->device(), options);
  c.host = openEnd(stack, cable->host(), options);
  return c;
}

} // namespace bench
} // namespace thriftusb
