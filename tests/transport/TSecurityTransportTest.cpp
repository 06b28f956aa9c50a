// TSecurityTransport and TNonblockingSecurityTransport (encrypted and plain): what they
// share runs on each, then what each adds. Every frame is checked byte for byte
// against frameOf(), which writes what the other end of the link expects.
#include <thriftusb/transport/TNonblockingSecurityTransport.h>
#include <thriftusb/transport/TNonblockingSecurityTransportFactory.h>
#include <thriftusb/transport/TSecurityTransport.h>
#include <thriftusb/transport/TSecurityTransportFactory.h>
#include <thriftusb/util/ThriftCompat.h>

#include <chrono>
#include <cstdint>
#include <cstring>
#include <deque>
#include <stdexcept>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <thrift/protocol/TCompactProtocol.h>

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

// An inner transport under the test's control. read() hands out at most one queued
// chunk per call, nothing before silentUntil; readAll() takes what is queued up to the
// length asked, possibly nothing, without throwing. Writes are kept; calls are logged.
class FakeInner : public TVirtualTransport<FakeInner> {
public:
  uint32_t read(uint8_t* buf, uint32_t len) {
    ++reads;
    if (chunks.empty() || Clock::now() < silentUntil) {
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
    log.push_back("readAll " + std::to_string(len));
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
  bool peek() override {
    log.push_back("peek");
    return false;
  }
  std::deque<std::string> chunks;
  std::string written;
  Lines log;
  size_t reads = 0;
  Clock::time_point silentUntil{};
};

// Exposes the buffers a transport gives back above its reclaim threshold.
template <class Transport>
struct Probe : Transport {
  using Transport::Transport;
  uint32_t wCipherBufSize() const { return this->wCipherBufSize_; }
  uint32_t rBufSize() const { return this->rBufSize_; }
};

std::shared_ptr<Sm4Cipher> testCipher() {
  return std::make_shared<Sm4Cipher>("0123456789abcdef", Sm4Cipher::Mode::CBC, "fedcba9876543210");
}

void writeString(TTransport& t, const std::string& s) {
  t.write(u8(s), static_cast<uint32_t>(s.size()));
}

std::string readString(TTransport& t, uint32_t len, bool all = false) {
  std::string out(len, '\0');
  out.resize(all ? t.readAll(u8(out), len) : t.read(u8(out), len));
  return out;
}

// The transports under test, one type each for the typed tests.
struct Secure {
  using Transport = TSecurityTransport;
  static constexpr bool kEncrypted = true;
  static constexpr const char* kName = "TSecurityTransport";
  static auto make(std::shared_ptr<FakeInner> inner, uint32_t reclaim = 0xFFFFFFFF,
                   uint32_t maxFrame = 1 << 20) {
    return std::make_shared<Probe<Transport>>(inner, testCipher(), reclaim, maxFrame);
  }
};
template <bool Encrypted>
struct Nonblocking {
  using Transport = TNonblockingSecurityTransport;
  static constexpr bool kEncrypted = Encrypted;
  static constexpr const char* kName = "TNonblockingSecurityTransport";
  // Plain mode gets no cipher: a call to it would crash the test.
  static auto make(std::shared_ptr<FakeInner> inner, uint32_t reclaim = 0xFFFFFFFF,
                   uint32_t maxFrame = 1 << 20) {
    return std::make_shared<Probe<Transport>>(inner, Encrypted ? testCipher() : nullptr,
                                              Encrypted, reclaim, maxFrame);
  }
};

} // namespace

template <class Config>
class SecurityTransportShared : public ::testing::Test {
protected:
  // A read that wrongly waits for a frame fails at once instead of after 300 s.
  SecurityTransportShared() { spy.setVirtualTime(true); }
  std::string frame(const std::string& payload) {
    return frameOf(payload, Config::kEncrypted ? testCipher() : nullptr);
  }
  SyscallSpy spy;
  std::shared_ptr<FakeInner> inner = std::make_shared<FakeInner>();
};
using SharedConfigs = ::testing::Types<Secure, Nonblocking<true>, Nonblocking<false>>;
TYPED_TEST_SUITE(SecurityTransportShared, SharedConfigs);

TYPED_TEST(SecurityTransportShared, EachFlushSendsOneFrameInOneWriteAndItReadsBack) {
  auto t = TypeParam::make(this->inner);
  t->flush(); // nothing buffered: no frame, but the inner transport is flushed
  EXPECT_EQ(this->inner->log, Lines{"flush"});
  // 15 bytes take one cipher block, 16 and 17 two; 1030 outgrows the write buffer;
  // 70000 needs the header's upper half.
  for (uint32_t n : {1, 15, 16, 17, 1030, 70000}) {
    SCOPED_TRACE(n);
    const std::string payload = patternBytes(n, n), frame = this->frame(payload);
    this->inner->log.clear();
    this->inner->written.clear();
    writeString(*t, payload);
    t->flush();
    EXPECT_EQ(this->inner->written, frame);
    EXPECT_EQ(this->inner->log, (Lines{"write " + std::to_string(frame.size()), "flush"}));
    EXPECT_EQ(t->writeEnd(), 4u);
    this->inner->chunks.push_back(frame);
    EXPECT_EQ(readString(*t, n), payload);
    EXPECT_EQ(t->readEnd(), n + 4);
  }
}

TYPED_TEST(SecurityTransportShared, HeaderChecksRunInOrderBeforeTheBodyIsRead) {
  auto t = TypeParam::make(this->inner, 0xFFFFFFFF, 64);
  const std::string invalid = TypeParam::kEncrypted ? "Received an invalid encrypt size frame" : "";
  const struct {
    uint32_t size;
    TTransportException::TTransportExceptionType type;
    std::string message; // empty: accepted
  } cases[] = {
      {0x80000000u, TTransportException::UNKNOWN, "Frame size has negative value"},
      {0xFFFFFFFFu, TTransportException::UNKNOWN, "Frame size has negative value"},
      {65, TTransportException::CORRUPTED_DATA, "Received an oversized frame"},
      {80, TTransportException::CORRUPTED_DATA, "Received an oversized frame"},
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

TYPED_TEST(SecurityTransportShared, AReadNeverWaitsForOrSpansTheNextFrame) {
  auto t = TypeParam::make(this->inner);
  const std::string first = patternBytes(130, 1), second = patternBytes(20, 2);
  this->inner->chunks = {this->frame(first), this->frame(second)};
  EXPECT_EQ(readString(*t, 100), first.substr(0, 100));
  const size_t readsBefore = this->inner->reads;
  this->inner->log.clear();
  EXPECT_TRUE(t->peek());
  uint32_t len = 31; // more than buffered: nothing to borrow
  EXPECT_EQ(t->borrow(nullptr, &len), nullptr);
  EXPECT_TRUE(throwsTransport([&] { t->consume(31); }, TTransportException::BAD_ARGS,
                              "consume did not follow a borrow."));
  EXPECT_EQ(readString(*t, 100), first.substr(100));
  EXPECT_EQ(this->inner->reads, readsBefore); // the inner transport was not asked
  EXPECT_TRUE(this->inner->log.empty());
  EXPECT_EQ(readString(*t, 100), second);
  EXPECT_FALSE(t->peek()); // the frame is used up: the inner transport answers
  EXPECT_EQ(this->inner->log.back(), "peek");
}

TYPED_TEST(SecurityTransportShared, BuffersAboveTheReclaimThresholdAreGivenBack) {
  const std::string big = patternBytes(300), small = patternBytes(40);
  const auto bigBody = static_cast<uint32_t>(this->frame(big).size() - 4);
  // "Above" is strict: a body of exactly the threshold is kept. readEnd gives the body
  // buffer back and drops the unread bytes; a flush gives back the cipher buffer.
  for (const uint32_t threshold : {bigBody - 1, bigBody}) {
    SCOPED_TRACE(threshold);
    const bool reclaimed = threshold < bigBody;
    auto t = TypeParam::make(this->inner, threshold);
    this->inner->chunks = {this->frame(big), this->frame(small)};
    EXPECT_EQ(readString(*t, 10), big.substr(0, 10));
    EXPECT_EQ(t->readEnd(), 304u);
    EXPECT_EQ(t->rBufSize(), reclaimed ? 0u : bigBody);
    EXPECT_EQ(readString(*t, 1000), reclaimed ? small : big.substr(10));
    writeString(*t, big); // a cipher buffer of 308 bytes, above either threshold
    t->flush();
    EXPECT_EQ(t->wCipherBufSize(), 0u);
  }
}

TYPED_TEST(SecurityTransportShared, WritesBeyondTheFrameLimitAreRefusedAndChangeNothing) {
  auto t = TypeParam::make(this->inner);
  writeString(*t, "kept");
  // Refused by arithmetic alone, before a byte of the small source is read. An
  // encrypted payload of 2^31 - 16 bytes or more is refused too: its cipher text
  // would not fit the signed header.
  std::vector<uint32_t> refused = {0x80000000u - 8, 0xFFFFFFFFu};
  if (TypeParam::kEncrypted) {
    refused.push_back(0x7FFFFFF4u - 8);
  }
  const uint8_t source[8] = {};
  for (uint32_t len : refused) {
    EXPECT_TRUE(throwsTransport([&] { t->write(source, len); }, TTransportException::BAD_ARGS,
                                std::string("Attempted to write over 2 GB to ") + TypeParam::kName +
                                    "."));
    EXPECT_EQ(t->writeEnd(), 8u);
  }
  t->flush();
  EXPECT_EQ(this->inner->written, this->frame("kept"));
}

// Thrift 0.14 and later count the bytes a protocol consumes against a maximum message
// size; each frame starts the count afresh, so a long-lived connection outlasts it.
TYPED_TEST(SecurityTransportShared, EachFrameStartsAFreshMessageSizeCount) {
  using Transport = typename TypeParam::Transport;
  if constexpr (!compat::kHasConfiguration) {
    GTEST_SKIP() << "this Thrift counts no message size";
  } else {
    auto out = std::make_shared<FakeInner>(), in = std::make_shared<FakeInner>();
    std::shared_ptr<Transport> writer = TypeParam::make(out), reader = TypeParam::make(in);
    reader->getConfiguration()->setMaxMessageSize(4096);
    reader->readEnd(); // the next frame counts against the new limit
    apache::thrift::protocol::TCompactProtocolT<Transport> wp(writer), rp(reader);
    for (int m = 0; m < 5; ++m) { // 3000 bytes each: 10-byte varints, read by borrow/consume
      wp.writeListBegin(apache::thrift::protocol::T_I64, 300);
      for (int i = 0; i < 300; ++i) {
        wp.writeI64(INT64_MIN + i);
      }
      writer->flush();
      in->chunks.push_back(std::move(out->written));
      out->written.clear();
      apache::thrift::protocol::TType type;
      uint32_t size = 0;
      rp.readListBegin(type, size);
      ASSERT_EQ(size, 300u);
      for (int i = 0; i < 300; ++i) {
        int64_t v = 0;
        rp.readI64(v);
        ASSERT_EQ(v, INT64_MIN + i) << "message " << m;
      }
    }
  }
}

TEST(TSecurityTransport, EndOfDataBeforeAFrameReadsAsZeroAndInsideAHeaderThrows) {
  auto inner = std::make_shared<FakeInner>();
  auto t = Secure::make(inner);
  EXPECT_EQ(readString(*t, 16), "");
  EXPECT_FALSE(t->readFrame());
  inner->chunks = {std::string("\0\0", 2), std::string("\0\x10", 2),
                   frameOf("x", testCipher()).substr(4)};
  EXPECT_EQ(readString(*t, 16), "x"); // header pieces are joined
  inner->chunks = {std::string(3, '\0')};
  EXPECT_TRUE(throwsTransport([&] { readString(*t, 16); }, TTransportException::END_OF_FILE,
                              "No more data to read after partial frame header."));
}

// TNonblockingSecurityTransport polls for a frame; virtual time lets 300 s pass at once.
class TNonblockingSecurityTransportWait : public ::testing::TestWithParam<bool> {
protected:
  void SetUp() override {
    spy.setVirtualTime(true);
    t = GetParam() ? Nonblocking<true>::make(inner) : Nonblocking<false>::make(inner);
  }
  SyscallSpy spy;
  std::shared_ptr<FakeInner> inner = std::make_shared<FakeInner>();
  std::shared_ptr<TNonblockingSecurityTransport> t;
};

TEST_P(TNonblockingSecurityTransportWait, AnIdleInnerTransportTimesOutAfter300Seconds) {
  const auto start = Clock::now();
  EXPECT_TRUE(throwsTransport([&] { readString(*t, 8); }, TTransportException::TIMED_OUT,
                              "readFrame timeout."));
  EXPECT_GE(Clock::now() - start, 300s);
  EXPECT_LT(Clock::now() - start, 300s + 20ms);
  const auto sleeps = spy.lengths(Sys::Usleep); // polls 10 ms apart
  EXPECT_EQ(sleeps, std::vector<size_t>(sleeps.size(), 10000u));
  EXPECT_EQ(inner->reads, sleeps.size() + 1); // the first poll comes before any sleep
}

TEST_P(TNonblockingSecurityTransportWait, AFrameAfterIdlePollingOrInPiecesIsReadNormally) {
  inner->silentUntil = Clock::now() + 5s;
  const std::string frame = frameOf("hello", GetParam() ? testCipher() : nullptr);
  inner->chunks = {frame.substr(0, 2), frame.substr(2, 2), frame.substr(4)};
  EXPECT_EQ(readString(*t, 5, true), "hello");
  // The header began with read(); the rest of it and the body came from readAll().
  EXPECT_EQ(inner->log, (Lines{"readAll 2", "readAll " + std::to_string(frame.size() - 4)}));
  inner->chunks = {frame.substr(0, 3)}; // and then nothing: readAll gives 0
  EXPECT_TRUE(throwsTransport([&] { readString(*t, 8); }, TTransportException::END_OF_FILE,
                              "No more data to read after partial frame header."));
}

INSTANTIATE_TEST_SUITE_P(EncryptedAndPlain, TNonblockingSecurityTransportWait, ::testing::Bool());
