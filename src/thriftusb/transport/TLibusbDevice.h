#ifndef THRIFTUSB_TRANSPORT_TLIBUSBDEVICE_H
#define THRIFTUSB_TRANSPORT_TLIBUSBDEVICE_H

#include <atomic>
#include <cstdint>

#include <thriftusb/transport/UsbDevice.h>

// libusb's types appear here only through pointers, so this header does not need
// <libusb.h> and programs using the channel need not build against libusb. Code that
// calls the search operations includes <libusb.h> itself.
struct libusb_context;
struct libusb_device;
struct libusb_device_handle;
struct libusb_device_descriptor;
struct libusb_interface_descriptor;

namespace apache {
namespace thrift {
namespace transport {

/**
 * Search record of TLibusbDevice: what the device search looks for, and what it
 * found. Refilled by every TLibusbDevice::open().
 */
struct UserDevice {
  /** idVendor the device must have. */
  uint16_t vendorId;
  /** idProduct the device must have. */
  uint16_t productId;
  /** bInterfaceClass the interface must have. */
  uint8_t interfaceClass;
  /** bInterfaceSubClass the interface must have. */
  uint8_t interfaceSubClass;
  /** bInterfaceProtocol the interface must have; 0 accepts any protocol. */
  uint8_t interfaceProtocol;
  /** Endpoint transfer type sought: 2, libusb's bulk type. */
  uint8_t transferType;
  /** The matched device; null until the search succeeds. */
  libusb_device* device;
  /** The list `device` was taken from; kept until the channel is closed. */
  libusb_device** deviceList;
  /** bEndpointAddress of the chosen bulk IN endpoint (bit 7 set). */
  uint8_t endpointIn;
  /** bEndpointAddress of the chosen bulk OUT endpoint. */
  uint8_t endpointOut;
  /** bInterfaceNumber of the chosen interface. */
  uint8_t interfaceNumber;
};

/**
 * Device channel that reaches the USB device through libusb 1.0 in user space.
 *
 * open() finds the device by vendor and product identifier and, optionally, by a
 * piece of its serial number (the first device in libusb's order that passes wins),
 * picks the first interface of any configuration and alternate setting with the
 * wanted class, subclass and protocol that has a bulk IN and a bulk OUT endpoint,
 * detaches a kernel driver bound to that interface and claims it. It selects neither
 * a configuration nor an alternate setting.
 *
 * read() and write() are synchronous bulk transfers bounded by the read and write
 * time-outs: read() gives 0 when nothing came in time, write() never asks for a
 * retry (it sends bytes or fails with -1). Stalls are cleared and retried up to five
 * times. nonblocking_ is passed through for the transport to choose its mode; the
 * transfers always wait up to their time-out.
 *
 * One thread may read while another writes, and usbControlTransfer() may run beside
 * them; open() and close() must not overlap any other call. Never throws; diagnostic
 * lines, all beginning with "*** ", go through the Thrift runtime's GlobalOutput.
 */
class TLibusbDevice : public UsbDevice {
public:
  /**
   * A channel to any device with the identifiers, whatever its serial number, on an
   * interface of any protocol. Opens nothing.
   *
   * @param vendorId           idVendor of the device
   * @param productId          idProduct of the device
   * @param interfaceClass     bInterfaceClass of the interface (low byte compared)
   * @param interfaceSubClass  bInterfaceSubClass of the interface (low byte compared)
   * @param nonblocking        passed to the transport (see UsbDevice)
   * @param readTimeout        ms each bulk IN and control transfer may wait, and the
   *                           deadline of read()'s zero-length retries; 0: no limit
   * @param writeTimeout       ms each bulk OUT transfer may wait; 0: no limit
   * @param maxReadBlockSize   largest length one read() accepts
   * @param maxWriteBlockSize  largest length one write() accepts
   * @param ownContext         open() creates a libusb context of its own and close()
   *                           ends it; false: libusb's default context, which the
   *                           application initialises before the first open()
   */
  TLibusbDevice(unsigned short vendorId, unsigned short productId, unsigned short interfaceClass,
                unsigned short interfaceSubClass, bool nonblocking, unsigned int readTimeout,
                unsigned int writeTimeout, unsigned int maxReadBlockSize,
                unsigned int maxWriteBlockSize, bool ownContext);

  /**
   * As above, on an interface with @p interfaceProtocol (low byte compared; 0
   * accepts any protocol).
   *
   * @param vendorId           idVendor of the device
   * @param productId          idProduct of the device
   * @param interfaceClass     bInterfaceClass of the interface
   * @param interfaceSubClass  bInterfaceSubClass of the interface
   * @param interfaceProtocol  bInterfaceProtocol of the interface; 0: any
   * @param nonblocking        passed to the transport (see UsbDevice)
   * @param readTimeout        ms each bulk IN and control transfer may wait; 0: no limit
   * @param writeTimeout       ms each bulk OUT transfer may wait; 0: no limit
   * @param maxReadBlockSize   largest length one read() accepts
   * @param maxWriteBlockSize  largest length one write() accepts
   * @param ownContext         a libusb context of its own (see the first constructor)
   */
  TLibusbDevice(unsigned short vendorId, unsigned short productId, unsigned short interfaceClass,
                unsigned short interfaceSubClass, unsigned short interfaceProtocol,
                bool nonblocking, unsigned int readTimeout, unsigned int writeTimeout,
                unsigned int maxReadBlockSize, unsigned int maxWriteBlockSize, bool ownContext);

  /**
   * As above, on a device whose serial number string contains @p serialNumber
   * (case-sensitive; an empty text accepts every device).
   *
   * A null @p serialNumber is taken as the empty text. Only the first 255 characters
   * are kept; since a USB string descriptor holds at most 126 characters, a longer
   * text matches no device, and open() then fails instead of picking another one.
   *
   * @param vendorId           idVendor of the device
   * @param productId          idProduct of the device
   * @param serialNumber       text the device's serial number must contain
   * @param interfaceClass     bInterfaceClass of the interface
   * @param interfaceSubClass  bInterfaceSubClass of the interface
   * @param interfaceProtocol  bInterfaceProtocol of the interface; 0: any
   * @param nonblocking        passed to the transport (see UsbDevice)
   * @param readTimeout        ms each bulk IN and control transfer may wait; 0: no limit
   * @param writeTimeout       ms each bulk OUT transfer may wait; 0: no limit
   * @param maxReadBlockSize   largest length one read() accepts
   * @param maxWriteBlockSize  largest length one write() accepts
   * @param ownContext         a libusb context of its own (see the first constructor)
   */
  TLibusbDevice(unsigned short vendorId, unsigned short productId, const char* serialNumber,
                unsigned short interfaceClass, unsigned short interfaceSubClass,
                unsigned short interfaceProtocol, bool nonblocking, unsigned int readTimeout,
                unsigned int writeTimeout, unsigned int maxReadBlockSize,
                unsigned int maxWriteBlockSize, bool ownContext);

  /** Closes the channel. */
  ~TLibusbDevice() override;

  /**
   * Finds the device and the interface, detaches an active kernel driver from the
   * interface and claims it. Every failure is logged and undone: nothing is left
   * open, an own context included.
   *
   * @return 0 (also when already open), -1 on failure
   */
  int open() override;

  /**
   * Releases the interface, closes the device, frees the device list and ends an own
   * context. A detached kernel driver is not attached again.
   *
   * @return 0, always
   */
  int close() override;

  /** @return true while the device handle is held */
  bool isOpen() override;

  /** Nothing is buffered: every write is a finished transfer. @return 0, always */
  int flush() override;

  /**
   * One bulk IN transfer of up to @p len bytes, repeated after a cleared stall (up to
   * five stalls in a row) and, once a millisecond, after zero-length packets until
   * the read time-out has passed since the call began.
   *
   * @param buf  where the bytes go
   * @param len  the most bytes to take
   * @return bytes received (> 0); 0 when nothing came within the read time-out; -1
   *         when closed or @p len is above maxReadBlockSize_; otherwise libusb's
   *         negative error code (LIBUSB_ERROR_PIPE after the fifth stall)
   */
  int64_t read(unsigned char* buf, unsigned int len) override;

  /**
   * One bulk OUT transfer of @p len bytes, repeated after a cleared stall (up to five
   * stalls in a row).
   *
   * @param buf  the bytes to send
   * @param len  how many of them
   * @return bytes sent as libusb reports them (may be fewer than @p len); -1 on any
   *         failure, the time-out included
   */
  int64_t write(const unsigned char* buf, unsigned int len) override;

  /** Does nothing: a transfer ends only by completing or by its time-out. */
  void cancelIo() override;

  /** Does nothing; the argument is not used. */
  void cancelIo(unsigned long) override;

  /**
   * A control transfer on endpoint 0, bounded by the read time-out. The data stage's
   * direction follows bit 7 of @p requestType. A stall clears the bulk IN endpoint's
   * halt and is retried (up to five in a row); zero-length results are repeated at
   * once until the read time-out has passed.
   *
   * @param requestType  bmRequestType (low 8 bits)
   * @param request      bRequest (low 8 bits)
   * @param value        wValue (low 16 bits)
   * @param index        wIndex (low 16 bits)
   * @param length       wLength (low 16 bits): bytes of @p data in the data stage
   * @param data         data stage buffer
   * @return bytes of the data stage (> 0); 0 when only zero-length results came
   *         within the read time-out; -1 when closed; otherwise libusb's negative
   *         error code (LIBUSB_ERROR_TIMEOUT on time-out)
   */
  int64_t usbControlTransfer(int requestType, int request, int value, int index, int length,
                             unsigned char* data);

  /**
   * The device search: walks libusb's device list in its order and opens the first
   * device with the wanted identifiers whose serial number contains the filter;
   * devices opened and refused on their serial number are closed again.
   *
   * @param desc  receives the device descriptor of the device examined last
   * @param user  the search record; receives `device` and `deviceList` on success
   * @return 0 on a match (the handle stays open, the list is kept); otherwise the list
   *         is freed and the result is negative: -2 for an empty list, libusb's code
   *         when the list, or the last device's descriptor or open, failed, -1 when
   *         the last device's identifiers or serial number did not match
   */
  int get_device_descriptor(libusb_device_descriptor* desc, UserDevice* user);

  /**
   * The interface search over every configuration and alternate setting of the
   * matched device, in order; the first candidate with a bulk IN and a bulk OUT
   * endpoint wins and its bInterfaceNumber goes into @p user.
   *
   * @param desc  the matched device's descriptor
   * @param user  the search record
   * @return 0 on a match; -1 when a configuration descriptor could not be read; -2
   *         when no interface matched
   */
  int get_device_endpoint(libusb_device_descriptor* desc, UserDevice* user);

  /**
   * Notes the bulk endpoints of @p alt in @p user (the last of each direction wins).
   *
   * @param alt   an alternate setting of a candidate interface
   * @param user  the search record; receives the endpoint addresses
   * @return 1 when the setting has at least one bulk IN and one bulk OUT endpoint,
   *         else 0
   */
  int match_with_endpoint(const libusb_interface_descriptor* alt, UserDevice* user);

private:
  uint16_t vendorId_;
  uint16_t productId_;
  uint16_t interfaceClass_;
  uint16_t interfaceSubClass_;
  uint16_t interfaceProtocol_;
  // Atomic: the transport's owner may ask isOpen() on one thread while another closes
  // the channel.
  std::atomic<libusb_device_handle*> handle_;
  libusb_context* context_;
  UserDevice userDevice_;
  uint32_t readTimeout_;
  uint32_t writeTimeout_;
  bool ownContext_;
  bool claimed_;
  char serialFilter_[256];
};

} // namespace transport
} // namespace thrift
} // namespace apache

#endif
