#ifndef THRIFTUSB_TESTS_SUPPORT_LOGCAPTURE_H
#define THRIFTUSB_TESTS_SUPPORT_LOGCAPTURE_H

#include <algorithm>
#include <mutex>
#include <string>
#include <vector>

#include <thrift/TOutput.h>

namespace thriftusb {
namespace test {

/**
 * Captures every line written through the Thrift runtime's GlobalOutput, from all
 * threads, while it lives; one capture at a time. The runtime's hook is a plain
 * function pointer, so the lines go to one shared store.
 */
class LogCapture {
public:
  LogCapture() { apache::thrift::GlobalOutput.setOutputFunction(&capture); }
  ~LogCapture() {
    apache::thrift::GlobalOutput.setOutputFunction(&apache::thrift::TOutput::errorTimeWrapper);
    clear();
  }
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  std::vector<std::string> lines() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return store_;
  }
  size_t count(const std::string& line) const {
    const auto all = lines();
    return static_cast<size_t>(std::count(all.begin(), all.end(), line));
  }
  void clear() {
    std::lock_guard<std::mutex> lock(mutex_);
    store_.clear();
  }

private:
  static void capture(const char* line) {
    std::lock_guard<std::mutex> lock(mutex_);
    store_.emplace_back(line);
  }
  static inline std::mutex mutex_;
  static inline std::vector<std::string> store_;
};

} // namespace test
} // namespace thriftusb

#endif
