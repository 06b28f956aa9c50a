#include "support/ForkedChild.h"

#include <csignal>
#include <cstdio>

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include "support/FdIo.h"

namespace thriftusb {
namespace test {

std::string reportFromChild(const std::function<std::string()>& body,
                            std::chrono::milliseconds limit) {
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
  UniqueFd reportIn(report[0]);
  if (pid < 0) {
    return "no child";
  }
  int status = 0;
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
  ssize_t n;
  while ((n = ::read(reportIn.get(), chunk, sizeof chunk)) > 0) {
    text.append(chunk, static_cast<size_t>(n));
  }
  return text;
}

} // namespace test
} // namespace thriftusb
