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
//   config  1 byte  bits 0-1: 0 TSecurityTransport, 1 or 3 TNonblockingSecurityTransport
//                   encrypted, 2 the same plain; bit 2: maximum frame size 64 instead
//                   of 65536; bit 3: reclaim threshold 64 instead of never
//   W       1 byte  payloads the sender writes first (W & 15), each a 2-byte length
//                   L (L % 4097) and L bytes
//   K       1 byte  then K bytes: the most each read of the inner transport gives (0
//                   gives 1)
//   M       1 byte  then M bytes: lengths of the reads on the transport under test
//                   (v gives v + 1, 255 gives 65536)
//   tail    rest    raw bytes after the sender's frames

#include <cstring>

#include <thrift/transport/TBufferTransports.h>

#include <thriftusb/transport/TNonblockingSecurityTransport.h>
#include <thriftusb/transport/TSecurityTransport.h>

#include "FuzzInput.h"

using namespace apache::thrift::transport;

namespace {

const char* const kNoMoreData = "No more data to read.";

struct Config {
  bool polling, encrypted;
  uint32_t maxFrame, reclaim;
};

// The inner transport. At the end of the wire the polling kind's read() throws, as a
// threaded transport's read time-out would; the waiting kind's gives 0 bytes, as
// TUSBSocket's peer hanging up would. readAll() gives all bytes asked for, or throws.
struct Wire : TVirtualTransport<Wire> {
  Wire(std::string b, std::string s, bool p)
    : bytes(std::move(b)), splits(std::move(s)), polling(p) {}

  uint32_t read(uint8_t* buf, uint32_t len) {
    return polling || pos < bytes.size() ? take(buf, len) : 0;
  }

  uint32_t readAll(uint8_t* buf, uint32_t len) {
    for (uint32_t got = 0; got < len; got += take(buf + got, len - got)) {
    }
    return len;
  }

  // At most one fuzzed split (at least a byte) of what is left, or the end of the wire.
  uint32_t take(uint8_t* buf, size_t want) {
    if (pos == bytes.size()) {
      throw TTransportException(TTransportException::END_OF_FILE, kNoMoreData);
    }
    const size_t split =
        splits.empty() ? want : static_cast<uint8_t>(splits[splitIndex++ % splits.size()]);
    const size_t n = std::min({want, std::max<size_t>(split, 1), bytes.size() - pos});
    std::memcpy(buf, bytes.data() + pos, n);
    pos += n;
    return static_cast<uint32_t>(n);
  }

  std::string bytes, splits;
  bool polling;
  size_t pos = 0, splitIndex = 0;
};

// Walks @p wire as the frame format prescribes (a signed big-endian length, checked for
// sign, maximum and, encrypted, whole cipher blocks before the body is touched; a failed
// check leaves the wire just behind the header) and checks that reads through @p t give
// the same: each frame's payload, in pieces of the fuzzed lengths, never a byte past a
// frame's end; each bad header's or early end's exception.
void check(TBufferBase& t, const std::string& wire, const Config& c,
           const std::string& readLengths) {
  size_t pos = 0, index = 0;
  uint32_t len = 0;
  std::vector<uint8_t> buf(65536);
  auto read = [&] {
    const uint8_t v = readLengths.empty() ? 63 : readLengths[index++ % readLengths.size()];
    len = v == 255 ? 65536u : v + 1u;
    return t.read(buf.data(), len);
  };
  auto fails = [&](TTransportException::TTransportExceptionType type, const char* message) {
    try {
      read();
      FUZZ_CHECK(!"a read that must fail gave bytes");
    } catch (const TTransportException& e) {
      FUZZ_CHECK(e.getType() == type && std::strcmp(message, e.what()) == 0);
    }
  };
  while (wire.size() - pos >= 4) {
    int32_t n = 0;
    for (int i = 0; i < 4; ++i) {
      n = static_cast<int32_t>(static_cast<uint32_t>(n) << 8 | static_cast<uint8_t>(wire[pos++]));
    }
    if (n < 0) {
      fails(TTransportException::UNKNOWN, "Frame size has negative value");
    } else if (n > static_cast<int64_t>(c.maxFrame)) {
      fails(TTransportException::CORRUPTED_DATA, "Received an oversized frame");
    } else if (c.encrypted && (n == 0 || n % 16 != 0)) {
      fails(TTransportException::CORRUPTED_DATA, "Received an invalid encrypt size frame");
    } else if (wire.size() - pos < static_cast<size_t>(n)) {
      fails(TTransportException::END_OF_FILE, kNoMoreData);
      pos = wire.size();
    } else {
      std::string payload = wire.substr(pos, static_cast<size_t>(n)), plain(payload.size(), '\0');
      pos += payload.size();
      long length = n;
      if (c.encrypted) { // a body that does not decrypt gives an empty payload
        fuzzCipher()->decrypt(reinterpret_cast<const unsigned char*>(payload.data()), n,
                              reinterpret_cast<unsigned char*>(&plain[0]), &length);
        payload = plain.substr(0, static_cast<size_t>(length));
      }
      size_t offset = 0;
      do { // an empty payload is one read that gives 0
        const uint32_t got = read();
        FUZZ_CHECK(got == std::min<size_t>(len, payload.size() - offset));
        FUZZ_CHECK(std::memcmp(buf.data(), payload.data() + offset, got) == 0);
        offset += got;
      } while (offset < payload.size());
    }
  }
  // The rest of a header: the waiting transport's read gives 0, the polling one's
  // readAll throws.
  if (pos < wire.size()) {
    fails(TTransportException::END_OF_FILE,
          c.polling ? kNoMoreData : "No more data to read after partial frame header.");
  }
  FUZZ_CHECK(c.polling || read() == 0);
  if (c.polling) {
    fails(TTransportException::END_OF_FILE, kNoMoreData);
  }
}

// A transport of the configured kind over @p inner, read through TBufferBase's inline
// read so that the exemption in fuzz/CMakeLists.txt applies to it.
std::shared_ptr<TBufferBase> framed(const Config& c, std::shared_ptr<TTransport> inner) {
  if (!c.polling) {
    return std::make_shared<TSecurityTransport>(inner, fuzzCipher(), c.reclaim, c.maxFrame);
  }
  return std::make_shared<TNonblockingSecurityTransport>(
      inner, c.encrypted ? fuzzCipher() : nullptr, c.encrypted, c.reclaim, c.maxFrame);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  Input in{data, size};
  const uint8_t b = in.byte();
  const Config c{(b & 3) != 0, (b & 3) != 2, b & 4 ? 64u : 65536u, b & 8 ? 64u : 0xFFFFFFFFu};
  std::vector<std::string> payloads(in.byte() & 15);
  for (auto& p : payloads) {
    p = in.bytes(in.u16() % 4097);
  }
  const std::string splits = in.bytes(in.byte()), lengths = in.bytes(in.byte());

  // Each payload flushed as one frame (an empty one sends none) by a sender of the same
  // kind, so that most inputs reach frames that decode; fuzzed bytes follow.
  auto sink = std::make_shared<TMemoryBuffer>();
  const auto sender = framed(c, sink);
  for (const auto& p : payloads) {
    sender->write(reinterpret_cast<const uint8_t*>(p.data()), static_cast<uint32_t>(p.size()));
    sender->flush();
  }
  const std::string wire = sink->getBufferAsString() + in.rest();
  check(*framed(c, std::make_shared<Wire>(wire, splits, c.polling)), wire, c, lengths);
  return 0;
}
