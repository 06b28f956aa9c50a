#include <thriftusb/transport/UsbDevice.h>

#include <unistd.h>

namespace apache {
namespace thrift {
namespace transport {

UsbDevice::UsbDevice(bool nonblocking, unsigned int maxReadBlockSize,
                     unsigned int maxWriteBlockSize)
  : nonblocking_(nonblocking),
    maxReadBlockSize_(maxReadBlockSize),
    maxWriteBlockSize_(maxWriteBlockSize) {}

void UsbDevice::waitReadable(std::chrono::microseconds limit) {
  ::usleep(static_cast<useconds_t>(limit.count()));
}

void UsbDevice::waitWritable(std::chrono::microseconds limit) {
  ::usleep(static_cast<useconds_t>(limit.count()));
}

} // namespace transport
} // namespace thrift
} // namespace apache
