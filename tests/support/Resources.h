#ifndef THRIFTUSB_TESTS_SUPPORT_RESOURCES_H
#define THRIFTUSB_TESTS_SUPPORT_RESOURCES_H

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <set>
#include <sstream>
#include <string>
#include <thread>

#include <gtest/gtest.h>

#include "support/Bounded.h"
#include "support/FdIo.h"

namespace thriftusb {
namespace test {

/** The ids of this process's threads now (/proc/self/task). */
inline std::set<long> threadIds() {
  std::set<long> ids;
  for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
    ids.insert(std::stol(task.path().filename().string()));
  }
  return ids;
}

/** Whether some thread of this process is inside system call @p number now. */
inline bool aThreadIsInSystemCall(long number) {
  for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
    std::ifstream syscall(task.path() / "syscall");
    long current = -1;
    if (syscall >> current && current == number) {
      return true;
    }
  }
  return false;
}

/** The threads and descriptors of this process at one moment. */
struct Resources {
  std::set<long> threads;
  std::set<int> fds;

  static Resources now() { return {threadIds(), openDescriptors()}; }

  /** What this snapshot holds that @p before did not: threads and descriptors begun since. */
  Resources beganSince(const Resources& before) const {
    Resources added;
    std::set_difference(threads.begin(), threads.end(), before.threads.begin(),
                        before.threads.end(), std::inserter(added.threads, added.threads.end()));
    std::set_difference(fds.begin(), fds.end(), before.fds.begin(), before.fds.end(),
                        std::inserter(added.fds, added.fds.end()));
    return added;
  }

  bool empty() const { return threads.empty() && fds.empty(); }

  std::string describe() const {
    std::ostringstream out;
    out << "threads {";
    for (long id : threads) {
      out << " " << id;
    }
    out << " }, descriptors {";
    for (int fd : fds) {
      out << " " << fd;
    }
    out << " }";
    return out.str();
  }
};

/**
 * Whether every thread and descriptor begun since @p before is gone again. Only those
 * count: a thread of someone else's that ends meanwhile is no leak. A thread that has
 * just been joined may linger in /proc for a moment, so they are given a while to go.
 */
inline ::testing::AssertionResult backTo(const Resources& before) {
  Resources left{};
  if (waitUntil([&] {
        left = Resources::now().beganSince(before);
        return left.empty();
      }, std::chrono::milliseconds(5000))) {
    return ::testing::AssertionSuccess();
  }
  return ::testing::AssertionFailure() << "left behind: " << left.describe();
}

/**
 * Starts and joins one thread before any test runs: a sanitizer runtime starts a
 * helper thread of its own with the first thread a program creates, which must not
 * count against the first test.
 */
class FirstThreadEnvironment : public ::testing::Environment {
public:
  void SetUp() override { std::thread([] {}).join(); }
};

} // namespace test
} // namespace thriftusb

#endif
