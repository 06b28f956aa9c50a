// Frame decoding of TSecurityTransport and TNonblockingSecurityTransport (encrypted
// and plain) over an inner transport that serves fuzzed bytes in fuzzed pieces.
//
// The wire is what a sender transport of the same kind wrote for a few fuzzed payloads,
// followed by raw fuzzed bytes. A small reference decoder, written from the frame
// format alone, says what each read on the transport under test must give: the bytes
// of the current frame's payload, in order and never past a frame's end, or the
// transport exception of a bad header or of a wire that ends early. Anything else, a
// crash, a sanitizer report or a byte that did not arrive, is a finding.
//
// Layout:
//   config  1 byte  bits 0-1: 0 TSecurityTransport, 1 TNonblockingSecurityTransport
//                   encrypted, 2 the same plain; bit 2: maximum frame size 64 instead
//                   of 65536; bit 3: reclaim threshold 64 instead of never
//   W       1 byte  payloads the sender writes first (W & 15), each a 2-byte length
//                   L (L % 4097) and L bytes
//   K       1 byte  then K bytes: the most each read of the inner transport gives; 0 is
//                   an idle poll (no data yet) for the polling transport, 1 otherwise
//   M       1 byte  then M bytes: lengths of the reads on the transport under test
//                   (v gives v + 1, 255 gives 65536)
//   tail    rest    raw bytes after the sender's frames

#include <algorithm>
#include <cstring>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <thrift/transport/TBufferTransports.h>
#include <thrift/transport/TTransportException.h>
#include <thrift/transport/TVirtualTransport.h>

#include <thriftusb/transport/TNonblockingSecurityTransport.h>
#include <thriftusb/transport/TSecurityTransport.h>

#include <unistd.h>

#include "FuzzInput.h"

using apache::thrift::transport::TNonblockingSecurityTransport;
using apache::thrift::transport::TSecurityTransport;
using apache::thrift::transport::TBufferBase;
using apache::thrift::transport::TTransportException;
using Type = TTransportException::TTransportExceptionType;
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

// The inner transport. At the end of the wire the polling kind's read() throws, as a
// threaded transport's read time-out would; the waiting kind's gives 0 bytes, as
// TUSBSocket's peer hanging up would. readAll() gives all bytes asked for, or throws.
class Wire : public apache::thrift::transport::TVirtualTransport<Wire> {
public:
  Wire(std::string bytes, std::string splits, bool polling)
    : bytes_(std::move(bytes)), splits_(std::move(splits)), polling_(polling) {}

  uint32_t read(uint8_t* buf, uint32_t len) {
    if (pos_ == bytes_.size() && polling_) {
      throw TTransportException(TTransportException::END_OF_FILE, kExhausted);
    }
    size_t split = nextSplit();
    if (split == 0 && polling_ && idleBudget_ > 0) {
      --idleBudget_;
      return 0;
    }
    return take(buf, std::min<size_t>(len, std::max<size_t>(split, 1)));
  }

  uint32_t readAll(uint8_t* buf, uint32_t len) {
    for (uint32_t got = 0; got < len;) {
      if (pos_ == bytes_.size()) {
        throw TTransportException(TTransportException::END_OF_FILE, kNoMoreData);
      }
      got += take(buf + got, std::min<size_t>(len - got, std::max<size_t>(nextSplit(), 1)));
    }
    return len;
  }

  void write(const uint8_t* buf, uint32_t len) { bytes_.append(reinterpret_cast<const char*>(buf), len); }
  bool isOpen() const override { return true; }
  const std::string& bytes() const { return bytes_; }

private:
  size_t nextSplit() {
    return splits_.empty() ? bytes_.size()
                           : static_cast<uint8_t>(splits_[splitIndex_++ % splits_.size()]);
  }

  uint32_t take(uint8_t* buf, size_t want) {
    const size_t n = std::min(want, bytes_.size() - pos_);
    std::memcpy(buf, bytes_.data() + pos_, n);
    pos_ += n;
    return static_cast<uint32_t>(n);
  }

  std::string bytes_, splits_;
  bool polling_;
  size_t pos_ = 0, splitIndex_ = 0;
  int idleBudget_ = 64;
};

// One frame attempt on the wire: a frame's payload, or the error its header or the
// wire's end gives.
struct Event {
  bool frame;
  std::string payload;
  Type type;
  std::string message;
};

// Decodes @p wire as the format prescribes: a signed big-endian length, checked for
// sign, maximum and (encrypted) whole cipher blocks before the body is touched; a
// failed check leaves the wire just behind the header.
std::vector<Event> referenceDecode(const std::string& wire, bool encrypted, bool polling,
                                   int64_t maxFrame) {
  std::vector<Event> events;
  auto error = [&](Type type, const char* message) {
    events.push_back({false, {}, type, message});
  };
  for (size_t pos = 0; pos < wire.size();) {
    if (wire.size() - pos < 4) {
      // The waiting transport's read gives 0 for the rest of a header, the polling
      // transport's inner readAll throws.
      error(TTransportException::END_OF_FILE,
            polling ? kNoMoreData : "No more data to read after partial frame header.");
      break;
    }
    int32_t n = 0;
    for (int i = 0; i < 4; ++i) {
      n = static_cast<int32_t>(static_cast<uint32_t>(n) << 8 | static_cast<uint8_t>(wire[pos++]));
    }
    if (n < 0) {
      error(TTransportException::UNKNOWN, "Frame size has negative value");
    } else if (n > maxFrame) {
      error(TTransportException::CORRUPTED_DATA, "Received an oversized frame");
    } else if (encrypted && (n == 0 || n % 16 != 0)) {
      error(TTransportException::CORRUPTED_DATA, "Received an invalid encrypt size frame");
    } else if (wire.size() - pos < static_cast<size_t>(n)) {
      error(TTransportException::END_OF_FILE, kNoMoreData);
      break;
    } else {
      std::string body = wire.substr(pos, static_cast<size_t>(n));
      pos += static_cast<size_t>(n);
      if (encrypted) {
        std::string plain(body.size(), '\0');
        long length = static_cast<long>(plain.size());
        fuzzCipher()->decrypt(reinterpret_cast<const unsigned char*>(body.data()),
                              static_cast<long>(body.size()),
                              reinterpret_cast<unsigned char*>(&plain[0]), &length);
        body = plain.substr(0, static_cast<size_t>(length));
      }
      events.push_back({true, body, TTransportException::UNKNOWN, {}});
    }
  }
  return events;
}

// Reads through @p t what @p events say the wire holds, then the wire's end.
void decode(TBufferBase& t, const std::vector<Event>& events, const std::string& readLengths,
            bool polling) {
  size_t lengthIndex = 0;
  std::vector<uint8_t> buf(65536);
  auto read = [&] {
    const auto v = readLengths.empty()
                       ? 63
                       : static_cast<uint8_t>(readLengths[lengthIndex++ % readLengths.size()]);
    const uint32_t len = v == 255 ? 65536u : v + 1u;
    return std::make_pair(len, t.read(buf.data(), len));
  };
  auto fails = [&](Type type, const std::string& message) {
    try {
      read();
    } catch (const TTransportException& e) {
      return e.getType() == type && message == e.what();
    }
    return false;
  };
  for (const Event& event : events) {
    if (!event.frame) {
      FUZZ_CHECK(fails(event.type, event.message));
      continue;
    }
    size_t offset = 0;
    do {
      const auto [len, got] = read();
      // What is left of this frame, up to the length asked: never a byte of the next
      // frame, never one that did not arrive.
      FUZZ_CHECK(got == std::min<size_t>(len, event.payload.size() - offset));
      FUZZ_CHECK(std::memcmp(buf.data(), event.payload.data() + offset, got) == 0);
      offset += got;
    } while (offset < event.payload.size());
  }
  FUZZ_CHECK(polling ? fails(TTransportException::END_OF_FILE, kExhausted) : read().second == 0);
}

// A transport of the input's kind over @p inner, read through TBufferBase's inline read
// so that the exemption in fuzz/CMakeLists.txt applies to it.
std::shared_ptr<TBufferBase> framed(bool polling, bool encrypted, uint32_t reclaim,
                                   uint32_t maxFrame, std::shared_ptr<Wire> inner) {
  if (polling) {
    return std::make_shared<TNonblockingSecurityTransport>(
        inner, encrypted ? fuzzCipher() : nullptr, encrypted, reclaim, maxFrame);
  }
  return std::make_shared<TSecurityTransport>(inner, fuzzCipher(), reclaim, maxFrame);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  Input in(data, size);
  const uint8_t config = in.byte();
  const bool polling = (config & 3) != 0;
  const bool encrypted = (config & 3) != 2;
  const uint32_t maxFrame = (config & 4) ? 64 : 65536;
  const uint32_t reclaim = (config & 8) ? 64 : 0xFFFFFFFF;
  std::vector<std::string> payloads(in.byte() & 15);
  for (auto& p : payloads) {
    p = in.bytes(in.u16() % 4097);
  }
  const std::string splits = in.bytes(in.byte());
  const std::string readLengths = in.bytes(in.byte());

  // Each payload written in two pieces (the second may outgrow the write buffer) and
  // flushed as one frame; the frames decode to the payloads (an empty one sends none).
  auto sink = std::make_shared<Wire>("", "", false);
  const auto sender = framed(polling, encrypted, reclaim, maxFrame, sink);
  for (const auto& p : payloads) {
    const auto* bytes = reinterpret_cast<const uint8_t*>(p.data());
    const auto half = static_cast<uint32_t>(p.size() / 2);
    sender->write(bytes, half);
    sender->write(bytes + half, static_cast<uint32_t>(p.size()) - half);
    sender->flush();
  }
  payloads.erase(std::remove(payloads.begin(), payloads.end(), std::string()), payloads.end());
  std::vector<std::string> sent;
  for (const auto& e : referenceDecode(sink->bytes(), encrypted, polling, 0x7FFFFFFF)) {
    FUZZ_CHECK(e.frame);
    sent.push_back(e.payload);
  }
  FUZZ_CHECK(sent == payloads);

  const std::string wire = sink->bytes() + in.rest();
  decode(*framed(polling, encrypted, reclaim, maxFrame, std::make_shared<Wire>(wire, splits, polling)),
         referenceDecode(wire, encrypted, polling, maxFrame), readLengths, polling);
  return 0;
}
