#include <thriftusb/transport/TCustomBufferedTransportFactory.h>

#include <memory>
#include <string>

#include <gtest/gtest.h>
#include <thrift/transport/TBufferTransports.h>

#include "support/FdIo.h"

using namespace apache::thrift::transport;
using thriftusb::test::patternBytes;

TEST(TCustomBufferedTransportFactory, ReadBufferSizeFirstWriteBufferSizeSecond) {
  const std::string data = patternBytes(5000);
  const auto* bytes = reinterpret_cast<const uint8_t*>(data.data());
  auto inner = std::make_shared<TMemoryBuffer>();
  inner->write(bytes, 5000);
  auto buffered = TCustomBufferedTransportFactory(4096, 512).getTransport(inner);

  uint8_t byte = 0;
  ASSERT_EQ(1u, buffered->read(&byte, 1)); // fills the whole read buffer
  EXPECT_EQ(5000u - 4096u, inner->available_read());

  inner->resetBuffer();
  buffered->write(bytes, 512); // fills the write buffer
  EXPECT_EQ(0u, inner->available_read());
  buffered->write(bytes + 512, 1); // pushes the full buffer out
  EXPECT_EQ(data.substr(0, 512), inner->getBufferAsString());
}

TEST(TCustomBufferedTransportFactory, EachCallMakesANewTransportOverTheSameInner) {
  auto inner = std::make_shared<TMemoryBuffer>();
  TCustomBufferedTransportFactory factory(64, 64);
  const auto first = std::dynamic_pointer_cast<TBufferedTransport>(factory.getTransport(inner));
  const auto second = std::dynamic_pointer_cast<TBufferedTransport>(factory.getTransport(inner));
  ASSERT_TRUE(first && second);
  EXPECT_NE(first, second);
  EXPECT_EQ(inner, first->getUnderlyingTransport());
  EXPECT_EQ(inner, second->getUnderlyingTransport());
}
