#include "support/ChildProcess.h"

#include <csignal>
#include <system_error>

#include <spawn.h>
#include <sys/wait.h>

extern char** environ;

namespace thriftusb {
namespace test {

ChildProcess::ChildProcess(const std::vector<std::string>& argv) {
  std::vector<char*> args;
  for (const auto& arg : argv) {
    args.push_back(const_cast<char*>(arg.c_str()));
  }
  args.push_back(nullptr);
  const int error = ::posix_spawn(&pid_, args[0], nullptr, nullptr, args.data(), environ);
  if (error != 0) {
    pid_ = -1;
    throw std::system_error(error, std::generic_category(), "cannot start " + argv.at(0));
  }
}

ChildProcess::~ChildProcess() {
  if (pid_ > 0) {
    kill(SIGKILL);
    waitFor();
  }
}

void ChildProcess::kill(int signal) {
  if (pid_ > 0) {
    ::kill(pid_, signal);
  }
}

int ChildProcess::waitFor(std::chrono::milliseconds limit) {
  const bool ended = waitUntil(
      [&] {
        if (pid_ > 0 && ::waitpid(pid_, &status_, WNOHANG) == pid_) {
          pid_ = -1;
        }
        return pid_ <= 0;
      },
      limit);
  return ended ? status_ : -1;
}

} // namespace test
} // namespace thriftusb
