#ifndef THRIFTUSB_TESTS_SUPPORT_CHILDPROCESS_H
#define THRIFTUSB_TESTS_SUPPORT_CHILDPROCESS_H

#include <chrono>
#include <string>
#include <vector>

#include <sys/types.h>

#include "support/Bounded.h"

namespace thriftusb {
namespace test {

/**
 * Another program, started with its arguments, its output left on the test's own.
 * A child still running when the object goes is killed and reaped, so a failing test
 * leaves no process behind.
 */
class ChildProcess {
public:
  /** Starts @p argv[0] with @p argv; throws std::system_error when it cannot. */
  explicit ChildProcess(const std::vector<std::string>& argv);
  ~ChildProcess();
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  /** Sends @p signal to the child. */
  void kill(int signal);

  /**
   * Waits up to @p limit for the child to end.
   * @return its wait status (also when it had already been reaped), or -1 when it
   *         still runs at the end of the limit
   */
  int waitFor(std::chrono::milliseconds limit = kPeerLimit);

  /** The child's process id; -1 once it has been reaped. */
  pid_t pid() const { return pid_; }

private:
  pid_t pid_ = -1;
  int status_ = -1;
};

} // namespace test
} // namespace thriftusb

#endif
