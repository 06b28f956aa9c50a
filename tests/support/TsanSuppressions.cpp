// ThreadSanitizer takes the suppressions built into a program from this function; the
// emulated USB device's false alarms are the only ones the tests need.
#include <thriftusb/testing/EmulatedUsbBus.h>

extern "C" const char* __tsan_default_suppressions() {
  return thriftusb::testing::kTsanSuppressions;
}
