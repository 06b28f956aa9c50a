// TLibusbDevice with the real libusb against devices emulated by umockdev: the
// device and interface searches, opening and its failures, and the outcomes of bulk
// and control transfers as the device answers them.
#include <thriftusb/transport/TLibusbDevice.h>
#include <thriftusb/testing/EmulatedUsbBus.h>

#include <cerrno>
#include <chrono>
#include <memory>
#include <string>
#include <tuple>
#include <vector>

#include <linux/usbdevice_fs.h>
#include <sys/ioctl.h>

#include <gtest/gtest.h>
#include <libusb.h>

#include "support/Bounded.h"
#include "support/FdIo.h"
#include "support/LogCapture.h"

using apache::thrift::transport::TLibusbDevice;
using namespace thriftusb::test;
using namespace thriftusb::testing;
using Lines = std::vector<std::string>;

namespace {

constexpr uint16_t kVendor = 0x1209;
constexpr uint16_t kProduct = 0x0010;
constexpr unsigned kBlock = 16;
constexpr unsigned kTimeoutMs = 50;
const Reply kStall{"", -EPIPE};
const std::string kReadPipe = "*** TLibusbDevice read  pipe error";
const std::string kWritePipe = "*** TLibusbDevice write  pipe error";

SettingInfo vendorSetting(uint8_t interface, std::vector<EndpointInfo> endpoints,
                          uint8_t alternate = 0) {
  return {interface, alternate, 0xff, 0x01, 0x42, std::move(endpoints)};
}

DeviceInfo gadget(uint16_t product, std::string serial = "",
                  std::vector<std::vector<SettingInfo>> configurations = {
                      {vendorSetting(0, {{0x81}, {0x02}})}}) {
  return {kVendor, product, std::move(serial), std::move(configurations)};
}

std::unique_ptr<TLibusbDevice> channel(uint16_t product, const char* serial = "",
                                       unsigned readTimeout = kTimeoutMs, bool ownContext = false) {
  return std::make_unique<TLibusbDevice>(kVendor, product, serial, 0xff, 0x01, 0x42, false,
                                         readTimeout, kTimeoutMs, kBlock, kBlock, ownContext);
}

// The emulation sees a closed descriptor, and closes its end, within milliseconds.
bool closedAgain(const EmulatedUsbDevice& device) {
  return waitUntil([&] { return device.observed().openHandles == 0; }, std::chrono::seconds(2));
}

// Whether every descriptor @p run opens is closed again (the emulation's ends too).
template <typename Run>
bool leavesNothingOpen(Run&& run) {
  const auto before = openDescriptors();
  run();
  return waitUntil([&] { return newDescriptors(before, openDescriptors()).empty(); },
                   std::chrono::seconds(2));
}

class LibusbBus : public ::testing::Test {
protected:
  Watchdog watchdog_;
  LogCapture log_;
  EmulatedUsbBus bus_;
};

// One plain device (bulk IN 0x81, bulk OUT 0x02) and a channel opened on it.
class LibusbChannel : public LibusbBus {
protected:
  void SetUp() override {
    device_ = &bus_.add(gadget(kProduct));
    bus_.initDefaultContext();
    channel_ = channel(kProduct);
    ASSERT_EQ(channel_->open(), 0);
    log_.clear();
  }
  EmulatedUsbDevice* device_ = nullptr;
  std::unique_ptr<TLibusbDevice> channel_;
};

} // namespace

TEST_F(LibusbBus, SerialFilterIsACaseSensitiveSubstringAndRejectedDevicesAreClosed) {
  EmulatedUsbDevice& lower = bus_.add(gadget(1, "XX-ab-1"));
  bus_.add(gadget(1, "XX-AB-2"));
  bus_.add(gadget(3)); // no serial number string
  bus_.initDefaultContext();
  const struct {
    uint16_t product;
    const char* filter;
    bool found;
  } cases[] = {{1, "AB", true}, {1, "aB", false}, {1, nullptr, true}, {3, "", true}, {3, "A", false}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.filter ? c.filter : "null");
    log_.clear();
    auto ch = channel(c.product, c.filter);
    EXPECT_EQ(ch->open(), c.found ? 0 : -1);
    EXPECT_EQ(ch->isOpen(), c.found);
    EXPECT_EQ(log_.lines(), c.found ? Lines{} : Lines{"*** get_device_descriptor failed!"});
  }
  auto ch = channel(1, "AB");
  const unsigned char byte = '!';
  ASSERT_EQ(ch->open(), 0);
  EXPECT_EQ(ch->write(&byte, 1), 1);
  EXPECT_EQ(lower.observed().out, "");
  EXPECT_TRUE(closedAgain(lower)) << "the rejected device was left open";
}

TEST_F(LibusbBus, InterfaceSearchTakesTheFirstSettingWithBulkInAndOutAndSelectsNothing) {
  EmulatedUsbDevice* devices[] = {
      &bus_.add(gadget(0x10)),
      // A setting with bulk IN but an interrupt OUT, then a complete one.
      &bus_.add(gadget(0x11, "", {{vendorSetting(0, {{0x81}, {0x01, 3}}),
                                   vendorSetting(1, {{0x83}, {0x04}})}})),
      &bus_.add(gadget(0x12, "", {{vendorSetting(0, {{0x81}, {0x83}, {0x02}})}})),
      // Mass storage in the active configuration, the wanted interface in the second.
      &bus_.add(gadget(0x13, "", {{{0, 0, 0x08, 0x06, 0x50, {{0x81}, {0x02}}}},
                                  {vendorSetting(2, {{0x85}, {0x06}})}})),
      // Alternate setting 0 without endpoints, 1 with them.
      &bus_.add(gadget(0x14, "", {{vendorSetting(0, {}), vendorSetting(0, {{0x87}, {0x08}}, 1)}})),
  };
  bus_.initDefaultContext();
  const struct {
    uint16_t product, cls, subClass, protocol;
    int interface; // -1: none matches
    uint8_t in, out;
  } cases[] = {
      {0x10, 0x1ff, 0x01, 0x42, 0, 0x81, 0x02}, // only the low bytes are compared
      {0x10, 0xff, 0x101, 0x00, 0, 0x81, 0x02}, // protocol 0 accepts any
      {0x10, 0xff, 0x01, 0x43, -1, 0, 0},       {0x10, 0xfe, 0x01, 0x00, -1, 0, 0},
      {0x11, 0xff, 0x01, 0x42, 1, 0x83, 0x04},  {0x12, 0xff, 0x01, 0x42, 0, 0x83, 0x02},
      {0x13, 0xff, 0x01, 0x42, 2, 0x85, 0x06},  {0x14, 0xff, 0x01, 0x42, 0, 0x87, 0x08},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(std::to_string(c.product) + " " + std::to_string(c.cls));
    EmulatedUsbDevice& device = *devices[c.product - 0x10];
    log_.clear();
    TLibusbDevice ch(kVendor, c.product, c.cls, c.subClass, c.protocol, false, kTimeoutMs,
                     kTimeoutMs, kBlock, kBlock, false);
    if (c.interface < 0) {
      EXPECT_EQ(ch.open(), -1);
      EXPECT_EQ(log_.lines(), Lines{"*** get_device_endpoint failed! rv:-2"});
      EXPECT_TRUE(closedAgain(device));
      continue;
    }
    Observed before = device.observed();
    ASSERT_EQ(ch.open(), 0);
    EXPECT_EQ(device.observed().claimed, std::vector<unsigned>{unsigned(c.interface)});
    const unsigned char byte = 'x';
    unsigned char got[kBlock];
    device.queue(Pipe::In, {"y"});
    EXPECT_EQ(ch.write(&byte, 1), 1);
    EXPECT_EQ(ch.read(got, kBlock), 1);
    ch.close();
    Observed after = device.observed();
    EXPECT_EQ(after.urbs[c.out] - before.urbs[c.out], 1);
    EXPECT_EQ(after.urbs[c.in] - before.urbs[c.in], 1);
    EXPECT_EQ(after.ioctls[USBDEVFS_SETCONFIGURATION] + after.ioctls[USBDEVFS_SETINTERFACE], 0);
    EXPECT_TRUE(after.claimed.empty());
  }
}

TEST_F(LibusbBus, KernelDriverIsDetachedOnlyWhenBoundAndFailuresLeaveNothingOpen) {
  const struct {
    const char* name;
    bool driver;
    unsigned long request; // fails with `error`
    int error;
    const char* line; // null: open succeeds
  } cases[] = {
      {"no driver", false, 0, 0, nullptr},
      {"driver bound", true, 0, 0, nullptr},
      // No driver support: a detach would fail, so the claim must follow at once.
      {"driver query fails", false, USBDEVFS_GETDRIVER, EIO, nullptr},
      {"detach fails", true, USBDEVFS_IOCTL, EPERM, "*** libusb_detach_kernel_driver failed! rv:-99"},
      {"claim fails", false, USBDEVFS_CLAIMINTERFACE, EBUSY,
       "*** libusb_claim_interface failed! rv:-6"},
  };
  std::vector<EmulatedUsbDevice*> devices;
  for (uint16_t product = 0; product <= 5; ++product) {
    devices.push_back(&bus_.add(gadget(product)));
  }
  // Own contexts, so that a failed open must end its context too. A first open makes
  // what libusb and umockdev keep for the whole process.
  auto first = channel(5, "", kTimeoutMs, true);
  ASSERT_EQ(first->open(), 0);
  first->close();
  for (uint16_t product = 0; product < 5; ++product) {
    const auto& c = cases[product];
    SCOPED_TRACE(c.name);
    EmulatedUsbDevice& device = *devices[product];
    device.setKernelDriver(c.driver);
    device.failIoctl(c.request, c.error);
    log_.clear();
    auto ch = channel(product, "", kTimeoutMs, true);
    if (c.line != nullptr) {
      EXPECT_TRUE(leavesNothingOpen([&] { EXPECT_EQ(ch->open(), -1); }));
      EXPECT_EQ(log_.lines(), Lines{c.line});
      device.failIoctl(c.request, 0); // the second open starts afresh
    }
    const int detaches = device.observed().ioctls[USBDEVFS_IOCTL];
    ASSERT_EQ(ch->open(), 0);
    EXPECT_EQ(device.observed().ioctls[USBDEVFS_IOCTL] - detaches, c.driver ? 1 : 0);
    ch->close();
    EXPECT_FALSE(device.observed().kernelDriver) << "a detached driver is not attached again";
  }
}

// Each pipe's outcomes as the device answers. A read asks for `arg` bytes; a write
// sends "abc"; a control transfer of request type `arg` moves 4 bytes, and its stalls
// are cleared on the bulk IN endpoint as a read's are.
TEST_F(LibusbChannel, TransferOutcomes) {
  const Reply s = kStall;
  const std::string timedOut = "*** bulk_transfer read timeout : 50! try to read 4 , read length : ";
  const struct {
    const char* name;
    Pipe pipe;
    int arg;
    std::vector<Reply> replies;
    int64_t result;
    std::string bytes; // read, or accepted by the device, or the control buffer after
    Lines lines;
    int clears;
  } cases[] = {
      {"read zero-length packets, then data", Pipe::In, kBlock, {{""}, {""}, {"abc"}}, 3, "abc",
       {}, 0},
      {"read four stalls, then data", Pipe::In, kBlock, {s, s, s, s, {"abc"}}, 3, "abc",
       Lines(4, kReadPipe), 4},
      {"read five stalls", Pipe::In, kBlock, {s, s, s, s, s}, -9, "",
       {kReadPipe, kReadPipe, kReadPipe, kReadPipe, kReadPipe, "*** bulk_transfer read failed! rv:-9"},
       5},
      {"read, device gone", Pipe::In, 4, {{"", -ESHUTDOWN}}, LIBUSB_ERROR_NO_DEVICE, "",
       {"*** bulk_transfer read failed! rv:-4"}, 0},
      {"write four stalls, then accepted", Pipe::Out, 0, {s, s, s, s}, 3, "abc",
       Lines(4, kWritePipe), 4},
      {"write five stalls", Pipe::Out, 0, {s, s, s, s, s}, -1, "",
       {kWritePipe, kWritePipe, kWritePipe, kWritePipe, kWritePipe,
        "*** bulk_transfer OUT failed! rv:-9"},
       5},
      {"control IN data", Pipe::Control, 0xc0, {{"wxyz"}}, 4, "wxyz", {}, 0},
      {"control four stalls, then data", Pipe::Control, 0xc0, {s, s, s, s, {"wxyz"}}, 4, "wxyz",
       Lines(4, kReadPipe), 4},
      {"control time-out", Pipe::Control, 0xc0, {{"", 0, true}}, -7, "data", {timedOut + "0"}, 0},
      {"control zero length until the time-out", Pipe::Control, 0xc0, {}, 0, "data", {}, 0},
  };
  TLibusbDevice& ch = *channel_;
  const unsigned char abc[] = {'a', 'b', 'c'};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    for (const Reply& r : c.replies) {
      device_->queue(c.pipe, r);
    }
    log_.clear();
    Observed before = device_->observed();
    const uint8_t endpoint = c.pipe == Pipe::Out ? 0x02 : 0x81;
    unsigned char buf[kBlock] = {'d', 'a', 't', 'a'};
    int64_t got = 0;
    if (c.pipe == Pipe::In) {
      got = ch.read(buf, static_cast<unsigned>(c.arg));
    } else if (c.pipe == Pipe::Out) {
      got = ch.write(abc, 3);
    } else {
      got = ch.usbControlTransfer(c.arg, 0x1a5, 0x12345, 7, 4, buf);
    }
    Observed after = device_->observed();
    EXPECT_EQ(got, c.result);
    const auto shown = c.pipe == Pipe::In ? std::max<int64_t>(got, 0) : 4;
    EXPECT_EQ(c.pipe == Pipe::Out ? after.out.substr(before.out.size())
                                  : std::string(reinterpret_cast<char*>(buf), shown),
              c.bytes);
    EXPECT_EQ(log_.lines(), c.lines);
    EXPECT_EQ(after.clearedHalts[endpoint] - before.clearedHalts[endpoint], c.clears);
    if (c.pipe == Pipe::Control) { // the low bits of request and value go out
      ASSERT_GT(after.controls.size(), before.controls.size());
      const ControlRequest& r = after.controls.back();
      EXPECT_EQ(std::make_tuple(int(r.requestType), int(r.request), int(r.value), int(r.index),
                                int(r.length), r.data),
                std::make_tuple(c.arg, 0xa5, 0x2345, 7, 4, std::string(c.arg == 0x40 ? "data" : "")));
    }
  }
}

