#include "DemoOptions.h"

#include <iostream>
#include <stdexcept>

#include <thrift/TOutput.h>

namespace thriftusb {
namespace example {

namespace {

// Fixed so that both ends agree without exchanging anything; see makeDemoCipher.
constexpr const char* kDemoIvHex = "000102030405060708090a0b0c0d0e0f";

std::string fromHex(const std::string& hex) {
  if (hex.size() != 32 || hex.find_first_not_of("0123456789abcdefABCDEF") != std::string::npos) {
    throw std::invalid_argument("a key is 32 hex digits (16 bytes), not \"" + hex + "\"");
  }
  std::string bytes;
  for (size_t i = 0; i < hex.size(); i += 2) {
    bytes.push_back(static_cast<char>(std::stoi(hex.substr(i, 2), nullptr, 16)));
  }
  return bytes;
}

// The runtime takes a plain function, so the prefix waits in a global.
const char* logPrefix = "";

void printThriftLog(const char* line) {
  std::cerr << logPrefix << ": thrift: " << line << std::endl;
}

} // namespace

void prefixThriftLog(const char* program) {
  logPrefix = program;
  apache::thrift::GlobalOutput.setOutputFunction(printThriftLog);
}

std::shared_ptr<Sm4Cipher> makeDemoCipher(const std::string& keyHex) {
  return std::make_shared<Sm4Cipher>(fromHex(keyHex), Sm4Cipher::Mode::CBC, fromHex(kDemoIvHex));
}

bool parseDemoOptions(int argc, char** argv, bool allowBlocking, DemoOptions& options) {
  int arg = 1;
  auto next = [&](const char* flag) { return arg < argc && std::string(argv[arg]) == flag; };
  try {
    if (allowBlocking && next("--blocking")) {
      options.blocking = true;
      ++arg;
    }
    if (next("--waking")) {
      options.waitMode = apache::thrift::transport::WaitMode::Waking;
      ++arg;
    }
    if (next("--encrypted")) {
      options.cipher = makeDemoCipher();
      ++arg;
    } else if (next("--key")) {
      options.cipher = makeDemoCipher(arg + 1 < argc ? argv[arg + 1] : "");
      arg += 2;
    }
  } catch (const std::invalid_argument& e) {
    std::cerr << e.what() << "\n";
    arg = argc;
  }
  if (argc - arg != 2) {
    std::cerr << "usage: " << argv[0] << (allowBlocking ? " [--blocking]" : "")
              << " [--waking] [--encrypted | --key HEX] READ_NODE WRITE_NODE\n";
    return false;
  }
  options.readNode = argv[arg];
  options.writeNode = argv[arg + 1];
  return true;
}

} // namespace example
} // namespace thriftusb
