// Frame decoding of TSecurityTransport and TNonblockingSecurityTransport (encrypted
// and plain) over an inner transport that serves fuzzed bytes in fuzzed pieces.
//
// The wire is what a sender transport of the same kind wrote for a few fuzzed payloads,
// followed by raw fuzzed bytes. A small reference decoder, written from the frame
// format alone, says what each read on the transport under test must give: the bytes
// of the current frame's payload, in order and never past a frame's end, or the
// transport exception of a bad header or of a wire that ends early. Anything else, a
// crash, a sanitizer report or a byte that did not arrive, is a finding.

#include <algorithm>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include <thrift/transport/TTransportException.h>
#include <thrift/transport/TVirtualTransport.h>

#include <thriftusb/cipher/Sm4Cipher.h>
#include <thriftusb/transport/TNonblockingSecurityTransport.h>
#include <thriftusb/transport/TSecurityTransport.h>

#include <unistd.h>

#include "FuzzInput.h"

using apache::thrift::transport::TNonblockingSecurityTransport;
using apache::thrift::transport::TSecurityTransport;
using apache::thrift::transport::TTransport;
using apache::thrift::transport::TTransportException;
using apache::thrift::transport::TVirtualTransport;
using namespace thriftusb::fuzz;

// The polling transport sleeps 10 ms between idle polls of its inner transport. Here
// an idle poll is one fuzzed split, so the sleeps are made instant; their number is
// bounded by the idle budget below, far from the 300 s frame wait.
extern "C" int usleep(useconds_t) {
  return 0;
}

namespace {

const char* const kExhausted = "fuzz wire exhausted";
const char* const kNoMoreData = "No more data to read.";

// The inner transport: hands out the wire in pieces no larger than the fuzzed split
// sizes. read() of the polling kind may also report "nothing yet" (0 bytes), and at the
// end of the wire throws, as a threaded transport's read time-out would; read() of the
// waiting kind reports the end of the wire as 0 bytes, as TUSBSocket's peer hanging up
// would. readAll() keeps its contract: all bytes asked for, or an exception.
class Wire : public TVirtualTransport<Wire> {
public:
  Wire(std::string bytes, std::string splits, bool polling)
    : bytes_(std::move(bytes)), splits_(std::move(splits)), polling_(polling) {}

  uint32_t read(uint8_t* buf, uint32_t len) {
    if (pos_ == bytes_.size()) {
      if (polling_) {
        throw TTransportException(TTransportException::END_OF_FILE, kExhausted);
      }
      return 0;
    }
    size_t split = nextSplit();
    if (split == 0) {
      if (polling_ && idleBudget_ > 0) {
        --idleBudget_;
        return 0;
      }
      split = 1;
    }
    return take(buf, std::min<size_t>(len, split));
  }

  uint32_t readAll(uint8_t* buf, uint32_t len) {
    uint32_t got = 0;
    while (got < len) {
      if (pos_ == bytes_.size()) {
        throw TTransportException(TTransportException::END_OF_FILE, kNoMoreData);
      }
      got += take(buf + got, std::min<size_t>(len - got, std::max<size_t>(nextSplit(), 1)));
    }
    return len;
  }

  void write(const uint8_t* buf, uint32_t len) {
    written_.append(reinterpret_cast<const char*>(buf), len);
  }

  bool isOpen() const override { return true; }

  const std::string& written() const { return written_; }

private:
  size_t nextSplit() {
    if (splits_.empty()) {
      return bytes_.size();
    }
    return static_cast<uint8_t>(splits_[splitIndex_++ % splits_.size()]);
  }

  uint32_t take(uint8_t* buf, size_t want) {
    const size_t n = std::min(want, bytes_.size() - pos_);
    std::memcpy(buf, bytes_.data() + pos_, n);
    pos_ += n;
    return static_cast<uint32_t>(n);
  }

  std::string bytes_;
  std::string splits_;
  bool polling_;
  size_t pos_ = 0;
  size_t splitIndex_ = 0;
  int idleBudget_ = 64;
  std::string written_;
};

// What the reference decoder finds on the wire, one entry per frame attempt.
struct Event {
  enum Kind { Frame, Error, End } kind;
  std::string payload;  // Frame
  uint32_t bodySize = 0; // Frame
  TTransportException::TTransportExceptionType type = TTransportException::UNKNOWN;
  std::string message;   // Error
};

// Decodes @p wire frame by frame as the format prescribes: a signed big-endian length,
// checked for sign, maximum and (encrypted) whole cipher blocks before the body is
// touched; a failed check leaves the wire just behind the header.
std::vector<Event> referenceDecode(const std::string& wire, bool encrypted, bool polling,
                                   int64_t maxFrame, Sm4Cipher& cipher) {
  std::vector<Event> events;
  size_t pos = 0;
  auto error = [&](TTransportException::TTransportExceptionType type, const char* message) {
    events.push_back(Event{Event::Error, {}, 0, type, message});
  };
  while (pos < wire.size()) {
    if (wire.size() - pos < 4) {
      // A header cut short: the waiting transport's read gives 0 for the rest, the
      // polling transport fetches the rest with the inner readAll, which throws.
      error(TTransportException::END_OF_FILE,
            polling ? kNoMoreData : "No more data to read after partial frame header.");
      pos = wire.size();
      break;
    }
    const auto* h = reinterpret_cast<const uint8_t*>(wire.data() + pos);
    const auto n = static_cast<int32_t>(static_cast<uint32_t>(h[0]) << 24 |
                                        static_cast<uint32_t>(h[1]) << 16 |
                                        static_cast<uint32_t>(h[2]) << 8 | h[3]);
    pos += 4;
    if (n < 0) {
      error(TTransportException::UNKNOWN, "Frame size has negative value");
    } else if (n > maxFrame) {
      error(TTransportException::CORRUPTED_DATA, "Received an oversized frame");
    } else if (encrypted && (n == 0 || n % 16 != 0)) {
      error(TTransportException::CORRUPTED_DATA, "Received an invalid encrypt size frame");
    } else if (wire.size() - pos < static_cast<size_t>(n)) {
      error(TTransportException::END_OF_FILE, kNoMoreData);
      pos = wire.size();
      break;
    } else {
      Event e{Event::Frame, wire.substr(pos, static_cast<size_t>(n)),
              static_cast<uint32_t>(n), TTransportException::UNKNOWN, {}};
      pos += static_cast<size_t>(n);
      if (encrypted) {
        std::string plain(e.payload.size(), '\0');
        long length = static_cast<long>(plain.size());
        cipher.decrypt(reinterpret_cast<const unsigned char*>(e.payload.data()),
                       static_cast<long>(e.payload.size()),
                       reinterpret_cast<unsigned char*>(&plain[0]), &length);
        e.payload = plain.substr(0, static_cast<size_t>(length));
      }
      events.push_back(e);
    }
  }
  events.push_back(Event{Event::End, {}, 0, TTransportException::UNKNOWN, {}});
  return events;
}

// Whether @p call throws a transport exception of @p type with @p message.
template <typename Call>
bool throwsExactly(Call&& call, TTransportException::TTransportExceptionType type,
                   const std::string& message) {
  return throwsWhere<TTransportException>(call, [&](const TTransportException& e) {
    return e.getType() == type && message == e.what();
  });
}

template <class Transport>
void decode(Transport& t, const std::vector<Event>& events, const std::string& readLengths,
            bool polling, bool readEndEachFrame) {
  size_t lengthIndex = 0;
  auto nextLength = [&]() -> uint32_t {
    if (readLengths.empty()) {
      return 64;
    }
    const auto v = static_cast<uint8_t>(readLengths[lengthIndex++ % readLengths.size()]);
    return v == 255 ? 65536u : v + 1u;
  };
  std::vector<uint8_t> buf(65536);

  for (const Event& event : events) {
    switch (event.kind) {
    case Event::Frame: {
      size_t offset = 0;
      do {
        const uint32_t len = nextLength();
        const uint32_t got = t.read(buf.data(), len);
        // Exactly what is left of this frame, up to the length asked: never a byte of
        // the next frame, never one that did not arrive.
        FUZZ_CHECK(got == std::min<size_t>(len, event.payload.size() - offset));
        FUZZ_CHECK(std::memcmp(buf.data(), event.payload.data() + offset, got) == 0);
        offset += got;
      } while (offset < event.payload.size());
      if (readEndEachFrame) {
        const uint32_t bytes = t.readEnd();
        FUZZ_CHECK(bytes == event.payload.size() + 4 || bytes == event.bodySize + 4);
      }
      break;
    }
    case Event::Error:
      FUZZ_CHECK(throwsExactly([&] { t.read(buf.data(), nextLength()); }, event.type,
                               event.message));
      break;
    case Event::End:
      if (polling) {
        FUZZ_CHECK(throwsExactly([&] { t.read(buf.data(), nextLength()); },
                                 TTransportException::END_OF_FILE, kExhausted));
      } else {
        FUZZ_CHECK(t.read(buf.data(), nextLength()) == 0);
        FUZZ_CHECK(!t.readFrame());
      }
      break;
    }
  }
}

// Writes each payload in two pieces (the second may outgrow the write buffer) and
// flushes it as one frame.
void send(TTransport& sender, const std::vector<std::string>& payloads) {
  for (const auto& p : payloads) {
    const auto* data = reinterpret_cast<const uint8_t*>(p.data());
    const auto half = static_cast<uint32_t>(p.size() / 2);
    sender.write(data, half);
    sender.write(data + half, static_cast<uint32_t>(p.size()) - half);
    sender.flush();
  }
}

// Runs @p use on a transport of the input's kind over @p inner.
template <typename Use>
void withTransport(bool polling, bool encrypted, uint32_t reclaim, uint32_t maxFrame,
                   const std::shared_ptr<Wire>& inner, Use&& use) {
  if (polling) {
    TNonblockingSecurityTransport t(inner, encrypted ? fuzzCipher() : nullptr, encrypted, reclaim,
                                    maxFrame);
    use(t);
  } else {
    TSecurityTransport t(inner, fuzzCipher(), reclaim, maxFrame);
    use(t);
  }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  Input in(data, size);
  const uint8_t config = in.byte();
  const uint8_t kind = config & 3;
  const bool polling = kind != kSecure;
  const bool encrypted = kind != kNonblockingPlain;
  const uint32_t maxFrame = (config & kSmallMaxFrame) ? 64 : 65536;
  const uint32_t reclaim = (config & kLowReclaim) ? 64 : 0xFFFFFFFF;

  std::vector<std::string> payloads(in.byte() & 15);
  for (auto& p : payloads) {
    p = in.bytes(in.u16() % 4097);
  }
  const std::string splits = in.bytes(in.byte());
  const std::string readLengths = in.bytes(in.byte());
  const std::string tail = in.rest();

  auto cipher = fuzzCipher();
  auto sink = std::make_shared<Wire>("", "", false);
  withTransport(polling, encrypted, reclaim, maxFrame, sink,
                [&](TTransport& sender) { send(sender, payloads); });
  std::string wire = sink->written();

  // The sender's frames decode to its payloads (empty ones send no frame).
  std::vector<std::string> sent;
  for (const auto& e : referenceDecode(wire, encrypted, polling, 0x7FFFFFFF, *cipher)) {
    FUZZ_CHECK(e.kind != Event::Error);
    if (e.kind == Event::Frame) {
      sent.push_back(e.payload);
    }
  }
  payloads.erase(std::remove(payloads.begin(), payloads.end(), std::string()), payloads.end());
  FUZZ_CHECK(sent == payloads);

  wire += tail;
  const auto events = referenceDecode(wire, encrypted, polling, maxFrame, *cipher);
  withTransport(polling, encrypted, reclaim, maxFrame,
                std::make_shared<Wire>(wire, splits, polling), [&](auto& t) {
                  decode(t, events, readLengths, polling, (config & kReadEndEachFrame) != 0);
                });
  return 0;
}
