#ifndef THRIFTUSB_TESTS_SUPPORT_SYSCALLSPY_H
#define THRIFTUSB_TESTS_SUPPORT_SYSCALLSPY_H

#include <cstddef>
#include <set>
#include <string>
#include <vector>

namespace thriftusb {
namespace test {

/** The C library calls the spy records. */
enum class Sys { Read, Write, Fsync, Usleep };

/**
 * Watches and steers the read, write and fsync calls the code under test makes on
 * watched descriptors, and records its usleeps and the flags of its opens, by
 * interposing those C library functions in the test program (link this file only
 * into programs that want it). A scripted outcome replaces the next such call without
 * any I/O. With virtual time on, usleep returns at once and moves the monotonic clock
 * (and so std::chrono::steady_clock) forward by its length, so that time-outs of
 * seconds pass in milliseconds on a consistent clock; the clock never moves back.
 * One spy at a time.
 */
class SyscallSpy {
public:
  SyscallSpy();
  ~SyscallSpy();
  SyscallSpy(const SyscallSpy&) = delete;
  SyscallSpy& operator=(const SyscallSpy&) = delete;

  void watch(const std::set<int>& fds);
  /** The next @p times calls of @p call return @p value with errno @p error, doing nothing. */
  void script(Sys call, long value, int error = 0, int times = 1);
  void failNext(Sys call, int error, int times = 1) { script(call, -1, error, times); }
  void setVirtualTime(bool on);

  /** The bytes asked for by each recorded call of @p call (microseconds for usleep). */
  std::vector<size_t> lengths(Sys call) const;
  size_t count(Sys call) const { return lengths(call).size(); }
  /** The flags of every open() of @p path while the spy lived, in order. */
  std::vector<int> openFlags(const std::string& path) const;
};

} // namespace test
} // namespace thriftusb

#endif
