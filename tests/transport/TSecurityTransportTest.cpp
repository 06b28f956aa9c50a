// TSecurityTransport and TNonblockingSecurityTransport (encrypted and plain): what they
// share is run on each, then what each adds, and a long stream. Every frame is checked
// byte for byte against frameOf(), so the two transports, and the runtime's
// TFramedTransport for plain frames, read what the others write.
#include <thriftusb/transport/TNonblockingSecurityTransport.h>
#include <thriftusb/transport/TNonblockingSecurityTransportFactory.h>
#include <thriftusb/transport/TSecurityTransport.h>
#include <thriftusb/transport/TSecurityTransportFactory.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <deque>
#include <stdexcept>
#include <string>
#include <typeindex>
#include <vector>

#include <gtest/gtest.h>
#include <thrift/protocol/TCompactProtocol.h>
#include <thrift/transport/TBufferTransports.h>

#include "support/Expect.h"
#include "support/FdIo.h"
#include "support/SyscallSpy.h"

using namespace apache::thrift::transport;
using namespace thriftusb::test;
using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

namespace {

// An inner transport under the test's control. read() hands out the queued chunks,
// at most one per call; it gives 0 bytes before silentUntil or with nothing queued.
// readAll() takes what is queued up to the length asked, possibly nothing, without
// throwing. Writes are collected; calls are logged.
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
  void open() override { log.push_back("open"); }
  void close() override { log.push_back("close"); }
  bool peek() override {
    log.push_back("peek");
    return false;
  }

  std::deque<std::string> chunks;
  std::string written;
  std::vector<std::string> log;
  size_t reads = 0;
  Clock::time_point silentUntil{};
};

// Exposes a framed transport's buffer capacities.
template <class Transport>
struct Probe : Transport {
  using Transport::Transport;
  uint32_t wBufSize() const { return this->wBufSize_; }
  uint32_t wCipherBufSize() const { return this->wCipherBufSize_; }
  uint32_t rBufSize() const { return this->rBufSize_; }
  uint32_t rPlainBufSize() const { return this->rPlainBufSize_; }
};

std::shared_ptr<Sm4Cipher> testCipher() {
  return std::make_shared<Sm4Cipher>("0123456789abcdef", Sm4Cipher::Mode::CBC, "fedcba9876543210");
}

std::string header(uint32_t n) {
  return {char(n >> 24), char(n >> 16), char(n >> 8), char(n)};
}

void writeString(TTransport& t, const std::string& s) {
  t.write(reinterpret_cast<const uint8_t*>(s.data()), static_cast<uint32_t>(s.size()));
}

// The frame that carries `payload` (not empty): encrypted by a cipher of its own with
// the same key, or plain as the runtime's TFramedTransport writes it, so that plain
// frames are checked against the framing they must interwork with.
std::string frameOf(const std::string& payload, bool encrypted) {
  if (!encrypted) {
    auto memory = std::make_shared<TMemoryBuffer>();
    TFramedTransport framed(memory);
    writeString(framed, payload);
    framed.flush();
    return memory->getBufferAsString();
  }
  std::string body(payload.size() + 16, '\0');
  long length = static_cast<long>(body.size());
  testCipher()->encrypt(reinterpret_cast<const unsigned char*>(payload.data()),
                        static_cast<long>(payload.size()),
                        reinterpret_cast<unsigned char*>(&body[0]), &length);
  return header(static_cast<uint32_t>(length)) + body.substr(0, static_cast<size_t>(length));
}

std::string readString(TTransport& t, uint32_t len, bool all = false) {
  std::string out(len, '\0');
  auto* buf = reinterpret_cast<uint8_t*>(&out[0]);
  out.resize(all ? t.readAll(buf, len) : t.read(buf, len));
  return out;
}

// The transports under test, one type each for the typed tests.
struct Secure {
  using Transport = TSecurityTransport;
  static constexpr bool kEncrypted = true;
  static constexpr const char* kOverLimit = "Attempted to write over 2 GB to TSecurityTransport.";
  static auto make(std::shared_ptr<FakeInner> inner, uint32_t reclaim = 0xFFFFFFFF,
                   uint32_t maxFrame = 1 << 20) {
    return std::make_shared<Probe<Transport>>(inner, testCipher(), reclaim, maxFrame);
  }
};
template <bool Encrypted>
struct Nonblocking {
  using Transport = TNonblockingSecurityTransport;
  static constexpr bool kEncrypted = Encrypted;
  static constexpr const char* kOverLimit =
      "Attempted to write over 2 GB to TNonblockingSecurityTransport.";
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
  SyscallSpy spy;
  std::shared_ptr<FakeInner> inner = std::make_shared<FakeInner>();
  static constexpr bool kEnc = Config::kEncrypted;
};
using SharedConfigs = ::testing::Types<Secure, Nonblocking<true>, Nonblocking<false>>;
TYPED_TEST_SUITE(SecurityTransportShared, SharedConfigs);

TYPED_TEST(SecurityTransportShared, EachFlushSendsOneFrameInOneWriteAndItReadsBack) {
  auto t = TypeParam::make(this->inner);
  t->flush(); // nothing buffered: no frame, but the inner transport is flushed
  EXPECT_EQ(this->inner->log, std::vector<std::string>{"flush"});
  // 1 and 15 bytes take one cipher block, 16 and 17 two; 1030 outgrows the buffer.
  for (uint32_t n : {1, 15, 16, 17, 100, 1030}) {
    SCOPED_TRACE(n);
    const std::string payload = patternBytes(n, n), frame = frameOf(payload, this->kEnc);
    EXPECT_EQ(frame.substr(0, 4), header(this->kEnc ? (n & ~15u) + 16 : n));
    this->inner->log.clear();
    this->inner->written.clear();
    writeString(*t, payload);
    t->flush();
    EXPECT_EQ(this->inner->written, frame);
    EXPECT_EQ(this->inner->log,
              (std::vector<std::string>{"write " + std::to_string(frame.size()), "flush"}));
    EXPECT_EQ(t->writeEnd(), 4u);
    this->inner->chunks.push_back(frame);
    EXPECT_EQ(readString(*t, n), payload);
    EXPECT_EQ(t->readEnd(), n + 4);
  }
}

TYPED_TEST(SecurityTransportShared, HeaderChecksRunInOrderBeforeTheBodyIsRead) {
  auto t = TypeParam::make(this->inner, 0xFFFFFFFF, 64);
  const std::string invalid = this->kEnc ? "Received an invalid encrypt size frame" : "";
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
  const std::string largest = patternBytes(this->kEnc ? 50 : 64); // a body of exactly 64
  this->inner->chunks = {frameOf(largest, this->kEnc)};
  EXPECT_EQ(readString(*t, 100), largest);
}

TYPED_TEST(SecurityTransportShared, AReadNeverWaitsForOrSpansTheNextFrame) {
  auto t = TypeParam::make(this->inner);
  const std::string first = patternBytes(130, 1), second = patternBytes(20, 2);
  this->inner->chunks = {frameOf(first, this->kEnc), frameOf(second, this->kEnc)};
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

TYPED_TEST(SecurityTransportShared, BuffersGrowAsNeededAndAreReclaimedAboveTheThreshold) {
  auto t = TypeParam::make(this->inner);
  writeString(*t, std::string(1020, 'a')); // fills the 1024 bytes behind the header slot
  EXPECT_EQ(t->wBufSize(), 1024u);
  writeString(*t, "b");
  EXPECT_EQ(t->wBufSize(), 2048u);
  writeString(*t, std::string(3000, 'c'));
  EXPECT_EQ(t->wBufSize(), 4096u);
  t->flush(); // 4021 bytes: room for header and cipher text, none for plain frames
  EXPECT_EQ(t->wCipherBufSize(), this->kEnc ? 4016u + 16 + 4 : 0u);

  const std::string big = patternBytes(300), small = patternBytes(40);
  const auto bigBody = static_cast<uint32_t>(frameOf(big, this->kEnc).size() - 4);
  this->inner->chunks = {frameOf(big, this->kEnc), frameOf(small, this->kEnc)};
  EXPECT_EQ(readString(*t, 1000), big);
  EXPECT_EQ(t->rBufSize(), bigBody);
  EXPECT_EQ(t->rPlainBufSize(), this->kEnc ? bigBody : 0u);
  EXPECT_EQ(readString(*t, 1000), small); // a smaller frame keeps both buffers
  EXPECT_EQ(t->rBufSize(), bigBody);
  EXPECT_EQ(t->rPlainBufSize(), this->kEnc ? bigBody : 0u);

  // Threshold below every buffer: a flush leaves a 1024-byte write buffer and no
  // cipher buffer (and the read side as it was); readEnd gives the body buffer back
  // and drops the unread bytes.
  auto r = TypeParam::make(this->inner, 100);
  this->inner->chunks = {frameOf(big, this->kEnc), frameOf(small, this->kEnc)};
  EXPECT_EQ(readString(*r, 10), big.substr(0, 10));
  writeString(*r, std::string(2000, 'd'));
  r->flush();
  EXPECT_EQ(r->wBufSize(), 1024u);
  EXPECT_EQ(r->writeEnd(), 4u);
  EXPECT_EQ(r->wCipherBufSize(), 0u);
  EXPECT_EQ(readString(*r, 10), big.substr(10, 10));
  EXPECT_EQ(r->readEnd(), 304u);
  EXPECT_EQ(r->rBufSize(), 0u);
  EXPECT_EQ(readString(*r, 1000), small);

  // "Above" the threshold is strict: a body of exactly the threshold is kept.
  for (const uint32_t threshold : {bigBody - 1, bigBody}) {
    auto e = TypeParam::make(this->inner, threshold);
    this->inner->chunks = {frameOf(big, this->kEnc)};
    EXPECT_EQ(readString(*e, 1000), big);
    e->readEnd();
    EXPECT_EQ(e->rBufSize(), threshold < bigBody ? 0u : bigBody) << threshold;
  }
}

TYPED_TEST(SecurityTransportShared, WritesBeyondTheFrameLimitAreRefusedAndChangeNothing) {
  auto t = TypeParam::make(this->inner);
  writeString(*t, "kept");
  // Refused by arithmetic alone, before a byte of the small source is read. An
  // encrypted payload of 2^31 - 16 bytes or more is refused too: its cipher text
  // would not fit the signed header.
  std::vector<uint32_t> refused = {0x80000000u - 8, 0xFFFFFFFFu, 0xFFFFFFFCu};
  if (this->kEnc) {
    refused.insert(refused.end(), {0x7FFFFFF4u - 8, 0x7FFFFFFFu - 8});
  }
  const uint8_t source[8] = {};
  for (uint32_t len : refused) {
    SCOPED_TRACE(len);
    EXPECT_TRUE(throwsTransport([&] { t->write(source, len); }, TTransportException::BAD_ARGS,
                                TypeParam::kOverLimit));
    EXPECT_EQ(t->writeEnd(), 8u);
  }
  t->flush();
  EXPECT_EQ(this->inner->written, frameOf("kept", this->kEnc));
}

TYPED_TEST(SecurityTransportShared, CloseFlushesFirstAndDestructionNeitherFlushesNorCloses) {
  auto t = TypeParam::make(this->inner);
  t->open();
  writeString(*t, "last words");
  t->close();
  const auto frameSize = std::to_string(frameOf("last words", this->kEnc).size());
  const std::vector<std::string> expected = {"open", "write " + frameSize, "flush", "close"};
  EXPECT_EQ(this->inner->log, expected);
  writeString(*t, "lost");
  t.reset();
  EXPECT_EQ(this->inner->log, expected);
}

TEST(TSecurityTransport, EndOfDataBeforeAFrameReadsAsZeroAndInsideAHeaderThrows) {
  auto inner = std::make_shared<FakeInner>();
  auto t = Secure::make(inner);
  EXPECT_EQ(readString(*t, 16), "");
  EXPECT_FALSE(t->readFrame());
  inner->chunks = {std::string("\0\0", 2), std::string("\0\x10", 2), frameOf("x", true).substr(4)};
  EXPECT_EQ(readString(*t, 16), "x"); // header pieces are joined
  inner->chunks = {std::string(3, '\0')};
  EXPECT_TRUE(throwsTransport([&] { readString(*t, 16); }, TTransportException::END_OF_FILE,
                              "No more data to read after partial frame header."));
}

TEST(SecurityTransportSettings, UnusableSettingsAreRefusedByTransportsAndFactories) {
  auto inner = std::make_shared<FakeInner>();
  const uint32_t tooLarge = 0x80000000u;
  EXPECT_THROW(TSecurityTransport(inner, nullptr), std::invalid_argument);
  EXPECT_THROW(TSecurityTransport(nullptr, testCipher()), std::invalid_argument);
  EXPECT_THROW(TSecurityTransport(inner, testCipher(), 0, tooLarge), std::invalid_argument);
  EXPECT_NO_THROW(TSecurityTransport(inner, testCipher(), 0, tooLarge - 1));
  EXPECT_THROW(TNonblockingSecurityTransport(inner, nullptr), std::invalid_argument);
  EXPECT_THROW(TNonblockingSecurityTransport(inner, nullptr, false, 0, tooLarge),
               std::invalid_argument);
  EXPECT_NO_THROW(TNonblockingSecurityTransport(inner, nullptr, false)); // plain: no cipher
  EXPECT_THROW(TSecurityTransportFactory(nullptr), std::invalid_argument);
  EXPECT_THROW(TNonblockingSecurityTransportFactory(testCipher(), true, 0, tooLarge),
               std::invalid_argument);
}

TEST(SecurityTransportSettings, FactoriesMakeANewTransportPerCallWithTheirSettings) {
  auto inner = std::make_shared<FakeInner>();
  const struct {
    std::shared_ptr<TTransportFactory> factory;
    std::type_index type;
    bool encrypted;
  } cases[] = {
      {std::make_shared<TSecurityTransportFactory>(testCipher(), 0xFFFFFFFF, 32),
       typeid(TSecurityTransport), true},
      {std::make_shared<TNonblockingSecurityTransportFactory>(testCipher(), true, 0xFFFFFFFF, 32),
       typeid(TNonblockingSecurityTransport), true},
      {std::make_shared<TNonblockingSecurityTransportFactory>(nullptr, false, 0xFFFFFFFF, 32),
       typeid(TNonblockingSecurityTransport), false},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.type.name());
    auto a = c.factory->getTransport(inner), b = c.factory->getTransport(inner);
    ASSERT_NE(a, b);
    EXPECT_EQ(std::type_index(typeid(*a)), c.type);
    inner->written.clear();
    writeString(*a, "hi");
    a->flush();
    EXPECT_EQ(inner->written, frameOf("hi", c.encrypted));
    inner->chunks = {header(48) + std::string(48, 'x')}; // above the factory's 32
    EXPECT_TRUE(throwsTransport([&] { readString(*b, 4); }, TTransportException::CORRUPTED_DATA,
                                "Received an oversized frame"));
  }
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
  const auto sleeps = spy.lengths(Sys::Usleep);
  EXPECT_EQ(std::count(sleeps.begin(), sleeps.end(), 10000u), static_cast<long>(sleeps.size()));
  EXPECT_EQ(inner->reads, sleeps.size() + 1); // the first poll comes before any sleep
  // The real time the polls take moves the clock too: up to 3 s of it on a loaded
  // machine under a sanitizer, which 10 ms steps then need not cover.
  EXPECT_GE(sleeps.size(), 29700u);
}

TEST_P(TNonblockingSecurityTransportWait, AFrameAfterIdlePollingOrInPiecesIsReadNormally) {
  inner->silentUntil = Clock::now() + 5s;
  const std::string frame = frameOf("hello", GetParam());
  inner->chunks = {frame.substr(0, 2), frame.substr(2, 2), frame.substr(4)};
  EXPECT_EQ(readString(*t, 5, true), "hello");
  EXPECT_NEAR(static_cast<double>(spy.count(Sys::Usleep)), 500.0, 5.0);
  // The header began with read(); the rest of it and the body came from readAll().
  EXPECT_EQ(inner->log, (std::vector<std::string>{"readAll 2",
                                                  "readAll " + std::to_string(frame.size() - 4)}));
  inner->chunks = {frame.substr(0, 3)}; // and then nothing: readAll gives 0
  EXPECT_TRUE(throwsTransport([&] { readString(*t, 8); }, TTransportException::END_OF_FILE,
                              "No more data to read after partial frame header."));
}

INSTANTIATE_TEST_SUITE_P(EncryptedAndPlain, TNonblockingSecurityTransportWait, ::testing::Bool());

// Thrift 0.14 and later count the bytes a protocol consumes against a maximum message
// size (100 MB by default). Each frame starts the count afresh, so a long-lived
// connection outlasts it. TCompactProtocol reads varints with borrow and consume,
// which are counted.
template <class Config>
class SecurityTransportStream : public ::testing::Test {};
using StreamConfigs = ::testing::Types<Secure, Nonblocking<false>>;
TYPED_TEST_SUITE(SecurityTransportStream, StreamConfigs);

TYPED_TEST(SecurityTransportStream, MoreThan100MBInManyMessagesPassesTheMessageSizeLimit) {
  using Transport = typename TypeParam::Transport;
  constexpr uint32_t kValues = 100000; // 10-byte varints: 1 MB per message
  auto out = std::make_shared<FakeInner>(), in = std::make_shared<FakeInner>();
  std::shared_ptr<Transport> writer = TypeParam::make(out), reader = TypeParam::make(in);
  apache::thrift::protocol::TCompactProtocolT<Transport> wp(writer), rp(reader);
  auto value = [](int m, uint32_t i) {
    return static_cast<int64_t>(0x8000000000000000ULL | (i * 2654435761ULL + m));
  };
  size_t carried = 0;
  for (int m = 0; m < 110; ++m) {
    wp.writeListBegin(apache::thrift::protocol::T_I64, kValues);
    for (uint32_t i = 0; i < kValues; ++i) {
      wp.writeI64(value(m, i));
    }
    wp.writeListEnd();
    writer->flush();
    carried += out->written.size();
    in->chunks.push_back(std::move(out->written));
    out->written.clear();

    apache::thrift::protocol::TType type;
    uint32_t size = 0, wrong = 0;
    rp.readListBegin(type, size);
    ASSERT_EQ(size, kValues);
    for (uint32_t i = 0; i < kValues; ++i) {
      int64_t v = 0;
      rp.readI64(v);
      wrong += v != value(m, i);
    }
    rp.readListEnd();
    reader->readEnd();
    ASSERT_EQ(wrong, 0u) << "message " << m;
  }
  EXPECT_GT(carried, 105000000u);
}
