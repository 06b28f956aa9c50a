// TLibusbDevice with the real libusb against devices emulated by umockdev: the
// device and interface searches, opening and its failures, and the outcomes of bulk
// and control transfers as the device answers them.
#include <thriftusb/transport/TLibusbDevice.h>
#include <thriftusb/testing/EmulatedUsbBus.h>

#include <cerrno>

#include <linux/usbdevice_fs.h>
#include <sys/ioctl.h>

#include <gtest/gtest.h>

#include "support/Bounded.h"
#include "support/LogCapture.h"
#include "support/Resources.h"

using apache::thrift::transport::TLibusbDevice;
using namespace thriftusb::test;
using namespace thriftusb::testing;
using Lines = std::vector<std::string>;

namespace {

SettingInfo setting(uint8_t interface, std::vector<EndpointInfo> eps, uint8_t alternate = 0) {
  return {interface, alternate, 0xff, 0x01, 0x42, std::move(eps)};
}

using Configs = std::vector<std::vector<SettingInfo>>;
DeviceInfo gadget(uint16_t product, std::string serial = "",
                  Configs configs = {{setting(0, {{0x81}, {0x02}})}}) {
  return {0x1209, product, std::move(serial), std::move(configs)};
}

// Interface class 0xff, subclass 0x01, protocol 0x42 unless given; 50 ms time-outs,
// 16-byte blocks.
std::unique_ptr<TLibusbDevice> channel(uint16_t product, const char* serial = "",
                                       bool ownContext = false, uint16_t cls = 0xff,
                                       uint16_t sub = 0x01, uint16_t protocol = 0x42) {
  return std::make_unique<TLibusbDevice>(0x1209, product, serial, cls, sub, protocol, false, 50,
                                         50, 16, 16, ownContext);
}

struct LibusbBus : ::testing::Test { Watchdog watchdog_; EmulatedUsbBus bus_; };

} // namespace

TEST_F(LibusbBus, DeviceAndInterfaceSearchTakesTheFirstMatchAndSelectsNothing) {
  EmulatedUsbDevice* devices[] = {
      &bus_.add(gadget(1, "XX-AB-1")), &bus_.add(gadget(2)), // the second without a serial number
      // A setting with bulk IN but an interrupt OUT, then a complete one.
      &bus_.add(gadget(3, "", {{setting(0, {{0x81}, {0x01, 3}}), setting(1, {{0x83}, {0x04}})}})),
      &bus_.add(gadget(4, "", {{setting(0, {{0x81}, {0x83}, {0x02}})}})),
      // Mass storage in the active configuration, the wanted interface in the second.
      &bus_.add(gadget(5, "", {{{0, 0, 0x08, 0x06, 0x50, {{0x81}, {0x02}}}},
                               {setting(2, {{0x85}, {0x06}})}})),
      // Alternate setting 0 without endpoints, 1 with them.
      &bus_.add(gadget(6, "", {{setting(0, {}), setting(0, {{0x87}, {0x08}}, 1)}})),
  };
  bus_.initDefaultContext();
  const std::string noDevice = "*** get_device_descriptor failed!";
  const std::string noInterface = "*** get_device_endpoint failed! rv:-2";
  // The device is opened, or looked at and closed again. An empty line: opened on
  // `interface` with endpoints `in` and `out`.
  const struct {
    size_t device; const char* serial; uint16_t cls, subClass, protocol;
    std::string line; unsigned interface = 0, in = 0, out = 0;
  } cases[] = {
      {0, "AB", 0xff, 0x01, 0x42, "", 0, 0x81, 0x02}, // the serial: a case-sensitive substring
      {0, "aB", 0xff, 0x01, 0x42, noDevice}, {1, "A", 0xff, 0x01, 0x42, noDevice},
      {1, nullptr, 0x1ff, 0x01, 0x42, "", 0, 0x81, 0x02}, // only the low bytes are compared
      {1, "", 0xff, 0x101, 0x00, "", 0, 0x81, 0x02},      // protocol 0 accepts any
      {1, "", 0xff, 0x01, 0x43, noInterface}, {1, "", 0xfe, 0x01, 0x00, noInterface},
      {2, "", 0xff, 0x01, 0x42, "", 1, 0x83, 0x04}, {3, "", 0xff, 0x01, 0x42, "", 0, 0x83, 0x02},
      {4, "", 0xff, 0x01, 0x42, "", 2, 0x85, 0x06}, {5, "", 0xff, 0x01, 0x42, "", 0, 0x87, 0x08},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(std::to_string(c.device) + " " + std::to_string(c.cls));
    EmulatedUsbDevice& device = *devices[c.device];
    LogCapture log;
    auto ch = channel(uint16_t(c.device + 1), c.serial, false, c.cls, c.subClass, c.protocol);
    Observed before = device.observed();
    ASSERT_EQ(ch->open(), c.line.empty() ? 0 : -1);
    EXPECT_EQ(log.lines(), c.line.empty() ? Lines{} : Lines{c.line});
    if (c.line.empty()) {
      EXPECT_EQ(device.observed().claimed, std::vector<unsigned>{c.interface});
      unsigned char buf[16] = {'x'};
      device.queue(Pipe::In, {"y"});
      EXPECT_EQ(ch->write(buf, 1) + ch->read(buf, 16), 2);
      Observed now = device.observed(); // one transfer on each endpoint of the interface
      EXPECT_EQ(now.urbs[c.in] + now.urbs[c.out] - before.urbs[c.in] - before.urbs[c.out], 2);
    }
    ch->close();
    // Nothing selected, nothing left claimed; no driver is bound, so none detached.
    Observed after = device.observed();
    EXPECT_EQ(after.ioctls[USBDEVFS_SETCONFIGURATION] + after.ioctls[USBDEVFS_SETINTERFACE]
                  + after.ioctls[USBDEVFS_IOCTL], 0);
    EXPECT_TRUE(after.claimed.empty());
    EXPECT_TRUE(waitUntil([&] { return device.observed().openHandles == 0; }));
  }
}

TEST_F(LibusbBus, KernelDriverIsDetachedOnlyWhenBoundAndFailuresLeaveNothingOpen) {
  // `request` fails with `error`; a null line: open succeeds.
  const struct { bool driver; unsigned long request; int error; const char* line; } cases[] = {
      // Without driver support (the query fails) a detach would fail: the claim follows.
      {true, 0, 0, nullptr}, {false, USBDEVFS_GETDRIVER, EIO, nullptr},
      {true, USBDEVFS_IOCTL, EPERM, "*** libusb_detach_kernel_driver failed! rv:-99"},
      {false, USBDEVFS_CLAIMINTERFACE, EBUSY, "*** libusb_claim_interface failed! rv:-6"},
  };
  // Own contexts, so that a failed open must end its context too. The rows that open
  // come first: they make what libusb and umockdev keep for the whole process.
  for (uint16_t product = 0; product < 4; ++product) {
    const auto& c = cases[product];
    SCOPED_TRACE(product);
    EmulatedUsbDevice& device = bus_.add(gadget(product));
    device.setKernelDriver(c.driver);
    device.failIoctl(c.request, c.error);
    LogCapture log;
    auto ch = channel(product, "", true);
    if (c.line != nullptr) {
      const Resources before = Resources::now();
      EXPECT_EQ(ch->open(), -1);
      EXPECT_TRUE(backTo(before));
      EXPECT_EQ(log.lines(), Lines{c.line});
      device.failIoctl(c.request, 0); // the second open starts afresh
    }
    const int detaches = device.observed().ioctls[USBDEVFS_IOCTL];
    ASSERT_EQ(ch->open(), 0);
    EXPECT_EQ(device.observed().ioctls[USBDEVFS_IOCTL] - detaches, c.driver ? 1 : 0);
    ch->close();
    EXPECT_FALSE(device.observed().kernelDriver) << "a detached driver is not attached again";
  }
}

// Each pipe's outcomes as the device answers. A read asks for 16 bytes; a write sends
// "dat"; a control transfer (IN) moves 4 bytes. Every stall is logged and cleared on
// its endpoint (a control transfer's on the bulk IN one, as a read's); the fifth ends
// the transfer.
TEST_F(LibusbBus, TransferOutcomes) {
  EmulatedUsbDevice& device = bus_.add(gadget(1)); // bulk IN 0x81, bulk OUT 0x02
  bus_.initDefaultContext();
  auto ch = channel(1);
  ASSERT_EQ(ch->open(), 0);
  const Reply s{"", -EPIPE};
  const struct {
    Pipe pipe; std::vector<Reply> replies; int64_t result;
    std::string bytes; // read, or accepted by the device, or the control buffer after
    int stalls; Lines failure = {}; // the stalls' lines are logged, then `failure`
  } cases[] = {
      {Pipe::In, {{""}, {""}, {"abc"}}, 3, "abc", 0}, // zero-length packets are skipped
      {Pipe::In, {s, s, s, s, {"abc"}}, 3, "abc", 4}, {Pipe::Out, {s, s, s, s}, 3, "dat", 4},
      {Pipe::In, {s, s, s, s, s}, -9, "", 5, {"*** bulk_transfer read failed! rv:-9"}},
      {Pipe::Out, {s, s, s, s, s}, -1, "", 5, {"*** bulk_transfer OUT failed! rv:-9"}},
      {Pipe::Control, {s, s, s, s, {"wxyz"}}, 4, "wxyz", 4},
      {Pipe::Control, {{"", 0, true}}, -7, "data", 0,
       {"*** bulk_transfer read timeout : 50! try to read 4 , read length : 0"}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.bytes + " " + std::to_string(c.stalls));
    for (const Reply& r : c.replies) device.queue(c.pipe, r);
    LogCapture log;
    const bool out = c.pipe == Pipe::Out;
    Observed before = device.observed();
    unsigned char buf[16] = {'d', 'a', 't', 'a'};
    EXPECT_EQ(c.pipe == Pipe::In ? ch->read(buf, 16) : out ? ch->write(buf, 3)
              : ch->usbControlTransfer(0xc0, 0xa5, 0x2345, 7, 4, buf), c.result);
    Observed after = device.observed();
    const std::string read(reinterpret_cast<char*>(buf), c.bytes.size());
    EXPECT_EQ(out ? after.out.substr(before.out.size()) : read, c.bytes);
    Lines lines(size_t(c.stalls), out ? "*** TLibusbDevice write  pipe error"
                                      : "*** TLibusbDevice read  pipe error");
    lines.insert(lines.end(), c.failure.begin(), c.failure.end());
    EXPECT_EQ(log.lines(), lines);
    const uint8_t endpoint = out ? 0x02 : 0x81; // stalls cleared on the transfer's endpoint
    EXPECT_EQ(after.clearedHalts[endpoint] - before.clearedHalts[endpoint], c.stalls);
  }
}
