#ifndef THRIFTUSB_BENCH_BENCH_H
#define THRIFTUSB_BENCH_BENCH_H

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>
#include <thrift/transport/TTransport.h>

#include <thriftusb/util/WakeSignal.h>

namespace thriftusb {
namespace bench {

using apache::thrift::transport::WaitMode;

/** What a stack is built with; every stack of one benchmark gets the same. */
struct StackOptions {
  /** Kernel buffer of each FIFO of the cable: the bytes a link holds in flight. */
  int pipeBytes = 1 << 20;
  /** TUSBSocket's maxBlockSize and TUsbDevice's block sizes: most bytes per system call. */
  uint32_t blockBytes = 1 << 20;
  /**
   * Each ring buffer of TNonblockingUsbSocket. Polling, its stream moves about one ring
   * per 10 ms step, so an application after throughput gives it 16 MiB, not the server
   * transport's 4 MiB.
   */
  int ringBytes = 16 << 20;
  /** Read and write time-out of TNonblockingUsbSocket, milliseconds. */
  int timeoutMs = 3000;
  /** How the transports of both ends wait; the anchors wait in the kernel whatever it is. */
  WaitMode waiting = WaitMode::Polling;
};

/** One end of a connection. */
struct Link {
  /** The outermost transport: the one a protocol goes on. */
  std::shared_ptr<apache::thrift::transport::TTransport> transport;
  /** What a one-way stream goes through: the transport itself, except on TCP (the socket). */
  std::shared_ptr<apache::thrift::transport::TTransport> stream;
};

/** Both ends of a connection, opened, and what carries them. */
struct Connection {
  std::shared_ptr<void> medium;
  Link host;
  Link device;

  /** Closes both ends, the device's first. */
  void close();
};

/** One stack the benchmarks run through. */
struct Stack {
  std::string id;        ///< short name in the benchmark names, e.g. "usbsocket"
  std::string label;     ///< name in the report
  bool framed = false;   ///< sends a frame per flush
  bool threaded = false; ///< built on TNonblockingUsbSocket
  /** The polling step of its waits, microseconds; 0 when it waits in the kernel. */
  int stepMicros = 0;

  /** Whether its waits have a step, and so a WaitMode: every stack but the anchors. */
  bool hasWaitMode() const { return stepMicros > 0; }
};

/** Every stack, anchors first. */
const std::vector<Stack>& allStacks();

/**
 * Builds and opens both ends of a new connection through @p stack: over a new FIFO
 * cable, or TCP loopback for "tcp".
 */
Connection connect(const Stack& stack, const StackOptions& options);

/** The key and initialisation vector of every SM4 cipher of the benchmark. */
inline const std::string
    kBenchKey("\x01\x23\x45\x67\x89\xab\xcd\xef\xfe\xdc\xba\x98\x76\x54\x32\x10", 16);
inline const std::string
    kBenchIv("\x00\x01\x02\x03\x04\x05\x06\x07\x08\x09\x0a\x0b\x0c\x0d\x0e\x0f", 16);

/** How long each kind of benchmark runs: a full run, or a quick one that only proves it works. */
struct Timing {
  bool quick = false;

  /** Five runs of at least @p seconds each, reported as their median, min and max. */
  benchmark::internal::Benchmark* repeated(benchmark::internal::Benchmark* b, double seconds) const;
};

/**
 * Registers @p body as the benchmark @p name. A case that throws ends the program
 * with its name and the error.
 */
benchmark::internal::Benchmark* add(const std::string& name,
                                    std::function<void(benchmark::State&)> body);

/** Registers the SM4 benchmarks ("sm4/..."). */
void registerCipherBenchmarks(const Timing& timing);

} // namespace bench
} // namespace thriftusb

#endif
