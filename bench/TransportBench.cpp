// Throughput, round trip and idle cost of every USB stack of the library beside the
// Thrift runtime's own transports (TFramedTransport/TFDTransport on the same FIFO
// cable, TSocket on TCP loopback), and SM4 alone, in one Google Benchmark program.
//
//   thriftusb_bench [--quick] [--benchmark_filter=REGEX]
//                   [--benchmark_out=FILE --benchmark_out_format=json] ...
//
// --quick runs every case briefly, to prove that it works; its figures mean nothing.
// A case that fails ends the program with its name and the error.

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>
#include <stdexcept>
#include <thread>

#include <sys/resource.h>
#include <unistd.h>

#include <thrift/TOutput.h>
#include <thrift/protocol/TBinaryProtocol.h>

#include <thriftusb/util/ThriftVersion.h>

#include "Bench.h"
#include "Gadget.h"

namespace thriftusb {
namespace bench {

benchmark::internal::Benchmark* Timing::repeated(benchmark::internal::Benchmark* b,
                                                 double seconds) const {
  if (quick) {
    return b->MinTime(0.01);
  }
  return b->MinTime(seconds)
      ->Repetitions(5)
      ->ReportAggregatesOnly()
      ->ComputeStatistics(
          "min", [](const std::vector<double>& v) { return *std::min_element(v.begin(), v.end()); })
      ->ComputeStatistics("max", [](const std::vector<double>& v) {
        return *std::max_element(v.begin(), v.end());
      });
}

benchmark::internal::Benchmark* add(const std::string& name,
                                    std::function<void(benchmark::State&)> body) {
  return benchmark::RegisterBenchmark(name.c_str(), [name, body](benchmark::State& state) {
    try {
      body(state);
    } catch (const std::exception& e) {
      // Threads of the case may still wait on what failed: end here, not in a hang.
      std::fflush(stdout);
      std::fprintf(stderr, "thriftusb_bench: %s failed: %s\n", name.c_str(), e.what());
      std::_Exit(1);
    }
  });
}

namespace {

using Clock = std::chrono::steady_clock;
using apache::thrift::protocol::TBinaryProtocol;

constexpr uint32_t kBlock = 64 * 1024;
constexpr uint32_t kEchoBytes = 1024 * 1024;

double gIdleSeconds = 10;

double secondsSince(Clock::time_point t0) {
  return std::chrono::duration<double>(Clock::now() - t0).count();
}

// The CPU time of the whole process (every thread, both ends of a connection) and its
// context switches since construction.
class CpuMeter {
public:
  double wall() const { return secondsSince(start_); }
  double cpuSeconds() const { return now()[0] - start0_[0]; }
  double percent() const { return 100 * cpuSeconds() / wall(); }
  double switchesPerSecond() const { return (now()[1] - start0_[1]) / wall(); }

private:
  static std::array<double, 2> now() {
    rusage u{};
    ::getrusage(RUSAGE_SELF, &u);
    const auto seconds = [](timeval t) { return static_cast<double>(t.tv_sec) + t.tv_usec / 1e6; };
    return {seconds(u.ru_utime) + seconds(u.ru_stime),
            static_cast<double>(u.ru_nvcsw + u.ru_nivcsw)};
  }
  Clock::time_point start_ = Clock::now();
  std::array<double, 2> start0_ = now();
};

// A thread whose failure join() rethrows. A case that fails while it runs leaves it
// behind; the program then ends (see add()).
class Background {
public:
  explicit Background(std::function<void()> body)
    : thread_([this, body] {
        try {
          body();
        } catch (...) {
          error_ = std::current_exception();
        }
      }) {}
  ~Background() {
    if (thread_.joinable()) {
      thread_.detach();
    }
  }
  void join() {
    thread_.join();
    if (error_) {
      std::rethrow_exception(error_);
    }
  }

private:
  std::exception_ptr error_;
  std::thread thread_;
};

// The nearest-rank percentile @p p of @p values, which holds at least one.
double percentile(std::vector<double> values, double p) {
  const auto rank = std::max<size_t>(1, static_cast<size_t>(std::ceil(p / 100 * values.size())));
  std::nth_element(values.begin(), values.begin() + rank - 1, values.end());
  return values[rank - 1];
}

// The host writes 64 KiB blocks (framed stacks flush a frame every @p blocksPerFlush),
// the device reads them; each block carries its number, which the reader checks.
void streamBench(benchmark::State& state, const Stack& stack, const StackOptions& options,
                 int blocksPerFlush) {
  Connection c = connect(stack, options);
  std::atomic<bool> stop{false};
  std::atomic<bool> done{false};
  std::atomic<uint64_t> started{0};
  Background writer([&] {
    std::vector<uint8_t> block(kBlock, 0x5a);
    for (uint64_t n = 0; !stop.load();) {
      std::memcpy(block.data(), &n, sizeof n);
      started.store(++n);
      c.host.stream->write(block.data(), kBlock);
      if (blocksPerFlush > 0 && n % blocksPerFlush == 0) {
        c.host.stream->flush();
      }
    }
    c.host.stream->flush();
    done = true;
  });
  std::vector<uint8_t> block(kBlock);
  uint64_t got = 0;
  auto readBlock = [&] {
    c.device.stream->readAll(block.data(), kBlock);
    uint64_t number = 0;
    std::memcpy(&number, block.data(), sizeof number);
    if (number != got++) {
      throw std::runtime_error("block " + std::to_string(got - 1) + " arrived as " +
                               std::to_string(number));
    }
  };
  CpuMeter cpu;
  for (auto _ : state) {
    readBlock();
  }
  state.counters["cpu_pct"] = cpu.percent();
  // Takes what the writer sent after the timed blocks, so that it can stop.
  stop = true;
  while (!done.load() || got < started.load()) {
    if (got < started.load()) {
      readBlock();
    } else {
      std::this_thread::yield();
    }
  }
  writer.join();
  c.close();
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * kBlock);
  state.SetLabel(stack.label);
}

// The device's side of the Gadget service: answers at once; stats() ends the serving.
class Handler : public example::GadgetIf {
public:
  void ping() override {}
  void echo(std::string& out, const std::string& data) override { out = data; }
  int32_t divide(int32_t a, int32_t b) override { return b == 0 ? 0 : a / b; }
  void stats(example::Stats& out) override {
    out = example::Stats();
    stopped = true;
  }
  bool stopped = false;
};

// Serves the Gadget service on @p end until a stats() call.
void serve(const Link& end) {
  auto handler = std::make_shared<Handler>();
  example::GadgetProcessor processor(handler);
  auto protocol = std::make_shared<TBinaryProtocol>(end.transport);
  while (!handler->stopped) {
    if (!processor.process(protocol, protocol, nullptr)) {
      throw std::runtime_error("the server read something that is not a call");
    }
  }
}

// A connection through a stack whose device end serves the Gadget service.
struct Served {
  Served(const Stack& stack, const StackOptions& options)
    : c(connect(stack, options)), client(std::make_shared<TBinaryProtocol>(c.host.transport)),
      server([this] { serve(c.device); }) {}

  // Ends the serving with stats() and closes the connection.
  void finish() {
    example::Stats stats;
    client.stats(stats);
    server.join();
    c.close();
  }

  Connection c;
  example::GadgetClient client;
  Background server;
};

// Calls echo(1 MiB); the payload counts both ways.
void echoBench(benchmark::State& state, const Stack& stack, const StackOptions& options) {
  Served served(stack, options);
  const std::string data(kEchoBytes, '\x5a');
  std::string answer;
  served.client.echo(answer, data);
  if (answer != data) {
    throw std::runtime_error("echo gave back different bytes");
  }
  CpuMeter cpu;
  for (auto _ : state) {
    served.client.echo(answer, data);
  }
  state.counters["cpu_pct"] = cpu.percent();
  served.finish();
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * 2 * kEchoBytes);
  state.SetLabel(stack.label);
}

// Times @p call alone in each iteration, after @p before, and reports the median and
// the 99th percentile in milliseconds. The iteration's time, which the case's minimum
// time counts, is the whole iteration: a case lasts its minimum time of wall clock
// however fast the calls are (counting the calls alone, calls of 0.1 ms after pauses of
// 5 ms would take minutes to add up to a few seconds).
void timeEach(benchmark::State& state, const std::function<void()>& before,
              const std::function<void()>& call) {
  std::vector<double> ms;
  for (auto _ : state) {
    const Clock::time_point start = Clock::now();
    before();
    const Clock::time_point t0 = Clock::now();
    call();
    ms.push_back(secondsSince(t0) * 1000);
    state.SetIterationTime(secondsSince(start));
  }
  state.counters["p50_ms"] = percentile(ms, 50);
  state.counters["p99_ms"] = percentile(ms, 99);
}

// ping() round trips, at random moments as an application makes them rather than in
// step with the pollers of either end: a pause of up to one polling step before each.
void pingBench(benchmark::State& state, const Stack& stack, const StackOptions& options) {
  Served served(stack, options);
  for (int i = 0; i < 5; ++i) {
    served.client.ping();
  }
  std::mt19937 random(12345);
  std::uniform_int_distribution<int> pause(0, std::max(0, stack.stepMicros - 1));
  CpuMeter cpu;
  timeEach(
      state,
      [&] {
        if (stack.stepMicros > 0) {
          std::this_thread::sleep_for(std::chrono::microseconds(pause(random)));
        }
      },
      [&] { served.client.ping(); });
  state.counters["cpu_us_per_call"] =
      cpu.cpuSeconds() * 1e6 / static_cast<double>(state.iterations());
  served.finish();
  state.SetLabel(stack.label);
}

// An open connection left alone, its device end waiting for a call: the process's CPU
// over the window.
void idleBench(benchmark::State& state, const Stack& stack, const StackOptions& base) {
  // The waiting server must not time out within the window.
  StackOptions options = base;
  options.timeoutMs = static_cast<int>(gIdleSeconds * 1000) + 60000;
  Served served(stack, options);
  served.client.ping();
  for (auto _ : state) {
    CpuMeter cpu;
    std::this_thread::sleep_for(std::chrono::duration<double>(gIdleSeconds));
    state.SetIterationTime(cpu.wall());
    state.counters["cpu_pct"] = cpu.percent();
    state.counters["switches_per_s"] = cpu.switchesPerSecond();
  }
  served.finish();
  state.SetLabel(stack.label);
}

using Case = std::function<void(benchmark::State&, const Stack&, const StackOptions&)>;
using Setup = std::function<void(benchmark::internal::Benchmark*)>;

// Registers @p body on @p stack as "<kind>/<stack id>/<mode><variant>" once per wait
// mode, the modes one after the other so that both see the same machine; both ends of
// the connection wait in the same mode. An anchor, which waits in the kernel, once and
// without a mode. @p setup gives each its timing.
void addModes(const Stack& stack, const std::string& kind, const std::string& variant,
              const StackOptions& options, const Case& body, const Setup& setup) {
  const std::vector<std::pair<WaitMode, std::string>> modes = {{WaitMode::Polling, "/polling"},
                                                               {WaitMode::Waking, "/waking"}};
  for (const auto& [mode, suffix] : modes) {
    if (mode != WaitMode::Polling && !stack.hasWaitMode()) {
      break;
    }
    StackOptions o = options;
    o.waiting = mode;
    const std::string name =
        kind + "/" + stack.id + (stack.hasWaitMode() ? suffix : "") + variant;
    setup(add(name, [&stack, o, body](benchmark::State& state) { body(state, stack, o); }));
  }
}

// Every case of one stack.
void registerStack(const Stack& stack, const Timing& timing, const StackOptions& base) {
  const Setup throughput = [&timing](benchmark::internal::Benchmark* b) {
    timing.repeated(b, 0.4)->UseRealTime();
  };
  auto stream = [&](const std::string& variant, const StackOptions& o, int blocksPerFlush) {
    const Case body = [blocksPerFlush](benchmark::State& state, const Stack& s,
                                       const StackOptions& m) {
      streamBench(state, s, m, blocksPerFlush);
    };
    addModes(stack, "stream", variant, o, body, throughput);
  };
  stream("", base, stack.framed ? 1 : 0);
  if (stack.framed) {
    stream("/frames:1MiB", base, 16);
  }
  // How the stream depends on the ring size, the frame size and the cable's buffer.
  StackOptions o = base;
  if (stack.id == "threaded") {
    for (int ring : {4, 64}) {
      o.ringBytes = ring << 20;
      stream("/ring:" + std::to_string(ring) + "MiB", o, 0);
    }
  } else if (stack.id == "nbsec-plain") {
    stream("/frames:16MiB", o, 256);
  } else if (stack.id == "framed-fd" || stack.id == "usbsocket" || stack.id == "threaded-nb") {
    o.pipeBytes = 64 << 10;
    stream("/cable:64KiB", o, stack.framed ? 1 : 0);
  }
  addModes(stack, "echo", "", base, echoBench, throughput);
  addModes(stack, "ping", "", base, pingBench, [&timing](benchmark::internal::Benchmark* b) {
    b->UseManualTime()->Unit(benchmark::kMillisecond)->MinTime(timing.quick ? 0.01 : 4);
  });
  if (stack.id != "tcp" && stack.id.find("sm4") == std::string::npos) {
    addModes(stack, "idle", "", base, idleBench, [](benchmark::internal::Benchmark* b) {
      b->Iterations(1)->UseManualTime()->Unit(benchmark::kSecond);
    });
  }
}

} // namespace
} // namespace bench
} // namespace thriftusb

int main(int argc, char** argv) {
  using namespace thriftusb::bench;
  Timing timing;
  std::vector<char*> args;
  for (int i = 0; i < argc; ++i) {
    if (std::strcmp(argv[i], "--quick") == 0) {
      timing.quick = true;
    } else {
      args.push_back(argv[i]);
    }
  }
  int count = static_cast<int>(args.size());
  benchmark::Initialize(&count, args.data());
  if (benchmark::ReportUnrecognizedArguments(count, args.data())) {
    return 2;
  }
  gIdleSeconds = timing.quick ? 0.2 : 5;
  // The library's log lines (opens, closes, thread exits) would bury the figures.
  apache::thrift::GlobalOutput.setOutputFunction([](const char*) {});
  const StackOptions base;
  for (const auto& [key, value] :
       {std::pair<const char*, std::string>{"thrift", THRIFTUSB_THRIFT_VERSION_STRING},
        {"sm4_backend", THRIFTUSB_BENCH_SM4_BACKEND},
        {"pipe_bytes", std::to_string(base.pipeBytes)},
        {"block_bytes", std::to_string(base.blockBytes)},
        {"ring_bytes", std::to_string(base.ringBytes)},
        {"idle_seconds", std::to_string(gIdleSeconds)},
        {"quick", timing.quick ? "yes" : "no"}}) {
    benchmark::AddCustomContext(key, value);
  }
  for (const Stack& stack : allStacks()) {
    registerStack(stack, timing, base);
  }
  // One polling step of the library as this machine makes it, for the round trips' floor.
  add("step/usleep",
      [](benchmark::State& state) {
        timeEach(
            state, [] {}, [&state] { ::usleep(static_cast<useconds_t>(state.range(0))); });
      })
      ->Arg(1000)
      ->Arg(10000)
      ->UseManualTime()
      ->Unit(benchmark::kMillisecond)
      ->MinTime(timing.quick ? 0.01 : 0.5);
  registerCipherBenchmarks(timing);
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
