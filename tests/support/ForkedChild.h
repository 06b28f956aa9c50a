#ifndef THRIFTUSB_TESTS_SUPPORT_FORKEDCHILD_H
#define THRIFTUSB_TESTS_SUPPORT_FORKEDCHILD_H

#include <csignal>
#include <cstdio>
#include <functional>
#include <string>

#include <sys/wait.h>

#include "support/FdIo.h"

namespace thriftusb {
namespace test {

/**
 * Runs @p body in a forked child, for what a test must not do in its own process (take
 * over standard output or descriptor 3, survive a fatal signal, run another program),
 * and returns the short text (under 64 KiB) the body returns. The child's end of the
 * pipe lies at descriptor 10 or above, out of the body's way. Once the test has started
 * threads, the body may only make async-signal-safe calls, such as exec.
 * @return the body's text; "hung" when the child did not end within @p limit (it is
 *         killed), "died, wait status N" when it did not exit cleanly, "no child"
 */
inline std::string reportFromChild(const std::function<std::string()>& body,
                                   std::chrono::milliseconds limit = kPeerLimit) {
  int report[2];
  if (::pipe(report) != 0) {
    return "no child";
  }
  std::fflush(nullptr); // nothing of this process's buffers may reach the child's output
  const pid_t pid = ::fork();
  if (pid == 0) {
    ::close(report[0]);
    const int reportFd = ::fcntl(report[1], F_DUPFD, 10);
    ::close(report[1]);
    writeAll(reportFd, body());
    ::_exit(0);
  }
  ::close(report[1]);
  const UniqueFd reportIn(report[0]);
  int status = 0;
  if (pid < 0) {
    return "no child";
  }
  if (!waitUntil([&] { return ::waitpid(pid, &status, WNOHANG) == pid; }, limit)) {
    ::kill(pid, SIGKILL);
    ::waitpid(pid, &status, 0);
    return "hung";
  }
  if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
    return "died, wait status " + std::to_string(status);
  }
  std::string text;
  char chunk[256];
  for (ssize_t n; (n = ::read(reportIn.get(), chunk, sizeof chunk)) > 0;) {
    text.append(chunk, static_cast<size_t>(n));
  }
  return text;
}

} // namespace test
} // namespace thriftusb

#endif
