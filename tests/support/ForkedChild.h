#ifndef THRIFTUSB_TESTS_SUPPORT_FORKEDCHILD_H
#define THRIFTUSB_TESTS_SUPPORT_FORKEDCHILD_H

#include <chrono>
#include <functional>
#include <string>

#include "support/Bounded.h"

namespace thriftusb {
namespace test {

/**
 * Runs @p body in a forked child process and returns the short text it returns, which
 * comes back through a pipe (whose 64 KiB it must not exceed). For what a test must not do in its own process: take over
 * standard output or descriptor 3, or survive a fatal signal.
 *
 * The pipe's end in the child lies at descriptor 10 or above, out of the way of the
 * low descriptors the body may set up. Only the calling thread goes on in the child,
 * so fork before the test starts threads that could hold a lock at that moment.
 *
 * @return the body's text; "hung" when the child has not ended within @p limit (it
 *         is killed then), "died, wait status N" when it did not end after the body,
 *         "no child" when it could not start
 */
std::string reportFromChild(const std::function<std::string()>& body,
                            std::chrono::milliseconds limit = kPeerLimit);

} // namespace test
} // namespace thriftusb

#endif
