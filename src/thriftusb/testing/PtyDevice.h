#ifndef THRIFTUSB_TESTING_PTYDEVICE_H
#define THRIFTUSB_TESTING_PTYDEVICE_H

#include <string>

namespace thriftusb {
namespace testing {

/**
 * A one-node device: a pseudo-terminal in raw mode. Its slave is the device node
 * that the code under test opens by path (one node for both directions); its master
 * is the peer, which reads what the code writes and writes what it should read.
 * The object keeps a descriptor of the slave open, so the line stays up while the
 * code under test opens and closes the node.
 */
class PtyDevice {
public:
  /**
   * Opens a new pseudo-terminal and puts it in raw mode.
   *
   * @throws std::system_error when the system has no pseudo-terminal to give
   */
  PtyDevice();

  /** Closes both sides: the code under test then reads end of data. */
  ~PtyDevice();
  PtyDevice(const PtyDevice&) = delete;
  PtyDevice& operator=(const PtyDevice&) = delete;

  /** @return the path of the device node (the slave) */
  const std::string& path() const { return path_; }

  /** @return the peer's descriptor (the master), blocking; the object keeps it */
  int peerFd() const { return master_; }

private:
  int master_ = -1;
  int slave_ = -1;
  std::string path_;
};

} // namespace testing
} // namespace thriftusb

#endif
