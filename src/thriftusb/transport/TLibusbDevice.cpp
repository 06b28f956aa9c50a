#include <thriftusb/transport/TLibusbDevice.h>

#include <chrono>
#include <cstring>
#include <string>

#include <unistd.h>

#include <libusb.h>
#include <thrift/TOutput.h> // needs <string> first with Thrift 0.13

namespace apache {
namespace thrift {
namespace transport {

namespace {

// Five stalls in a row end a transfer: the count may pass this.
constexpr int kMaxPipeErrors = 4;
// Pause between zero-length packets in read(), in microseconds.
constexpr useconds_t kZeroLengthPause = 1000;

using Clock = std::chrono::steady_clock;

double elapsedMs(Clock::time_point start) {
  const auto ns = std::chrono::duration_cast<std::chrono::nanoseconds>(Clock::now() - start);
  return static_cast<double>(ns.count()) / 1e9 * 1000;
}

void logHandleNull() {
  GlobalOutput.printf("*** TLibusbDevice usb handle is null!");
}

// Runs a transfer again while the device stalls it, clearing the halt of the bulk IN
// endpoint each time, until it ends otherwise or the fifth stall in a row; returns
// libusb's last result (LIBUSB_ERROR_PIPE when the stalls won).
template <typename Transfer>
int retryStalledIn(libusb_device_handle* handle, uint8_t endpointIn, Transfer transfer) {
  for (int pipeErrors = 0;;) {
    const int rv = transfer();
    if (rv != LIBUSB_ERROR_PIPE) {
      return rv;
    }
    libusb_clear_halt(handle, endpointIn);
    GlobalOutput.printf("*** TLibusbDevice read  pipe error");
    if (++pipeErrors > kMaxPipeErrors) {
      GlobalOutput.printf("*** bulk_transfer read failed! rv:%d", rv);
      return rv;
    }
  }
}

} // namespace

TLibusbDevice::TLibusbDevice(unsigned short vendorId, unsigned short productId,
                             unsigned short interfaceClass, unsigned short interfaceSubClass,
                             bool nonblocking, unsigned int readTimeout,
                             unsigned int writeTimeout, unsigned int maxReadBlockSize,
                             unsigned int maxWriteBlockSize, bool ownContext)
  : TLibusbDevice(vendorId, productId, "", interfaceClass, interfaceSubClass, 0, nonblocking,
                  readTimeout, writeTimeout, maxReadBlockSize, maxWriteBlockSize, ownContext) {}

TLibusbDevice::TLibusbDevice(unsigned short vendorId, unsigned short productId,
                             unsigned short interfaceClass, unsigned short interfaceSubClass,
                             unsigned short interfaceProtocol, bool nonblocking,
                             unsigned int readTimeout, unsigned int writeTimeout,
                             unsigned int maxReadBlockSize, unsigned int maxWriteBlockSize,
                             bool ownContext)
  : TLibusbDevice(vendorId, productId, "", interfaceClass, interfaceSubClass, interfaceProtocol,
                  nonblocking, readTimeout, writeTimeout, maxReadBlockSize, maxWriteBlockSize,
                  ownContext) {}

TLibusbDevice::TLibusbDevice(unsigned short vendorId, unsigned short productId,
                             const char* serialNumber, unsigned short interfaceClass,
                             unsigned short interfaceSubClass, unsigned short interfaceProtocol,
                             bool nonblocking, unsigned int readTimeout,
                             unsigned int writeTimeout, unsigned int maxReadBlockSize,
                             unsigned int maxWriteBlockSize, bool ownContext)
  : UsbDevice(nonblocking, maxReadBlockSize, maxWriteBlockSize),
    vendorId_(vendorId),
    productId_(productId),
    interfaceClass_(interfaceClass),
    interfaceSubClass_(interfaceSubClass),
    interfaceProtocol_(interfaceProtocol),
    handle_(nullptr),
    context_(nullptr),
    userDevice_(),
    readTimeout_(readTimeout),
    writeTimeout_(writeTimeout),
    ownContext_(ownContext),
    claimed_(false),
    serialFilter_() {
  // A null text is no filter; a longer text is cut to the field, which keeps it
  // longer than any serial number a device can report (see the header).
  if (serialNumber != nullptr) {
    std::memcpy(serialFilter_, serialNumber, strnlen(serialNumber, sizeof(serialFilter_) - 1));
  }
}

TLibusbDevice::~TLibusbDevice() {
  TLibusbDevice::close();
}

bool TLibusbDevice::isOpen() {
  return handle_ != nullptr;
}

int TLibusbDevice::open() {
  if (isOpen()) {
    return 0;
  }
  userDevice_ = UserDevice();
  userDevice_.vendorId = vendorId_;
  userDevice_.productId = productId_;
  userDevice_.interfaceClass = static_cast<uint8_t>(interfaceClass_ & 0xff);
  userDevice_.interfaceSubClass = static_cast<uint8_t>(interfaceSubClass_ & 0xff);
  userDevice_.interfaceProtocol = static_cast<uint8_t>(interfaceProtocol_ & 0xff);
  userDevice_.transferType = LIBUSB_TRANSFER_TYPE_BULK;
  userDevice_.device = nullptr;

  if (ownContext_ && libusb_init(&context_) < 0) {
    context_ = nullptr;
    GlobalOutput.printf("*** initial USB lib failed!");
    return -1;
  }

  libusb_device_descriptor desc;
  if (get_device_descriptor(&desc, &userDevice_) < 0) {
    if (ownContext_) {
      libusb_exit(context_);
      context_ = nullptr;
    }
    GlobalOutput.printf("*** get_device_descriptor failed!");
    return -1;
  }

  const int found = get_device_endpoint(&desc, &userDevice_);
  if (found < 0) {
    close();
    GlobalOutput.printf("*** get_device_endpoint failed! rv:%d", found);
    return -1;
  }

  // Only an active driver is detached; a query error (a platform without kernel
  // driver support) goes on to the claim, which tells whether the interface is free.
  if (libusb_kernel_driver_active(handle_, userDevice_.interfaceNumber) == 1) {
    const int rv = libusb_detach_kernel_driver(handle_, userDevice_.interfaceNumber);
    if (rv < 0) {
      GlobalOutput.printf("*** libusb_detach_kernel_driver failed! rv:%d", rv);
      close();
      return -1;
    }
  }

  const int rv = libusb_claim_interface(handle_, userDevice_.interfaceNumber);
  if (rv < 0) {
    GlobalOutput.printf("*** libusb_claim_interface failed! rv:%d", rv);
    close();
    return -1;
  }
  claimed_ = true;
  return 0;
}

int TLibusbDevice::get_device_descriptor(libusb_device_descriptor* desc, UserDevice* user) {
  libusb_device** list = nullptr;
  const ssize_t count = libusb_get_device_list(context_, &list);
  if (count < 0) {
    return static_cast<int>(count);
  }

  int outcome = -2;
  for (ssize_t i = 0; list[i] != nullptr; ++i) {
    libusb_device* device = list[i];
    outcome = libusb_get_device_descriptor(device, desc);
    if (outcome < 0) {
      continue;
    }
    if (desc->idProduct != user->productId || desc->idVendor != user->vendorId) {
      outcome = -1;
      continue;
    }
    libusb_device_handle* handle = nullptr;
    outcome = libusb_open(device, &handle);
    if (outcome < 0) {
      continue;
    }
    handle_ = handle;

    // The result is not examined: without a serial number string the text stays
    // empty, which only the empty filter accepts.
    unsigned char serial[256] = {};
    libusb_get_string_descriptor_ascii(handle, desc->iSerialNumber, serial, sizeof(serial));
    if (std::strstr(reinterpret_cast<const char*>(serial), serialFilter_) != nullptr) {
      user->device = device;
      user->deviceList = list;
      return 0;
    }
    libusb_close(handle);
    handle_ = nullptr;
    outcome = -1;
  }
  libusb_free_device_list(list, 1);
  return outcome;
}

int TLibusbDevice::get_device_endpoint(libusb_device_descriptor* desc, UserDevice* user) {
  for (uint8_t c = 0; c < desc->bNumConfigurations; ++c) {
    libusb_config_descriptor* config = nullptr;
    if (libusb_get_config_descriptor(user->device, c, &config) < 0) {
      return -1;
    }
    for (uint8_t i = 0; i < config->bNumInterfaces; ++i) {
      const libusb_interface& interface = config->interface[i];
      for (int a = 0; a < interface.num_altsetting; ++a) {
        const libusb_interface_descriptor& alt = interface.altsetting[a];
        const bool candidate =
            alt.bInterfaceClass == user->interfaceClass &&
            alt.bInterfaceSubClass == user->interfaceSubClass &&
            (user->interfaceProtocol == 0 || alt.bInterfaceProtocol == user->interfaceProtocol);
        if (candidate && match_with_endpoint(&alt, user) == 1) {
          user->interfaceNumber = alt.bInterfaceNumber;
          libusb_free_config_descriptor(config);
          return 0;
        }
      }
    }
    libusb_free_config_descriptor(config);
  }
  return -2;
}

int TLibusbDevice::match_with_endpoint(const libusb_interface_descriptor* alt, UserDevice* user) {
  bool in = false;
  bool out = false;
  for (uint8_t e = 0; e < alt->bNumEndpoints; ++e) {
    const libusb_endpoint_descriptor& endpoint = alt->endpoint[e];
    if ((endpoint.bmAttributes & LIBUSB_TRANSFER_TYPE_MASK) != user->transferType) {
      continue;
    }
    if ((endpoint.bEndpointAddress & LIBUSB_ENDPOINT_DIR_MASK) == LIBUSB_ENDPOINT_IN) {
      user->endpointIn = endpoint.bEndpointAddress;
      in = true;
    } else {
      user->endpointOut = endpoint.bEndpointAddress;
      out = true;
    }
  }
  return in && out ? 1 : 0;
}

int TLibusbDevice::close() {
  libusb_device_handle* handle = handle_;
  if (handle == nullptr) {
    return 0;
  }
  if (claimed_) {
    libusb_release_interface(handle, userDevice_.interfaceNumber);
  }
  libusb_close(handle);
  libusb_free_device_list(userDevice_.deviceList, 1);
  userDevice_.deviceList = nullptr;
  userDevice_.device = nullptr;
  if (ownContext_) {
    libusb_exit(context_);
    context_ = nullptr;
  }
  handle_ = nullptr;
  claimed_ = false;
  return 0;
}

int TLibusbDevice::flush() {
  return 0;
}

int64_t TLibusbDevice::read(unsigned char* buf, unsigned int len) {
  libusb_device_handle* handle = handle_;
  if (len > maxReadBlockSize_ || handle == nullptr) {
    logHandleNull();
    return -1;
  }
  const Clock::time_point start = Clock::now();
  int received = 0;
  for (;;) {
    const int rv = retryStalledIn(handle, userDevice_.endpointIn, [&] {
      return libusb_bulk_transfer(handle, userDevice_.endpointIn, buf, static_cast<int>(len),
                                  &received, readTimeout_);
    });
    if (rv == LIBUSB_ERROR_PIPE) {
      return rv;
    }
    if (rv == LIBUSB_ERROR_TIMEOUT) {
      // Bytes received before the time-out are not reported.
      GlobalOutput.printf("*** bulk_transfer read timeout : %d! try to read %d , read length : %d",
                          static_cast<int>(readTimeout_), static_cast<int>(len), received);
      return 0;
    }
    if (rv == LIBUSB_ERROR_OVERFLOW) {
      GlobalOutput.printf("*** bulk_transfer read overflow! try to read %d , read length : %d",
                          static_cast<int>(len), received);
      return received;
    }
    if (rv < 0) {
      GlobalOutput.printf("*** bulk_transfer read failed! rv:%d", rv);
      return rv;
    }
    if (received > 0) {
      return received;
    }
    // A zero-length packet: ask again once a millisecond until the time-out has
    // passed since the call began.
    usleep(kZeroLengthPause);
    if (!(readTimeout_ > elapsedMs(start))) {
      return 0;
    }
  }
}

int64_t TLibusbDevice::write(const unsigned char* buf, unsigned int len) {
  libusb_device_handle* handle = handle_;
  if (len > maxWriteBlockSize_ || handle == nullptr) {
    logHandleNull();
    return -1;
  }
  int sent = 0;
  int pipeErrors = 0;
  for (;;) {
    // An OUT transfer only reads the buffer.
    const int rv = libusb_bulk_transfer(handle, userDevice_.endpointOut,
                                        const_cast<unsigned char*>(buf), static_cast<int>(len),
                                        &sent, writeTimeout_);
    if (rv == LIBUSB_ERROR_PIPE) {
      ++pipeErrors;
      libusb_clear_halt(handle, userDevice_.endpointOut);
      GlobalOutput.printf("*** TLibusbDevice write  pipe error");
      if (pipeErrors > kMaxPipeErrors) {
        GlobalOutput.printf("*** bulk_transfer OUT failed! rv:%d", rv);
        return -1;
      }
      continue;
    }
    if (rv < 0) {
      GlobalOutput.printf("*** bulk_transfer OUT failed! rv:%d", rv);
      return -1;
    }
    return sent;
  }
}

int64_t TLibusbDevice::usbControlTransfer(int requestType, int request, int value, int index,
                                          int length, unsigned char* data) {
  libusb_device_handle* handle = handle_;
  if (handle == nullptr) {
    logHandleNull();
    return -1;
  }
  const uint16_t wLength = static_cast<uint16_t>(length & 0xffff);
  const Clock::time_point start = Clock::now();
  for (;;) {
    // The halt cleared on a stall is the bulk IN endpoint's, as for a stalled read.
    const int rv = retryStalledIn(handle, userDevice_.endpointIn, [&] {
      return libusb_control_transfer(handle, static_cast<uint8_t>(requestType & 0xff),
                                     static_cast<uint8_t>(request & 0xff),
                                     static_cast<uint16_t>(value & 0xffff),
                                     static_cast<uint16_t>(index & 0xffff), data, wLength,
                                     readTimeout_);
    });
    if (rv == LIBUSB_ERROR_PIPE) {
      return rv;
    }
    if (rv == LIBUSB_ERROR_TIMEOUT) {
      GlobalOutput.printf("*** bulk_transfer read timeout : %d! try to read %d , read length : %d",
                          static_cast<int>(readTimeout_), wLength, 0);
      return rv;
    }
    if (rv == LIBUSB_ERROR_OVERFLOW) {
      GlobalOutput.printf("*** bulk_transfer read overflow! try to read %d , read length : %d",
                          wLength, 0);
      return rv;
    }
    if (rv < 0) {
      GlobalOutput.printf("*** bulk_transfer read failed! rv:%d", rv);
      return rv;
    }
    if (rv > 0) {
      return rv;
    }
    // Zero-length result: repeat at once until the time-out has passed.
    if (!(readTimeout_ > elapsedMs(start))) {
      return 0;
    }
  }
}

void TLibusbDevice::cancelIo() {}

void TLibusbDevice::cancelIo(unsigned long) {}

} // namespace transport
} // namespace thrift
} // namespace apache
