#ifndef THRIFTUSB_EXAMPLES_GADGETCALLS_H
#define THRIFTUSB_EXAMPLES_GADGETCALLS_H

#include <ostream>

#include "Gadget.h"

namespace thriftusb {
namespace example {

/**
 * Calls each method of the Gadget service once through @p gadget and checks every
 * answer, printing one line per call ("client: CALL -> ANSWER") to @p out.
 *
 * The gadget may have served other hosts before: its counters are compared with what
 * they were at the start of this run.
 *
 * @return whether every answer was right
 * @throws apache::thrift::transport::TTransportException when the link fails
 */
bool runCalls(GadgetClient& gadget, std::ostream& out);

} // namespace example
} // namespace thriftusb

#endif
