// Soak: the example's Gadget service and host stack on a virtual cable, for as long as
// the environment asks (CTest runs the short defaults, scripts/soak.sh the long soak):
//
//   THRIFTUSB_SOAK_BYTES   bytes echoed through the encrypted stack, each way
//   THRIFTUSB_SOAK_CYCLES  hosts that connect, call and disconnect in turn
//   THRIFTUSB_SOAK_CALLS   small calls, shared out among those hosts
//
// Each test prints one "soak:" line with its figures.

#include <chrono>
#include <cstdlib>
#include <iostream>
#include <memory>
#include <ostream>
#include <string>
#include <utility>

#include <gtest/gtest.h>

#include <thriftusb/testing/ServerRunner.h>
#include <thriftusb/testing/VirtualCable.h>

#include "DemoOptions.h"
#include "Gadget.h"
#include "GadgetHandler.h"
#include "ThreadedLink.h"
#include "demo_constants.h"
#include "support/Bounded.h"
#include "support/FdIo.h"
#include "support/Resources.h"

using apache::thrift::transport::TServerNonblockingUsbSocket;
using namespace thriftusb::example;
using namespace thriftusb::test;
using namespace thriftusb::testing;
using Clock = std::chrono::steady_clock;

namespace {

uint64_t setting(const char* name, uint64_t shortRun) {
  const char* value = std::getenv(name);
  return value != nullptr && *value != '\0' ? std::strtoull(value, nullptr, 10) : shortRun;
}

// How many threads and descriptors this process has: counted, not named, since the
// server's connection comes back with threads of its own after each interruption.
std::pair<size_t, size_t> counts() {
  const Resources now = Resources::now();
  return {now.threads.size(), now.fds.size()};
}

// The example's server on the device's end of a cable, serving until destroyed; the
// handler's log of every call goes nowhere.
struct GadgetOnCable {
  explicit GadgetOnCable(std::shared_ptr<Sm4Cipher> cipher = nullptr)
    : transport(std::make_shared<TServerNonblockingUsbSocket>(
          cable.device().readPath, cable.device().writePath, false,
          g_demo_constants.BLOCK_SIZE, g_demo_constants.BLOCK_SIZE)),
      handler(std::make_shared<GadgetHandler>(nowhere)),
      server(makeGadgetServer(transport, handler, std::move(cipher))) {}

  VirtualCable cable;
  std::ostream nowhere{nullptr};
  std::shared_ptr<TServerNonblockingUsbSocket> transport;
  std::shared_ptr<GadgetHandler> handler;
  ServerRunner server;
};

} // namespace

TEST(Soak, EncryptedEchoCarriesEveryByteThereAndBack) {
  const uint64_t total = setting("THRIFTUSB_SOAK_BYTES", 32ULL << 20);
  constexpr uint64_t kChunk = 256 << 10;
  Watchdog watchdog(std::chrono::seconds(60 + 2 * (total >> 20)), "encrypted echo");
  GadgetOnCable gadget(makeDemoCipher());
  ThreadedLink host(gadget.cable.host().readPath, gadget.cable.host().writePath, false,
                    makeDemoCipher());
  GadgetClient client(host.protocol);
  host.transport->open();
  const auto start = Clock::now();
  for (uint64_t done = 0, call = 0; done < total; done += kChunk, ++call) {
    const std::string data =
        patternBytes(std::min(kChunk, total - done), static_cast<unsigned>(call));
    std::string back;
    client.echo(back, data);
    ASSERT_EQ(back, data) << "echo " << call << " came back different";
  }
  const std::chrono::duration<double> took = Clock::now() - start;
  host.transport->close();
  std::cout << "soak: encrypted echo: " << total << " bytes each way in " << took.count()
            << " s, " << 2.0 * static_cast<double>(total) / (1 << 20) / took.count()
            << " MiB/s over the cable" << std::endl;
}

TEST(Soak, HostsComingAndGoingKeepThreadsAndDescriptorsConstant) {
  const uint64_t cycles = setting("THRIFTUSB_SOAK_CYCLES", 100);
  const uint64_t callsEach = setting("THRIFTUSB_SOAK_CALLS", 500) / cycles + 1;
  Watchdog watchdog(std::chrono::milliseconds(60000 + cycles * (200 + 100 * callsEach)),
                    "hosts coming and going");
  GadgetOnCable gadget;
  auto cycle = [&](uint64_t n) {
    ThreadedLink host(gadget.cable.host().readPath, gadget.cable.host().writePath);
    GadgetClient client(host.protocol);
    host.transport->open();
    for (uint64_t i = 0; i < callsEach; ++i) {
      EXPECT_EQ(client.divide(static_cast<int32_t>(7 * i), 7), static_cast<int32_t>(i));
    }
    host.transport->close();
    // Now and then the server lets its connection go too, and accepts a new one.
    if (n % 100 == 50) {
      gadget.transport->interruptChildren();
    }
  };
  cycle(0); // the server's connection and its threads are up from here on
  const auto before = counts();
  const auto start = Clock::now();
  for (uint64_t n = 1; n <= cycles; ++n) {
    cycle(n);
    if (n % 1000 == 0 || n == cycles) {
      EXPECT_TRUE(waitUntil([&] { return counts() == before; }, std::chrono::seconds(5)))
          << "after cycle " << n << ": " << counts().first << " threads, " << counts().second
          << " descriptors; " << before.first << " and " << before.second << " before";
    }
  }
  const std::chrono::duration<double> took = Clock::now() - start;
  std::cout << "soak: hosts coming and going: " << cycles << " hosts, " << cycles * callsEach
            << " calls in " << took.count() << " s\n";
}
