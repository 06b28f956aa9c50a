#include <thriftusb/transport/TCupsDevice.h>

#include <chrono>
#include <cstdio>
#include <functional>
#include <initializer_list>
#include <string>

#include <fcntl.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "support/Bounded.h"
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
constexpr auto kChildLimit = std::chrono::milliseconds(5000);
// A read that polls must come back in far less than this; a read that waits for
// data never comes back at all.
constexpr auto kAtOnce = std::chrono::milliseconds(100);

/** What descriptor 3 of the child is. */
enum class BackChannel {
  Idle,            ///< non-blocking pipe, nothing sent, printer side still open
  Waiting,         ///< non-blocking pipe holding "abcdef", printer side open
  Ended,           ///< non-blocking pipe holding "abcdef", printer side closed
  BlockingIdle,    ///< like Idle, without O_NONBLOCK
  BlockingWaiting, ///< like Waiting, without O_NONBLOCK
  Closed,          ///< descriptor 3 not open
};

const std::string kSent = "abcdef";

/** Everything @p fd holds now (non-blocking read until it has no more). */
std::string drain(int fd) {
  ::fcntl(fd, F_SETFL, ::fcntl(fd, F_GETFL) | O_NONBLOCK);
  std::string bytes;
  char chunk[256];
  ssize_t n;
  while ((n = ::read(fd, chunk, sizeof chunk)) > 0) {
    bytes.append(chunk, static_cast<size_t>(n));
  }
  return bytes;
}

/** The child's side: the channel under test and the far end of its standard output. */
struct Filter {
  TCupsDevice device{false, kBlock, kBlock};
  int stdoutPeer = -1;

  /** What has left the process through standard output since the last call. */
  std::string printed() { return drain(stdoutPeer); }

  /** One read() of @p len: the bytes, or the result when it is not positive. */
  std::string read(unsigned len) {
    unsigned char buf[64] = {};
    const auto start = std::chrono::steady_clock::now();
    const int64_t got = device.read(buf, len);
    const bool late = std::chrono::steady_clock::now() - start > kAtOnce;
    return (got > 0 ? std::string(reinterpret_cast<char*>(buf), static_cast<size_t>(got))
                    : std::to_string(got)) +
           (late ? " (late)" : "");
  }

  /** The results of open(), close(), flush() and isOpen(). */
  std::string open() { return std::to_string(device.open()); }
  std::string close() { return std::to_string(device.close()); }
  std::string flush() { return std::to_string(device.flush()); }
  std::string isOpen() { return device.isOpen() ? "open" : "closed"; }

  /** One write() of @p bytes: its result. */
  std::string write(const std::string& bytes) {
    return std::to_string(device.write(reinterpret_cast<const unsigned char*>(bytes.data()),
                                       static_cast<unsigned>(bytes.size())));
  }
};

void setUpBackChannel(BackChannel kind) {
  int ends[2];
  if (::pipe(ends) != 0) {
    ::_exit(101);
  }
  const bool blocking = kind == BackChannel::BlockingIdle || kind == BackChannel::BlockingWaiting;
  if (kind != BackChannel::Idle && kind != BackChannel::BlockingIdle) {
    writeAll(ends[1], kSent);
  }
  if (kind == BackChannel::Ended) {
    ::close(ends[1]);
  }
  // The printer's end stays open otherwise: an idle back channel is not at its end.
  // The read end is 3 already when 3 was free.
  if (ends[0] != 3) {
    ::dup2(ends[0], 3);
    ::close(ends[0]);
  }
  if (kind == BackChannel::Closed) {
    ::close(3);
  } else if (!blocking) {
    ::fcntl(3, F_SETFL, O_NONBLOCK);
  }
}

/**
 * Runs @p body in a child set up as a filter with @p backChannel, and returns what
 * it reports, or "hung" when the child has not finished within kChildLimit.
 */
std::string runAsFilter(BackChannel backChannel, const std::function<std::string(Filter&)>& body) {
  return reportFromChild([&] {
    setUpBackChannel(backChannel);
    int out[2];
    if (::pipe(out) != 0) {
      return std::string("no pipe");
    }
    ::dup2(out[1], STDOUT_FILENO);
    ::close(out[1]);
    // Standard output on a pipe is fully buffered, as in a filter under cupsd, also
    // when the test program itself writes to a terminal.
    std::setvbuf(stdout, nullptr, _IOFBF, BUFSIZ);
    Filter filter;
    filter.stdoutPeer = out[0];
    return body(filter);
  }, kChildLimit);
}

/**
 * The reports of a case's steps, in order, joined by "|". The steps are the
 * elements of a braced list, which C++ evaluates from left to right.
 */
std::string steps(std::initializer_list<std::string> reports) {
  std::string joined;
  const char* separator = "";
  for (const auto& report : reports) {
    joined += separator + report;
    separator = "|";
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
      {"data waiting", BackChannel::Waiting, threeReads, "0|abcd|ef|0"},
      {"nothing waiting", BackChannel::Idle, threeReads, "0|0|0|0"},
      {"end of data", BackChannel::Ended, threeReads, "0|abcd|ef|0"},
      {"blocking, data waiting", BackChannel::BlockingWaiting, threeReads, "0|abcd|ef|0"},
      {"blocking, nothing waiting", BackChannel::BlockingIdle, threeReads, "0|0|0|0"},
      {"descriptor 3 closed", BackChannel::Closed, threeReads, "0|0|0|0"},
      // Block sizes bound reads and writes.
      {"read: one byte above the block size refused even with data waiting",
       BackChannel::Waiting,
       [](Filter& f) { return steps({f.open(), f.read(kBlock + 1), f.read(kBlock)}); },
       "0|-1|abcd"},
      {"write: one byte above the block size refused, nothing written", BackChannel::Idle,
       [](Filter& f) {
         return steps({f.open(), f.write("12345"), f.write("abcd"), f.flush(), f.printed()});
       },
       "0|-1|4|0|abcd"},
      {"write of 0 bytes", BackChannel::Idle,
       [](Filter& f) { return steps({f.open(), f.write(""), f.flush(), f.printed()}); },
       "0|0|0|"},
      // Written bytes stay in standard output's buffer until flush(); close() leaves
      // them there for the stream's next flush.
      {"flush", BackChannel::Idle,
       [](Filter& f) {
         return steps({f.open(), f.write("abc"), f.write("d"), f.printed(), f.flush(),
                       f.printed()});
       },
       "0|3|1||0|abcd"},
      {"close does not flush", BackChannel::Idle,
       [](Filter& f) {
         return steps({f.open(), f.write("abc"), f.close(), f.printed(),
                       std::to_string(std::fflush(stdout)), f.printed()});
       },
       "0|3|0||0|abc"},
      // Closed (new, or after close()): reads and writes are refused without touching
      // either stream; open, close, open leaves it usable.
      {"new channel", BackChannel::Waiting,
       [](Filter& f) {
         return steps({f.isOpen(), f.read(kBlock), f.write("ab"), f.flush(), f.printed()});
       },
       "closed|-1|-1|0|"},
      {"open, close, open", BackChannel::Waiting,
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
