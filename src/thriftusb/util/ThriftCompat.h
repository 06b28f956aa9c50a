#ifndef THRIFTUSB_UTIL_THRIFTCOMPAT_H
#define THRIFTUSB_UTIL_THRIFTCOMPAT_H

/**
 * The one place that knows how the supported Thrift runtime releases differ.
 *
 * Release 0.14 added a TConfiguration to every transport: constructors of
 * TTransport, TBufferBase and TTransportDefaults take one, TBufferBase counts the
 * bytes of each message against a maximum message size, TServerTransport gained a
 * virtual isOpen(), and TProtocol reads its transport's configuration. Release 0.13
 * has none of this. Code of the library includes this header instead of testing
 * versions itself.
 */

#include <thrift/transport/TTransport.h>

#include <thriftusb/util/ThriftVersion.h>

// With a newer Thrift installed system-wide, <thrift/TConfiguration.h> can be found
// even by a build against 0.13, so __has_include proves nothing. What counts is
// whether the TTransport.h actually included pulled it in.
#ifdef THRIFT_TCONFIGURATION_H
#define THRIFTUSB_THRIFT_HAS_CONFIGURATION 1
#else
#define THRIFTUSB_THRIFT_HAS_CONFIGURATION 0
#endif

static_assert(
    (THRIFTUSB_THRIFT_VERSION_MAJOR > 0 || THRIFTUSB_THRIFT_VERSION_MINOR >= 14) ==
        (THRIFTUSB_THRIFT_HAS_CONFIGURATION == 1),
    "The Thrift headers on the include path are not those of the Thrift release this "
    "library was built against (" THRIFTUSB_THRIFT_VERSION_STRING
    "): check the include directories for a mix of Thrift installations.");

// Marks a server transport's isOpen() as an override where TServerTransport declares
// it virtual (0.14 and later). Against 0.13 the member is an ordinary function that
// only callers holding the derived type see.
#if THRIFTUSB_THRIFT_HAS_CONFIGURATION
#define THRIFTUSB_SERVER_TRANSPORT_IS_OPEN_OVERRIDE override
#else
#define THRIFTUSB_SERVER_TRANSPORT_IS_OPEN_OVERRIDE
#endif

namespace apache {
namespace thrift {
namespace transport {
namespace compat {

/** True when the runtime's transports carry a TConfiguration (Thrift 0.14 and later). */
constexpr bool kHasConfiguration = THRIFTUSB_THRIFT_HAS_CONFIGURATION == 1;

} // namespace compat
} // namespace transport
} // namespace thrift
} // namespace apache

#endif
