#include <thriftusb/transport/TCupsDevice.h>

#include <chrono>
#include <cstdio>
#include <functional>
#include <initializer_list>
#include <string>

#include <fcntl.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "support/FdIo.h"
#include "support/ForkedChild.h"

using apache::thrift::transport::TCupsDevice;
using namespace thriftusb::test;

// Every case runs in a child process set up as CUPS sets up a filter: descriptor 3 is
// the read end of a pipe (the back channel, fed by the test) and standard output is a
// pipe that the test reads. A read that blocks or spins inside libcups makes the
// child miss its time limit, which fails the case instead of stalling the run; and
// the test program's own descriptor 3 and standard output are never touched.

namespace {

constexpr unsigned kBlock = 4;

/** What descriptor 3 of the child is: a pipe that holds "abcdef" or nothing, ... */
struct BackChannel {
  bool sent;
  bool ended = false;    ///< ...whose printer side is closed,
  bool blocking = false; ///< ...without O_NONBLOCK,
  bool closed = false;   ///< or no descriptor at all.
};

/** The child's side: the channel under test and the far end of its standard output. */
struct Filter {
  TCupsDevice device{false, kBlock, kBlock};
  int stdoutPeer = -1;

  /** What has left the process through standard output since the last call. */
  std::string printed() {
    ::fcntl(stdoutPeer, F_SETFL, O_NONBLOCK);
    std::string bytes;
    char chunk[256];
    for (ssize_t n; (n = ::read(stdoutPeer, chunk, sizeof chunk)) > 0;) {
      bytes.append(chunk, static_cast<size_t>(n));
    }
    return bytes;
  }
  /** One read() of @p len: the bytes, or the result when it is not positive. */
  std::string read(unsigned len) {
    unsigned char buf[64] = {};
    const auto start = std::chrono::steady_clock::now();
    const int64_t got = device.read(buf, len);
    const bool late = std::chrono::steady_clock::now() - start > std::chrono::milliseconds(100);
    return (got > 0 ? std::string(reinterpret_cast<char*>(buf), static_cast<size_t>(got))
                    : std::to_string(got)) +
           (late ? " (late)" : "");
  }
  std::string write(const std::string& bytes) {
    return std::to_string(device.write(reinterpret_cast<const unsigned char*>(bytes.data()),
                                       static_cast<unsigned>(bytes.size())));
  }
  std::string open() { return std::to_string(device.open()); }
  std::string close() { return std::to_string(device.close()); }
  std::string flush() { return std::to_string(device.flush()); }
  std::string isOpen() { return device.isOpen() ? "open" : "closed"; }
};

void setUpBackChannel(const BackChannel& kind) {
  int ends[2];
  if (::pipe(ends) != 0) {
    ::_exit(101);
  }
  if (kind.sent) {
    writeAll(ends[1], "abcdef");
  }
  if (kind.ended) {
    ::close(ends[1]); // otherwise the printer's end stays open: idle is not the end
  }
  if (ends[0] != 3) {
    ::dup2(ends[0], 3);
    ::close(ends[0]);
  }
  if (kind.closed) {
    ::close(3);
  } else if (!kind.blocking) {
    ::fcntl(3, F_SETFL, O_NONBLOCK);
  }
}

/** Runs @p body in a child set up as a filter; what it reports, or "hung". */
std::string runAsFilter(const BackChannel& backChannel,
                        const std::function<std::string(Filter&)>& body) {
  return reportFromChild([&] {
    setUpBackChannel(backChannel);
    int out[2];
    if (::pipe(out) != 0) {
      return std::string("no pipe");
    }
    ::dup2(out[1], STDOUT_FILENO);
    ::close(out[1]);
    // Fully buffered, as in a filter under cupsd, also when the test runs on a terminal.
    std::setvbuf(stdout, nullptr, _IOFBF, BUFSIZ);
    Filter filter;
    filter.stdoutPeer = out[0];
    return body(filter);
  }, std::chrono::milliseconds(5000));
}

/** The reports of a case's steps joined by "|"; a braced list runs left to right. */
std::string steps(std::initializer_list<std::string> reports) {
  std::string joined;
  for (const auto& report : reports) {
    joined += (joined.empty() ? "" : "|") + report;
  }
  return joined;
}

std::string threeReads(Filter& f) {
  return steps({f.open(), f.read(kBlock), f.read(kBlock), f.read(kBlock)});
}

} // namespace

TEST(TCupsDeviceTest, ReadsPollWritesWaitForFlushAndOnlyAnOpenChannelMovesBytes) {
  const struct {
    const char* name;
    BackChannel backChannel;
    std::function<std::string(Filter&)> body;
    std::string expected;
  } cases[] = {
      // Whatever descriptor 3 is, a read comes back at once: bytes when the printer sent
      // some, else 0, also where libcups itself would block (a blocking descriptor) or
      // spin (no descriptor).
      {"data waiting", {true}, threeReads, "0|abcd|ef|0"},
      {"nothing waiting", {false}, threeReads, "0|0|0|0"},
      {"end of data", {true, true}, threeReads, "0|abcd|ef|0"},
      {"blocking, data waiting", {true, false, true}, threeReads, "0|abcd|ef|0"},
      {"blocking, nothing waiting", {false, false, true}, threeReads, "0|0|0|0"},
      {"descriptor 3 closed", {false, false, false, true}, threeReads, "0|0|0|0"},
      {"block sizes bound reads and writes", {true},
       [](Filter& f) {
         return steps({f.open(), f.read(kBlock + 1), f.write("12345"), f.read(kBlock),
                       f.write("abcd"), f.flush(), f.printed()});
       },
       "0|-1|-1|abcd|4|0|abcd"},
      // Written bytes stay in standard output's buffer until flush(); close() leaves
      // them there for the stream's next flush.
      {"flush", {false},
       [](Filter& f) {
         return steps({f.open(), f.write("abc"), f.printed(), f.flush(), f.printed()});
       },
       "0|3||0|abc"},
      {"close does not flush", {false},
       [](Filter& f) {
         return steps({f.open(), f.write("abc"), f.close(), f.printed(),
                       std::to_string(std::fflush(stdout)), f.printed()});
       },
       "0|3|0||0|abc"},
      // Closed (new, or after close()): reads and writes are refused without touching
      // either stream; open, close, open leaves it usable.
      {"new channel", {true},
       [](Filter& f) {
         return steps({f.isOpen(), f.read(kBlock), f.write("ab"), f.flush(), f.printed()});
       },
       "closed|-1|-1|0|"},
      {"open, close, open", {true},
       [](Filter& f) {
         return steps({f.open(), f.close(), f.isOpen(), f.read(kBlock), f.write("xy"),
                       f.open(), f.isOpen(), f.read(kBlock), f.write("ab"), f.flush(),
                       f.printed()});
       },
       "0|0|closed|-1|-1|0|open|abcd|2|0|ab"},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(runAsFilter(c.backChannel, c.body), c.expected) << c.name;
  }
}
