// The host's side of the demo: calls each method of the Gadget service once over two
// USB device nodes and checks every answer.
//
//   usb_client READ_NODE WRITE_NODE
//
// READ_NODE carries the gadget's answers, WRITE_NODE the requests. Prints each call
// with its answer; exits 0 when every answer is right, 1 otherwise.

#include <csignal>
#include <cstdint>
#include <exception>
#include <iostream>
#include <string>

#include "Gadget.h"
#include "GadgetLink.h"

using thriftusb::example::DivideByZero;
using thriftusb::example::GadgetClient;
using thriftusb::example::GadgetLink;
using thriftusb::example::Stats;

namespace {

/** Prints the outcome of each call and remembers whether any answer was wrong. */
class Checker {
public:
  /** Prints "client: CALL -> ANSWER", marked WRONG unless @p right. */
  void report(const std::string& call, const std::string& answer, bool right) {
    std::cout << "client: " << call << " -> " << answer << (right ? "" : "  <-- WRONG")
              << std::endl;
    allRight_ = allRight_ && right;
  }

  bool allRight() const { return allRight_; }

private:
  bool allRight_ = true;
};

// Binary on purpose: a zero byte and bytes above 0x7f must come back unchanged.
const std::string kPayload("\x00\x01\x7f\x80\xfe\xff hello, gadget", 20);

void checkEcho(GadgetClient& gadget, Checker& check) {
  std::string echoed;
  gadget.echo(echoed, kPayload);
  const bool same = echoed == kPayload;
  check.report("echo(" + std::to_string(kPayload.size()) + " bytes)",
               std::to_string(echoed.size()) + " bytes, " + (same ? "same" : "different"), same);
}

void checkDivide(GadgetClient& gadget, Checker& check) {
  const int32_t quotient = gadget.divide(84, 2);
  check.report("divide(84, 2)", std::to_string(quotient), quotient == 42);
}

void checkDivideByZero(GadgetClient& gadget, Checker& check) {
  try {
    const int32_t quotient = gadget.divide(1, 0);
    check.report("divide(1, 0)", std::to_string(quotient) + " instead of DivideByZero", false);
  } catch (const DivideByZero& e) {
    check.report("divide(1, 0)", "DivideByZero: " + e.message, e.dividend == 1);
  }
}

// The gadget may have served other hosts before, so its counters are compared with
// what they were before this run: five calls since then (the last stats() included)
// and the payload's bytes echoed.
void checkStats(GadgetClient& gadget, const Stats& before, Checker& check) {
  Stats after;
  gadget.stats(after);
  const int64_t calls = after.calls - before.calls;
  const int64_t bytes = after.bytesEchoed - before.bytesEchoed;
  check.report("stats()",
               "{calls: " + std::to_string(after.calls) +
                   ", bytesEchoed: " + std::to_string(after.bytesEchoed) + "}, " +
                   std::to_string(calls) + " calls and " + std::to_string(bytes) +
                   " bytes since the first stats()",
               calls == 5 && bytes == static_cast<int64_t>(kPayload.size()));
}

bool runCalls(GadgetClient& gadget) {
  Checker check;
  Stats before;
  gadget.stats(before);
  gadget.ping();
  check.report("ping()", "done", true);
  checkEcho(gadget, check);
  checkDivide(gadget, check);
  checkDivideByZero(gadget, check);
  checkStats(gadget, before, check);
  return check.allRight();
}

} // namespace

int main(int argc, char** argv) {
  if (argc != 3) {
    std::cerr << "usage: " << argv[0] << " READ_NODE WRITE_NODE\n";
    return 2;
  }
  // Nodes that are FIFOs raise SIGPIPE when written without a reader; a failed write
  // must end with a message instead of killing the program.
  std::signal(SIGPIPE, SIG_IGN);
  try {
    GadgetLink link(argv[1], argv[2]);
    GadgetClient gadget(link.protocol);
    link.socket->open();
    const bool allRight = runCalls(gadget);
    link.socket->close();
    std::cout << "client: " << (allRight ? "all answers right" : "some answers WRONG")
              << std::endl;
    return allRight ? 0 : 1;
  } catch (const std::exception& e) {
    std::cerr << "client: failed: " << e.what() << std::endl;
    return 1;
  }
}
