// Throughput of the ring buffer beside plain memcpy of the same sizes, in one process.
//
// A ring transfer is at most two copies (in and out) plus a counter update per side,
// so the single-thread case is compared with two memcpy calls of the same block.

#include <thriftusb/util/ring_buffer_s.h>

#include <atomic>
#include <cstring>
#include <thread>
#include <vector>

#include <benchmark/benchmark.h>

using apache::thrift::transport::ring_buffer_s;

namespace {

constexpr size_t kBlock = 64 * 1024;
constexpr size_t kRing = 4 * 1024 * 1024;

// One copy of a 64 KiB block: the plain reference.
void BM_Memcpy64K(benchmark::State& state) {
  std::vector<uint8_t> src(kBlock, 1), dst(kBlock);
  for (auto _ : state) {
    std::memcpy(dst.data(), src.data(), kBlock);
    benchmark::DoNotOptimize(dst.data());
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * kBlock));
}
BENCHMARK(BM_Memcpy64K);

// One copy of a 64 KiB block into a 4 MiB region, moving along it as a ring does:
// the same working set as the ring, so the same cache behaviour.
void BM_Memcpy64KInto4M(benchmark::State& state) {
  std::vector<uint8_t> src(kBlock, 1), dst(kRing);
  size_t offset = 0;
  for (auto _ : state) {
    std::memcpy(dst.data() + offset, src.data(), kBlock);
    offset = (offset + kBlock) % kRing;
    benchmark::DoNotOptimize(dst.data());
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * kBlock));
}
BENCHMARK(BM_Memcpy64KInto4M);

// Two copies of a 64 KiB block, as a ring write plus read makes.
void BM_MemcpyTwice64K(benchmark::State& state) {
  std::vector<uint8_t> src(kBlock, 1), mid(kRing), dst(kBlock);
  size_t offset = 0;
  for (auto _ : state) {
    std::memcpy(mid.data() + offset, src.data(), kBlock);
    std::memcpy(dst.data(), mid.data() + offset, kBlock);
    offset = (offset + kBlock) % kRing;
    benchmark::DoNotOptimize(dst.data());
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * kBlock));
}
BENCHMARK(BM_MemcpyTwice64K);

// One thread writes a 64 KiB block into a 4 MiB ring and reads it back.
void BM_RingWriteRead64K(benchmark::State& state) {
  ring_buffer_s ring(kRing);
  std::vector<uint8_t> src(kBlock, 1), dst(kBlock);
  for (auto _ : state) {
    size_t in = ring.write(src.data(), kBlock);
    size_t out = ring.read(dst.data(), kBlock);
    if (in != kBlock || out != kBlock) {
      state.SkipWithError("short transfer");
      break;
    }
    benchmark::DoNotOptimize(dst.data());
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * kBlock));
}
BENCHMARK(BM_RingWriteRead64K);

// A producer thread fills the ring with 64 KiB blocks while this thread drains it.
void BM_RingProducerConsumer64K(benchmark::State& state) {
  ring_buffer_s ring(kRing);
  std::atomic<bool> stop{false};
  std::thread producer([&] {
    std::vector<uint8_t> src(kBlock, 2);
    while (!stop.load(std::memory_order_relaxed)) {
      if (ring.write(src.data(), kBlock) == 0) {
        std::this_thread::yield();
      }
    }
  });
  std::vector<uint8_t> dst(kBlock);
  size_t bytes = 0;
  for (auto _ : state) {
    size_t got = 0;
    while (got < kBlock) {
      size_t n = ring.read(dst.data(), kBlock - got);
      if (n == 0) {
        std::this_thread::yield();
      }
      got += n;
    }
    bytes += got;
    benchmark::DoNotOptimize(dst.data());
  }
  stop = true;
  producer.join();
  state.SetBytesProcessed(static_cast<int64_t>(bytes));
}
BENCHMARK(BM_RingProducerConsumer64K)->UseRealTime();

} // namespace

BENCHMARK_MAIN();
