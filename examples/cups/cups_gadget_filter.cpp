// A CUPS filter that calls the printer while it prints: the Gadget service's client,
// talking through the print job itself. Its requests go out on standard output, with
// the job, to the printer; the printer's answers come back on the CUPS back channel.
//
//   cups_gadget_filter JOB USER TITLE COPIES OPTIONS [FILE]     (run by cupsd)
//
// The queue's device URI, which cupsd passes in DEVICE_URI, chooses the framing:
// "thriftusb-gadget:/plain" or "thriftusb-gadget:/encrypted" (SM4 with the demo's
// key). Each call and its answer go to standard error as "INFO:" lines, which cupsd
// writes to its error log. Exits 0 when every answer was right, 1 otherwise.
//
// The stack: TCupsDevice, non-blocking, so that TNonblockingUsbSocket flushes
// standard output at every flush of the frames (in blocking mode it never flushes
// the channel, and a request would wait in standard output's buffer for ever); then
// TNonblockingSecurityTransport, which polls the back channel every 10 ms for the
// answer's frame; then the binary protocol. A filter must not write anything else to
// standard output: every byte there is on its way to the printer.

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <exception>
#include <iostream>
#include <memory>
#include <sstream>
#include <string>

#include <thrift/TOutput.h>

#include <thriftusb/transport/TCupsDevice.h>

#include "CupsLink.h"
#include "GadgetCalls.h"
#include "demo_constants.h"

using apache::thrift::transport::TCupsDevice;
using thriftusb::example::CupsLink;
using thriftusb::example::GadgetClient;

namespace {

// Every line of `text` as a message of the given CUPS kind ("INFO", "ERROR").
void report(const char* kind, const std::string& text) {
  std::istringstream lines(text);
  std::string line;
  while (std::getline(lines, line)) {
    std::cerr << kind << ": " << line << "\n";
  }
  std::cerr.flush();
}

// The Thrift runtime's diagnostics go to the log too, never to standard output.
void printThriftLog(const char* line) {
  report("DEBUG", std::string("thrift: ") + line);
}

} // namespace

int main(int argc, char** argv) {
  if (argc < 6 || argc > 7) {
    std::cerr << "usage: " << argv[0] << " JOB USER TITLE COPIES OPTIONS [FILE]\n";
    return 1;
  }
  bool encrypted = false;
  if (!thriftusb::example::parseGadgetUri(std::getenv("DEVICE_URI"), encrypted)) {
    report("ERROR", std::string("gadget filter: unknown device URI \"") +
                        (std::getenv("DEVICE_URI") ? std::getenv("DEVICE_URI") : "") +
                        "\" (thriftusb-gadget:/plain or thriftusb-gadget:/encrypted)");
    return 1;
  }
  // A backend that has gone must end the calls with an error, not kill the filter.
  std::signal(SIGPIPE, SIG_IGN);
  apache::thrift::GlobalOutput.setOutputFunction(printThriftLog);
  try {
    const auto block = static_cast<unsigned>(thriftusb::example::g_demo_constants.BLOCK_SIZE);
    CupsLink link(std::make_shared<TCupsDevice>(true, block, block), encrypted);
    GadgetClient gadget(link.protocol);
    const auto start = std::chrono::steady_clock::now();
    link.transport->open();
    std::ostringstream calls;
    const bool allRight = thriftusb::example::runCalls(gadget, calls);
    link.transport->close();
    const auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(
                        std::chrono::steady_clock::now() - start)
                        .count();
    report("INFO", calls.str());
    report(allRight ? "INFO" : "ERROR",
           std::string("client: ") + (allRight ? "all answers right" : "some answers WRONG") +
               " (" + (encrypted ? "encrypted" : "plain") + ", " + std::to_string(ms) + " ms)");
    return allRight ? 0 : 1;
  } catch (const std::exception& e) {
    report("ERROR", std::string("client: failed: ") + e.what());
    return 1;
  }
}
