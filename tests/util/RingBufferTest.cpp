#include <thriftusb/util/ring_buffer_s.h>

#include <algorithm>
#include <atomic>
#include <deque>
#include <random>
#include <stdexcept>
#include <string>
#include <thread>

#include <gtest/gtest.h>

#include "support/Bounded.h"
#include "support/FdIo.h"

using apache::thrift::transport::ring_buffer_s;
using namespace thriftusb::test;

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
    std::deque<char> model;
    const std::string source = patternBytes(capacity * 2 + 2, static_cast<unsigned>(capacity));
    for (int step = 0; step < 20000; ++step) {
      const size_t len = random() % (capacity * 2 + 2);
      if (random() % 2 == 0) {
        const size_t stored = ring.write(source.data(), len);
        ASSERT_EQ(stored, std::min(len, capacity - model.size()));
        model.insert(model.end(), source.begin(), source.begin() + static_cast<long>(stored));
      } else {
        std::string got(len, '\0');
        got.resize(ring.read(&got[0], len));
        ASSERT_EQ(got.size(), std::min(len, model.size()));
        ASSERT_EQ(got, std::string(model.begin(), model.begin() + static_cast<long>(got.size())));
        model.erase(model.begin(), model.begin() + static_cast<long>(got.size()));
      }
      ASSERT_EQ(ring.size(), model.size());
    }
  }
}

// One producer and one consumer, as the threaded transport's caller and loop thread,
// move 32 MiB through a small odd-sized buffer; the consumer checks every byte.
TEST(RingBufferConcurrent, ProducerAndConsumerMoveEveryByteInOrder) {
  constexpr size_t kTotal = size_t(32) << 20, kChunk = 9000; // chunks larger than the ring
  const std::string source = patternBytes(kTotal + kChunk);
  ring_buffer_s ring(4099);
  Watchdog watchdog(std::chrono::minutes(2), "ring buffer stress test");
  std::atomic<bool> stop{false}; // the consumer gave up: the producer ends too
  PeerThread producer([&] {
    std::mt19937 sizes(1);
    for (size_t sent = 0; sent < kTotal && !stop;) {
      const size_t n = ring.write(&source[sent], std::min(1 + sizes() % kChunk, kTotal - sent));
      sent += n;
      if (n == 0) {
        std::this_thread::yield();
      }
    }
  });
  std::mt19937 sizes(2);
  std::string got(kChunk, '\0');
  size_t received = 0;
  while (received < kTotal) {
    const size_t len = std::min(1 + sizes() % kChunk, kTotal - received);
    const size_t n = ring.read(&got[0], len);
    if (n > len || got.compare(0, n, source, received, n) != 0) {
      ADD_FAILURE() << n << " wrong bytes for " << len << " asked, after offset " << received;
      break;
    }
    received += n;
    if (n == 0) {
      std::this_thread::yield();
    }
  }
  stop = true;
  producer.join(std::chrono::minutes(2));
  EXPECT_EQ(received, kTotal);
}
