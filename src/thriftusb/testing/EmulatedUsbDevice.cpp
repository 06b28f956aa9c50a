// The device and the bus it is plugged into share the descriptor helpers below.
#include <thriftusb/testing/EmulatedUsbBus.h>
#include <thriftusb/testing/EmulatedUsbDevice.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <initializer_list>
#include <set>
#include <stdexcept>

#include <linux/usbdevice_fs.h>
#include <sys/ioctl.h>

#include <libusb.h>
#include <umockdev.h>

namespace thriftusb {
namespace testing {

const char* const kTsanSuppressions =
    "race:libumockdev.so.0\nrace:libglib-2.0.so.0\nrace:libusb_free_transfer\n";

namespace {

constexpr uint8_t kSerialIndex = 3;  // string index of the serial number

void put(std::string& to, std::initializer_list<unsigned> bytes) {
  for (unsigned b : bytes) {
    to += static_cast<char>(b & 0xff);
  }
}

void put16(std::string& to, unsigned value) {
  put(to, {value, value >> 8});
}

usbdevfs_urb* fields(const UMockdevIoctlData* urb) {
  return reinterpret_cast<usbdevfs_urb*>(urb->data);
}

void check(bool ok, const char* what, GError* error) {
  if (!ok) {
    const std::string message = std::string(what) + ": " + (error ? error->message : "?");
    g_clear_error(&error);
    throw std::runtime_error(message);
  }
}

std::string nodeName(uint8_t address) {
  char name[32];
  std::snprintf(name, sizeof(name), "bus/usb/001/%03u", address);
  return name;
}

// The device descriptor, then each configuration with its interfaces and endpoints.
std::string descriptors(const DeviceInfo& info) {
  std::string all;
  put(all, {18, LIBUSB_DT_DEVICE, 0x00, 0x02, 0, 0, 0, 64});
  put16(all, info.vendor);
  put16(all, info.product);
  put(all, {0x00, 0x01, 0, 0, info.serial.empty() ? 0u : kSerialIndex,
            static_cast<unsigned>(info.configurations.size())});
  unsigned value = 1;
  for (const auto& settings : info.configurations) {
    std::string body;
    std::set<uint8_t> interfaces;
    for (const SettingInfo& s : settings) {
      interfaces.insert(s.interface);
      put(body, {9, LIBUSB_DT_INTERFACE, s.interface, s.alternate,
                 static_cast<unsigned>(s.endpoints.size()), s.cls, s.subClass, s.protocol, 0});
      for (const EndpointInfo& e : s.endpoints) {
        put(body, {7, LIBUSB_DT_ENDPOINT, e.address, e.type, 0x00, 0x02, 0});
      }
    }
    put(all, {9, LIBUSB_DT_CONFIG});
    put16(all, static_cast<unsigned>(9 + body.size()));
    put(all, {static_cast<unsigned>(interfaces.size()), value++, 0, 0x80, 50});
    all += body;
  }
  return all;
}

// A device as umockdev-record writes it, with the attributes libusb reads.
std::string record(const std::string& sysPath, uint8_t address, const DeviceInfo& info) {
  const std::string node = nodeName(address);
  std::string hex;
  for (unsigned char c : descriptors(info)) {
    char pair[3];
    std::snprintf(pair, sizeof(pair), "%02x", c);
    hex += pair;
  }
  return "P: " + sysPath + "\nN: " + node + "\nE: SUBSYSTEM=usb\nE: DEVTYPE=usb_device\n" +
         "E: DEVNAME=/dev/" + node + "\nE: BUSNUM=001\nE: DEVNUM=" + node.substr(12) +
         "\nA: busnum=1\\n\nA: devnum=" + std::to_string(address) +
         "\\n\nA: bConfigurationValue=1\\n\nA: speed=480\\n\nH: descriptors=" + hex + "\n";
}

} // namespace

void EmulatedUsbDevice::DataUnref::operator()(UMockdevIoctlData* data) const {
  g_object_unref(data);
}

EmulatedUsbDevice::EmulatedUsbDevice(const DeviceInfo& info, uint8_t address)
  : address_(address), serial_(info.serial) {}

EmulatedUsbDevice::~EmulatedUsbDevice() {
  for (UMockdevIoctlClient* client : clients_) {
    g_object_unref(client);
  }
}

// umockdev reports each descriptor opened; that it was closed shows in the client's
// "connected" property.
void EmulatedUsbDevice::onConnected(UMockdevIoctlBase*, UMockdevIoctlClient* client, void* self) {
  auto* device = static_cast<EmulatedUsbDevice*>(self);
  std::lock_guard<std::mutex> lock(device->mutex_);
  device->clients_.push_back(static_cast<UMockdevIoctlClient*>(g_object_ref(client)));
}

int EmulatedUsbDevice::onIoctl(UMockdevIoctlBase*, UMockdevIoctlClient* client, void* self) {
  auto* device = static_cast<EmulatedUsbDevice*>(self);
  const unsigned long request = umockdev_ioctl_client_get_request(client);
  std::lock_guard<std::mutex> lock(device->mutex_);
  ++device->seen_.ioctls[request];
  const auto fault = device->faults_.find(request);
  Urb reaped{};  // written back to the client by the completion
  const int error = fault != device->faults_.end()
                        ? fault->second
                        : device->handle(client, request, umockdev_ioctl_client_get_arg(client),
                                         reaped);
  umockdev_ioctl_client_complete(client, error ? -1 : 0, error);
  return TRUE;
}

int EmulatedUsbDevice::handle(UMockdevIoctlClient* client, unsigned long request,
                              UMockdevIoctlData* arg, Urb& reaped) {
  auto resolve = [arg](size_t size) {
    return DataPtr(umockdev_ioctl_data_resolve(arg, 0, size, nullptr));
  };
  auto number = [&] { return *reinterpret_cast<unsigned*>(resolve(sizeof(unsigned))->data); };
  switch (request) {
  case USBDEVFS_GET_CAPABILITIES:
    *reinterpret_cast<uint32_t*>(resolve(sizeof(uint32_t))->data) =
        USBDEVFS_CAP_ZERO_PACKET | USBDEVFS_CAP_BULK_CONTINUATION |
        USBDEVFS_CAP_NO_PACKET_SIZE_LIM | USBDEVFS_CAP_REAP_AFTER_DISCONNECT;
    return 0;
  case USBDEVFS_SUBMITURB:
    if (unplugged_) {
      return ENODEV;
    }
    submit(client, arg);
    return 0;
  case USBDEVFS_REAPURB:
  case USBDEVFS_REAPURBNDELAY: {
    auto& done = done_[client];
    if (done.empty()) {
      return EAGAIN;
    }
    reaped = std::move(done.front());
    done.pop_front();
    umockdev_ioctl_data_set_ptr(resolve(sizeof(void*)).get(), 0, reaped.urb.get());
    return 0;
  }
  case USBDEVFS_DISCARDURB:
    return discard(client, *reinterpret_cast<unsigned long*>(arg->data)) ? 0 : EINVAL;
  case USBDEVFS_CLAIMINTERFACE:
    claimed_[number()] = client;
    return 0;
  case USBDEVFS_RELEASEINTERFACE:
    claimed_.erase(number());
    return 0;
  case USBDEVFS_CLEAR_HALT:
    ++seen_.clearedHalts[static_cast<uint8_t>(number())];
    return 0;
  case USBDEVFS_GETDRIVER:
    if (!seen_.kernelDriver) {
      return ENODATA;
    }
    std::strcpy(reinterpret_cast<usbdevfs_getdriver*>(resolve(sizeof(usbdevfs_getdriver))->data)
                    ->driver,
                "emulated");
    return 0;
  case USBDEVFS_IOCTL: {  // only the kernel driver's disconnect and connect
    const auto code = static_cast<unsigned>(
        reinterpret_cast<usbdevfs_ioctl*>(resolve(sizeof(usbdevfs_ioctl))->data)->ioctl_code);
    const bool was = seen_.kernelDriver;
    if (code != USBDEVFS_DISCONNECT && code != USBDEVFS_CONNECT) {
      return ENOTTY;
    }
    seen_.kernelDriver = code == USBDEVFS_CONNECT;
    return code == USBDEVFS_DISCONNECT && !was ? ENODATA : 0;
  }
  case USBDEVFS_SETCONFIGURATION:
  case USBDEVFS_SETINTERFACE:
  case USBDEVFS_RESET:
  case USBDEVFS_RESETEP:
    return 0;
  default:
    return ENOTTY;
  }
}

void EmulatedUsbDevice::submit(UMockdevIoctlClient* client, UMockdevIoctlData* arg) {
  Urb urb{client, DataPtr(umockdev_ioctl_data_resolve(arg, 0, sizeof(usbdevfs_urb), nullptr)),
          nullptr};
  usbdevfs_urb* u = fields(urb.urb.get());
  if (u->buffer_length > 0) {
    urb.buffer.reset(umockdev_ioctl_data_resolve(urb.urb.get(), offsetof(usbdevfs_urb, buffer),
                                                 static_cast<size_t>(u->buffer_length), nullptr));
  }
  u->status = 0;
  u->actual_length = 0;
  ++seen_.urbs[u->endpoint];
  if (u->type == USBDEVFS_URB_TYPE_CONTROL) {
    control(std::move(urb));
  } else if (u->endpoint & LIBUSB_ENDPOINT_IN) {
    waitingIn_.push_back(std::move(urb));
    serveIn();
  } else if (replies_[Pipe::Out].empty()) {
    const std::string bytes(urb.buffer ? reinterpret_cast<const char*>(urb.buffer->data) : "",
                            urb.buffer ? static_cast<size_t>(u->buffer_length) : 0);
    seen_.out += bytes;
    untaken_ += bytes;
    u->actual_length = u->buffer_length;
    finish(std::move(urb), 0);
    outArrived_.notify_all();
  } else {
    play(std::move(urb), replies_[Pipe::Out], 0, 0);
  }
}

// Gives the URB the first reply: its bytes (at most @p room, at @p offset in the
// buffer) and its status. Bytes of a plain reply beyond @p room stay for the next URB.
void EmulatedUsbDevice::play(Urb urb, std::deque<Reply>& replies, size_t offset, size_t room) {
  Reply& reply = replies.front();
  const size_t n = std::min(reply.data.size(), room);
  if (n > 0) {
    std::memcpy(urb.buffer->data + offset, reply.data.data(), n);
  }
  fields(urb.urb.get())->actual_length = static_cast<int>(n);
  if (room > 0 && reply.status == 0 && !reply.hold && reply.data.size() > room) {
    reply.data.erase(0, n);
    finish(std::move(urb), 0);
    return;
  }
  const Reply played = std::move(reply);
  replies.pop_front();
  if (played.hold) {
    held_.push_back(std::move(urb));
  } else {
    finish(std::move(urb), played.status);
  }
}

void EmulatedUsbDevice::serveIn() {
  auto& in = replies_[Pipe::In];
  while (!waitingIn_.empty() && (!in.empty() || zeroLengthWhenIdle_)) {
    Urb urb = std::move(waitingIn_.front());
    waitingIn_.pop_front();
    const auto room = static_cast<size_t>(fields(urb.urb.get())->buffer_length);
    if (in.empty()) {
      finish(std::move(urb), 0);
    } else {
      play(std::move(urb), in, 0, room);
    }
  }
}

// The buffer holds the setup packet and the data stage.
void EmulatedUsbDevice::control(Urb urb) {
  const int length = fields(urb.urb.get())->buffer_length;
  if (length < 8) {
    finish(std::move(urb), -EINVAL);
    return;
  }
  const unsigned char* b = urb.buffer->data;
  ControlRequest r{b[0], b[1], static_cast<uint16_t>(b[2] | b[3] << 8),
                   static_cast<uint16_t>(b[4] | b[5] << 8), static_cast<uint16_t>(b[6] | b[7] << 8),
                   {}};
  const size_t room = std::min<size_t>(r.length, static_cast<size_t>(length - 8));
  if (r.requestType == LIBUSB_ENDPOINT_IN && r.request == LIBUSB_REQUEST_GET_DESCRIPTOR &&
      (r.value >> 8) == LIBUSB_DT_STRING) {
    std::deque<Reply> descriptor{{stringDescriptor(r.value & 0xff)}};
    descriptor.front().status = descriptor.front().data.empty() ? -EPIPE : 0;
    play(std::move(urb), descriptor, 8, room);
    return;
  }
  const bool in = (r.requestType & LIBUSB_ENDPOINT_IN) != 0;
  if (!in) {
    r.data.assign(reinterpret_cast<const char*>(b + 8), room);
  }
  seen_.controls.push_back(r);
  auto& replies = replies_[Pipe::Control];
  if (replies.empty()) {
    fields(urb.urb.get())->actual_length = in ? 0 : static_cast<int>(room);
    finish(std::move(urb), 0);
  } else {
    play(std::move(urb), replies, 8, in ? room : 0);
  }
}

void EmulatedUsbDevice::finish(Urb urb, int status) {
  fields(urb.urb.get())->status = status;
  done_[urb.client].push_back(std::move(urb));
}

// The host gives up on a URB (its time-out): it ends as killed, with the bytes it got.
bool EmulatedUsbDevice::discard(UMockdevIoctlClient* client, unsigned long address) {
  for (auto* urbs : {&waitingIn_, &held_}) {
    const auto it = std::find_if(urbs->begin(), urbs->end(), [&](const Urb& u) {
      return u.client == client && u.urb->client_addr == address;
    });
    if (it != urbs->end()) {
      Urb urb = std::move(*it);
      urbs->erase(it);
      finish(std::move(urb), -ENOENT);
      return true;
    }
  }
  return false;
}

std::string EmulatedUsbDevice::stringDescriptor(uint8_t index) const {
  std::string d;
  if (index == 0) {
    put(d, {4, LIBUSB_DT_STRING, 0x09, 0x04});  // US English only
  } else if (index == kSerialIndex && !serial_.empty()) {
    const std::string text = serial_.substr(0, 126);
    put(d, {static_cast<unsigned>(2 + 2 * text.size()), LIBUSB_DT_STRING});
    for (unsigned char c : text) {
      put16(d, c);
    }
  }
  return d;
}

void EmulatedUsbDevice::queue(Pipe pipe, Reply reply) {
  std::lock_guard<std::mutex> lock(mutex_);
  replies_[pipe].push_back(std::move(reply));
  serveIn();
}

void EmulatedUsbDevice::setZeroLengthWhenIdle(bool on) {
  std::lock_guard<std::mutex> lock(mutex_);
  zeroLengthWhenIdle_ = on;
  serveIn();
}

void EmulatedUsbDevice::setSerial(const std::string& serial) {
  std::lock_guard<std::mutex> lock(mutex_);
  serial_ = serial;
}

void EmulatedUsbDevice::setKernelDriver(bool bound) {
  std::lock_guard<std::mutex> lock(mutex_);
  seen_.kernelDriver = bound;
}

void EmulatedUsbDevice::failIoctl(unsigned long request, int error) {
  std::lock_guard<std::mutex> lock(mutex_);
  if (error == 0) {
    faults_.erase(request);
  } else {
    faults_[request] = error;
  }
}

void EmulatedUsbDevice::unplug() {
  std::lock_guard<std::mutex> lock(mutex_);
  unplugged_ = true;
  for (auto* urbs : {&waitingIn_, &held_}) {
    for (; !urbs->empty(); urbs->pop_front()) {
      finish(std::move(urbs->front()), -ESHUTDOWN);
    }
  }
  outArrived_.notify_all();
}

Observed EmulatedUsbDevice::observed() const {
  std::lock_guard<std::mutex> lock(mutex_);
  Observed now = seen_;
  for (const auto& claim : claimed_) {
    if (umockdev_ioctl_client_get_connected(claim.second)) {
      now.claimed.push_back(claim.first);
    }
  }
  now.openHandles = static_cast<int>(
      std::count_if(clients_.begin(), clients_.end(), &umockdev_ioctl_client_get_connected));
  now.opens = static_cast<int>(clients_.size());
  return now;
}

std::string EmulatedUsbDevice::takeOut(size_t max, std::chrono::milliseconds limit) {
  std::unique_lock<std::mutex> lock(mutex_);
  outArrived_.wait_for(lock, limit, [this] { return !untaken_.empty() || unplugged_; });
  const std::string taken = untaken_.substr(0, max);
  untaken_.erase(0, taken.size());
  return taken;
}

EmulatedUsbBus::EmulatedUsbBus() {
  // The check looks at /sys, which only a testbed diverts, and libumockdev keeps its
  // first answer: it must come after the testbed is made.
  testbed_ = umockdev_testbed_new();
  if (!umockdev_in_mock_environment()) {
    g_object_unref(testbed_);
    throw std::runtime_error("not running under umockdev: link the test program with "
                             "-Wl,--no-as-needed -lumockdev-preload, or libusb sees the real, "
                             "empty system");
  }
  const DeviceInfo rootHub{0x1d6b, 0x0002, "", {{{0, 0, LIBUSB_CLASS_HUB, 0, 0, {{0x81, 3}}}}}};
  GError* error = nullptr;
  if (!umockdev_testbed_add_from_string(testbed_, record("/devices/usb1", 1, rootHub).c_str(),
                                        &error)) {
    g_object_unref(testbed_); // the destructor does not run for a failed constructor
    check(false, "cannot add the root hub", error);
  }
}

EmulatedUsbBus::~EmulatedUsbBus() {
  if (defaultContext_) {
    libusb_exit(nullptr);
  }
  g_object_unref(testbed_);
  for (UMockdevIoctlBase* handler : handlers_) {
    g_signal_handlers_disconnect_matched(handler, G_SIGNAL_MATCH_DATA, 0, 0, nullptr, nullptr,
                                         nullptr);
    g_object_unref(handler);
  }
}

EmulatedUsbDevice& EmulatedUsbBus::add(const DeviceInfo& info) {
  const auto address = static_cast<uint8_t>(devices_.size() + 2);
  devices_.push_back(std::make_unique<EmulatedUsbDevice>(info, address));
  EmulatedUsbDevice* device = devices_.back().get();
  // The handler goes first: libusb may open the node as soon as it appears.
  UMockdevIoctlBase* handler = umockdev_ioctl_base_new();
  handlers_.push_back(handler);
  g_signal_connect(handler, "handle-ioctl", G_CALLBACK(&EmulatedUsbDevice::onIoctl), device);
  g_signal_connect(handler, "client-connected", G_CALLBACK(&EmulatedUsbDevice::onConnected),
                   device);
  GError* error = nullptr;
  check(umockdev_testbed_attach_ioctl(testbed_, ("/dev/" + nodeName(address)).c_str(), handler,
                                      &error),
        "cannot attach the ioctl handler", error);
  const std::string sysPath = "/devices/usb1/1-" + std::to_string(address - 1);
  check(umockdev_testbed_add_from_string(testbed_, record(sysPath, address, info).c_str(), &error),
        "cannot add the device", error);
  return *device;
}

void EmulatedUsbBus::initDefaultContext() {
  if (libusb_init(nullptr) != 0) {
    throw std::runtime_error("libusb_init failed");
  }
  defaultContext_ = true;
}

} // namespace testing
} // namespace thriftusb
