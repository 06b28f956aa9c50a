// TSecurityTransport and TNonblockingSecurityTransport (encrypted and plain), each over
// an inner transport under the test's control. Every frame is checked byte for byte
// against frameOf(), which writes what the other end of the link expects.
#include <thriftusb/transport/TNonblockingSecurityTransport.h>
#include <thriftusb/transport/TSecurityTransport.h>
#include <thriftusb/util/ThriftCompat.h>

#include <chrono>
#include <deque>

#include <gtest/gtest.h>

#include "support/Bytes.h"
#include "support/Expect.h"
#include "support/FdIo.h"
#include "support/SyscallSpy.h"

using namespace apache::thrift::transport;
using namespace thriftusb::test;
using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;
using Lines = std::vector<std::string>;

namespace {

// read() hands out at most one queued chunk per call, 0 when none is queued (the end
// of data, or nothing yet), so Thrift's readAll() ends with "No more data to read."
// The log holds each write's bytes and each flush.
struct FakeInner : TVirtualTransport<FakeInner> {
  uint32_t read(uint8_t* buf, uint32_t len) {
    if (chunks.empty()) return 0;
    const auto n = static_cast<uint32_t>(chunks.front().copy(reinterpret_cast<char*>(buf), len));
    chunks.front().erase(0, n);
    if (chunks.front().empty()) chunks.pop_front();
    return n;
  }
  void write(const uint8_t* buf, uint32_t len) { log.emplace_back(buf, buf + len); }
  void flush() override { log.push_back("flush"); }
  std::deque<std::string> chunks;
  Lines log;
};

std::string readString(TTransport& t, uint32_t len) {
  std::string out(len, '\0');
  return out.substr(0, t.read(u8(out), len));
}

// Exposes the cipher buffer, which a flush gives back above the reclaim threshold, and
// (Thrift 0.14 and later) restarts the message-size count.
template <class Transport>
struct Probe : Transport {
  using Transport::Transport;
  uint32_t wCipherBufSize() const { return this->wCipherBufSize_; }
  void restartMessageSizeCount() { this->resetConsumedMessageSize(); }
};

// The transports under test: TSecurityTransport, TNonblockingSecurityTransport
// encrypted and plain, and in waking mode, which over an inner transport that cannot
// announce bytes polls as before.
template <bool B, bool E = true, WaitMode M = WaitMode::Polling>
struct Config {
  static constexpr bool kBlocking = B, kEncrypted = E;
  static constexpr WaitMode kMode = M;
};

} // namespace

template <class Config>
class SecurityTransport : public ::testing::Test {
protected:
  // Virtual time: a wait for a frame that is not coming ends at once instead of in 300 s.
  SecurityTransport() { spy.setVirtualTime(true); }
  auto make(uint32_t reclaim = 0xFFFFFFFF, uint32_t maxFrame = 1 << 20) {
    if constexpr (Config::kBlocking) {
      return std::make_shared<Probe<TSecurityTransport>>(inner, cipher, reclaim, maxFrame);
    } else {
      auto t = std::make_shared<Probe<TNonblockingSecurityTransport>>(
          inner, cipher, Config::kEncrypted, reclaim, maxFrame);
      t->setWaitMode(Config::kMode);
      return t;
    }
  }
  std::string frame(const std::string& payload) { return frameOf(payload, cipher); }
  SyscallSpy spy;
  std::shared_ptr<FakeInner> inner = std::make_shared<FakeInner>();
  // Plain mode gets no cipher: a call to it would crash the test.
  const std::shared_ptr<Sm4Cipher> cipher = Config::kEncrypted ? std::make_shared<Sm4Cipher>(
      "0123456789abcdef", Sm4Cipher::Mode::CBC, "fedcba9876543210") : nullptr;
};
using Configs = ::testing::Types<Config<true>, Config<false>, Config<false, false>,
                                 Config<false, true, WaitMode::Waking>>;
TYPED_TEST_SUITE(SecurityTransport, Configs);

// Each flush sends one frame in one write; a read joins a header that comes in pieces
// and serves one frame, never topped up from the next.
TYPED_TEST(SecurityTransport, EachFlushSendsOneFrameInOneWriteAndItReadsBack) {
  auto t = this->make();
  // With no data, TSecurityTransport reads 0 at once (the inner read already waited);
  // TNonblockingSecurityTransport polls every 10 ms and gives up after 300 s.
  const auto start = Clock::now();
  if (TypeParam::kBlocking) {
    EXPECT_EQ(readString(*t, 16), "");
  } else {
    EXPECT_TRUE(throwsTransport([&] { readString(*t, 8); }, TTransportException::TIMED_OUT,
                                "readFrame timeout."));
    EXPECT_GE(Clock::now() - start, 300s);
    EXPECT_LT(Clock::now() - start, 300s + 20ms);
    const auto sleeps = this->spy.lengths(Sys::Usleep);
    EXPECT_EQ(sleeps, std::vector<size_t>(sleeps.size(), 10000u));
  }
  // 15 bytes take one cipher block, 16 and 17 two; 1030 outgrows the write buffer;
  // 70000 needs the header's upper half.
  for (uint32_t n : {1, 15, 16, 17, 1030, 70000}) {
    SCOPED_TRACE(n);
    const std::string payload = patternBytes(n, n), wire = this->frame(payload);
    this->inner->log.clear();
    t->write(u8(payload), n);
    t->flush();
    t->flush(); // nothing buffered: no frame, but the inner transport is flushed
    EXPECT_TRUE(this->inner->log == (Lines{wire, "flush", "flush"})); // not printed: up to 70 KB
    EXPECT_EQ(t->writeEnd(), 4u);
    this->inner->chunks = {wire.substr(0, 2), wire.substr(2, 1), wire.substr(3), this->frame("x")};
    EXPECT_EQ(readString(*t, n + 1), payload);
    EXPECT_EQ(t->readEnd(), n + 4);
    EXPECT_EQ(readString(*t, 8), "x");
  }
  this->inner->chunks = {std::string(3, '\0')}; // and then nothing
  const char* eof = TypeParam::kBlocking ? "No more data to read after partial frame header."
                                         : "No more data to read.";
  EXPECT_TRUE(throwsTransport([&] { readString(*t, 8); }, TTransportException::END_OF_FILE, eof));
}

TYPED_TEST(SecurityTransport, HeaderChecksRunInOrderBeforeTheBodyIsRead) {
  auto t = this->make(0xFFFFFFFF, 64);
  const std::string invalid = TypeParam::kEncrypted ? "Received an invalid encrypt size frame" : "";
  // An empty message: plain frames take any length, 0 included.
  const std::pair<uint32_t, std::string> cases[] = {{0xFFFFFFFFu, "Frame size has negative value"},
      {65, "Received an oversized frame"}, {0, invalid}, {17, invalid}};
  for (const auto& [size, message] : cases) {
    SCOPED_TRACE(size);
    const std::string body(message.empty() ? size : 16, 'b');
    this->inner->chunks = {header(size) + body};
    const auto type =
        size >> 31 ? TTransportException::UNKNOWN : TTransportException::CORRUPTED_DATA;
    if (message.empty()) {
      EXPECT_EQ(readString(*t, 80), body);
      continue;
    }
    EXPECT_TRUE(throwsTransport([&] { readString(*t, 80); }, type, message));
    EXPECT_EQ(this->inner->chunks.front(), body); // the stream stays behind the header
  }
  const std::string largest = patternBytes(TypeParam::kEncrypted ? 50 : 64); // a 64-byte body
  this->inner->chunks = {this->frame(largest)};
  EXPECT_EQ(readString(*t, 100), largest);
}

TYPED_TEST(SecurityTransport, BuffersAboveTheReclaimThresholdAreGivenBack) {
  const std::string big = patternBytes(300), small = patternBytes(40);
  const auto bigBody = static_cast<uint32_t>(this->frame(big).size() - 4);
  // "Above" is strict: a body of exactly the threshold is kept. readEnd gives the body
  // buffer back and with it the unread bytes; a flush gives back the cipher buffer.
  for (const uint32_t threshold : {bigBody - 1, bigBody}) {
    SCOPED_TRACE(threshold);
    auto t = this->make(threshold);
    this->inner->chunks = {this->frame(big), this->frame(small)};
    EXPECT_EQ(readString(*t, 10), big.substr(0, 10));
    EXPECT_EQ(t->readEnd(), 304u);
    EXPECT_EQ(readString(*t, 1000), threshold < bigBody ? small : big.substr(10));
    t->write(u8(big), 300); // a cipher buffer of 308 bytes, above either threshold
    t->flush();
    EXPECT_EQ(t->wCipherBufSize(), 0u);
  }
}

// Thrift 0.14 and later count the bytes a protocol consumes against a maximum message
// size; each frame starts the count afresh, so a long-lived connection outlasts it.
TYPED_TEST(SecurityTransport, EachFrameStartsAFreshMessageSizeCount) {
  if constexpr (!compat::kHasConfiguration) {
    GTEST_SKIP() << "this Thrift counts no message size";
  } else {
    auto t = this->make();
    t->getConfiguration()->setMaxMessageSize(4096);
    t->restartMessageSizeCount(); // from here against the new limit
    for (int m = 0; m < 5; ++m) {
      this->inner->chunks.push_back(this->frame(patternBytes(3000, m)));
      EXPECT_EQ(readString(*t, 1), patternBytes(1, m));
      t->consume(2999); // counted, and over the limit unless each frame starts afresh
    }
  }
}
