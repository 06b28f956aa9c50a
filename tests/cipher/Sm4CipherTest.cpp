#include <thriftusb/cipher/Sm4Cipher.h>
#include <thriftusb/testing/TempDir.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>

#include "support/FdIo.h"

using Mode = Sm4Cipher::Mode;
using namespace thriftusb::test;
using namespace thriftusb::testing;

namespace {

// The standard's example key (also in hex, for openssl(1)); any CBC vector.
const std::string kKey = "\x01\x23\x45\x67\x89\xab\xcd\xef\xfe\xdc\xba\x98\x76\x54\x32\x10";
const std::string kIv = "0123456789abcdef";
const std::string kKeyHex = "0123456789abcdeffedcba9876543210";

// One call with `room` bytes of room followed by a 32-byte guard region.
struct Call {
  Call(Sm4Cipher& cipher, bool encrypt, const std::string& in, long room)
    : outLen(room), out(room + 32, 0xa5) {
    const auto call = encrypt ? &Sm4Cipher::encrypt : &Sm4Cipher::decrypt;
    const auto* data = reinterpret_cast<const unsigned char*>(in.data());
    rc = (cipher.*call)(data, long(in.size()), out.data(), &outLen);
  }
  std::string produced() const { return std::string(out.begin(), out.begin() + outLen); }
  bool untouchedFrom(long offset) const {
    return std::all_of(out.begin() + offset, out.end(), [](unsigned char c) { return c == 0xa5; });
  }
  long outLen; std::vector<unsigned char> out; int rc;
};

// `openssl enc` in @p mode (and its options) on the same input, bounded by timeout(1).
std::string opensslEnc(const std::string& mode, const std::string& plain) {
  TempDir dir;
  std::ofstream(dir.file("in"), std::ios::binary) << plain;
  const std::string command = "timeout -k 5 30 openssl enc -sm4-" + mode + " -K " + kKeyHex +
                              " -in '" + dir.file("in") + "' -out '" + dir.file("out") + "'";
  EXPECT_EQ(std::system(command.c_str()), 0) << command;
  std::ifstream out(dir.file("out"), std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(out), {});
}

} // namespace

// Both modes: agreement with openssl and round trips, then refusals that write nothing
// past the room.
TEST(Sm4Cipher, AgreesWithOpensslRoundTripsAndFailsWithoutWritingPastTheRoom) {
  for (const Mode mode : {Mode::ECB, Mode::CBC}) {
    const std::string iv = mode == Mode::CBC ? kIv : "";
    Sm4Cipher cipher(kKey, mode, iv); // one object for all calls: each call starts afresh
    for (const long n : {0L, 1L, 15L, 16L, 17L, 1000L}) {
      SCOPED_TRACE(iv + " " + std::to_string(n));
      const std::string plain = patternBytes(n, static_cast<unsigned>(n) + 1);
      const Call enc(cipher, true, plain, (n & ~15L) + 16);
      ASSERT_EQ(0, enc.rc);
      EXPECT_EQ(opensslEnc(iv.empty() ? "ecb" : "cbc -iv 30313233343536373839616263646566", plain),
                enc.produced());
      const Call dec(cipher, false, enc.produced(), n); // the exact length is room enough
      ASSERT_EQ(0, dec.rc);
      EXPECT_EQ(plain, dec.produced());
      EXPECT_TRUE(dec.untouchedFrom(n));
    }
    // The first cipher block of 16 plain bytes deciphers alone to those bytes, whose
    // last byte then plays the pad count.
    auto block = [&](const std::string& tail) {
      const std::string plain = std::string(16 - tail.size(), 'p') + tail;
      return Call(cipher, true, plain, 32).produced().substr(0, 16);
    };
    ASSERT_EQ(15, Call(cipher, false, block("\x01"), 16).outLen);
    const std::string seventeen = Call(cipher, true, std::string(17, 'q'), 32).produced();
    // Encrypting 16 bytes with room for 31 (a refused encryption writes nothing at all);
    // decrypting bad padding, bad lengths, and 17 plain bytes with room for 16 or 15.
    const std::tuple<bool, std::string, long> bad[] = {
        {true, std::string(16, 'a'), 31},          {false, block(std::string(1, '\0')), 32},
        {false, block("\x11"), 32},                {false, block("\x03\x02\x03"), 32},
        {false, "", 32},                           {false, std::string(15, 'c'), 32},
        {false, std::string(17, 'c'), 32},         {false, seventeen, 16},
        {false, seventeen, 15}};
    for (const auto& [encrypt, in, room] : bad) {
      const Call call(cipher, encrypt, in, room);
      EXPECT_EQ(-1, call.rc) << encrypt << " " << ::testing::PrintToString(in) << " " << room;
      EXPECT_EQ(0, call.outLen);
      EXPECT_TRUE(call.untouchedFrom(encrypt ? 0 : room));
    }
  }
}


// One object shared by several threads, as the transports of one factory share their
// cipher: every call must give what a cipher of the thread's own gives.
TEST(Sm4Cipher, OneObjectServesManyThreadsAtOnce) {
  for (const Mode mode : {Mode::ECB, Mode::CBC}) {
    const std::string iv = mode == Mode::CBC ? kIv : "";
    Sm4Cipher shared(kKey, mode, iv);
    std::vector<std::thread> threads;
    for (unsigned t = 0; t < 4; ++t) {
      threads.emplace_back([&, t] {
        Sm4Cipher own(kKey, mode, iv);
        for (unsigned i = 0; i < 100; ++i) {
          const std::string plain = patternBytes(4096 + i, t * 1000 + i);
          const long room = static_cast<long>(plain.size()) + 16;
          const std::string theirs = Call(shared, true, plain, room).produced();
          // Compared as truth values: a mismatch of 4 KiB strings would flood the log.
          EXPECT_TRUE(theirs == Call(own, true, plain, room).produced()) << t << " " << i;
          EXPECT_TRUE(plain == Call(shared, false, theirs, room).produced()) << t << " " << i;
        }
      });
    }
    for (auto& thread : threads) thread.join();
  }
}
