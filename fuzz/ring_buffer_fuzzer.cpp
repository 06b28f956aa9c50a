// ring_buffer_s driven by a fuzzed sequence of writes and reads, checked against a
// plain queue after every operation: the counts moved, the fill count, and every byte
// that comes out, in order.
//
// Layout: one byte chooses the capacity (b & 0x7F) + 1, times 97 when the top bit is
// set (odd sizes up to 12416, so that transfers wrap at every offset); then one byte
// per operation: top bit set for a write, clear for a read; the low 7 bits give the
// length v, or for v >= 120 a multiple of the capacity ((v - 119) * capacity / 3),
// so that requests larger than the whole buffer occur.
// The reference queue is a pair of positions in a fixed byte stream: what was written
// and not yet read lies between them.

#include <algorithm>
#include <cstring>
#include <vector>

#include <thriftusb/util/ring_buffer_s.h>

#include "FuzzInput.h"

using apache::thrift::transport::ring_buffer_s;
using namespace thriftusb::fuzz;

namespace {

// The stream written into the buffer is this pattern, repeated: its period is a prime
// above every capacity and request length, and its bytes have no short period, so a
// byte delivered from the wrong place does not match by chance.
constexpr size_t kPeriod = 65521;

const std::vector<uint8_t>& pattern() {
  static const std::vector<uint8_t> bytes = [] {
    std::vector<uint8_t> out(2 * kPeriod);
    for (size_t i = 0; i < out.size(); ++i) {
      out[i] = static_cast<uint8_t>(((i % kPeriod) * 0x9E3779B97F4A7C15ull) >> 56);
    }
    return out;
  }();
  return bytes;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  Input in(data, size);
  const uint8_t c = in.byte();
  const size_t capacity = (c & 0x80) ? ((c & 0x7F) + 1u) * 97u : (c & 0x7F) + 1u;
  ring_buffer_s ring(capacity);
  FUZZ_CHECK(ring.capacity() == capacity);
  FUZZ_CHECK(ring.size() == 0);

  // The reference queue: the bytes between these two stream positions.
  uint64_t readPos = 0;
  uint64_t writePos = 0;
  const uint8_t* stream = pattern().data();
  std::vector<uint8_t> buf;
  for (size_t ops = 0; ops + 1 < size; ++ops) {
    const uint8_t op = in.byte();
    const unsigned v = op & 0x7F;
    const size_t len = v >= 120 ? (v - 119) * capacity / 3 : v;
    const size_t stored = static_cast<size_t>(writePos - readPos);
    if (op & 0x80) {
      const size_t put = ring.write(stream + writePos % kPeriod, len);
      FUZZ_CHECK(put == std::min(len, capacity - stored));
      writePos += put;
    } else {
      buf.assign(len + 1, 0xA5); // one guard byte behind the request
      const size_t got = ring.read(buf.data(), len);
      FUZZ_CHECK(got == std::min(len, stored));
      // Exactly the oldest bytes, in order, and nothing written beyond them.
      FUZZ_CHECK(std::memcmp(buf.data(), stream + readPos % kPeriod, got) == 0);
      FUZZ_CHECK(std::count(buf.begin() + static_cast<long>(got), buf.end(), 0xA5) ==
                 static_cast<long>(len + 1 - got));
      readPos += got;
    }
    FUZZ_CHECK(ring.size() == writePos - readPos);
  }
  return 0;
}
