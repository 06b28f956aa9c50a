// TSecurityTransport and TNonblockingSecurityTransport (encrypted and plain), each over
// an inner transport under the test's control. Every frame is checked byte for byte
// against frameOf(), which writes what the other end of the link expects.
#include <thriftusb/transport/TNonblockingSecurityTransport.h>
#include <thriftusb/transport/TSecurityTransport.h>
#include <thriftusb/util/ThriftCompat.h>

#include <chrono>
#include <cstring>
#include <deque>
#include <string>
#include <vector>

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
// of data, or nothing yet); readAll() takes what is queued up to the length asked.
class FakeInner : public TVirtualTransport<FakeInner> {
public:
  uint32_t read(uint8_t* buf, uint32_t len) {
    if (chunks.empty()) {
      return 0;
    }
    const auto n = static_cast<uint32_t>(std::min<size_t>(len, chunks.front().size()));
    std::memcpy(buf, chunks.front().data(), n);
    chunks.front().erase(0, n);
    if (chunks.front().empty()) {
      chunks.pop_front();
    }
    return n;
  }
  uint32_t readAll(uint8_t* buf, uint32_t len) {
    uint32_t got = 0;
    while (got < len && !chunks.empty()) {
      got += read(buf + got, len - got);
    }
    return got;
  }
  void write(const uint8_t* buf, uint32_t len) {
    log.push_back("write " + std::to_string(len));
    written.append(reinterpret_cast<const char*>(buf), len);
  }
  void flush() override { log.push_back("flush"); }
  std::deque<std::string> chunks;
  std::string written;
  Lines log;
};

std::shared_ptr<Sm4Cipher> testCipher() {
  return std::make_shared<Sm4Cipher>("0123456789abcdef", Sm4Cipher::Mode::CBC, "fedcba9876543210");
}

std::string readString(TTransport& t, uint32_t len) {
  std::string out(len, '\0');
  out.resize(t.read(u8(out), len));
  return out;
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
// encrypted and plain.
template <bool Blocking, bool Encrypted = true>
struct Config {
  static constexpr bool kBlocking = Blocking, kEncrypted = Encrypted;
};

} // namespace

template <class Config>
class SecurityTransport : public ::testing::Test {
protected:
  // Virtual time: a wait for a frame that is not coming ends at once instead of in 300 s.
  SecurityTransport() { spy.setVirtualTime(true); }
  auto make(uint32_t reclaim = 0xFFFFFFFF, uint32_t maxFrame = 1 << 20) {
    if constexpr (Config::kBlocking) {
      return std::make_shared<Probe<TSecurityTransport>>(inner, cipher(), reclaim, maxFrame);
    } else {
      return std::make_shared<Probe<TNonblockingSecurityTransport>>(
          inner, cipher(), Config::kEncrypted, reclaim, maxFrame);
    }
  }
  // Plain mode gets no cipher: a call to it would crash the test.
  std::shared_ptr<Sm4Cipher> cipher() { return Config::kEncrypted ? testCipher() : nullptr; }
  std::string frame(const std::string& payload) { return frameOf(payload, cipher()); }
  SyscallSpy spy;
  std::shared_ptr<FakeInner> inner = std::make_shared<FakeInner>();
};
using Configs = ::testing::Types<Config<true>, Config<false>, Config<false, false>>;
TYPED_TEST_SUITE(SecurityTransport, Configs);

TYPED_TEST(SecurityTransport, EachFlushSendsOneFrameInOneWriteAndItReadsBack) {
  auto t = this->make();
  t->flush(); // nothing buffered: no frame, but the inner transport is flushed
  EXPECT_EQ(this->inner->log, Lines{"flush"});
  // 15 bytes take one cipher block, 16 and 17 two; 1030 outgrows the write buffer;
  // 70000 needs the header's upper half.
  for (uint32_t n : {1, 15, 16, 17, 1030, 70000}) {
    SCOPED_TRACE(n);
    const std::string payload = patternBytes(n, n), frame = this->frame(payload);
    this->inner->log.clear();
    this->inner->written.clear();
    t->write(u8(payload), n);
    t->flush();
    EXPECT_EQ(this->inner->written, frame);
    EXPECT_EQ(this->inner->log, (Lines{"write " + std::to_string(frame.size()), "flush"}));
    EXPECT_EQ(t->writeEnd(), 4u);
    this->inner->chunks.push_back(frame);
    EXPECT_EQ(readString(*t, n), payload);
    EXPECT_EQ(t->readEnd(), n + 4);
  }
}

TYPED_TEST(SecurityTransport, HeaderChecksRunInOrderBeforeTheBodyIsRead) {
  auto t = this->make(0xFFFFFFFF, 64);
  const std::string invalid = TypeParam::kEncrypted ? "Received an invalid encrypt size frame" : "";
  const struct {
    uint32_t size;
    TTransportException::TTransportExceptionType type;
    std::string message; // empty: accepted
  } cases[] = {
      {0x80000000u, TTransportException::UNKNOWN, "Frame size has negative value"},
      {0xFFFFFFFFu, TTransportException::UNKNOWN, "Frame size has negative value"},
      {65, TTransportException::CORRUPTED_DATA, "Received an oversized frame"},
      {0, TTransportException::CORRUPTED_DATA, invalid},
      {17, TTransportException::CORRUPTED_DATA, invalid},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.size);
    const std::string body(c.message.empty() ? c.size : 16, 'b');
    this->inner->chunks = {header(c.size) + body};
    if (c.message.empty()) { // plain frames take any length, 0 included
      EXPECT_EQ(readString(*t, 80), body);
    } else {
      EXPECT_TRUE(throwsTransport([&] { readString(*t, 80); }, c.type, c.message));
      EXPECT_EQ(this->inner->chunks.front(), body); // the stream stays behind the header
    }
  }
  const std::string largest = patternBytes(TypeParam::kEncrypted ? 50 : 64); // a 64-byte body
  this->inner->chunks = {this->frame(largest)};
  EXPECT_EQ(readString(*t, 100), largest);
}

TYPED_TEST(SecurityTransport, AReadServesOneFrameAndHeaderPiecesAreJoined) {
  auto t = this->make();
  const std::string first = patternBytes(130, 1), second = this->frame("x");
  this->inner->chunks = {this->frame(first), second.substr(0, 2), second.substr(2, 1),
                         second.substr(3)};
  EXPECT_EQ(readString(*t, 100), first.substr(0, 100));
  EXPECT_EQ(readString(*t, 100), first.substr(100)); // not topped up from the next frame
  EXPECT_EQ(readString(*t, 100), "x");
  this->inner->chunks = {std::string(3, '\0')}; // and then nothing
  EXPECT_TRUE(throwsTransport([&] { readString(*t, 8); }, TTransportException::END_OF_FILE,
                              "No more data to read after partial frame header."));
}

// With no data, TSecurityTransport reads 0 at once (the inner read already waited);
// TNonblockingSecurityTransport polls every 10 ms and gives up after 300 s.
TYPED_TEST(SecurityTransport, AnIdleInnerTransportReadsAsNothingOrTimesOut) {
  auto t = this->make();
  if (TypeParam::kBlocking) {
    EXPECT_EQ(readString(*t, 16), "");
    return;
  }
  const auto start = Clock::now();
  EXPECT_TRUE(throwsTransport([&] { readString(*t, 8); }, TTransportException::TIMED_OUT,
                              "readFrame timeout."));
  EXPECT_GE(Clock::now() - start, 300s);
  EXPECT_LT(Clock::now() - start, 300s + 20ms);
  const auto sleeps = this->spy.lengths(Sys::Usleep);
  EXPECT_EQ(sleeps, std::vector<size_t>(sleeps.size(), 10000u));
}

TYPED_TEST(SecurityTransport, BuffersAboveTheReclaimThresholdAreGivenBack) {
  const std::string big = patternBytes(300), small = patternBytes(40);
  const auto bigBody = static_cast<uint32_t>(this->frame(big).size() - 4);
  // "Above" is strict: a body of exactly the threshold is kept. readEnd gives the body
  // buffer back and with it the unread bytes; a flush gives back the cipher buffer.
  for (const uint32_t threshold : {bigBody - 1, bigBody}) {
    SCOPED_TRACE(threshold);
    const bool reclaimed = threshold < bigBody;
    auto t = this->make(threshold);
    this->inner->chunks = {this->frame(big), this->frame(small)};
    EXPECT_EQ(readString(*t, 10), big.substr(0, 10));
    EXPECT_EQ(t->readEnd(), 304u);
    EXPECT_EQ(readString(*t, 1000), reclaimed ? small : big.substr(10));
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
      uint32_t len = 1;
      ASSERT_NE(t->borrow(nullptr, &len), nullptr);
      ASSERT_EQ(len, 2999u);
      t->consume(len); // counted, and over the limit unless each frame starts afresh
    }
  }
}
