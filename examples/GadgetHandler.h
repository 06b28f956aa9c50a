#ifndef THRIFTUSB_EXAMPLES_GADGETHANDLER_H
#define THRIFTUSB_EXAMPLES_GADGETHANDLER_H

#include <cstdint>
#include <ostream>
#include <string>

#include "Gadget.h"

namespace thriftusb {
namespace example {

/**
 * The device's side of the Gadget service: answers each call and reports it as one
 * line ("server: ping()", "server: echo(5 bytes)", ...) on a stream, so that a reader
 * of the stream sees every call the gadget served, in order.
 *
 * Not thread-safe: a Thrift processor driven by one connection calls it from one
 * thread at a time.
 */
class GadgetHandler : public GadgetIf {
public:
  /** @param log receives one line per call served; must outlive the handler */
  explicit GadgetHandler(std::ostream& log);

  /** Answers nothing; the call is only counted and reported. */
  void ping() override;

  /** Returns @p data unchanged and adds its length to the echoed byte count. */
  void echo(std::string& _return, const std::string& data) override;

  /**
   * @return @p a divided by @p b, rounded toward zero
   * @throws DivideByZero when @p b is 0
   * @throws std::overflow_error when the quotient does not fit in 32 bits (the
   *         minimum value divided by -1); the processor sends it to the client as an
   *         application error, since the service declares no exception for it
   */
  int32_t divide(int32_t a, int32_t b) override;

  /** The calls served so far, this one included, and the bytes echoed. */
  void stats(Stats& _return) override;

private:
  /** Writes the line of one call served. */
  void served(const std::string& line);

  std::ostream& log_;
  Stats stats_;
};

} // namespace example
} // namespace thriftusb

#endif
