#ifndef THRIFTUSB_BENCH_BENCHCABLE_H
#define THRIFTUSB_BENCH_BENCHCABLE_H

#include <string>

namespace thriftusb {
namespace bench {

/**
 * The virtual USB cable every benchmark runs over: two FIFOs in a private directory,
 * one per direction. Each end reads one FIFO and writes the other (two-node mode).
 *
 * The cable holds both FIFOs open for reading and writing for as long as it lives,
 * as a gadget driver holds its endpoints: an end can open its nodes in any order,
 * with or without O_NONBLOCK, and an idle node reads as "no data yet" (EAGAIN or a
 * blocked read), never as end of data.
 *
 * Each FIFO's kernel buffer is set to the requested size (F_SETPIPE_SZ): that is
 * how many bytes the cable holds in flight per direction, the part a real link's
 * queued USB requests play.
 */
class FifoCable {
public:
  /** The node pair of one end. */
  struct End {
    std::string readPath;
    std::string writePath;
  };

  /**
   * @param pipeBytes  the kernel buffer of each FIFO; the kernel rounds it up to a
   *                   whole number of pages and caps it at /proc/sys/fs/pipe-max-size
   *                   for unprivileged users
   * @throws std::runtime_error when the directory or a FIFO cannot be made
   */
  explicit FifoCable(int pipeBytes);
  ~FifoCable();
  FifoCable(const FifoCable&) = delete;
  FifoCable& operator=(const FifoCable&) = delete;

  /** The host's end: reads what the device sends, writes to the device. */
  End host() const { return {deviceToHost_, hostToDevice_}; }

  /** The device's end: reads what the host sends, writes to the host. */
  End device() const { return {hostToDevice_, deviceToHost_}; }

  /** The kernel buffer of each FIFO as the kernel set it. */
  int pipeBytes() const { return pipeBytes_; }

private:
  void release();

  std::string dir_;
  std::string hostToDevice_;
  std::string deviceToHost_;
  int holdHostToDevice_ = -1;
  int holdDeviceToHost_ = -1;
  int pipeBytes_ = 0;
};

} // namespace bench
} // namespace thriftusb

#endif
