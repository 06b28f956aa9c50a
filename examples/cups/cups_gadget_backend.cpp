// A CUPS backend that plays the printer of cups_gadget_filter: a Thrift server of the
// Gadget service whose requests arrive on standard input (what the filters print)
// and whose answers go back through the CUPS back channel (cupsBackChannelWrite).
//
//   cups_gadget_backend                                      list the device (lpinfo -v)
//   cups_gadget_backend JOB USER TITLE COPIES OPTIONS [FILE] serve a job (run by cupsd)
//
// Installed as backend/thriftusb-gadget, it serves the device URIs
// "thriftusb-gadget:/plain" and "thriftusb-gadget:/encrypted" (the framing, which the
// filter reads from the same URI). Every call served goes to standard error, which
// cupsd writes to its error log at debug level. It serves until the filters have
// finished (end of standard input) and then exits 0; 1 when the link fails.

#include <csignal>
#include <cstdlib>
#include <exception>
#include <iostream>
#include <memory>
#include <string>

#include <fcntl.h>
#include <unistd.h>

#include <thrift/TOutput.h>
#include <thrift/transport/TTransportException.h>

#include "BlockingLink.h"
#include "CupsLink.h"
#include "CupsPrinterChannel.h"
#include "GadgetHandler.h"
#include "demo_constants.h"

using apache::thrift::transport::TTransportException;
using thriftusb::example::CupsLink;
using thriftusb::example::CupsPrinterChannel;
using thriftusb::example::GadgetHandler;
using thriftusb::example::GadgetProcessor;

namespace {

// The exit codes of a backend (<cups/backend.h>).
constexpr int kBackendOk = 0;
constexpr int kBackendFailed = 1;

void printThriftLog(const char* line) {
  std::cerr << "DEBUG: thrift: " << line << std::endl;
}

} // namespace

int main(int argc, char** argv) {
  if (argc == 1) {
    std::cout << "direct thriftusb-gadget \"Thrift Gadget\" "
                 "\"Thrift Gadget (answers over the CUPS back channel)\"\n";
    return kBackendOk;
  }
  if (argc < 6 || argc > 7) {
    std::cerr << "usage: " << argv[0] << " JOB USER TITLE COPIES OPTIONS [FILE]\n";
    return kBackendFailed;
  }
  const char* uri = std::getenv("DEVICE_URI");
  bool encrypted = false;
  if (!thriftusb::example::parseGadgetUri(uri ? uri : argv[0], encrypted)) {
    std::cerr << "ERROR: gadget backend: unknown device URI \"" << (uri ? uri : argv[0])
              << "\"\n";
    return kBackendFailed;
  }
  // Without filters cupsd names the job's file instead: serve what it holds.
  if (argc == 7) {
    const int file = ::open(argv[6], O_RDONLY);
    if (file < 0 || ::dup2(file, STDIN_FILENO) < 0) {
      std::cerr << "ERROR: gadget backend: cannot open " << argv[6] << "\n";
      return kBackendFailed;
    }
    ::close(file);
  }
  std::signal(SIGPIPE, SIG_IGN);
  apache::thrift::GlobalOutput.setOutputFunction(printThriftLog);
  try {
    CupsLink link(std::make_shared<CupsPrinterChannel>(
                      static_cast<unsigned>(thriftusb::example::g_demo_constants.BLOCK_SIZE)),
                  encrypted);
    GadgetProcessor processor(std::make_shared<GadgetHandler>(std::cerr));
    link.transport->open();
    std::cerr << "INFO: printer: serving the Gadget service ("
              << (encrypted ? "encrypted" : "plain") << ")" << std::endl;
    const TTransportException end = thriftusb::example::serveUntilHangUp(processor, link.protocol);
    // The filters closing their output is the usual end: the channel reports end of
    // data, which the socket turns into INTERRUPTED.
    if (end.getType() != TTransportException::INTERRUPTED) {
      std::cerr << "ERROR: printer: link failed: " << end.what() << std::endl;
      return kBackendFailed;
    }
    std::cerr << "INFO: printer: the job has ended, stopping" << std::endl;
    return kBackendOk;
  } catch (const std::exception& e) {
    std::cerr << "ERROR: printer: failed: " << e.what() << std::endl;
    return kBackendFailed;
  }
}
