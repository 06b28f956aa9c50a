#ifndef THRIFTUSB_TESTS_SUPPORT_PTYDEVICE_H
#define THRIFTUSB_TESTS_SUPPORT_PTYDEVICE_H

#include <string>

namespace thriftusb {
namespace test {

/**
 * A one-node device: a pseudo-terminal in raw mode. Its slave is the device node
 * that the code under test opens by path (one node for both directions); its master
 * is the peer, which reads what the code writes and writes what it should read.
 * The object keeps a descriptor of the slave open, so the line stays up while the
 * code under test opens and closes the node.
 */
class PtyDevice {
public:
  PtyDevice();
  ~PtyDevice();
  PtyDevice(const PtyDevice&) = delete;
  PtyDevice& operator=(const PtyDevice&) = delete;

  /** Path of the device node (the slave). */
  const std::string& path() const { return path_; }

  /** The peer's descriptor (the master), blocking. */
  int peerFd() const { return master_; }

private:
  int master_ = -1;
  int slave_ = -1;
  std::string path_;
};

} // namespace test
} // namespace thriftusb

#endif
