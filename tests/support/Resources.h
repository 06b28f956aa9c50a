#ifndef THRIFTUSB_TESTS_SUPPORT_RESOURCES_H
#define THRIFTUSB_TESTS_SUPPORT_RESOURCES_H

#include <chrono>
#include <filesystem>
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

/** The threads of this process now (/proc/self/task). */
inline size_t threadCount() {
  return static_cast<size_t>(std::distance(std::filesystem::directory_iterator("/proc/self/task"),
                                           std::filesystem::directory_iterator()));
}

/** The threads and descriptors of this process at one moment. */
struct Resources {
  size_t threads;
  std::set<int> fds;

  static Resources now() { return {threadCount(), openDescriptors()}; }

  std::string describe() const {
    std::ostringstream out;
    out << threads << " threads, descriptors {";
    for (int fd : fds) {
      out << " " << fd;
    }
    out << " }";
    return out.str();
  }
};

/**
 * Whether the process is back at @p before: the same number of threads and the same
 * descriptors. A thread that has just been joined may linger in /proc for a moment,
 * so the count is given a short while to settle.
 */
inline ::testing::AssertionResult backTo(const Resources& before) {
  Resources after{};
  if (waitUntil([&] {
        after = Resources::now();
        return after.threads == before.threads && after.fds == before.fds;
      }, std::chrono::milliseconds(2000))) {
    return ::testing::AssertionSuccess();
  }
  return ::testing::AssertionFailure() << "before: " << before.describe()
                                       << "; after: " << after.describe();
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
