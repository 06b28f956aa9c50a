// TNullProtocol's readBinary() and the runtime's skip() over it, on a transport that
// serves fuzzed bytes in fuzzed pieces.
//
// Layout: one byte, the number of operations N, then N operation bytes; one byte K,
// then K split sizes (each read of the transport gives at most split * 64 + 1 bytes,
// cycling; none: everything at once); the rest is what the transport holds. An
// operation byte chooses readBinary() (0-2), skip() of the type in the byte's upper
// bits (3), another read operation (4) or a write operation (5); an operation byte
// with bit 7 set makes the transport throw at its end instead of giving 0.

#include <algorithm>
#include <cstring>
#include <memory>
#include <string>

#include <thrift/Thrift.h>
#include <thrift/protocol/TProtocolException.h>
#include <thrift/transport/TTransportException.h>
#include <thrift/transport/TVirtualTransport.h>

#include <thriftusb/protocol/TNullProtocol.h>

#include "FuzzInput.h"

using apache::thrift::protocol::TNullProtocol;
using apache::thrift::protocol::TProtocol;
using apache::thrift::protocol::TProtocolException;
using apache::thrift::protocol::TType;
using apache::thrift::transport::TTransportException;
using apache::thrift::transport::TVirtualTransport;
using namespace thriftusb::fuzz;

namespace {

class Source : public TVirtualTransport<Source> {
public:
  Source(std::string bytes, std::string splits)
    : bytes_(std::move(bytes)), splits_(std::move(splits)) {}

  uint32_t read(uint8_t* buf, uint32_t len) {
    ++reads;
    if (pos_ == bytes_.size() && throwAtEnd) {
      throw TTransportException(TTransportException::END_OF_FILE, "end");
    }
    size_t n = std::min<size_t>(len, bytes_.size() - pos_);
    if (!splits_.empty()) {
      n = std::min<size_t>(n, static_cast<uint8_t>(splits_[split_++ % splits_.size()]) * 64u + 1u);
    }
    std::memcpy(buf, bytes_.data() + pos_, n);
    pos_ += n;
    return static_cast<uint32_t>(n);
  }

  size_t pos() const { return pos_; }
  const std::string& bytes() const { return bytes_; }

  bool throwAtEnd = false;
  size_t reads = 0;

private:
  std::string bytes_;
  std::string splits_;
  size_t pos_ = 0;
  size_t split_ = 0;
};

template <typename Call>
bool throwsProtocolError(Call&& call) {
  return throwsWhere<TProtocolException>(call, [](const TProtocolException&) { return true; });
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  Input in(data, size);
  const std::string ops = in.bytes(in.byte());
  const std::string splits = in.bytes(in.byte());
  auto source = std::make_shared<Source>(in.rest(), splits);
  TNullProtocol null(source);
  TProtocol& protocol = null; // through the virtual interface, as a server would

  for (const char c : ops) {
    const auto op = static_cast<uint8_t>(c);
    source->throwAtEnd = (op & 0x80) != 0;
    const size_t before = source->pos();
    const size_t readsBefore = source->reads;
    std::string str = "unchanged";
    switch ((op & 0x7F) % 6) {
    case 0:
    case 1:
    case 2: {
      // One read of at most 8192 bytes, handed over whole, nothing else.
      uint32_t n = 0;
      try {
        n = (op & 1) ? protocol.readBinary(str) : null.readBinary(str);
      } catch (const TTransportException&) {
        FUZZ_CHECK(source->throwAtEnd && before == source->bytes().size());
        FUZZ_CHECK(str == "unchanged");
        break;
      }
      FUZZ_CHECK(source->reads == readsBefore + 1);
      FUZZ_CHECK(n <= 8192 && n == source->pos() - before);
      FUZZ_CHECK(str == source->bytes().substr(before, n));
      FUZZ_CHECK(std::memcmp(apache::thrift::protocol::buf, str.data(), n) == 0);
      break;
    }
    case 3: {
      const auto type = static_cast<TType>((op >> 3) & 0x0F);
      if (type == apache::thrift::protocol::T_STRING) {
        try {
          FUZZ_CHECK(protocol.skip(type) == source->pos() - before);
        } catch (const TTransportException&) {
          FUZZ_CHECK(source->throwAtEnd && before == source->bytes().size());
        }
        FUZZ_CHECK(source->reads == readsBefore + 1);
      } else {
        // Every other type meets a refusing read (or is not a type at all) and
        // takes nothing from the transport.
        FUZZ_CHECK(throwsProtocolError([&] { protocol.skip(type); }));
        FUZZ_CHECK(source->reads == readsBefore);
      }
      break;
    }
    case 4: {
      int32_t i32 = 0;
      FUZZ_CHECK(throwsProtocolError([&] { protocol.readI32(i32); }));
      FUZZ_CHECK(throwsProtocolError([&] { protocol.readString(str); }));
      FUZZ_CHECK(source->reads == readsBefore);
      break;
    }
    default:
      FUZZ_CHECK(throwsProtocolError([&] { protocol.writeBinary(str); }));
      FUZZ_CHECK(source->reads == readsBefore);
      break;
    }
  }
  return 0;
}
