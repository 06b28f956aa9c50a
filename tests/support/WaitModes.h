#ifndef THRIFTUSB_TESTS_SUPPORT_WAITMODES_H
#define THRIFTUSB_TESTS_SUPPORT_WAITMODES_H

#include <ostream>

#include <gtest/gtest.h>

#include <thriftusb/util/WakeSignal.h>

namespace apache {
namespace thrift {
namespace transport {

/** Prints a mode by name in test output. */
inline void PrintTo(WaitMode mode, std::ostream* out) {
  *out << (mode == WaitMode::Polling ? "Polling" : "Waking");
}

} // namespace transport
} // namespace thrift
} // namespace apache

namespace thriftusb {
namespace test {

using apache::thrift::transport::WaitMode;

/** Both wait modes, for tests that must hold in either. */
inline const auto kWaitModes = ::testing::Values(WaitMode::Polling, WaitMode::Waking);

} // namespace test
} // namespace thriftusb

#endif
