#include <thriftusb/util/ring_buffer_s.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <cstring>
#include <deque>
#include <random>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "support/Bounded.h"

using apache::thrift::transport::ring_buffer_s;
using namespace thriftusb::test;

namespace {

std::string take(ring_buffer_s& ring, size_t len) {
  std::string out(len, '\0');
  out.resize(ring.read(&out[0], len));
  return out;
}

size_t put(ring_buffer_s& ring, const std::string& bytes) {
  return ring.write(bytes.data(), bytes.size());
}

// A repeatable stream of pseudo-random bytes (xorshift64*), so that a producer and
// a consumer can each generate the same sequence without sharing it.
class ByteStream {
public:
  explicit ByteStream(uint64_t seed) : state_(seed | 1) {}
  void fill(uint8_t* out, size_t len) {
    for (size_t i = 0; i < len; ++i) {
      state_ ^= state_ >> 12;
      state_ ^= state_ << 25;
      state_ ^= state_ >> 27;
      out[i] = static_cast<uint8_t>((state_ * 2685821657736338717ULL) >> 56);
    }
  }

private:
  uint64_t state_;
};

} // namespace

TEST(RingBuffer, StartsEmptyWithTheGivenCapacityAndRefusesCapacityZero) {
  ring_buffer_s ring(4099);
  EXPECT_EQ(ring.size(), 0u);
  EXPECT_EQ(ring.capacity(), 4099u); // not rounded to a power of two
  EXPECT_THROW(ring_buffer_s(0), std::invalid_argument);
}

TEST(RingBuffer, FillsExactlyToCapacityAndNeverWaits) {
  ring_buffer_s ring(8);
  char scratch[4];
  EXPECT_EQ(ring.read(scratch, sizeof scratch), 0u); // empty
  EXPECT_EQ(ring.write("abc", 0), 0u);

  EXPECT_EQ(put(ring, "0123456789"), 8u); // only what is free is stored
  EXPECT_EQ(ring.size(), ring.capacity());
  EXPECT_EQ(put(ring, "x"), 0u); // full
  EXPECT_EQ(ring.read(scratch, 0), 0u);
  EXPECT_EQ(take(ring, 100), "01234567");
  EXPECT_EQ(ring.size(), 0u);
}

TEST(RingBuffer, TransfersThatCrossTheEndKeepTheOrder) {
  ring_buffer_s ring(10);
  EXPECT_EQ(put(ring, "abcdefg"), 7u);
  EXPECT_EQ(take(ring, 5), "abcde");
  EXPECT_EQ(put(ring, "hijklm"), 6u); // 3 bytes to the end, 3 at the start
  EXPECT_EQ(take(ring, 8), "fghijklm"); // read crosses the end as well
  // A write ending exactly at the end of the storage; the next starts at its beginning.
  EXPECT_EQ(put(ring, "nopqrst"), 7u);
  EXPECT_EQ(put(ring, "uvw"), 3u);
  EXPECT_EQ(ring.size(), 10u);
  EXPECT_EQ(take(ring, 10), "nopqrstuvw");
}

TEST(RingBuffer, CapacityOneCarriesOneByteAtATime) {
  ring_buffer_s ring(1);
  for (char c : std::string("alternate")) {
    EXPECT_EQ(put(ring, std::string(1, c) + "!"), 1u);
    EXPECT_EQ(put(ring, "?"), 0u);
    EXPECT_EQ(take(ring, 3), std::string(1, c));
  }
}

TEST(RingBuffer, MatchesAPlainQueueOverManyRandomTransfers) {
  std::mt19937 random(42);
  for (size_t capacity : {1u, 2u, 7u, 64u, 1000u}) {
    ring_buffer_s ring(capacity);
    std::deque<char> model;
    uint8_t next = 0;
    for (int step = 0; step < 20000; ++step) {
      const size_t len = random() % (capacity * 2 + 2);
      if (random() % 2 == 0) {
        std::string bytes(len, '\0');
        for (auto& b : bytes) {
          b = static_cast<char>(next++);
        }
        const size_t stored = put(ring, bytes);
        ASSERT_EQ(stored, std::min(len, capacity - model.size()));
        model.insert(model.end(), bytes.begin(), bytes.begin() + static_cast<long>(stored));
        next = static_cast<uint8_t>(next - (len - stored)); // unstored bytes come again
      } else {
        const std::string got = take(ring, len);
        ASSERT_EQ(got.size(), std::min(len, model.size()));
        ASSERT_EQ(got, std::string(model.begin(), model.begin() + static_cast<long>(got.size())));
        model.erase(model.begin(), model.begin() + static_cast<long>(got.size()));
      }
      ASSERT_EQ(ring.size(), model.size());
    }
  }
}

// One producer and one consumer move 256 MiB of a pseudo-random sequence through a
// small odd-sized buffer with random transfer sizes; the consumer checks every byte.
TEST(RingBufferConcurrent, ProducerAndConsumerMoveEveryByteInOrder) {
  constexpr size_t kTotal = size_t(256) << 20;
  constexpr size_t kMaxChunk = 9000; // larger than the buffer: partial transfers happen
  ring_buffer_s ring(4099);
  Watchdog watchdog(std::chrono::minutes(4), "ring buffer stress test");
  std::atomic<bool> stop{false}; // set when the consumer gives up, so the producer ends too

  PeerThread producer([&] {
    ByteStream stream(7);
    std::mt19937 sizes(1);
    std::vector<uint8_t> chunk(kMaxChunk);
    size_t sent = 0;
    while (sent < kTotal && !stop) {
      const size_t len = std::min<size_t>(1 + sizes() % kMaxChunk, kTotal - sent);
      stream.fill(chunk.data(), len);
      size_t done = 0;
      while (done < len && !stop) {
        const size_t n = ring.write(chunk.data() + done, len - done);
        if (n == 0) {
          std::this_thread::yield();
        }
        done += n;
      }
      sent += len;
    }
  });

  ByteStream expected(7);
  std::mt19937 sizes(2);
  std::vector<uint8_t> got(kMaxChunk);
  std::vector<uint8_t> want(kMaxChunk);
  size_t received = 0;
  while (received < kTotal) {
    const size_t len = std::min<size_t>(1 + sizes() % kMaxChunk, kTotal - received);
    const size_t n = ring.read(got.data(), len);
    if (n == 0) {
      std::this_thread::yield();
      continue;
    }
    expected.fill(want.data(), n);
    if (n > len || std::memcmp(got.data(), want.data(), n) != 0) {
      ADD_FAILURE() << "wrong bytes: " << n << " delivered for " << len << " asked, after offset "
                    << received;
      break;
    }
    received += n;
  }
  stop = true;
  producer.join(std::chrono::minutes(4));
  EXPECT_EQ(received, kTotal);
  EXPECT_EQ(ring.size(), 0u);
}
