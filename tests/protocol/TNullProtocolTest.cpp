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

// Used through TProtocol: a string is one read of what there is, at most 8192 bytes
// (not a fixed count), and everything else is refused without reading.
TEST(TNullProtocol, AStringIsOneReadOfAtMost8192BytesAndAllElseIsRefused) {
  const std::string data = patternBytes(2 * 8192 + 100);
  auto memory = std::make_shared<TMemoryBuffer>();
  memory->write(u8(data), static_cast<uint32_t>(data.size()));
  TNullProtocol null(memory);
  TProtocol& protocol = null;
  std::string str = "old";
  int32_t i32 = 0;
  TMessageType type;
  EXPECT_THROW(protocol.readI32(i32), TProtocolException);
  EXPECT_THROW(protocol.readMessageBegin(str, type, i32), TProtocolException);
  EXPECT_THROW(protocol.writeBinary("x"), TProtocolException);
  EXPECT_THROW(protocol.skip(T_STRUCT), TProtocolException);
  EXPECT_EQ(protocol.skip(T_STRING), 8192u);
  EXPECT_EQ(protocol.readBinary(str), 8192u);
  EXPECT_EQ(str, data.substr(8192, 8192));
  EXPECT_EQ(protocol.readBinary(str), 100u);
  EXPECT_EQ(str, data.substr(2 * 8192));
  EXPECT_EQ(protocol.readBinary(str), 0u);
  EXPECT_EQ(str, "");
}
