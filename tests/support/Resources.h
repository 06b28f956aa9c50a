#ifndef THRIFTUSB_TESTS_SUPPORT_RESOURCES_H
#define THRIFTUSB_TESTS_SUPPORT_RESOURCES_H

#include <filesystem>
#include <set>
#include <thread>

#include <gtest/gtest.h>

#include "support/FdIo.h"

namespace thriftusb {
namespace test {

/** The threads and descriptors of this process at one moment. */
struct Resources {
  std::set<int> threads;
  std::set<int> fds;

  static Resources now() {
    // A sanitizer runtime starts a helper thread of its own with a program's first
    // thread: starting one here first keeps it out of every count.
    std::thread([] {}).join();
    Resources now{{}, openDescriptors()};
    for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
      now.threads.insert(std::stoi(task.path().filename().string()));
    }
    return now;
  }
};

/**
 * Whether every thread and descriptor begun since @p before is gone again (one of
 * someone else's that ends meanwhile is no leak). A thread just joined may linger in
 * /proc for a moment, so they are given a while to go.
 */
inline ::testing::AssertionResult backTo(const Resources& before) {
  Resources left;
  if (waitUntil([&] {
        const Resources now = Resources::now();
        left = {newDescriptors(before.threads, now.threads),
                newDescriptors(before.fds, now.fds)};
        return left.threads.empty() && left.fds.empty();
      }, std::chrono::milliseconds(5000))) {
    return ::testing::AssertionSuccess();
  }
  using ::testing::PrintToString;
  return ::testing::AssertionFailure() << "left behind: threads " << PrintToString(left.threads)
                                       << ", descriptors " << PrintToString(left.fds);
}

} // namespace test
} // namespace thriftusb

#endif
