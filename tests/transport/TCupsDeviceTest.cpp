#include <thriftusb/transport/TCupsDevice.h>

#include <chrono>
#include <cstdio>
#include <algorithm>
#include <sstream>
#include <string>

#include <fcntl.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "support/FdIo.h"
#include "support/ForkedChild.h"

using apache::thrift::transport::TCupsDevice;
using namespace thriftusb::test;

// Every case runs in a child process set up as CUPS sets up a filter: descriptor 3 is
// the read end of a pipe (the back channel) and standard output is a pipe that the
// test reads. A read that blocks or spins inside libcups makes the child miss its
// time limit, which fails the case instead of stalling the run; and the test
// program's own descriptor 3 and standard output are never touched.

namespace {

constexpr unsigned kBlock = 4;

// What descriptor 3 of the child is: a pipe holding "abcdef" (whose printer side
// stays open, or is closed), an idle pipe (non-blocking or blocking), or nothing.
enum class Back { Data, Ended, Idle, BlockingIdle, None };

// Returns the read end of the pipe that is now standard output.
int setUpChild(Back kind) {
  int ends[2], out[2];
  if (::pipe(ends) != 0 || ::pipe(out) != 0) {
    ::_exit(101);
  }
  if (kind == Back::Data || kind == Back::Ended) {
    writeAll(ends[1], "abcdef");
  }
  if (kind == Back::Ended) {
    ::close(ends[1]); // otherwise the printer's end stays open: idle is not the end
  }
  if (ends[0] != 3 && ::dup2(ends[0], 3) == 3) {
    ::close(ends[0]);
  }
  ::fcntl(3, F_SETFL, kind == Back::BlockingIdle ? 0 : O_NONBLOCK);
  if (kind == Back::None) {
    ::close(3);
  }
  ::dup2(out[1], STDOUT_FILENO);
  ::close(out[1]);
  ::fcntl(out[0], F_SETFL, O_NONBLOCK);
  // Fully buffered, as in a filter under cupsd, also when the test runs on a terminal.
  std::setvbuf(stdout, nullptr, _IOFBF, BUFSIZ);
  return out[0];
}

// Runs @p script, steps separated by spaces, on a new channel and reports each step's
// result, joined by "|": o open, c close, f flush, F fflush(stdout), rN read N bytes
// (the bytes, or the result when not positive, marked when it took over 100 ms),
// wBYTES write, p what has left through standard output (read from @p stdoutPeer).
std::string run(const std::string& script, int stdoutPeer) {
  TCupsDevice device(false, kBlock, kBlock);
  std::istringstream steps(script);
  std::string report, step;
  while (steps >> step) {
    unsigned char buf[64] = {};
    char* text = reinterpret_cast<char*>(buf);
    const auto start = std::chrono::steady_clock::now();
    int64_t got = 0;
    switch (step[0]) {
      case 'o': got = device.open(); break;
      case 'c': got = device.close(); break;
      case 'f': got = device.flush(); break;
      case 'F': got = std::fflush(stdout); break;
      case 'w': got = device.write(buf, unsigned(step.copy(text, 63, 1))); break;
      case 'r': got = device.read(buf, unsigned(std::stoi(step.substr(1)))); break;
      default: got = ::read(stdoutPeer, buf, sizeof buf); break;
    }
    const bool late = std::chrono::steady_clock::now() - start > std::chrono::milliseconds(100);
    const bool bytes = (step[0] == 'r' && got > 0) || step[0] == 'p';
    report += (report.empty() ? "" : "|") +
              (bytes ? std::string(reinterpret_cast<char*>(buf), size_t(std::max<int64_t>(got, 0)))
                     : std::to_string(got)) +
              (late ? " (late)" : "");
  }
  return report;
}

} // namespace

TEST(TCupsDeviceTest, ReadsPollWritesWaitForFlushAndOnlyAnOpenChannelMovesBytes) {
  const struct { Back back; const char* script; std::string expected; } cases[] = {
      // Whatever descriptor 3 is, a read comes back at once: bytes when the printer sent
      // some, else 0, also where libcups itself would block (a blocking descriptor) or
      // spin (no descriptor).
      {Back::Data, "o r4 r4 r4", "0|abcd|ef|0"}, {Back::Ended, "o r4 r4 r4", "0|abcd|ef|0"},
      {Back::Idle, "o r4 r4", "0|0|0"}, {Back::BlockingIdle, "o r4 r4", "0|0|0"},
      {Back::None, "o r4 r4", "0|0|0"},
      {Back::Data, "o r5 w12345 r4 wabcd f p", "0|-1|-1|abcd|4|0|abcd"},
      // Written bytes stay in standard output's buffer until flush(); close() leaves
      // them there for the stream's next flush. Closed (new, or after close()), reads
      // and writes are refused without touching either stream; open again, it works.
      {Back::Idle, "wab o wabc p f p", "-1|0|3||0|abc"},
      {Back::Data, "o wabc c p F p r4 wxy o r4 wab f p", "0|3|0||0|abc|-1|-1|0|abcd|2|0|ab"},
  };
  for (const auto& c : cases) {
    const auto child = [&] { return run(c.script, setUpChild(c.back)); };
    EXPECT_EQ(reportFromChild(child, std::chrono::milliseconds(5000)), c.expected)
        << c.script << " on back channel kind " << int(c.back);
  }
}
