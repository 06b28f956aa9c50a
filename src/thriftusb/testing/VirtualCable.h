#ifndef THRIFTUSB_TESTING_VIRTUALCABLE_H
#define THRIFTUSB_TESTING_VIRTUALCABLE_H

#include <string>

#include <thriftusb/testing/TempDir.h>

namespace thriftusb {
namespace testing {

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
    std::string readPath;  ///< the node this end reads from
    std::string writePath; ///< the node this end writes to
  };

  /**
   * Makes both FIFOs in a new private directory under $TMPDIR (or /tmp) and plugs
   * the cable in.
   *
   * @throws std::system_error when the directory or a FIFO cannot be made or opened
   */
  VirtualCable();

  /** Unplugs the cable and removes the FIFOs with their directory. */
  ~VirtualCable();

  VirtualCable(const VirtualCable&) = delete;
  VirtualCable& operator=(const VirtualCable&) = delete;

  /** @return the host's end: reads what the device sends, writes to the device */
  End host() const { return {deviceToHost_, hostToDevice_}; }

  /** @return the device's end: reads what the host sends, writes to the host */
  End device() const { return {hostToDevice_, deviceToHost_}; }

  /**
   * Drops the cable's own hold on both FIFOs: once an end has closed its nodes, the
   * other end reads end of data. Unplugging twice is harmless.
   */
  void unplug();

  /**
   * Takes hold of both FIFOs again after unplug(); bytes left in them stay. Plugging
   * a plugged cable changes nothing.
   *
   * @throws std::system_error when a FIFO cannot be opened
   */
  void plug();

  /** @return the directory that holds the FIFOs */
  const std::string& directory() const { return dir_.path(); }

private:
  TempDir dir_;
  std::string hostToDevice_;
  std::string deviceToHost_;
  int holdHostToDevice_ = -1;
  int holdDeviceToHost_ = -1;
};

} // namespace testing
} // namespace thriftusb

#endif
