#ifndef THRIFTUSB_TESTING_EMULATEDGADGETTRANSPORT_H
#define THRIFTUSB_TESTING_EMULATEDGADGETTRANSPORT_H

#include <chrono>
#include <cstdint>
#include <string>

#include <thrift/transport/TVirtualTransport.h>

#include <thriftusb/testing/EmulatedUsbDevice.h>

namespace thriftusb {
namespace testing {

/**
 * The gadget's end of an emulated device as a Thrift transport, for the processor
 * that plays the device in a test: read() takes what the host sent on bulk OUT, and
 * flush() queues everything written since the last flush as one bulk IN transfer.
 */
class EmulatedGadgetTransport
  : public apache::thrift::transport::TVirtualTransport<EmulatedGadgetTransport> {
public:
  /**
   * @param device   the emulated device; must outlive the transport
   * @param silence  how long read() waits for the host's first byte
   */
  explicit EmulatedGadgetTransport(EmulatedUsbDevice& device,
                                   std::chrono::milliseconds silence = std::chrono::seconds(10))
    : device_(device), silence_(silence) {}

  /** @return true: the device's end is open while the device is plugged in */
  bool isOpen() const override { return true; }

  /**
   * Takes up to @p len bytes the host sent, waiting for the first.
   *
   * @param buf  where the bytes go
   * @param len  the most bytes to take
   * @return the number of bytes taken, at least 1
   * @throws apache::thrift::transport::TTransportException END_OF_FILE "The emulated
   *         device was unplugged or the host was silent." when nothing came
   */
  uint32_t read(uint8_t* buf, uint32_t len);

  /**
   * Adds @p len bytes to the answer being written.
   *
   * @param buf  the bytes
   * @param len  their number
   */
  void write(const uint8_t* buf, uint32_t len) {
    answer_.append(reinterpret_cast<const char*>(buf), len);
  }

  /** Queues the answer written since the last flush as one bulk IN transfer. */
  void flush() override;

private:
  EmulatedUsbDevice& device_;
  const std::chrono::milliseconds silence_;
  std::string answer_;
};

} // namespace testing
} // namespace thriftusb

#endif
