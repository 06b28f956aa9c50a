#ifndef THRIFTUSB_TESTS_SUPPORT_EMULATEDUSBDEVICE_H
#define THRIFTUSB_TESTS_SUPPORT_EMULATEDUSBDEVICE_H

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

typedef struct _UMockdevTestbed UMockdevTestbed;
typedef struct _UMockdevIoctlBase UMockdevIoctlBase;
typedef struct _UMockdevIoctlClient UMockdevIoctlClient;
typedef struct _UMockdevIoctlData UMockdevIoctlData;

namespace thriftusb {
namespace test {

/** An endpoint: bit 7 of the address set for IN; type 2 bulk, 3 interrupt. */
struct EndpointInfo {
  uint8_t address;
  uint8_t type = 2;
};

/** One alternate setting of an interface, with its endpoints in descriptor order. */
struct SettingInfo {
  uint8_t interface;
  uint8_t alternate;
  uint8_t cls;
  uint8_t subClass;
  uint8_t protocol;
  std::vector<EndpointInfo> endpoints;
};

/**
 * Identifiers, serial number (empty: none) and configurations, each a list of
 * settings grouped by interface. The first configuration is the active one.
 */
struct DeviceInfo {
  uint16_t vendor;
  uint16_t product;
  std::string serial;
  std::vector<std::vector<SettingInfo>> configurations;
};

/**
 * The device's answer to one transfer (URB): the bytes it sends (IN), the URB's
 * status (0, -EPIPE a stall, -EOVERFLOW babble, -ESHUTDOWN gone...), or `hold`: the
 * URB never ends by itself, the host's time-out discards it with the bytes given.
 */
struct Reply {
  std::string data;
  int status = 0;
  bool hold = false;
};

/** A control request received (string descriptor requests are answered apart). */
struct ControlRequest {
  uint8_t requestType, request;
  uint16_t value, index, length;
  std::string data;  ///< the data stage of an OUT request
};

/** What an emulated device has seen so far. */
struct Observed {
  std::string out;  ///< bytes accepted from bulk OUT URBs
  std::vector<ControlRequest> controls;
  std::map<unsigned long, int> ioctls;  ///< per request code
  std::map<uint8_t, int> urbs;          ///< URBs submitted per endpoint
  std::map<uint8_t, int> clearedHalts;  ///< per endpoint
  std::vector<unsigned> claimed;        ///< interfaces claimed now
  int openHandles;  ///< descriptors open on the node now (a close shows within ms)
  int opens;        ///< descriptors ever opened on the node
  bool kernelDriver;
};

/** The three kinds of transfer a device answers. */
enum class Pipe { In, Out, Control };

/**
 * The device's side of the usbdevfs ioctls of one device emulated for the real
 * libusb through umockdev. It answers string descriptor requests from its serial
 * number, keeps kernel-driver and claim state, and plays the replies queued per pipe
 * in order:
 * - IN: bytes of a plain reply beyond a URB's length stay for the next URB; with
 *   nothing queued a URB waits for queue() or the host's time-out, or ends at once
 *   with zero length under setZeroLengthWhenIdle();
 * - OUT and control OUT: without a reply the bytes are accepted and recorded;
 * - control IN: without a reply the request ends with zero length.
 * The ioctls run on the testbed's worker thread; every member may be called from any
 * thread. A URB is reaped only through the descriptor that submitted it.
 */
class EmulatedUsbDevice {
public:
  EmulatedUsbDevice(const DeviceInfo& info, uint8_t address);
  ~EmulatedUsbDevice();
  EmulatedUsbDevice(const EmulatedUsbDevice&) = delete;
  EmulatedUsbDevice& operator=(const EmulatedUsbDevice&) = delete;

  /** Queues the answer to a coming transfer on @p pipe. */
  void queue(Pipe pipe, Reply reply);
  /** With @p on, an IN URB with nothing queued ends at once with zero length. */
  void setZeroLengthWhenIdle(bool on);
  /** Replaces the serial number (the device descriptor keeps its string index). */
  void setSerial(const std::string& serial);
  /** Binds or unbinds the emulated kernel driver. */
  void setKernelDriver(bool bound);
  /** Makes ioctl @p request fail with @p error from now on; 0 ends that. */
  void failIoctl(unsigned long request, int error);
  /** The device goes: waiting URBs end -ESHUTDOWN, new ones fail ENODEV. */
  void unplug();

  /** A snapshot of what the device has seen, and its kernel-driver state. */
  Observed observed() const;
  /**
   * Waits up to @p limit for OUT bytes not taken yet and takes at most @p max of
   * them; empty after the limit or once unplugged.
   */
  std::string takeOut(size_t max, std::chrono::milliseconds limit);
  /** The device address (devnum) on bus 1. */
  uint8_t address() const { return address_; }

private:
  friend class EmulatedUsbBus;
  struct DataUnref {
    void operator()(UMockdevIoctlData* data) const;
  };
  using DataPtr = std::unique_ptr<UMockdevIoctlData, DataUnref>;
  struct Urb {
    UMockdevIoctlClient* client;
    DataPtr urb;
    DataPtr buffer;
  };

  static int onIoctl(UMockdevIoctlBase*, UMockdevIoctlClient* client, void* self);
  static void onConnected(UMockdevIoctlBase*, UMockdevIoctlClient* client, void* self);
  int handle(UMockdevIoctlClient* client, unsigned long request, UMockdevIoctlData* arg,
             Urb& reaped);
  void submit(UMockdevIoctlClient* client, UMockdevIoctlData* arg);
  void control(Urb urb);
  void serveIn();
  void play(Urb urb, std::deque<Reply>& replies, size_t offset, size_t room);
  void finish(Urb urb, int status);
  bool discard(UMockdevIoctlClient* client, unsigned long address);
  std::string stringDescriptor(uint8_t index) const;

  const uint8_t address_;
  mutable std::mutex mutex_;
  std::condition_variable outArrived_;
  std::string serial_;
  std::map<Pipe, std::deque<Reply>> replies_;
  bool zeroLengthWhenIdle_ = false;
  bool unplugged_ = false;
  std::map<unsigned long, int> faults_;
  Observed seen_{};
  std::string untaken_;
  std::map<unsigned, UMockdevIoctlClient*> claimed_;
  std::vector<UMockdevIoctlClient*> clients_;  // every descriptor opened, referenced
  std::deque<Urb> waitingIn_, held_;
  std::map<UMockdevIoctlClient*, std::deque<Urb>> done_;
};

/**
 * ThreadSanitizer's false alarms around the emulation, built into the programs that
 * link it (hand them to a child program in TSAN_OPTIONS): libumockdev and GLib are
 * not instrumented and pass data to the testbed's worker under GLib's own locks,
 * which ThreadSanitizer cannot see; libusb completes one thread's synchronous
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
  EmulatedUsbBus();
  ~EmulatedUsbBus();
  EmulatedUsbBus(const EmulatedUsbBus&) = delete;
  EmulatedUsbBus& operator=(const EmulatedUsbBus&) = delete;

  /** Plugs in a device at the next free address. */
  EmulatedUsbDevice& add(const DeviceInfo& info);
  /** libusb_init() of libusb's default context. */
  void initDefaultContext();

private:
  UMockdevTestbed* testbed_;
  std::vector<UMockdevIoctlBase*> handlers_;
  std::vector<std::unique_ptr<EmulatedUsbDevice>> devices_;
  bool defaultContext_ = false;
};

} // namespace test
} // namespace thriftusb

#endif
