#include <thriftusb/transport/TCustomBufferedTransportFactory.h>

#include <memory>
#include <string>

#include <gtest/gtest.h>
#include <thrift/transport/TBufferTransports.h>

#include "support/FdIo.h"

using namespace apache::thrift::transport;
using thriftusb::test::patternBytes;

TEST(TCustomBufferedTransportFactory, EachCallMakesANewTransportReadBufferSizeFirst) {
  const std::string data = patternBytes(5000);
  const auto* bytes = reinterpret_cast<const uint8_t*>(data.data());
  auto inner = std::make_shared<TMemoryBuffer>();
  inner->write(bytes, 5000);
  TCustomBufferedTransportFactory factory(4096, 512);
  const auto buffered = std::dynamic_pointer_cast<TBufferedTransport>(factory.getTransport(inner));
  const auto other = std::dynamic_pointer_cast<TBufferedTransport>(factory.getTransport(inner));
  ASSERT_TRUE(buffered && other);
  EXPECT_NE(buffered, other);
  EXPECT_EQ(inner, buffered->getUnderlyingTransport());
  EXPECT_EQ(inner, other->getUnderlyingTransport());

  uint8_t byte = 0;
  ASSERT_EQ(1u, buffered->read(&byte, 1)); // fills the whole read buffer
  EXPECT_EQ(5000u - 4096u, inner->available_read());

  inner->resetBuffer();
  buffered->write(bytes, 512); // fills the write buffer
  EXPECT_EQ(0u, inner->available_read());
  buffered->write(bytes + 512, 1); // pushes the full buffer out
  EXPECT_EQ(data.substr(0, 512), inner->getBufferAsString());
}
