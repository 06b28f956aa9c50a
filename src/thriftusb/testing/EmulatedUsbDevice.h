#ifndef THRIFTUSB_TESTING_EMULATEDUSBDEVICE_H
#define THRIFTUSB_TESTING_EMULATEDUSBDEVICE_H

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

typedef struct _UMockdevIoctlBase UMockdevIoctlBase;
typedef struct _UMockdevIoctlClient UMockdevIoctlClient;
typedef struct _UMockdevIoctlData UMockdevIoctlData;

namespace thriftusb {
namespace testing {

/** An endpoint: bit 7 of the address set for IN; type 2 bulk, 3 interrupt. */
struct EndpointInfo {
  uint8_t address;  ///< endpoint address, 0x81 for IN endpoint 1
  uint8_t type = 2; ///< transfer type: 2 bulk, 3 interrupt
};

/** One alternate setting of an interface, with its endpoints in descriptor order. */
struct SettingInfo {
  uint8_t interface;                   ///< interface number
  uint8_t alternate;                   ///< alternate setting number
  uint8_t cls;                         ///< interface class
  uint8_t subClass;                    ///< interface subclass
  uint8_t protocol;                    ///< interface protocol
  std::vector<EndpointInfo> endpoints; ///< its endpoints
};

/**
 * Identifiers, serial number (empty: none) and configurations, each a list of
 * settings grouped by interface. The first configuration is the active one.
 */
struct DeviceInfo {
  uint16_t vendor;    ///< vendor id
  uint16_t product;   ///< product id
  std::string serial; ///< serial number; empty: the device has none
  std::vector<std::vector<SettingInfo>> configurations; ///< settings per configuration
};

/**
 * The device's answer to one transfer (URB): the bytes it sends (IN), the URB's
 * status (0, -EPIPE a stall, -EOVERFLOW babble, -ESHUTDOWN gone...), or `hold`: the
 * URB never ends by itself, the host's time-out discards it with the bytes given.
 */
struct Reply {
  std::string data;  ///< bytes the device sends (IN)
  int status = 0;    ///< the URB's status: 0, or a negative errno
  bool hold = false; ///< the URB never ends by itself
};

/** A control request received (string descriptor requests are answered apart). */
struct ControlRequest {
  uint8_t requestType; ///< bmRequestType
  uint8_t request;     ///< bRequest
  uint16_t value;      ///< wValue
  uint16_t index;      ///< wIndex
  uint16_t length;     ///< wLength
  std::string data;  ///< the data stage of an OUT request
};

/** What an emulated device has seen so far. */
struct Observed {
  std::string out;  ///< bytes accepted from bulk OUT URBs
  std::vector<ControlRequest> controls; ///< control requests, in order
  std::map<unsigned long, int> ioctls;  ///< per request code
  std::map<uint8_t, int> urbs;          ///< URBs submitted per endpoint
  std::map<uint8_t, int> clearedHalts;  ///< per endpoint
  std::vector<unsigned> claimed;        ///< interfaces claimed now
  int openHandles;  ///< descriptors open on the node now (a close shows within ms)
  int opens;        ///< descriptors ever opened on the node
  bool kernelDriver; ///< whether the emulated kernel driver is bound
};

/** The three kinds of transfer a device answers. */
enum class Pipe {
  In,     ///< bulk IN
  Out,    ///< bulk OUT
  Control ///< control requests
};

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
  /**
   * A device as EmulatedUsbBus::add() makes it.
   *
   * @param info     its identifiers, serial number and configurations
   * @param address  its address (devnum) on bus 1
   */
  EmulatedUsbDevice(const DeviceInfo& info, uint8_t address);
  /** Lets go of every URB and descriptor reference it holds. */
  ~EmulatedUsbDevice();
  EmulatedUsbDevice(const EmulatedUsbDevice&) = delete;
  EmulatedUsbDevice& operator=(const EmulatedUsbDevice&) = delete;

  /**
   * Queues the answer to a coming transfer.
   *
   * @param pipe   the pipe of that transfer
   * @param reply  what the device answers
   */
  void queue(Pipe pipe, Reply reply);
  /**
   * Chooses what an IN URB with nothing queued does.
   *
   * @param on  true: it ends at once with zero length; false: it waits
   */
  void setZeroLengthWhenIdle(bool on);
  /**
   * Replaces the serial number (the device descriptor keeps its string index).
   *
   * @param serial  the new serial number
   */
  void setSerial(const std::string& serial);
  /**
   * Binds or unbinds the emulated kernel driver.
   *
   * @param bound  whether a kernel driver is bound to the interfaces
   */
  void setKernelDriver(bool bound);
  /**
   * Makes one ioctl fail from now on.
   *
   * @param request  the ioctl's request code (USBDEVFS_…)
   * @param error    the errno it fails with; 0 makes it work again
   */
  void failIoctl(unsigned long request, int error);
  /** The device goes: waiting URBs end -ESHUTDOWN, new ones fail ENODEV. */
  void unplug();

  /** @return a snapshot of what the device has seen, and its kernel-driver state */
  Observed observed() const;
  /**
   * Waits for OUT bytes not taken yet and takes some of them.
   *
   * @param max    the most bytes to take
   * @param limit  how long to wait for the first byte
   * @return the bytes taken; empty after the limit or once unplugged
   */
  std::string takeOut(size_t max, std::chrono::milliseconds limit);
  /** @return the device address (devnum) on bus 1 */
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

} // namespace testing
} // namespace thriftusb

#endif
