#ifndef THRIFTUSB_BENCH_BENCHMARKS_H
#define THRIFTUSB_BENCH_BENCHMARKS_H

#include <functional>
#include <string>

#include <benchmark/benchmark.h>

namespace thriftusb {
namespace bench {

/** How long each kind of benchmark runs: a full run, or a quick one that only proves it works. */
struct Timing {
  bool quick = false;

  /** Repeated runs reported as their median, min and max. */
  benchmark::internal::Benchmark* repeated(benchmark::internal::Benchmark* b,
                                           double seconds) const;
  /** SM4 alone: five runs of 0.08 s. */
  benchmark::internal::Benchmark* cipher(benchmark::internal::Benchmark* b) const {
    return repeated(b, 0.08);
  }
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
