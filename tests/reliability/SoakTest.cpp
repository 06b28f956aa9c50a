// Soak: many bytes through the encrypted stack and back, many connections coming and
// going against one server, and many small calls, each against a Thrift server on the
// USB server transport in this process. The amounts come from the environment, so
// that one program serves both the long soak (scripts/soak.sh) and the short run in
// CTest:
//
//   THRIFTUSB_SOAK_BYTES   bytes echoed through the encrypted stack (each way)
//   THRIFTUSB_SOAK_CYCLES  connect/disconnect cycles
//   THRIFTUSB_SOAK_CALLS   small calls
//
// Each test prints one "soak:" line with its figures.

#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <iomanip>
#include <iostream>
#include <memory>
#include <mutex>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <thrift/protocol/TBinaryProtocol.h>
#include <thrift/server/TSimpleServer.h>
#include <thrift/transport/TTransportException.h>

#include <thriftusb/transport/TNonblockingSecurityTransport.h>
#include <thriftusb/transport/TNonblockingUsbSocket.h>
#include <thriftusb/transport/TServerNonblockingUsbSocket.h>
#include <thriftusb/transport/TUsbDevice.h>
#include <thriftusb/testing/ServerRunner.h>
#include <thriftusb/testing/VirtualCable.h>

#include "DemoOptions.h"
#include "Gadget.h"
#include "support/Resources.h"
#include "ThreadedLink.h"
#include "support/Bounded.h"

using apache::thrift::protocol::TBinaryProtocol;
using apache::thrift::protocol::TProtocol;
using apache::thrift::server::TServerEventHandler;
using apache::thrift::server::TSimpleServer;
using apache::thrift::transport::TNonblockingSecurityTransport;
using apache::thrift::transport::TNonblockingUsbSocket;
using apache::thrift::transport::TServerNonblockingUsbSocket;
using apache::thrift::transport::TTransport;
using apache::thrift::transport::TUsbDevice;
using namespace thriftusb::example;
using namespace thriftusb::test;
using namespace thriftusb::testing;
using Clock = std::chrono::steady_clock;

namespace {

[[maybe_unused]] const ::testing::Environment* const kFirstThread =
    ::testing::AddGlobalTestEnvironment(new FirstThreadEnvironment);

uint64_t setting(const char* name, uint64_t shortRun) {
  const char* value = std::getenv(name);
  return value != nullptr && *value != '\0' ? std::strtoull(value, nullptr, 10) : shortRun;
}

// Block size of the soak's channels: the largest a FIFO takes in one piece, so that
// the soak measures the transports rather than the count of system calls.
constexpr unsigned kBlock = 16384;
constexpr int kRingBytes = 4 << 20;

double seconds(Clock::duration d) {
  return std::chrono::duration<double>(d).count();
}

/** 64-bit FNV-1a over a byte stream, fed piece by piece. */
class Checksum {
public:
  void add(const std::string& bytes) {
    for (unsigned char c : bytes) {
      hash_ = (hash_ ^ c) * 0x100000001b3ULL;
    }
    count_ += bytes.size();
  }
  uint64_t value() const { return hash_; }
  uint64_t count() const { return count_; }

private:
  uint64_t hash_ = 0xcbf29ce484222325ULL;
  uint64_t count_ = 0;
};

/** @p n bytes of a pseudo-random stream chosen by @p seed (xorshift64). */
std::string chunk(size_t n, uint64_t seed) {
  std::string out(n, '\0');
  uint64_t x = seed * 0x9E3779B97F4A7C15ULL + 1;
  for (size_t i = 0; i < n; i += 8) {
    x ^= x << 13;
    x ^= x >> 7;
    x ^= x << 17;
    for (size_t j = 0; j < 8 && i + j < n; ++j) {
      out[i + j] = static_cast<char>(x >> (8 * j));
    }
  }
  return out;
}

/** The server's side of the service: answers, counts, and checksums what it is sent. */
class SoakGadget : public GadgetIf {
public:
  void ping() override { ++calls_; }
  void echo(std::string& _return, const std::string& data) override {
    ++calls_;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      received_.add(data);
    }
    _return = data;
  }
  int32_t divide(int32_t a, int32_t b) override {
    ++calls_;
    return a / b; // the soak never divides by zero
  }
  void stats(Stats& _return) override {
    _return.calls = ++calls_;
    std::lock_guard<std::mutex> lock(mutex_);
    _return.bytesEchoed = static_cast<int64_t>(received_.count());
  }

  int64_t calls() const { return calls_; }
  Checksum received() {
    std::lock_guard<std::mutex> lock(mutex_);
    return received_;
  }

private:
  std::atomic<int64_t> calls_{0};
  std::mutex mutex_;
  Checksum received_;
};

/** Counts the connections the server has finished with. */
class ConnectionCounter : public TServerEventHandler {
public:
  void deleteContext(void*, std::shared_ptr<TProtocol>, std::shared_ptr<TProtocol>) override {
    ++ended_;
  }
  int ended() const { return ended_; }

private:
  std::atomic<int> ended_{0};
};

/** A TSimpleServer with a SoakGadget on the device end of @p cable, serving until stop(). */
class SoakServer {
public:
  SoakServer(const VirtualCable& cable, std::shared_ptr<Sm4Cipher> cipher)
    : gadget(std::make_shared<SoakGadget>()),
      transport(std::make_shared<TServerNonblockingUsbSocket>(
          cable.device().readPath, cable.device().writePath, false, kBlock, kBlock)),
      counter(std::make_shared<ConnectionCounter>()),
      runner_(counted(makeGadgetServer(transport, gadget, std::move(cipher)), counter)) {}

  std::shared_ptr<SoakGadget> gadget;
  std::shared_ptr<TServerNonblockingUsbSocket> transport;
  std::shared_ptr<ConnectionCounter> counter;

private:
  static std::shared_ptr<TSimpleServer> counted(std::shared_ptr<TSimpleServer> server,
                                                std::shared_ptr<ConnectionCounter> counter) {
    server->setServerEventHandler(std::move(counter));
    return server;
  }

  ServerRunner runner_;
};

/** A host on the threaded stack, with encrypted frames when @p cipher is set. */
struct Host {
  Host(const VirtualCable& cable, std::shared_ptr<Sm4Cipher> cipher)
    : socket(std::make_shared<TNonblockingUsbSocket>(
          std::make_shared<TUsbDevice>(cable.host().readPath, cable.host().writePath, false,
                                       kBlock, kBlock),
          kHostTimeoutMs, kHostTimeoutMs, kRingBytes)),
      transport(cipher ? std::shared_ptr<TTransport>(
                             std::make_shared<TNonblockingSecurityTransport>(socket, cipher))
                       : socket),
      gadget(std::make_shared<TBinaryProtocol>(transport)) {}

  std::shared_ptr<TNonblockingUsbSocket> socket;
  std::shared_ptr<TTransport> transport;
  GadgetClient gadget;
};

// Prints one "soak:" line of @p parts, decimals with @p digits digits.
template <typename... Parts>
void report(int digits, const Parts&... parts) {
  std::ostringstream line;
  line << std::fixed << std::setprecision(digits);
  (line << ... << parts);
  std::cout << "soak: " << line.str() << std::endl;
}

} // namespace

TEST(Soak, EncryptedEchoCarriesEveryByteThereAndBack) {
  const uint64_t total = setting("THRIFTUSB_SOAK_BYTES", 32ULL << 20);
  constexpr size_t kChunk = 1 << 20;
  // About 0.1 s per MiB is the pace; ten times that is a hang.
  Watchdog watchdog(std::chrono::seconds(60 + total / kChunk), "encrypted echo");
  VirtualCable cable;
  const auto cipher = makeDemoCipher();
  SoakServer server(cable, cipher);
  Host host(cable, cipher);
  host.transport->open();

  Checksum sent, echoed;
  const auto start = Clock::now();
  for (uint64_t done = 0, call = 0; done < total; ++call) {
    const std::string data = chunk(static_cast<size_t>(std::min<uint64_t>(kChunk, total - done)), call);
    std::string back;
    host.gadget.echo(back, data);
    sent.add(data);
    echoed.add(back);
    done += data.size();
  }
  const auto took = Clock::now() - start;
  host.transport->close();

  // Each end's own checksum of what it saw.
  const Checksum atServer = server.gadget->received();
  EXPECT_EQ(atServer.count(), total);
  EXPECT_EQ(atServer.value(), sent.value()) << "the server received other bytes than were sent";
  EXPECT_EQ(echoed.count(), total);
  EXPECT_EQ(echoed.value(), sent.value()) << "other bytes came back than were sent";
  std::ostringstream checksum;
  checksum << std::hex << sent.value();
  report(1, "encrypted echo: ", total, " bytes each way in ", seconds(took), " s, ",
         2.0 * static_cast<double>(total) / (1 << 20) / seconds(took),
         " MiB/s over the cable; checksum ", checksum.str());
}

TEST(Soak, ConnectDisconnectCyclesKeepThreadsAndDescriptorsConstant) {
  const uint64_t cycles = setting("THRIFTUSB_SOAK_CYCLES", 200);
  // Every this many cycles the server lets its connection go as well and accepts a
  // new one; accept paces itself in 100 ms steps, so the other cycles reconnect the
  // host against the one connection the server holds. (Counts are compared at other
  // cycles, while the server holds a connection.)
  constexpr uint64_t kServerCycleEvery = 100;
  constexpr uint64_t kServerCycleAt = 50;
  // About 45 ms per cycle is the pace; ten times that is a hang.
  Watchdog watchdog(std::chrono::milliseconds(60000 + 500 * cycles), "connect/disconnect");
  VirtualCable cable;
  SoakServer server(cable, nullptr);

  auto cycle = [&](uint64_t i) {
    Host host(cable, nullptr);
    host.transport->open();
    EXPECT_EQ(host.gadget.divide(static_cast<int32_t>(i), 1), static_cast<int32_t>(i));
    host.transport->close();
    if (i % kServerCycleEvery == kServerCycleAt) {
      server.transport->interruptChildren();
    }
  };
  cycle(1); // the server's first connection and its threads are up from here on
  const Resources before = Resources::now();
  const auto start = Clock::now();
  for (uint64_t i = 1; i <= cycles; ++i) {
    cycle(i);
    if (i % 1000 == 0 || i == cycles) {
      // Between cycles: the host's threads are joined, the server holds one
      // connection (or is about to accept the next one).
      EXPECT_TRUE(backTo(before)) << "after cycle " << i;
    }
  }
  const auto took = Clock::now() - start;
  const int serverConnections = server.counter->ended();
  EXPECT_GE(static_cast<uint64_t>(serverConnections), (cycles + kServerCycleEvery - kServerCycleAt) / kServerCycleEvery);
  const Resources after = Resources::now();
  report(1, "connect/disconnect: ", cycles, " cycles in ", seconds(took), " s (",
         1000.0 * seconds(took) / static_cast<double>(cycles), " ms each), ", serverConnections,
         " server connections ended; threads ", before.threads.size(), " before, ",
         after.threads.size(), " after; descriptors ", before.fds.size(), " before, ",
         after.fds.size(), " after");
}

TEST(Soak, ManySmallCallsAllSucceed) {
  const uint64_t calls = setting("THRIFTUSB_SOAK_CALLS", 2000);
  // Each call waits on the transports' 10 ms polling steps; four links, each with its
  // own cable, server and host, share the calls and run side by side.
  constexpr uint64_t kLinks = 4;
  const std::string payload = chunk(48, 7);
  // About 25 ms per call on a link is the pace; ten times that is a hang.
  const auto limit = std::chrono::milliseconds(60000 + 250 * (calls / kLinks + 1));
  Watchdog watchdog(limit + std::chrono::seconds(30), "small calls");

  struct Link {
    explicit Link(uint64_t n) : calls(n) {}
    VirtualCable cable;
    SoakServer server{cable, nullptr};
    Host host{cable, nullptr};
    uint64_t calls;
    uint64_t wrong = 0;
    int lostConnections = 0;
  };
  std::vector<std::unique_ptr<Link>> links;
  for (uint64_t l = 0; l < kLinks; ++l) {
    links.push_back(std::make_unique<Link>(calls / kLinks + (l < calls % kLinks ? 1 : 0)));
  }

  auto run = [&payload](Link& link) {
    GadgetClient& gadget = link.host.gadget;
    link.host.transport->open();
    for (uint64_t i = 0; i < link.calls; ++i) {
      switch (i % 4) {
      case 0:
        gadget.ping();
        break;
      case 1:
        link.wrong += gadget.divide(static_cast<int32_t>(i * 7), 7) != static_cast<int32_t>(i);
        break;
      case 2: {
        std::string back;
        gadget.echo(back, payload);
        link.wrong += back != payload;
        break;
      }
      default: {
        Stats stats;
        gadget.stats(stats);
        link.wrong += stats.calls != static_cast<int64_t>(i + 1);
        break;
      }
      }
    }
    // Taken before the host lets go: a link that is done early would otherwise see its
    // server drop the idle connection after its read time-out.
    link.lostConnections = link.server.counter->ended();
    link.host.transport->close();
  };
  const auto start = Clock::now();
  {
    std::vector<std::unique_ptr<PeerThread>> threads;
    for (auto& link : links) {
      threads.push_back(std::make_unique<PeerThread>([&run, &link] { run(*link); }));
    }
    // A call that fails throws, and join passes that on.
    for (auto& thread : threads) {
      thread->join(limit);
    }
  }
  const auto took = Clock::now() - start;

  uint64_t wrong = 0;
  for (auto& link : links) {
    wrong += link->wrong;
    EXPECT_EQ(link->server.gadget->calls(), static_cast<int64_t>(link->calls));
    EXPECT_EQ(link->lostConnections, 0) << "a connection was lost on the way";
  }
  EXPECT_EQ(wrong, 0u);
  report(2, "small calls: ", calls, " calls on ", kLinks, " links side by side in ",
         seconds(took), " s (", 1000.0 * seconds(took) * kLinks / static_cast<double>(calls),
         " ms per call on a link), ", wrong, " wrong answers");
}
