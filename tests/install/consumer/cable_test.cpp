// The consumer's service tested over the virtual cable: the device's real server on
// one end, the host's real stack on the other.
#include <memory>
#include <string>

#include <gtest/gtest.h>
#include <thrift/protocol/TBinaryProtocol.h>
#include <thriftusb/testing/ServerRunner.h>
#include <thriftusb/testing/VirtualCable.h>
#include <thriftusb/transport/TNonblockingUsbSocket.h>
#include <thriftusb/transport/TServerNonblockingUsbSocket.h>
#include <thriftusb/transport/TUsbDevice.h>

#include "Calculator.h"
#include "CalculatorHandler.h"
#include "calc_constants.h"

using namespace apache::thrift;
using namespace apache::thrift::transport;

TEST(Calculator, AnswersOverTheCable) {
  thriftusb::testing::VirtualCable cable;
  const auto block = static_cast<unsigned>(calc::g_calc_constants.BLOCK_SIZE);

  // The device's end: a TSimpleServer with the handler, on a thread of its own.
  thriftusb::testing::ServerRunner server(
      std::make_shared<calc::CalculatorProcessor>(std::make_shared<CalculatorHandler>()),
      std::make_shared<TServerNonblockingUsbSocket>(cable.device().readPath,
                                                    cable.device().writePath, false, block,
                                                    block));

  // The host's end: the stack of the host program.
  auto device = std::make_shared<TUsbDevice>(cable.host().readPath, cable.host().writePath,
                                             false, block, block);
  auto socket = std::make_shared<TNonblockingUsbSocket>(device, 3000, 3000, 1 << 20);
  calc::CalculatorClient calculator(std::make_shared<protocol::TBinaryProtocol>(socket));
  socket->open();
  EXPECT_EQ(calculator.divide(7, 2), 3);
  EXPECT_THROW(calculator.divide(1, 0), calc::DivideByZero);
  const std::string big(100000, 'x'); // many blocks each way
  std::string echoed;
  calculator.echo(echoed, big);
  EXPECT_EQ(echoed, big);
  socket->close();

  server.stop(); // returns once serve() has returned
}
