#include <thriftusb/protocol/TNullProtocol.h>

#include <functional>
#include <memory>
#include <string>

#include <gtest/gtest.h>
#include <thrift/protocol/TProtocolException.h>
#include <thrift/transport/TBufferTransports.h>

#include "support/FdIo.h"

using namespace apache::thrift::protocol;
using apache::thrift::transport::TMemoryBuffer;
using thriftusb::test::patternBytes;

namespace {

// A null protocol, used through TProtocol, over a memory buffer holding `data`.
struct NullOverMemory {
  explicit NullOverMemory(const std::string& data)
    : memory(std::make_shared<TMemoryBuffer>()), null(memory) {
    memory->write(reinterpret_cast<const uint8_t*>(data.data()),
                  static_cast<uint32_t>(data.size()));
  }
  std::shared_ptr<TMemoryBuffer> memory;
  TNullProtocol null;
  TProtocol& protocol = null;
};

TProtocolException::TProtocolExceptionType thrownType(const std::function<void()>& call) {
  try {
    call();
  } catch (const TProtocolException& e) {
    return e.getType();
  }
  return TProtocolException::UNKNOWN;
}

} // namespace

TEST(TNullProtocol, ReadBinaryTakesOneReadOfAtMost8192Bytes) {
  const std::string data = patternBytes(8192 + 100);
  NullOverMemory in(data);
  std::string str = "old";
  EXPECT_EQ(8192u, in.protocol.readBinary(str));
  EXPECT_EQ(data.substr(0, 8192), str);
  EXPECT_EQ(100u, in.protocol.readBinary(str));
  EXPECT_EQ(data.substr(8192), str);
  // The shared staging buffer still holds the rest of the first read.
  EXPECT_EQ(data.substr(100, 8092), std::string(reinterpret_cast<const char*>(buf) + 100, 8092));
  EXPECT_EQ(0u, in.protocol.readBinary(str));
  EXPECT_EQ("", str);
}

TEST(TNullProtocol, SkipsAStringWithOneReadAndRefusesEverythingElse) {
  NullOverMemory in(patternBytes(9000));
  std::string str;
  int32_t i32 = 0;
  TMessageType type;
  for (const auto& call : std::initializer_list<std::function<void()>>{
           [&] { in.protocol.readString(str); }, [&] { in.protocol.readI32(i32); },
           [&] { in.protocol.readMessageBegin(str, type, i32); },
           [&] { in.protocol.writeBinary("x"); }, [&] { in.protocol.skip(T_I32); },
           [&] { in.protocol.skip(T_STRUCT); }}) {
    EXPECT_EQ(TProtocolException::NOT_IMPLEMENTED, thrownType(call));
  }
  EXPECT_EQ(9000u, in.memory->available_read());
  EXPECT_EQ(8192u, in.protocol.skip(T_STRING));
  EXPECT_EQ(9000u - 8192u, in.memory->available_read());
}
