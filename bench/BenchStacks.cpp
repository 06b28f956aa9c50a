#include "BenchStacks.h"

#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <utility>

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <thrift/transport/TBufferTransports.h>
#include <thrift/transport/TFDTransport.h>
#include <thrift/transport/TSocket.h>
#include <thrift/transport/TTransportException.h>
#include <thrift/transport/TVirtualTransport.h>

#include <thriftusb/cipher/Sm4Cipher.h>
#include <thriftusb/transport/TNonblockingSecurityTransport.h>
#include <thriftusb/transport/TNonblockingUsbSocket.h>
#include <thriftusb/transport/TSecurityTransport.h>
#include <thriftusb/transport/TUSBSocket.h>
#include <thriftusb/transport/TUsbDevice.h>

#include "BenchCable.h"

namespace thriftusb {
namespace bench {

using apache::thrift::transport::TFDTransport;
using apache::thrift::transport::TFramedTransport;
using apache::thrift::transport::TNonblockingSecurityTransport;
using apache::thrift::transport::TNonblockingUsbSocket;
using apache::thrift::transport::TSecurityTransport;
using apache::thrift::transport::TSocket;
using apache::thrift::transport::TTransport;
using apache::thrift::transport::TTransportException;
using apache::thrift::transport::TUSBSocket;
using apache::thrift::transport::TUsbDevice;
using apache::thrift::transport::TVirtualTransport;

void Link::writeBlock(const uint8_t* buf, uint32_t len) {
  transport()->write(buf, len);
  if (blocksPerFlush > 0 && ++unflushed_ >= blocksPerFlush) {
    unflushed_ = 0;
    transport()->flush();
  }
}

void Link::endStream() {
  unflushed_ = 0;
  transport()->flush();
}

void Link::readBlock(uint8_t* buf, uint32_t len) {
  transport()->readAll(buf, len);
}

void Link::close() {
  transport()->close();
}

void Connection::close() {
  if (device) {
    device->close();
  }
  if (host) {
    host->close();
  }
}

std::string benchKey() {
  return std::string("\x01\x23\x45\x67\x89\xab\xcd\xef\xfe\xdc\xba\x98\x76\x54\x32\x10", 16);
}

std::string benchIv() {
  return std::string("\x00\x01\x02\x03\x04\x05\x06\x07\x08\x09\x0a\x0b\x0c\x0d\x0e\x0f", 16);
}

namespace {

[[noreturn]] void failErrno(const std::string& what) {
  throw std::runtime_error(what + ": " + std::strerror(errno));
}

// An end whose outermost transport is a Thrift transport; it keeps the layers
// beneath alive.
class TransportLink : public Link {
public:
  // @param framed  a framed stack: the stream flushes a frame after every block
  TransportLink(std::shared_ptr<TTransport> outer, bool framed)
    : outer_(std::move(outer)) {
    blocksPerFlush = framed ? 1 : 0;
  }

  std::shared_ptr<TTransport> transport() override { return outer_; }

private:
  std::shared_ptr<TTransport> outer_;
};

// ---------------------------------------------------------------------------------
// Anchors

// The raw cable: blocking read and write system calls, no Thrift.
class RawLink : public Link {
public:
  explicit RawLink(const FifoCable::End& end) {
    readFd_ = ::open(end.readPath.c_str(), O_RDONLY | O_CLOEXEC);
    writeFd_ = ::open(end.writePath.c_str(), O_WRONLY | O_CLOEXEC);
    if (readFd_ < 0 || writeFd_ < 0) {
      RawLink::close();
      failErrno("cannot open the cable");
    }
  }
  ~RawLink() override { RawLink::close(); }

  std::shared_ptr<TTransport> transport() override { return nullptr; }

  void writeBlock(const uint8_t* buf, uint32_t len) override {
    transfer("raw write", len, [&](uint32_t done) { return ::write(writeFd_, buf + done, len - done); });
  }

  void endStream() override {}

  void readBlock(uint8_t* buf, uint32_t len) override {
    transfer("raw read", len, [&](uint32_t done) { return ::read(readFd_, buf + done, len - done); });
  }

  void close() override {
    if (readFd_ >= 0) {
      ::close(readFd_);
      readFd_ = -1;
    }
    if (writeFd_ >= 0) {
      ::close(writeFd_);
      writeFd_ = -1;
    }
  }

private:
  // Moves @p len bytes in as many system calls of @p call (given the bytes done) as it takes.
  template <typename Call>
  static void transfer(const char* what, uint32_t len, Call&& call) {
    for (uint32_t done = 0; done < len;) {
      const ssize_t n = call(done);
      if (n < 0 && errno != EINTR) {
        failErrno(what);
      }
      if (n == 0) {
        throw std::runtime_error(std::string(what) + ": end of data");
      }
      done += n > 0 ? static_cast<uint32_t>(n) : 0;
    }
  }

  int readFd_ = -1;
  int writeFd_ = -1;
};

// The runtime's TFDTransport on a read descriptor and a write descriptor, joined
// into one transport for TFramedTransport (a FIFO carries one direction only).
// Every call goes straight to one of the two TFDTransports.
class FdPairTransport : public TVirtualTransport<FdPairTransport> {
public:
  FdPairTransport(int readFd, int writeFd)
    : in_(readFd, TFDTransport::CLOSE_ON_DESTROY), out_(writeFd, TFDTransport::CLOSE_ON_DESTROY) {}

  bool isOpen() const override { return in_.isOpen() && out_.isOpen(); }
  void open() override {}
  void close() override {
    in_.close();
    out_.close();
  }
  uint32_t read(uint8_t* buf, uint32_t len) { return in_.read(buf, len); }
  void write(const uint8_t* buf, uint32_t len) { out_.write(buf, len); }
  void flush() override { out_.flush(); }

private:
  TFDTransport in_;
  TFDTransport out_;
};

std::unique_ptr<Link> framedFdEnd(const FifoCable::End& end) {
  const int readFd = ::open(end.readPath.c_str(), O_RDONLY | O_CLOEXEC);
  if (readFd < 0) {
    failErrno("cannot open " + end.readPath);
  }
  const int writeFd = ::open(end.writePath.c_str(), O_WRONLY | O_CLOEXEC);
  if (writeFd < 0) {
    ::close(readFd);
    failErrno("cannot open " + end.writePath);
  }
  auto pair = std::make_shared<FdPairTransport>(readFd, writeFd);
  auto framed = std::make_shared<TFramedTransport>(pair);
  return std::make_unique<TransportLink>(framed, true);
}

// TCP loopback: the stream goes through TSocket itself; calls through
// TFramedTransport on it, as a Thrift application on TCP would make them.
class TcpLink : public Link {
public:
  explicit TcpLink(std::shared_ptr<TSocket> socket)
    : socket_(std::move(socket)), framed_(std::make_shared<TFramedTransport>(socket_)) {}

  std::shared_ptr<TTransport> transport() override { return framed_; }
  void writeBlock(const uint8_t* buf, uint32_t len) override { socket_->write(buf, len); }
  void endStream() override { socket_->flush(); }
  void readBlock(uint8_t* buf, uint32_t len) override { socket_->readAll(buf, len); }
  void close() override { socket_->close(); }

private:
  std::shared_ptr<TSocket> socket_;
  std::shared_ptr<TFramedTransport> framed_;
};

Connection connectTcp(const Settings&) {
  const int listener = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (listener < 0) {
    failErrno("socket");
  }
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  address.sin_port = 0;
  socklen_t length = sizeof address;
  if (::bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
      ::listen(listener, 1) != 0 ||
      ::getsockname(listener, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
    const int error = errno;
    ::close(listener);
    errno = error;
    failErrno("cannot listen on the loopback interface");
  }
  auto client = std::make_shared<TSocket>("127.0.0.1", ntohs(address.sin_port));
  try {
    client->open();
  } catch (...) {
    ::close(listener);
    throw;
  }
  const int accepted = ::accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
  ::close(listener);
  if (accepted < 0) {
    failErrno("accept");
  }
  auto server = std::make_shared<TSocket>(accepted);
  Connection connection;
  connection.host = std::make_unique<TcpLink>(client);
  connection.device = std::make_unique<TcpLink>(server);
  return connection;
}

// ---------------------------------------------------------------------------------
// Library stacks

// The device-node channel on a FIFO in non-blocking mode. A FIFO has nothing to
// synchronise, and fsync() on it fails with EINVAL, which TNonblockingUsbSocket's
// flush would turn into "Failed to flush usb device.". This channel still makes the
// fsync() call and takes that one answer for success; every other result is
// TUsbDevice's own.
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

std::shared_ptr<Sm4Cipher> makeCipher() {
  return std::make_shared<Sm4Cipher>(benchKey(), Sm4Cipher::Mode::CBC, benchIv());
}

std::shared_ptr<TUSBSocket> openUsbSocket(const FifoCable::End& end, const Settings& s) {
  auto socket = std::make_shared<TUSBSocket>(end.readPath, end.writePath, kReserved,
                                             static_cast<int>(s.blockBytes));
  socket->open();
  return socket;
}

std::shared_ptr<TNonblockingUsbSocket> openThreaded(const FifoCable::End& end,
                                                    const Settings& s, bool nonblocking) {
  std::shared_ptr<TUsbDevice> device;
  if (nonblocking) {
    device = std::make_shared<FifoUsbDevice>(end.readPath, end.writePath, true, s.blockBytes,
                                             s.blockBytes);
  } else {
    device = std::make_shared<TUsbDevice>(end.readPath, end.writePath, false, s.blockBytes,
                                          s.blockBytes);
  }
  auto socket = std::make_shared<TNonblockingUsbSocket>(device, s.timeoutMs, s.timeoutMs,
                                                        s.ringBytes);
  socket->open();
  return socket;
}

using EndFactory = std::function<std::unique_ptr<Link>(const FifoCable::End&, const Settings&)>;

// A connection over a new cable, both ends built by @p make and opened.
std::function<Connection(const Settings&)> overCable(EndFactory make) {
  return [make](const Settings& s) {
    auto cable = std::make_shared<FifoCable>(s.pipeBytes);
    Connection connection;
    connection.medium = cable;
    connection.device = make(cable->device(), s);
    connection.host = make(cable->host(), s);
    return connection;
  };
}

} // namespace

std::vector<Stack> allStacks() {
  std::vector<Stack> stacks;
  auto add = [&](std::string id, std::string label, Family family, Pacing pacing,
                 int stepMicros, std::function<Connection(const Settings&)> connect) {
    Stack stack;
    stack.id = std::move(id);
    stack.label = std::move(label);
    stack.family = family;
    stack.pacing = pacing;
    stack.stepMicros = stepMicros;
    stack.connect = std::move(connect);
    stacks.push_back(std::move(stack));
    return &stacks.back();
  };

  add("raw", "raw FIFO read/write", Family::Anchor, Pacing::Kernel, 0,
      overCable([](const FifoCable::End& end, const Settings&) {
        return std::make_unique<RawLink>(end);
      }))
      ->raw = true;
  add("framed-fd", "TFramedTransport/TFDTransport", Family::Anchor, Pacing::Kernel, 0,
      overCable([](const FifoCable::End& end, const Settings&) { return framedFdEnd(end); }))
      ->framed = true;
  add("tcp", "TSocket (TCP loopback)", Family::Anchor, Pacing::Kernel, 0, connectTcp);

  add("usbsocket", "TUSBSocket", Family::Plain, Pacing::OneStep, 1000,
      overCable([](const FifoCable::End& end, const Settings& s) {
        return std::make_unique<TransportLink>(openUsbSocket(end, s), false);
      }));
  add("threaded", "TNonblockingUsbSocket (blocking mode)", Family::Plain,
      Pacing::ThreadedBlocking, 10000,
      overCable([](const FifoCable::End& end, const Settings& s) {
        return std::make_unique<TransportLink>(openThreaded(end, s, false), false);
      }));
  add("threaded-nb", "TNonblockingUsbSocket (non-blocking mode)", Family::Plain,
      Pacing::OneStep, 10000, overCable([](const FifoCable::End& end, const Settings& s) {
        return std::make_unique<TransportLink>(openThreaded(end, s, true), false);
      }));

  for (bool nonblocking : {false, true}) {
    const std::string mode = nonblocking ? "non-blocking mode" : "blocking mode";
    const std::string suffix = nonblocking ? "-nb" : "";
    const Pacing pacing = nonblocking ? Pacing::OneStep : Pacing::ThreadedBlocking;
    for (bool encrypted : {false, true}) {
      add((encrypted ? "nbsec-sm4" : "nbsec-plain") + suffix,
          std::string("TNonblockingSecurityTransport ") + (encrypted ? "SM4" : "plain") + " / " +
              mode,
          encrypted ? Family::Encrypted : Family::Plain, pacing, 10000,
          overCable([nonblocking, encrypted](const FifoCable::End& end, const Settings& s) {
            auto framed = std::make_shared<TNonblockingSecurityTransport>(
                openThreaded(end, s, nonblocking), encrypted ? makeCipher() : nullptr, encrypted);
            return std::make_unique<TransportLink>(framed, true);
          }))
          ->framed = true;
    }
  }

  add("sec-sm4", "TSecurityTransport SM4 / TUSBSocket", Family::Encrypted, Pacing::OneStep,
      1000, overCable([](const FifoCable::End& end, const Settings& s) {
        auto framed = std::make_shared<TSecurityTransport>(openUsbSocket(end, s), makeCipher());
        return std::make_unique<TransportLink>(framed, true);
      }))
      ->framed = true;
  return stacks;
}

} // namespace bench
} // namespace thriftusb
