#include <thriftusb/testing/EmulatedGadgetTransport.h>

#include <cstring>

#include <thrift/transport/TTransportException.h>

namespace thriftusb {
namespace testing {

uint32_t EmulatedGadgetTransport::read(uint8_t* buf, uint32_t len) {
  const std::string got = device_.takeOut(len, silence_);
  if (got.empty()) {
    throw apache::thrift::transport::TTransportException(
        apache::thrift::transport::TTransportException::END_OF_FILE,
        "The emulated device was unplugged or the host was silent.");
  }
  std::memcpy(buf, got.data(), got.size());
  return static_cast<uint32_t>(got.size());
}

void EmulatedGadgetTransport::flush() {
  device_.queue(Pipe::In, {answer_});
  answer_.clear();
}

} // namespace testing
} // namespace thriftusb
