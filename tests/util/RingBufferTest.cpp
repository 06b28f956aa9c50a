#include <thriftusb/util/ring_buffer_s.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <deque>
#include <random>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "support/Bounded.h"
#include "support/FdIo.h"

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

} // namespace

// Against a plain queue: empty and full buffers, zero lengths, transfers larger than
// the room or the content, writes and reads that cross or end exactly at the end of
// the storage at every position; capacity 1 carries one byte at a time, and odd
// capacities are used unrounded.
TEST(RingBuffer, MatchesAPlainQueueOverManyRandomTransfers) {
  EXPECT_THROW(ring_buffer_s(0), std::invalid_argument);
  std::mt19937 random(42);
  for (size_t capacity : {1u, 2u, 7u, 64u, 1000u}) {
    ring_buffer_s ring(capacity);
    ASSERT_EQ(ring.capacity(), capacity);
    ASSERT_EQ(ring.size(), 0u);
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

// One producer and one consumer move 256 MiB through a small odd-sized buffer with
// random transfer sizes; the consumer checks every byte.
TEST(RingBufferConcurrent, ProducerAndConsumerMoveEveryByteInOrder) {
  constexpr size_t kTotal = size_t(256) << 20;
  constexpr size_t kMaxChunk = 9000; // larger than the buffer: partial transfers happen
  // The stream repeats a pseudo-random block whose length is no multiple of the capacity;
  // `source` holds one period and enough of the next for any chunk.
  constexpr size_t kPeriod = (size_t(1) << 20) + 7;
  std::string source = patternBytes(kPeriod);
  source += source.substr(0, kMaxChunk);
  ring_buffer_s ring(4099);
  Watchdog watchdog(std::chrono::minutes(4), "ring buffer stress test");
  std::atomic<bool> stop{false}; // set when the consumer gives up, so the producer ends too

  PeerThread producer([&] {
    std::mt19937 sizes(1);
    for (size_t sent = 0; sent < kTotal && !stop;) {
      const size_t len = std::min<size_t>(1 + sizes() % kMaxChunk, kTotal - sent);
      const size_t n = ring.write(&source[sent % kPeriod], len);
      if (n == 0) {
        std::this_thread::yield();
      }
      sent += n;
    }
  });

  std::mt19937 sizes(2);
  std::vector<char> got(kMaxChunk);
  size_t received = 0;
  while (received < kTotal) {
    const size_t len = std::min<size_t>(1 + sizes() % kMaxChunk, kTotal - received);
    const size_t n = ring.read(got.data(), len);
    if (n > len || std::memcmp(got.data(), &source[received % kPeriod], n) != 0) {
      ADD_FAILURE() << "wrong bytes: " << n << " delivered for " << len << " asked, after offset "
                    << received;
      break;
    }
    if (n == 0) {
      std::this_thread::yield();
    }
    received += n;
  }
  stop = true;
  producer.join(std::chrono::minutes(4));
  EXPECT_EQ(received, kTotal);
  EXPECT_EQ(ring.size(), 0u);
}
