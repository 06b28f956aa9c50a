// Writes the seed corpus of every fuzz target: small inputs in each target's layout
// (FuzzInput.h and the layout notes at the top of each target) that reach the
// interesting paths at once: valid frames of every kind, each bad header the frame
// format knows, a cut-short wire, bodies that do not decrypt, ring transfers that wrap,
// and valid and invalid cipher text.
//
//   fuzz_make_corpus DIR     creates DIR/<target>/seed-NN for each target

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iostream>
#include <string>
#include <vector>

#include <sys/stat.h>

#include "FuzzInput.h"

using namespace thriftusb::fuzz;

namespace {

std::string pattern(size_t n, unsigned seed) {
  std::string out(n, '\0');
  for (size_t i = 0; i < n; ++i) {
    out[i] = static_cast<char>((i * 131 + seed * 17 + (i >> 7)) & 0xFF);
  }
  return out;
}

std::string encrypt(const std::string& plain, bool cbc) {
  std::string out((plain.size() & ~size_t{15}) + 16, '\0');
  long length = static_cast<long>(out.size());
  fuzzCipher(cbc)->encrypt(reinterpret_cast<const unsigned char*>(plain.data()),
                           static_cast<long>(plain.size()),
                           reinterpret_cast<unsigned char*>(&out[0]), &length);
  return out;
}

// A whole frame as the transports of @p kind send it (CBC under the fuzz key).
std::string frame(const std::string& payload, uint8_t kind) {
  const std::string body = kind == kNonblockingPlain ? payload : encrypt(payload, true);
  return header(static_cast<uint32_t>(body.size())) + body;
}

struct FrameSeed {
  uint8_t flags;
  std::vector<size_t> payloads; // written by the sender transport
  std::string splits;
  std::string readLengths;
  std::string tail;             // raw, after the sender's frames
};

std::string layout(uint8_t kind, const FrameSeed& s) {
  std::string out(1, static_cast<char>(kind | s.flags));
  out += static_cast<char>(s.payloads.size());
  unsigned seed = 1;
  for (size_t n : s.payloads) {
    putU16(out, static_cast<uint16_t>(n));
    out += pattern(n, seed++);
  }
  out += static_cast<char>(s.splits.size());
  out += s.splits;
  out += static_cast<char>(s.readLengths.size());
  out += s.readLengths;
  return out + s.tail;
}

std::vector<std::string> frameSeeds() {
  std::vector<std::string> seeds;
  for (uint8_t kind : {kSecure, kNonblockingEncrypted, kNonblockingPlain}) {
    const std::vector<FrameSeed> list = {
        // Valid frames only: one and several cipher blocks, a write buffer that grows.
        {0, {1, 15, 16, 17, 1030}, "", "", ""},
        // Read in small pieces on both sides, idle polls between, reclaimed buffers.
        {kReadEndEachFrame | kLowReclaim, {100, 2000}, std::string("\x01\x02\x00\x07", 4),
         std::string("\x00\x0f\xfe\x03", 4), frame(pattern(40, 9), kind)},
        // Every bad header, each followed by a good frame the stream resumes at.
        {kSmallMaxFrame, {}, "", "",
         header(0x80000000u) + header(0xFFFFFFFFu) + header(65) + header(80) + header(0) +
             header(17) + pattern(17, 3) + frame(pattern(30, 4), kind)},
        // A body that does not decrypt, then a valid frame.
        {0, {5}, "", "", header(32) + pattern(32, 5) + frame("after", kind)},
        // A body cut short by the end of the wire.
        {0, {}, std::string("\x03", 1), "", header(48) + pattern(10, 6)},
        // A header cut short.
        {0, {20}, "", "", std::string("\x00\x00", 2)},
    };
    for (const auto& s : list) {
      seeds.push_back(layout(kind, s));
    }
  }
  return seeds;
}

std::vector<std::string> ringSeeds() {
  auto seed = [](uint8_t capacity, std::initializer_list<int> ops) {
    std::string out(1, static_cast<char>(capacity));
    for (int op : ops) {
      out += static_cast<char>(op);
    }
    return out;
  };
  const int w = 0x80;
  return {
      seed(0, {w | 1, 1, w | 1, w | 1, 1, 1, 1}),                 // capacity 1
      seed(6, {w | 5, w | 5, 3, w | 10, 127, w | 7, 2, w | 6, 9}), // wraps at odd offsets
      seed(0x82, {w | 122, 120, w | 127, w | 50, 123, 127}),        // requests of whole buffers
      seed(0x7F, {w | 100, 60, w | 100, 127, 127}),                 // capacity 128
  };
}

std::vector<std::string> nullSeeds() {
  const std::string ops = {0, 1, static_cast<char>(3 | (11 << 3)), 4, 5, 3, 2,
                           static_cast<char>(0x80), static_cast<char>(0x83 | (11 << 3))};
  std::string a(1, static_cast<char>(ops.size()));
  a += ops;
  a += std::string("\x02\x00\x05", 3) + pattern(9000, 7);
  std::string b(1, static_cast<char>(ops.size()));
  b += ops;
  b += std::string(1, '\0') + pattern(20000, 8);
  return {a, b};
}

std::vector<std::string> sm4Seeds() {
  std::vector<std::string> seeds;
  for (bool cbc : {false, true}) {
    for (size_t n : {0, 1, 15, 16, 33}) {
      const std::string body = encrypt(pattern(n, static_cast<unsigned>(n)), cbc);
      for (size_t room : {n, n + 1, body.size(), n == 0 ? 0 : n - 1}) {
        std::string s(1, static_cast<char>(cbc ? 1 : 0));
        putU16(s, static_cast<uint16_t>(room));
        seeds.push_back(s + body);
      }
    }
    std::string garbage(1, static_cast<char>(cbc ? 1 : 0));
    putU16(garbage, 32);
    seeds.push_back(garbage + pattern(32, 11));
    std::string odd(1, static_cast<char>(cbc ? 3 : 2));
    putU16(odd, 40);
    seeds.push_back(odd + pattern(17, 12));
  }
  return seeds;
}

bool makeDir(const std::string& path) {
  return ::mkdir(path.c_str(), 0755) == 0 || errno == EEXIST;
}

bool writeSeeds(const std::string& dir, const std::vector<std::string>& seeds) {
  if (!makeDir(dir)) {
    std::cerr << "fuzz_make_corpus: cannot create " << dir << ": " << std::strerror(errno) << "\n";
    return false;
  }
  for (size_t i = 0; i < seeds.size(); ++i) {
    char name[32];
    std::snprintf(name, sizeof name, "/seed-%02zu", i);
    std::ofstream out(dir + name, std::ios::binary);
    out << seeds[i];
    if (!out) {
      std::cerr << "fuzz_make_corpus: cannot write " << dir << name << "\n";
      return false;
    }
  }
  std::cout << dir << ": " << seeds.size() << " seeds\n";
  return true;
}

} // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::cerr << "usage: fuzz_make_corpus DIR\n";
    return 2;
  }
  const std::string root = argv[1];
  const bool ok = makeDir(root) && writeSeeds(root + "/security_frames", frameSeeds()) &&
                  writeSeeds(root + "/ring_buffer", ringSeeds()) &&
                  writeSeeds(root + "/null_protocol", nullSeeds()) &&
                  writeSeeds(root + "/sm4_decrypt", sm4Seeds());
  return ok ? 0 : 1;
}
