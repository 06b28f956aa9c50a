#ifndef THRIFTUSB_TESTING_EMULATEDUSBBUS_H
#define THRIFTUSB_TESTING_EMULATEDUSBBUS_H

#include <memory>
#include <vector>

#include <thriftusb/testing/EmulatedUsbDevice.h>

typedef struct _UMockdevTestbed UMockdevTestbed;
typedef struct _UMockdevIoctlBase UMockdevIoctlBase;

namespace thriftusb {
namespace testing {

/**
 * ThreadSanitizer's false alarms around the emulation, for a program built with
 * ThreadSanitizer that links this library (return them from the program's own
 * __tsan_default_suppressions(), or hand them to it in TSAN_OPTIONS): libumockdev
 * and GLib are not instrumented and pass data to the testbed's worker under GLib's
 * own locks, which ThreadSanitizer cannot see; libusb completes one thread's synchronous
 * transfer from another thread's event handling and frees it behind a flag it reads
 * without a lock.
 */
extern const char* const kTsanSuppressions;

/**
 * A umockdev testbed with a root hub on bus 1 and the emulated devices. The program
 * must load libumockdev-preload before libc (link it with --no-as-needed); the
 * constructor throws otherwise, since libusb would silently see the real, empty
 * system. One bus per process at a time; add every device before libusb is
 * initialised. The destructor ends the default context if initDefaultContext() made
 * it.
 */
class EmulatedUsbBus {
public:
  /**
   * Makes the testbed with its root hub.
   *
   * @throws std::runtime_error when the program does not run under umockdev's
   *         preload library, or the testbed refuses the hub
   */
  EmulatedUsbBus();

  /** Ends the default libusb context if initDefaultContext() made it, then the testbed. */
  ~EmulatedUsbBus();
  EmulatedUsbBus(const EmulatedUsbBus&) = delete;
  EmulatedUsbBus& operator=(const EmulatedUsbBus&) = delete;

  /**
   * Plugs in a device at the next free address.
   *
   * @param info  its identifiers, serial number and configurations
   * @return the device, which lives as long as the bus
   * @throws std::runtime_error when the testbed refuses it
   */
  EmulatedUsbDevice& add(const DeviceInfo& info);

  /**
   * libusb_init() of libusb's default context, ended again with the bus.
   *
   * @throws std::runtime_error when libusb_init() fails
   */
  void initDefaultContext();

private:
  UMockdevTestbed* testbed_;
  std::vector<UMockdevIoctlBase*> handlers_;
  std::vector<std::unique_ptr<EmulatedUsbDevice>> devices_;
  bool defaultContext_ = false;
};

} // namespace testing
} // namespace thriftusb

#endif
