#ifndef THRIFTUSB_TESTS_SUPPORT_VIRTUALCABLE_H
#define THRIFTUSB_TESTS_SUPPORT_VIRTUALCABLE_H

#include <string>

#include "TempDir.h"

namespace thriftusb {
namespace test {

/**
 * A USB cable made of two FIFOs in a private directory: one carries bytes from the
 * host to the device, the other from the device to the host. Each end uses two-node
 * mode, reading one FIFO and writing the other.
 *
 * While plugged in, the cable itself holds both FIFOs open for reading and writing,
 * as a gadget driver holds its endpoints: either end can open its nodes first,
 * writes never fail for want of a reader, and an idle node reads as "no data yet"
 * (EAGAIN) rather than end of data. unplug() lets go of them, so that a reader sees
 * end of data once the other end has closed.
 */
class VirtualCable {
public:
  /** The node pair of one end of the cable. */
  struct End {
    std::string readPath;
    std::string writePath;
  };

  VirtualCable();
  ~VirtualCable();
  VirtualCable(const VirtualCable&) = delete;
  VirtualCable& operator=(const VirtualCable&) = delete;

  /** The host's end: reads what the device sends, writes to the device. */
  End host() const { return {deviceToHost_, hostToDevice_}; }

  /** The device's end: reads what the host sends, writes to the host. */
  End device() const { return {hostToDevice_, deviceToHost_}; }

  /** Drops the cable's own hold on both FIFOs. */
  void unplug();

  /** The directory that holds the FIFOs. */
  const std::string& directory() const { return dir_.path(); }

private:
  TempDir dir_;
  std::string hostToDevice_;
  std::string deviceToHost_;
  int holdHostToDevice_ = -1;
  int holdDeviceToHost_ = -1;
};

} // namespace test
} // namespace thriftusb

#endif
