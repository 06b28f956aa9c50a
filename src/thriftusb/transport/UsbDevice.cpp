#include <thriftusb/transport/UsbDevice.h>

namespace apache {
namespace thrift {
namespace transport {

UsbDevice::UsbDevice(bool nonblocking, unsigned int maxReadBlockSize,
                     unsigned int maxWriteBlockSize)
  : nonblocking_(nonblocking),
    maxReadBlockSize_(maxReadBlockSize),
    maxWriteBlockSize_(maxWriteBlockSize) {}

} // namespace transport
} // namespace thrift
} // namespace apache
