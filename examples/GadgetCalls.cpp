#include "GadgetCalls.h"

#include <cstdint>
#include <string>

namespace thriftusb {
namespace example {

namespace {

/** Prints the outcome of each call and remembers whether any answer was wrong. */
class Checker {
public:
  explicit Checker(std::ostream& out) : out_(out) {}

  /** Prints "client: CALL -> ANSWER", marked WRONG unless @p right. */
  void report(const std::string& call, const std::string& answer, bool right) {
    out_ << "client: " << call << " -> " << answer << (right ? "" : "  <-- WRONG") << std::endl;
    allRight_ = allRight_ && right;
  }

  bool allRight() const { return allRight_; }

private:
  std::ostream& out_;
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

// Five calls since the first stats() (the last stats() included) and the payload's
// bytes echoed.
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

} // namespace

bool runCalls(GadgetClient& gadget, std::ostream& out) {
  Checker check(out);
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

} // namespace example
} // namespace thriftusb
