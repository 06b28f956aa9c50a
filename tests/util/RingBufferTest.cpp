#include <thriftusb/util/ring_buffer_s.h>

#include <algorithm>
#include <deque>
#include <random>
#include <stdexcept>
#include <string>

#include <gtest/gtest.h>

#include "support/FdIo.h"

using apache::thrift::transport::ring_buffer_s;
using namespace thriftusb::test;

// Against a plain queue: empty and full buffers, zero lengths, transfers larger than
// the room or the content, writes and reads that cross or end exactly at the end of
// the storage at every position; capacity 1 carries one byte at a time, and odd
// capacities are used unrounded. (Its use across two threads is exercised by the
// threaded transport's tests, under the thread sanitizer too.)
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
        const auto end = model.begin() + static_cast<long>(std::min(len, model.size()));
        ASSERT_EQ(got, std::string(model.begin(), end));
        model.erase(model.begin(), end);
      }
      ASSERT_EQ(ring.size(), model.size());
    }
  }
}
