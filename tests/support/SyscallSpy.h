#ifndef THRIFTUSB_TESTS_SUPPORT_SYSCALLSPY_H
#define THRIFTUSB_TESTS_SUPPORT_SYSCALLSPY_H

#include <chrono>
#include <cstddef>
#include <deque>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <vector>

namespace thriftusb {
namespace test {

/** The C library calls the spy can see. */
enum class Sys { Read, Write, Fsync, Close, Usleep };

/** One call seen by the spy. */
struct SysCall {
  Sys call;
  int fd;          ///< -1 for usleep
  size_t length;   ///< bytes asked for, or microseconds for usleep
  long result;
  int error;       ///< errno when result is -1, else 0
};

/**
 * Watches and steers the read, write, fsync, close and usleep calls that the code
 * under test makes, and records the flags of its open calls, by
 * interposing those C library functions in the test program. Calls on
 * descriptors that are not watched pass straight to the C library.
 *
 * A scripted outcome replaces the next call on a watched descriptor: it either fails
 * with an errno, or returns a value without any I/O. Sleeps are recorded while a spy
 * lives. With virtual time on, every sleep returns at once and moves the monotonic
 * clock (CLOCK_MONOTONIC, and so std::chrono::steady_clock) forward by its length, so
 * that time-outs of seconds or minutes pass in a few milliseconds while the code under
 * test sees a consistent clock. The clock never moves back, not even when the spy
 * ends. One spy at a time; link this file only into programs that want it.
 */
class SyscallSpy {
public:
  SyscallSpy();
  ~SyscallSpy();
  SyscallSpy(const SyscallSpy&) = delete;
  SyscallSpy& operator=(const SyscallSpy&) = delete;

  /** Records and steers calls on @p fd from now on. */
  void watch(int fd);
  /** Watches every descriptor in @p fds. */
  void watch(const std::set<int>& fds);

  /** The next @p times calls of @p call on watched descriptors fail with @p error. */
  void failNext(Sys call, int error, int times = 1);
  /** The next @p times calls of @p call on watched descriptors return @p value, no I/O. */
  void returnNext(Sys call, long value, int times = 1);

  /** Sleeps return at once and move the monotonic clock forward while @p on is true. */
  void setVirtualTime(bool on);

  /** Every recorded call, in order. */
  std::vector<SysCall> calls() const;
  /** The lengths asked for by the recorded calls of @p call. */
  std::vector<size_t> lengths(Sys call) const;
  /** How many calls of @p call were recorded. */
  size_t count(Sys call) const;
  /** Forgets the recorded calls. */
  void clearCalls();

  /** The flags of every open() of @p path while the spy lived, in order. */
  std::vector<int> openFlags(const std::string& path) const;

  // Entry points of the interposed functions; not for tests.
  struct Outcome {
    long value;
    int error;
  };
  bool watches(int fd) const;
  bool takeOutcome(Sys call, Outcome& outcome);
  void record(const SysCall& call);
  bool virtualTime() const;
  void recordOpen(const char* path, int flags);

private:
  mutable std::mutex mutex_;
  std::set<int> fds_;
  std::map<Sys, std::deque<Outcome>> script_;
  std::vector<SysCall> calls_;
  std::vector<std::pair<std::string, int>> opens_;
  bool virtualTime_ = false;
};

} // namespace test
} // namespace thriftusb

#endif
