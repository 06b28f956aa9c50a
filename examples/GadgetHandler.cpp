#include "GadgetHandler.h"

#include <limits>
#include <sstream>
#include <stdexcept>

namespace thriftusb {
namespace example {

GadgetHandler::GadgetHandler(std::ostream& log) : log_(log) {}

void GadgetHandler::ping() {
  ++stats_.calls;
  served("ping()");
}

void GadgetHandler::echo(std::string& _return, const std::string& data) {
  ++stats_.calls;
  stats_.bytesEchoed += static_cast<int64_t>(data.size());
  _return = data;
  served("echo(" + std::to_string(data.size()) + " bytes)");
}

int32_t GadgetHandler::divide(int32_t a, int32_t b) {
  ++stats_.calls;
  std::ostringstream call;
  call << "divide(" << a << ", " << b << ")";
  if (b == 0) {
    served(call.str() + " -> DivideByZero");
    DivideByZero error;
    error.dividend = a;
    error.message = "cannot divide " + std::to_string(a) + " by zero";
    throw error;
  }
  // The one quotient of two 32-bit integers that does not fit in 32 bits; computing it
  // would be undefined behaviour (and a trap on x86), so it is refused instead.
  if (a == std::numeric_limits<int32_t>::min() && b == -1) {
    served(call.str() + " -> overflow");
    throw std::overflow_error("quotient of " + std::to_string(a) + " / -1 does not fit in i32");
  }
  const int32_t quotient = a / b;
  served(call.str() + " = " + std::to_string(quotient));
  return quotient;
}

void GadgetHandler::stats(Stats& _return) {
  ++stats_.calls;
  _return = stats_;
  served("stats() = {calls: " + std::to_string(stats_.calls) +
         ", bytesEchoed: " + std::to_string(stats_.bytesEchoed) + "}");
}

void GadgetHandler::served(const std::string& line) {
  log_ << "server: " << line << std::endl;
}

} // namespace example
} // namespace thriftusb
