#include <thriftusb/protocol/TNullProtocol.h>

#include <memory>
#include <string>

#include <gtest/gtest.h>
#include <thrift/protocol/TProtocolException.h>
#include <thrift/transport/TBufferTransports.h>

#include "support/Bytes.h"
#include "support/FdIo.h"

using namespace apache::thrift::protocol;
using apache::thrift::transport::TMemoryBuffer;
using namespace thriftusb::test;

namespace {

// A null protocol, used through TProtocol, over a memory buffer holding `data`.
struct NullOverMemory {
  explicit NullOverMemory(const std::string& data)
    : memory(std::make_shared<TMemoryBuffer>()), null(memory) {
    memory->write(u8(data), static_cast<uint32_t>(data.size()));
  }
  std::shared_ptr<TMemoryBuffer> memory;
  TNullProtocol null;
  TProtocol& protocol = null;
};

} // namespace

TEST(TNullProtocol, ReadBinaryHandsOverOneReadOfAtMost8192Bytes) {
  const std::string data = patternBytes(8192 + 100);
  NullOverMemory in(data);
  std::string str = "old";
  EXPECT_EQ(in.protocol.readBinary(str), 8192u);
  EXPECT_EQ(str, data.substr(0, 8192));
  EXPECT_EQ(in.protocol.readBinary(str), 100u); // what there is, not a fixed count
  EXPECT_EQ(str, data.substr(8192));
  EXPECT_EQ(in.protocol.readBinary(str), 0u);
  EXPECT_EQ(str, "");
}

TEST(TNullProtocol, SkipsAStringWithOneReadAndRefusesEverythingElse) {
  NullOverMemory in(patternBytes(9000));
  std::string str;
  int32_t i32 = 0;
  TMessageType type;
  EXPECT_THROW(in.protocol.readI32(i32), TProtocolException);
  EXPECT_THROW(in.protocol.readMessageBegin(str, type, i32), TProtocolException);
  EXPECT_THROW(in.protocol.writeBinary("x"), TProtocolException);
  EXPECT_THROW(in.protocol.skip(T_STRUCT), TProtocolException);
  EXPECT_EQ(in.memory->available_read(), 9000u);
  EXPECT_EQ(in.protocol.skip(T_STRING), 8192u);
  EXPECT_EQ(in.memory->available_read(), 9000u - 8192u);
}
