#ifndef THRIFTUSB_TESTS_SUPPORT_LOGCAPTURE_H
#define THRIFTUSB_TESTS_SUPPORT_LOGCAPTURE_H

#include <string>
#include <vector>

namespace thriftusb {
namespace test {

/**
 * Captures every line written through the Thrift runtime's GlobalOutput while it
 * lives, through the runtime's output-function hook, and restores the runtime's
 * default output when destroyed. One capture at a time; lines from all threads.
 */
class LogCapture {
public:
  LogCapture();
  ~LogCapture();
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  /** Every line captured so far, in order. */
  std::vector<std::string> lines() const;

  /** How many captured lines equal @p line exactly. */
  size_t count(const std::string& line) const;

  /** Forgets the lines captured so far. */
  void clear();
};

} // namespace test
} // namespace thriftusb

#endif
