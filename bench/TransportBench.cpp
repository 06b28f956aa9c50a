// Throughput, round trip, cipher rate and idle cost of every USB stack of the
// library, side by side with the Thrift runtime's own transports and the raw cable,
// all over the same FIFO pair on the same machine, in one run.
//
//   thriftusb_bench [--quick] [--sections=LIST] [--stacks=LIST] [--csv=FILE]
//                   [--md=FILE] [--plot-data=FILE] ... (--help lists every option)
//
// Each throughput figure is the median of timed repetitions after one warm-up
// repetition. Every case runs under a watchdog: a case that hangs ends the program
// with an error instead of stalling it.

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <exception>
#include <fstream>
#include <functional>
#include <iostream>
#include <map>
#include <mutex>
#include <random>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <thrift/TOutput.h>
#include <thrift/protocol/TBinaryProtocol.h>
#include <thrift/transport/TBufferTransports.h>
#include <thrift/transport/TFDTransport.h>

#include <thriftusb/transport/TNonblockingSecurityTransport.h>
#include <thriftusb/transport/TNonblockingUsbSocket.h>
#include <thriftusb/transport/TUSBSocket.h>
#include <thriftusb/transport/TUsbDevice.h>
#include <thriftusb/util/ThriftVersion.h>

#include "BenchCable.h"
#include "BenchCipher.h"
#include "BenchReport.h"
#include "BenchStacks.h"
#include "Gadget.h"

namespace thriftusb {
namespace bench {
namespace {

using apache::thrift::protocol::TBinaryProtocol;
using apache::thrift::transport::TNonblockingSecurityTransport;
using apache::thrift::transport::TNonblockingUsbSocket;
using apache::thrift::transport::TTransport;
using apache::thrift::transport::TUSBSocket;
using apache::thrift::transport::TUsbDevice;
using Clock = std::chrono::steady_clock;

constexpr uint32_t kStreamBlock = 64 * 1024;
constexpr uint32_t kEchoBytes = 1024 * 1024;
constexpr double kMB = 1e6;
// USB 3.0 SuperSpeed carries at most about this much payload: the library must
// never be the slower part.
constexpr double kUsb3MBps = 450;

double secondsSince(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

// ---------------------------------------------------------------------------------
// Options

struct Options {
  bool quick = false;
  bool verbose = false;
  std::set<std::string> sections{"cipher", "stream", "frames", "sweep", "calls", "roundtrip",
                                 "idle"};
  std::set<std::string> stacks;  // empty: all
  int reps = 5;
  double repSeconds = 0.4;
  double cipherRepSeconds = 0.08;
  double pingSeconds = 4.0;
  int pingSamples = 1000;
  double idleSeconds = 10.0;
  double idleExtraSeconds = 2.0;
  double caseTimeout = 90.0;
  Settings settings;
  std::string csv;
  std::string md;
  std::string plotData;
  std::string command;
};

void usage() {
  std::cout <<
      "thriftusb_bench: throughput, round trip, cipher rate and idle cost of the USB stacks\n"
      "\n"
      "  --quick               tiny run that only proves every case works (a few seconds)\n"
      "  --sections=LIST       comma list of cipher,stream,frames,sweep,calls,roundtrip,idle\n"
      "                        (default all)\n"
      "  --stacks=LIST         comma list of stack ids (default all; see --list)\n"
      "  --list                print the stack ids and exit\n"
      "  --reps=N              timed repetitions per throughput case (default 5)\n"
      "  --rep-seconds=S       length of one throughput repetition (default 0.4)\n"
      "  --ping-seconds=S      time for the round-trip samples of one stack (default 4)\n"
      "  --ping-samples=N      at most this many round trips per stack (default 1000)\n"
      "  --idle-seconds=S      idle connection measured for S seconds (default 10)\n"
      "  --idle-extra-seconds=S  the other idle cases (default 2)\n"
      "  --pipe-bytes=N        kernel buffer of each FIFO of the cable (default 1048576)\n"
      "  --block-bytes=N       block size of the USB transports (default 1048576)\n"
      "  --ring-bytes=N        ring buffer size of the threaded transport (default 16777216)\n"
      "  --case-timeout=S      a case taking longer ends the program (default 90)\n"
      "  --csv=FILE --md=FILE --plot-data=FILE   where the results go\n"
      "  --verbose             show the library's log lines\n";
}

std::set<std::string> splitList(const std::string& text) {
  std::set<std::string> items;
  std::stringstream in(text);
  std::string item;
  while (std::getline(in, item, ',')) {
    if (!item.empty()) {
      items.insert(item);
    }
  }
  return items;
}

bool parse(int argc, char** argv, Options& o) {
  for (int i = 0; i < argc; ++i) {
    o.command += (i > 0 ? " " : "") + std::string(argv[i]);
  }
  bool quickSeen = false;
  std::map<std::string, std::string> given;
  for (int i = 1; i < argc; ++i) {
    std::string arg = argv[i];
    if (arg == "--help" || arg == "-h") {
      usage();
      std::exit(0);
    }
    if (arg == "--list") {
      for (const Stack& s : allStacks()) {
        std::cout << s.id << "\t" << s.label << "\n";
      }
      std::exit(0);
    }
    if (arg == "--quick") {
      quickSeen = true;
      continue;
    }
    if (arg == "--verbose") {
      o.verbose = true;
      continue;
    }
    const auto eq = arg.find('=');
    if (arg.rfind("--", 0) != 0 || eq == std::string::npos) {
      std::cerr << "unknown argument: " << arg << "\n";
      return false;
    }
    given[arg.substr(2, eq - 2)] = arg.substr(eq + 1);
  }
  if (quickSeen) {
    o.quick = true;
    o.reps = 1;
    o.repSeconds = 0.05;
    o.cipherRepSeconds = 0.005;
    o.pingSeconds = 0.3;
    o.pingSamples = 20;
    o.idleSeconds = 0.3;
    o.idleExtraSeconds = 0.1;
    o.caseTimeout = 30;
  }
  const std::map<std::string, std::function<void(const std::string&)>> setters = {
      {"sections", [&](const std::string& v) { o.sections = splitList(v); }},
      {"stacks", [&](const std::string& v) { o.stacks = splitList(v); }},
      {"reps", [&](const std::string& v) { o.reps = std::max(1, std::stoi(v)); }},
      {"rep-seconds", [&](const std::string& v) { o.repSeconds = std::stod(v); }},
      {"ping-seconds", [&](const std::string& v) { o.pingSeconds = std::stod(v); }},
      {"ping-samples", [&](const std::string& v) { o.pingSamples = std::max(1, std::stoi(v)); }},
      {"idle-seconds", [&](const std::string& v) { o.idleSeconds = std::stod(v); }},
      {"idle-extra-seconds", [&](const std::string& v) { o.idleExtraSeconds = std::stod(v); }},
      {"pipe-bytes", [&](const std::string& v) { o.settings.pipeBytes = std::stoi(v); }},
      {"block-bytes",
       [&](const std::string& v) { o.settings.blockBytes = static_cast<uint32_t>(std::stoul(v)); }},
      {"ring-bytes", [&](const std::string& v) { o.settings.ringBytes = std::stoi(v); }},
      {"case-timeout", [&](const std::string& v) { o.caseTimeout = std::stod(v); }},
      {"csv", [&](const std::string& v) { o.csv = v; }},
      {"md", [&](const std::string& v) { o.md = v; }},
      {"plot-data", [&](const std::string& v) { o.plotData = v; }},
  };
  for (const auto& [key, value] : given) {
    const auto setter = setters.find(key);
    if (setter == setters.end()) {
      std::cerr << "unknown option: --" << key << "\n";
      return false;
    }
    try {
      setter->second(value);
    } catch (const std::exception&) {
      std::cerr << "bad value for --" << key << ": " << value << "\n";
      return false;
    }
  }
  return true;
}

// ---------------------------------------------------------------------------------
// Library log lines: kept quiet, the last few held for error reports.

std::mutex gLogMutex;
std::deque<std::string> gLog;
bool gVerbose = false;

void captureLog(const char* line) {
  std::lock_guard<std::mutex> lock(gLogMutex);
  if (gVerbose) {
    std::fprintf(stderr, "  [log] %s\n", line);
  }
  gLog.emplace_back(line);
  if (gLog.size() > 20) {
    gLog.pop_front();
  }
}

std::string recentLog() {
  std::lock_guard<std::mutex> lock(gLogMutex);
  std::string text;
  for (const std::string& line : gLog) {
    text += "    " + line + "\n";
  }
  return text;
}

// ---------------------------------------------------------------------------------
// Watchdog: every case has a deadline; a hang ends the program.

class Watchdog {
public:
  Watchdog() : thread_([this] { run(); }) {}
  ~Watchdog() {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      stop_ = true;
    }
    wake_.notify_all();
    thread_.join();
  }

  void arm(const std::string& name, double seconds) {
    std::lock_guard<std::mutex> lock(mutex_);
    name_ = name;
    deadline_ = Clock::now() + std::chrono::duration_cast<Clock::duration>(
                                   std::chrono::duration<double>(seconds));
    armed_ = true;
    wake_.notify_all();
  }

  void disarm() {
    std::lock_guard<std::mutex> lock(mutex_);
    armed_ = false;
    wake_.notify_all();
  }

private:
  void run() {
    std::unique_lock<std::mutex> lock(mutex_);
    while (!stop_) {
      if (!armed_) {
        wake_.wait(lock);
        continue;
      }
      if (wake_.wait_until(lock, deadline_) == std::cv_status::timeout && armed_ &&
          Clock::now() >= deadline_) {
        std::fprintf(stderr, "thriftusb_bench: case '%s' did not finish in time: stopped\n%s",
                     name_.c_str(), recentLog().c_str());
        std::fflush(stderr);
        std::_Exit(3);
      }
    }
  }

  std::mutex mutex_;
  std::condition_variable wake_;
  bool stop_ = false;
  bool armed_ = false;
  std::string name_;
  Clock::time_point deadline_;
  std::thread thread_;
};

Watchdog* gWatchdog = nullptr;

struct CaseGuard {
  CaseGuard(const std::string& name, double seconds) { gWatchdog->arm(name, seconds); }
  ~CaseGuard() { gWatchdog->disarm(); }
};

// ---------------------------------------------------------------------------------
// CPU time of the whole process.

struct CpuSample {
  double seconds = 0;
  long switches = 0;
};

CpuSample cpuNow() {
  rusage usage{};
  ::getrusage(RUSAGE_SELF, &usage);
  CpuSample s;
  s.seconds = static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
              static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
  s.switches = usage.ru_nvcsw + usage.ru_nivcsw;
  return s;
}

// CPU time of the whole machine, all cores, from /proc/stat, in seconds.
struct MachineCpu {
  double busy = 0;
  double total = 0;
};

MachineCpu machineCpuNow() {
  std::ifstream stat("/proc/stat");
  std::string cpu;
  double user = 0, nice = 0, system = 0, idle = 0, iowait = 0, irq = 0, softirq = 0, steal = 0;
  stat >> cpu >> user >> nice >> system >> idle >> iowait >> irq >> softirq >> steal;
  const double tick = static_cast<double>(::sysconf(_SC_CLK_TCK));
  MachineCpu m;
  m.total = (user + nice + system + idle + iowait + irq + softirq + steal) / tick;
  m.busy = (user + nice + system + irq + softirq + steal) / tick;
  return m;
}

// ---------------------------------------------------------------------------------
// Repetitions

struct Sample {
  double value = 0;       // MB/s
  double cpuPercent = 0;  // process CPU over wall
};

struct Summary {
  double median = kNone;
  double low = kNone;
  double high = kNone;
  double cpuPercent = kNone;
};

// One warm-up repetition, then the timed ones; the median and the spread.
Summary repeat(int reps, const std::function<Sample()>& once) {
  once();
  std::vector<double> values;
  std::vector<double> cpu;
  for (int i = 0; i < reps; ++i) {
    const Sample s = once();
    values.push_back(s.value);
    cpu.push_back(s.cpuPercent);
  }
  Summary summary;
  summary.median = median(values);
  summary.low = *std::min_element(values.begin(), values.end());
  summary.high = *std::max_element(values.begin(), values.end());
  summary.cpuPercent = median(cpu);
  return summary;
}

// ---------------------------------------------------------------------------------
// Stream: the host writes 64 KiB blocks for the repetition's time, the device reads
// them. Each block carries its sequence number, which the reader checks.

void stamp(std::vector<uint8_t>& block, uint64_t sequence) {
  std::memcpy(block.data(), &sequence, sizeof sequence);
}

Sample streamOnce(Connection& c, double seconds, uint64_t& sequence) {
  std::atomic<uint64_t> started{0};
  std::atomic<bool> done{false};
  std::exception_ptr writerError;
  const uint64_t first = sequence;

  const CpuSample cpu0 = cpuNow();
  const Clock::time_point t0 = Clock::now();
  std::thread writer([&] {
    try {
      std::vector<uint8_t> block(kStreamBlock, 0x5a);
      const Clock::time_point deadline = t0 + std::chrono::duration_cast<Clock::duration>(
                                                  std::chrono::duration<double>(seconds));
      uint64_t n = 0;
      do {
        stamp(block, first + n);
        started.store(++n);
        c.host->writeBlock(block.data(), kStreamBlock);
      } while (Clock::now() < deadline || n < 4);
      c.host->endStream();
    } catch (...) {
      writerError = std::current_exception();
    }
    done.store(true);
  });

  std::vector<uint8_t> block(kStreamBlock);
  uint64_t got = 0;
  try {
    for (;;) {
      if (got < started.load()) {
        c.device->readBlock(block.data(), kStreamBlock);
        uint64_t seen = 0;
        std::memcpy(&seen, block.data(), sizeof seen);
        if (seen != first + got) {
          throw std::runtime_error("stream block " + std::to_string(first + got) +
                                   " arrived as " + std::to_string(seen));
        }
        ++got;
      } else if (done.load()) {
        if (got >= started.load()) {
          break;
        }
      } else {
        std::this_thread::sleep_for(std::chrono::microseconds(20));
      }
    }
  } catch (...) {
    // The writer may be waiting for room that will never come; the watchdog ends a
    // hang there, and a clean failure is reported as soon as the writer returns.
    writer.join();
    throw;
  }
  const double wall = secondsSince(t0);
  const CpuSample cpu1 = cpuNow();
  writer.join();
  if (writerError) {
    std::rethrow_exception(writerError);
  }
  sequence = first + got;
  return {static_cast<double>(got) * kStreamBlock / wall / kMB,
          100.0 * (cpu1.seconds - cpu0.seconds) / wall};
}

// ---------------------------------------------------------------------------------
// Calls

// The device's side of the service: answers at once, and stats() ends the serving.
class BenchHandler : public example::GadgetIf {
public:
  void ping() override {}
  void echo(std::string& _return, const std::string& data) override { _return = data; }
  int32_t divide(int32_t a, int32_t b) override { return b == 0 ? 0 : a / b; }
  void stats(example::Stats& _return) override {
    _return.calls = 0;
    _return.bytesEchoed = 0;
    stopped = true;
  }
  bool stopped = false;
};

// The host's side of a connection, Thrift or raw.
class Caller {
public:
  virtual ~Caller() = default;
  virtual void echo(std::string& out, const std::string& in) = 0;
  virtual void ping() = 0;
  virtual void stop() = 0;
};

class ThriftCaller : public Caller {
public:
  explicit ThriftCaller(const std::shared_ptr<TTransport>& transport)
    : client_(std::make_shared<TBinaryProtocol>(transport)) {}
  void echo(std::string& out, const std::string& in) override { client_.echo(out, in); }
  void ping() override { client_.ping(); }
  void stop() override {
    example::Stats stats;
    client_.stats(stats);
  }

private:
  example::GadgetClient client_;
};

// The raw anchor's calls: a 4-byte length, then the bytes; the device sends them
// back the same way. A ping is the length 0xFFFFFFFF, answered with 4 zero bytes;
// the length 0 ends the serving.
constexpr uint32_t kRawPing = 0xFFFFFFFF;

class RawCaller : public Caller {
public:
  explicit RawCaller(Link& link) : link_(link) {}
  void echo(std::string& out, const std::string& in) override {
    uint32_t length = static_cast<uint32_t>(in.size());
    link_.writeBlock(reinterpret_cast<const uint8_t*>(&length), 4);
    link_.writeBlock(reinterpret_cast<const uint8_t*>(in.data()), length);
    link_.readBlock(reinterpret_cast<uint8_t*>(&length), 4);
    out.resize(length);
    link_.readBlock(reinterpret_cast<uint8_t*>(&out[0]), length);
  }
  void ping() override {
    uint32_t word = kRawPing;
    link_.writeBlock(reinterpret_cast<const uint8_t*>(&word), 4);
    link_.readBlock(reinterpret_cast<uint8_t*>(&word), 4);
  }
  void stop() override {
    const uint32_t word = 0;
    link_.writeBlock(reinterpret_cast<const uint8_t*>(&word), 4);
  }

private:
  Link& link_;
};

void serveRaw(Link& link) {
  std::string payload;
  for (;;) {
    uint32_t length = 0;
    link.readBlock(reinterpret_cast<uint8_t*>(&length), 4);
    if (length == 0) {
      return;
    }
    if (length == kRawPing) {
      const uint32_t zero = 0;
      link.writeBlock(reinterpret_cast<const uint8_t*>(&zero), 4);
      continue;
    }
    payload.resize(length);
    link.readBlock(reinterpret_cast<uint8_t*>(&payload[0]), length);
    link.writeBlock(reinterpret_cast<const uint8_t*>(&length), 4);
    link.writeBlock(reinterpret_cast<const uint8_t*>(payload.data()), length);
  }
}

void serveThrift(Link& link) {
  auto handler = std::make_shared<BenchHandler>();
  example::GadgetProcessor processor(handler);
  auto protocol = std::make_shared<TBinaryProtocol>(link.transport());
  while (!handler->stopped) {
    if (!processor.process(protocol, protocol, nullptr)) {
      throw std::runtime_error("the server read something that is not a call");
    }
  }
}

struct CallFigures {
  Summary echo;
  std::vector<double> pingMs;
  /** Process CPU time per round trip, all threads. */
  double pingCpuUs = kNone;
};

CallFigures runCalls(const Stack& stack, const Options& o, bool doEcho, bool doPing) {
  Connection c = stack.connect(o.settings);
  std::exception_ptr serverError;
  std::thread server([&] {
    try {
      if (stack.raw) {
        serveRaw(*c.device);
      } else {
        serveThrift(*c.device);
      }
    } catch (...) {
      serverError = std::current_exception();
    }
  });

  CallFigures figures;
  std::unique_ptr<Caller> caller;
  if (stack.raw) {
    caller = std::make_unique<RawCaller>(*c.host);
  } else {
    caller = std::make_unique<ThriftCaller>(c.host->transport());
  }
  try {
    if (doEcho) {
      std::string data(kEchoBytes, '\0');
      for (size_t i = 0; i < data.size(); ++i) {
        data[i] = static_cast<char>(i * 7 + 1);
      }
      std::string answer;
      caller->echo(answer, data);
      if (answer != data) {
        throw std::runtime_error("echo gave back different bytes");
      }
      figures.echo = repeat(o.reps, [&] {
        const CpuSample cpu0 = cpuNow();
        const Clock::time_point t0 = Clock::now();
        int calls = 0;
        do {
          caller->echo(answer, data);
          if (answer.size() != data.size()) {
            throw std::runtime_error("echo gave back a different length");
          }
          ++calls;
        } while (secondsSince(t0) < o.repSeconds || calls < 2);
        const double wall = secondsSince(t0);
        const CpuSample cpu1 = cpuNow();
        // Payload both ways: the argument out and the result back.
        return Sample{2.0 * kEchoBytes * calls / wall / kMB,
                      100.0 * (cpu1.seconds - cpu0.seconds) / wall};
      });
    }
    if (doPing) {
      for (int i = 0; i < 5; ++i) {
        caller->ping();
      }
      // Calls come at random moments, as an application makes them, not in step with
      // the pollers of either end: a pause of up to one polling step before each.
      std::mt19937 random(12345);
      std::uniform_int_distribution<int> pause(0, std::max(0, stack.stepMicros - 1));
      const CpuSample cpu0 = cpuNow();
      const Clock::time_point start = Clock::now();
      while (static_cast<int>(figures.pingMs.size()) < o.pingSamples &&
             (secondsSince(start) < o.pingSeconds || figures.pingMs.size() < 10)) {
        if (stack.stepMicros > 0) {
          std::this_thread::sleep_for(std::chrono::microseconds(pause(random)));
        }
        const Clock::time_point t0 = Clock::now();
        caller->ping();
        figures.pingMs.push_back(secondsSince(t0) * 1000);
      }
      const CpuSample cpu1 = cpuNow();
      figures.pingCpuUs =
          (cpu1.seconds - cpu0.seconds) * 1e6 / static_cast<double>(figures.pingMs.size());
    }
    caller->stop();
  } catch (...) {
    // The server is left waiting for a call; the watchdog ends a hang there.
    c.close();
    server.join();
    throw;
  }
  server.join();
  caller.reset();
  c.close();
  if (serverError) {
    std::rethrow_exception(serverError);
  }
  return figures;
}

// ---------------------------------------------------------------------------------
// Polling step: what one usleep of the library's steps takes on this machine.

double measuredStepMs(int micros, int samples) {
  std::vector<double> ms;
  for (int i = 0; i < samples; ++i) {
    const Clock::time_point t0 = Clock::now();
    ::usleep(static_cast<useconds_t>(micros));
    ms.push_back(secondsSince(t0) * 1000);
  }
  return median(ms);
}

// The polling floor of a round trip, p50 and p99: what the fixed polling steps
// alone make of an empty call, when calls come at random moments (so every poller's
// phase is uniformly random) and the only work is the machine's own round trip
// @p workMs (the raw FIFO ping). @p stepMs is one polling step as measured.
//
// OneStep: the peer sees the call at its next poll, answers after the work, and the
// caller, which polls from the moment it sent, sees the answer at its first poll
// after that, one step at the earliest.
//
// ThreadedBlocking: the caller's flush waits one step for its writer thread (which
// wakes at a random moment of that step and sends the call); the peer's reader sees it
// at its next poll; the peer's writer thread sends the answer at its own next wake-up;
// the caller polls from the end of its flush, one step after sending.
std::pair<double, double> pollingFloor(Pacing pacing, double stepMs, double workMs) {
  std::mt19937 random(2024);
  std::uniform_real_distribution<double> phase(0, stepMs);
  std::vector<double> trips(200000);
  for (double& trip : trips) {
    double answered = phase(random) + workMs;
    if (pacing == Pacing::ThreadedBlocking) {
      answered += phase(random) + phase(random);
    }
    trip = std::max(1.0, std::ceil(answered / stepMs)) * stepMs;
  }
  return {percentile(trips, 50), percentile(trips, 99)};
}

// ---------------------------------------------------------------------------------
// Idle cost

struct IdleFigures {
  double seconds = 0;
  double cpuMs = 0;
  double switchesPerSecond = 0;
};

IdleFigures measureIdle(double seconds) {
  std::this_thread::sleep_for(std::chrono::milliseconds(200));
  const CpuSample cpu0 = cpuNow();
  const Clock::time_point t0 = Clock::now();
  std::this_thread::sleep_for(std::chrono::duration<double>(seconds));
  const double wall = secondsSince(t0);
  const CpuSample cpu1 = cpuNow();
  return {wall, (cpu1.seconds - cpu0.seconds) * 1000,
          static_cast<double>(cpu1.switches - cpu0.switches) / wall};
}

void writeAll(const std::string& path, const std::vector<uint8_t>& bytes) {
  const int fd = ::open(path.c_str(), O_WRONLY | O_CLOEXEC);
  if (fd < 0 || ::write(fd, bytes.data(), bytes.size()) != static_cast<ssize_t>(bytes.size())) {
    if (fd >= 0) {
      ::close(fd);
    }
    throw std::runtime_error("cannot write to " + path);
  }
  ::close(fd);
}

// A thread that waits in @p wait until the peer writes @p release to the waiting
// end's read node, measured while it waits.
IdleFigures idleWhileWaiting(double seconds, FifoCable& cable, const std::function<void()>& wait,
                             const std::vector<uint8_t>& release) {
  std::exception_ptr error;
  std::thread waiter([&] {
    try {
      wait();
    } catch (...) {
      error = std::current_exception();
    }
  });
  IdleFigures figures = measureIdle(seconds);
  writeAll(cable.device().writePath, release);
  waiter.join();
  if (error) {
    std::rethrow_exception(error);
  }
  return figures;
}

// ---------------------------------------------------------------------------------
// The run

class Bench {
public:
  explicit Bench(const Options& o) : o_(o) {
    for (const Stack& s : allStacks()) {
      if (o_.stacks.empty() || o_.stacks.count(s.id) > 0) {
        stacks_.push_back(s);
      }
    }
  }

  int run() {
    RunInfo info;
    describeMachine(info);
    info.loadBefore = loadAverage();
    info.command = o_.command;
    const Clock::time_point start = Clock::now();

    // What else ran meanwhile: the CPU time the machine spent outside this process
    // during each section, as a share of all cores.
    auto section = [&](const std::string& name, void (Bench::*run)()) {
      const MachineCpu machine0 = machineCpuNow();
      const CpuSample own0 = cpuNow();
      (this->*run)();
      const MachineCpu machine1 = machineCpuNow();
      const CpuSample own1 = cpuNow();
      const double all = machine1.total - machine0.total;
      if (all > 0) {
        const double others = (machine1.busy - machine0.busy) - (own1.seconds - own0.seconds);
        info.loadDuring.push_back(name + " " + format(std::max(0.0, 100 * others / all), 2) +
                                  " %");
      }
    };
    const std::pair<const char*, void (Bench::*)()> sections[] = {
        {"cipher", &Bench::runCipher}, {"stream", &Bench::runStreams},
        {"frames", &Bench::runFrames}, {"sweep", &Bench::runSweep},
        {"calls", &Bench::runCallsAndTrips}, {"idle", &Bench::runIdle}};
    for (const auto& [name, method] : sections) {
      // The calls section also takes the round trips.
      if (wants(name) || (name == std::string("calls") && wants("roundtrip"))) {
        section(name, method);
      }
    }
    compare();

    info.seconds = secondsSince(start);
    info.loadAfter = loadAverage();
    info.thrift = THRIFTUSB_THRIFT_VERSION_STRING;
    info.openssl = opensslVersion();
    info.gcrypt = gcryptVersion();
    info.cipherBackend = THRIFTUSB_BENCH_SM4_BACKEND;
    FifoCable probe(o_.settings.pipeBytes);
    info.settings = {
        "Cable: two FIFOs, kernel buffer " + std::to_string(probe.pipeBytes()) +
            " bytes each; every stack and the FIFO anchors run over a fresh pair",
        "Block size of the USB transports (TUSBSocket maxBlockSize, TUsbDevice read and "
        "write block sizes): " + std::to_string(o_.settings.blockBytes) + " bytes",
        "TNonblockingUsbSocket: ring buffers of " + std::to_string(o_.settings.ringBytes) +
            " bytes, time-outs " + std::to_string(o_.settings.timeoutMs) + " ms",
        "Encrypted stacks: SM4-CBC through Sm4Cipher, each end its own cipher object",
        "Repetitions: 1 warm-up + " + std::to_string(o_.reps) + " timed of " +
            format(o_.repSeconds) + " s each; round trips for up to " + format(o_.pingSeconds) +
            " s or " + std::to_string(o_.pingSamples) + " calls per stack",
        "Polling step measured on this machine: usleep(1000) " + format(step1Ms_) +
            " ms, usleep(10000) " + format(step10Ms_) + " ms (median)",
    };
    if (o_.quick) {
      info.settings.push_back("QUICK MODE: figures prove only that every case works");
    }

    writeOutputs(info);
    if (!errors_.empty()) {
      std::cerr << "\n" << errors_.size() << " case(s) failed:\n";
      for (const std::string& e : errors_) {
        std::cerr << "  " << e << "\n";
      }
      return 1;
    }
    std::cout << "\nall cases done in " << format(info.seconds) << " s\n";
    return 0;
  }

private:
  bool wants(const std::string& section) const { return o_.sections.count(section) > 0; }

  void fail(const std::string& what, const std::exception& e) {
    const std::string text = what + ": " + e.what();
    std::cerr << "FAILED " << text << "\n" << recentLog();
    errors_.push_back(text);
  }

  void add(Row row) { rows_.push_back(std::move(row)); }

  void runCipher() {
    std::cout << "== cipher-bound rate\n";
    CaseGuard guard("cipher", o_.caseTimeout);
    try {
      for (const CipherCase& c : cipherCases({1024, 64 * 1024, 1024 * 1024})) {
        const Summary s = repeat(o_.reps, [&] {
          const Clock::time_point t0 = Clock::now();
          long calls = 0;
          do {
            c.run();
            ++calls;
          } while (secondsSince(t0) < o_.cipherRepSeconds);
          return Sample{static_cast<double>(c.bytes) * calls / secondsSince(t0) / kMB, 100};
        });
        const std::string size = c.bytes >= 1024 * 1024
                                     ? std::to_string(c.bytes / (1024 * 1024)) + " MiB"
                                     : std::to_string(c.bytes / 1024) + " KiB";
        Row row = makeRow(
            "cipher",
            c.implementation + "-" + c.mode + "-" + (c.decrypt ? "decrypt" : "encrypt") + "-" +
                std::to_string(c.bytes),
            c.implementation == "Sm4Cipher"
                ? std::string("Sm4Cipher (") + THRIFTUSB_BENCH_SM4_BACKEND + ")"
                : c.implementation + " (direct, no padding)",
            c.mode + (c.decrypt ? " decrypt " : " encrypt ") + size, s.median, "MB/s");
        row.low = s.low;
        row.high = s.high;
        add(row);
        if (c.implementation == "Sm4Cipher") {
          sm4_[row.metric] = s.median;
        }
        std::printf("  %-34s %-20s %8s MB/s\n", row.label.c_str(), row.metric.c_str(),
                    format(s.median).c_str());
      }
    } catch (const std::exception& e) {
      fail("cipher", e);
    }
  }

  // One stream case: @p stack with @p settings; framed stacks flush a frame every
  // @p blocksPerFrame blocks.
  void streamCase(const std::string& section, const Stack& stack, const Settings& settings,
                  int blocksPerFrame, const std::string& note) {
    CaseGuard guard(section + " " + stack.id + " " + note, o_.caseTimeout);
    try {
      Connection c = stack.connect(settings);
      if (stack.framed) {
        c.host->blocksPerFlush = blocksPerFrame;
      }
      uint64_t sequence = 0;
      const Summary s = repeat(o_.reps, [&] { return streamOnce(c, o_.repSeconds, sequence); });
      c.close();
      Row row = throughputRow(section, stack, s);
      row.note = note;
      if (section == "sweep") {
        row.id = stack.id + " " + note;
      }
      add(row);
      std::printf("  %-48s %8s MB/s  (%s-%s)  CPU %s %%  %s\n", stack.label.c_str(),
                  format(s.median).c_str(), format(s.low).c_str(), format(s.high).c_str(),
                  format(s.cpuPercent).c_str(), section == "sweep" ? note.c_str() : "");
    } catch (const std::exception& e) {
      fail(section + " " + stack.id + " " + note, e);
    }
    std::fflush(stdout);
  }

  void runStreams() {
    std::cout << "== one-way stream of 64 KiB writes (framed stacks: a frame per write)\n";
    for (const Stack& stack : stacks_) {
      streamCase("stream", stack, o_.settings, 1, "");
    }
  }

  void runFrames() {
    std::cout << "== one-way stream of 64 KiB writes in 1 MiB frames (16 writes per flush)\n";
    for (const Stack& stack : stacks_) {
      if (stack.framed) {
        streamCase("frames", stack, o_.settings, 16, "");
      }
    }
  }

  // How the figures depend on what the application and the link choose: the
  // threaded transport's ring size, the frame size, and the bytes the cable holds in
  // flight.
  void runSweep() {
    std::cout << "== sensitivity: ring buffer, frame and cable buffer sizes\n";
    for (const Stack& stack : stacks_) {
      if (stack.id == "threaded") {
        for (int ring : {4 << 20, 64 << 20}) {
          if (ring == o_.settings.ringBytes) {
            continue;
          }
          Settings s = o_.settings;
          s.ringBytes = ring;
          streamCase("sweep", stack, s, 1, "ring buffers " + std::to_string(ring >> 20) + " MiB");
        }
      }
      if (stack.id == "nbsec-plain") {
        // Frames as big as the ring: one flush, and so one polling step, per 16 MiB.
        streamCase("sweep", stack, o_.settings, 256, "16 MiB frames (256 writes per flush)");
      }
      if (stack.id == "raw" || stack.id == "framed-fd" || stack.id == "usbsocket" ||
          stack.id == "threaded-nb") {
        Settings s = o_.settings;
        s.pipeBytes = 64 << 10;
        if (s.pipeBytes != o_.settings.pipeBytes) {
          streamCase("sweep", stack, s, 1, "cable buffer 64 KiB (the FIFO default)");
        }
      }
    }
  }

  void runCallsAndTrips() {
    std::cout << "== Thrift calls: echo(1 MiB) and ping()\n";
    step1Ms_ = measuredStepMs(1000, o_.quick ? 10 : 200);
    step10Ms_ = measuredStepMs(10000, o_.quick ? 3 : 40);
    for (const Stack& stack : stacks_) {
      CaseGuard guard("calls " + stack.id, o_.caseTimeout);
      try {
        CallFigures f = runCalls(stack, o_, wants("calls"), wants("roundtrip"));
        if (wants("calls")) {
          add(throughputRow("calls", stack, f.echo));
        }
        if (wants("roundtrip")) {
          addTrip(stack, f.pingMs, f.pingCpuUs);
        }
        std::printf("  %-48s echo %8s MB/s  ping p50 %s ms p99 %s ms (%zu calls)\n",
                    stack.label.c_str(), format(f.echo.median).c_str(),
                    format(percentile(f.pingMs, 50)).c_str(),
                    format(percentile(f.pingMs, 99)).c_str(), f.pingMs.size());
      } catch (const std::exception& e) {
        fail("calls " + stack.id, e);
      }
      std::fflush(stdout);
    }
  }

  void addTrip(const Stack& stack, const std::vector<double>& ms, double cpuUs) {
    if (ms.empty()) {
      return;
    }
    const double step = stack.stepMicros == 1000    ? step1Ms_
                        : stack.stepMicros == 10000 ? step10Ms_
                                                    : 0;
    double floor50 = kNone;
    double floor99 = kNone;
    std::string stepText = "none (waits in the kernel)";
    if (stack.pacing == Pacing::Kernel) {
      if (stack.raw) {
        machineTripMs_ = percentile(ms, 50);
      }
    } else {
      std::tie(floor50, floor99) = pollingFloor(stack.pacing, step,
                                                std::isnan(machineTripMs_) ? 0 : machineTripMs_);
      stepText = format(stack.stepMicros / 1000.0) + " ms";
    }
    // How many whole polling steps the calls took: the share of calls at 1, 2, 3...
    std::string steps;
    if (step > 0) {
      std::map<long, int> histogram;
      for (double m : ms) {
        ++histogram[std::lround(m / step)];
      }
      for (const auto& [count, calls] : histogram) {
        steps += (steps.empty() ? "" : ", ") + std::to_string(count) + " step" +
                 (count == 1 ? "" : "s") + " " +
                 format(100.0 * calls / static_cast<double>(ms.size()), 2) + " %";
      }
    }
    for (const auto& [metric, p, floor] :
         {std::make_tuple("p50", 50.0, floor50), std::make_tuple("p99", 99.0, floor99)}) {
      Row row = makeRow("roundtrip", stack.id, stack.label, metric, percentile(ms, p), "ms");
      row.anchor = "polling floor";
      row.anchorValue = floor;
      row.ratio = row.value / floor;
      row.note = stepText;
      if (stack.family != Family::Anchor && !std::isnan(floor)) {
        row.target = "≤ floor + 1 ms";
        row.verdict = row.value <= floor + 1.0 ? "met" : "missed";
      }
      row.low = *std::min_element(ms.begin(), ms.end());
      row.high = *std::max_element(ms.begin(), ms.end());
      add(row);
    }
    Row calls = makeRow("roundtrip-detail", stack.id, stack.label, "CPU per call", cpuUs, "us");
    calls.note = std::to_string(ms.size()) + " calls" + (steps.empty() ? "" : "; " + steps);
    add(calls);
  }

  Row throughputRow(const std::string& section, const Stack& stack, const Summary& s) {
    Row row = makeRow(section, stack.id, stack.label, "MB/s", s.median, "MB/s");
    row.low = s.low;
    row.high = s.high;
    row.cpuPercent = s.cpuPercent;
    return row;
  }

  void runIdle() {
    std::cout << "== idle cost\n";
    const Settings& s = o_.settings;
    // One case: @p measure idles over a fresh cable and gives its figures.
    auto idleCase = [&](const std::string& name, double seconds, const std::string& id,
                        const std::string& label,
                        const std::function<IdleFigures(FifoCable&)>& measure) {
      CaseGuard guard("idle " + name, seconds + 30);
      try {
        FifoCable cable(s.pipeBytes);
        const IdleFigures f = measure(cable);
        for (const auto& [metric, value, unit] :
             {std::make_tuple("seconds", f.seconds, "s"), std::make_tuple("CPU ms", f.cpuMs, "ms"),
              std::make_tuple("CPU %", f.cpuMs / 10.0 / f.seconds, "%"),
              std::make_tuple("context switches/s", f.switchesPerSecond, "1/s")}) {
          add(makeRow("idle", id, label, metric, value, unit));
        }
        std::printf("  %-64s %6s ms CPU in %s s (%s %% of a core, %s switches/s)\n",
                    label.c_str(), format(f.cpuMs).c_str(), format(f.seconds).c_str(),
                    format(f.cpuMs / 10.0 / f.seconds).c_str(),
                    format(f.switchesPerSecond).c_str());
        std::fflush(stdout);
      } catch (const std::exception& e) {
        fail("idle " + name, e);
      }
    };
    auto threadedOn = [&](FifoCable& cable) {
      auto socket = std::make_shared<TNonblockingUsbSocket>(
          std::make_shared<TUsbDevice>(cable.host().readPath, cable.host().writePath, false,
                                       s.blockBytes, s.blockBytes),
          s.timeoutMs, s.timeoutMs, s.ringBytes);
      socket->open();
      return socket;
    };
    uint8_t word[4];
    const std::vector<uint8_t> frame = {0, 0, 0, 4, 1, 2, 3, 4};

    idleCase("threaded", o_.idleSeconds, "threaded-open",
             "TNonblockingUsbSocket (blocking mode), open and idle", [&](FifoCable& cable) {
               auto socket = threadedOn(cable);
               const IdleFigures f = measureIdle(o_.idleSeconds);
               socket->close();
               return f;
             });
    idleCase("usbsocket", o_.idleExtraSeconds, "usbsocket-wait",
             "TUSBSocket waiting in read for a call", [&](FifoCable& cable) {
               auto socket = std::make_shared<TUSBSocket>(
                   cable.host().readPath, cable.host().writePath, 0, static_cast<int>(s.blockBytes));
               socket->open();
               const IdleFigures f = idleWhileWaiting(
                   o_.idleExtraSeconds, cable, [&] { socket->readAll(word, 4); }, {1, 2, 3, 4});
               socket->close();
               return f;
             });
    idleCase("nbsec", o_.idleExtraSeconds, "nbsec-wait",
             "TNonblockingSecurityTransport / blocking mode, waiting in read for a frame",
             [&](FifoCable& cable) {
               auto socket = threadedOn(cable);
               auto framed = std::make_shared<TNonblockingSecurityTransport>(socket, nullptr, false);
               const IdleFigures f = idleWhileWaiting(
                   o_.idleExtraSeconds, cable, [&] { framed->readAll(word, 4); }, frame);
               socket->close();
               return f;
             });
    idleCase("framed-fd", o_.idleExtraSeconds, "framed-fd-wait",
             "anchor: TFramedTransport/TFDTransport waiting in read", [&](FifoCable& cable) {
               const int readFd = ::open(cable.host().readPath.c_str(), O_RDONLY | O_CLOEXEC);
               if (readFd < 0) {
                 throw std::runtime_error("cannot open the cable");
               }
               auto framed = std::make_shared<apache::thrift::transport::TFramedTransport>(
                   std::make_shared<apache::thrift::transport::TFDTransport>(
                       readFd, apache::thrift::transport::TFDTransport::CLOSE_ON_DESTROY));
               return idleWhileWaiting(
                   o_.idleExtraSeconds, cable, [&] { framed->readAll(word, 4); }, frame);
             });
  }

  // Cipher-bound rates, anchors, ratios and verdicts.
  void compare() {
    auto sm4 = [&](const std::string& metric) {
      const auto it = sm4_.find(metric);
      return it == sm4_.end() ? kNone : it->second;
    };
    // A stream: the sender encrypts while the receiver decrypts, on separate cores,
    // 64 KiB frames; the slower of the two bounds it.
    const double streamBound =
        std::min(sm4("CBC encrypt 64 KiB"), sm4("CBC decrypt 64 KiB"));
    // A call: request and answer are each encrypted and then decrypted, one after
    // the other, 1 MiB each.
    const double e = sm4("CBC encrypt 1 MiB");
    const double d = sm4("CBC decrypt 1 MiB");
    const double callsBound = 1.0 / (1.0 / e + 1.0 / d);
    // Frames of 1 MiB: the slower of encrypt and decrypt at 1 MiB.
    const double framesBound = std::min(e, d);
    auto bound = [&](const char* id, const char* label, double value, const char* note) {
      if (!std::isnan(value)) {
        Row row = makeRow("bound", id, label, "MB/s", value, "MB/s");
        row.note = note;
        add(row);
      }
    };
    bound("stream", "Cipher-bound rate of an encrypted stream of 64 KiB frames", streamBound,
          "the slower of Sm4Cipher CBC encrypt and decrypt at 64 KiB: sender and receiver "
          "cipher at the same time");
    bound("calls", "Cipher-bound rate of encrypted echo(1 MiB) calls", callsBound,
          "1 / (1/encrypt + 1/decrypt), Sm4Cipher CBC at 1 MiB: each direction is encrypted, "
          "then decrypted, one after the other");
    bound("frames", "Cipher-bound rate of an encrypted stream of 1 MiB frames", framesBound,
          "the slower of Sm4Cipher CBC encrypt and decrypt at 1 MiB");

    for (Row& row : rows_) {
      if (row.section == "sweep") {
        const std::string base = row.id.substr(0, row.id.find(' '));
        for (const Row& other : rows_) {
          if (other.section == "stream" && other.id == base) {
            row.anchor = "same stack, settings of the main run";
            row.anchorValue = other.value;
            row.ratio = row.value / other.value;
          }
        }
        continue;
      }
      if (row.section != "stream" && row.section != "calls" && row.section != "frames") {
        continue;
      }
      const Stack* stack = nullptr;
      for (const Stack& s : stacks_) {
        if (s.id == row.id) {
          stack = &s;
        }
      }
      if (stack == nullptr) {
        continue;
      }
      auto anchorTo = [&](const std::string& id, const std::string& label) {
        for (const Row& other : rows_) {
          if (other.section == row.section && other.id == id) {
            row.anchor = label;
            row.anchorValue = other.value;
            row.ratio = row.value / other.value;
          }
        }
      };
      switch (stack->family) {
      case Family::Anchor:
        if (row.id != "raw") {
          anchorTo("raw", "raw FIFO");
        }
        break;
      case Family::Plain:
        anchorTo("framed-fd", "TFramedTransport/TFDTransport");
        row.target = "≥ 0.8× and ≥ 450 MB/s";
        if (!std::isnan(row.ratio)) {
          row.verdict = row.ratio >= 0.8 && row.value >= kUsb3MBps ? "met" : "missed";
        }
        break;
      case Family::Encrypted: {
        const double bound = row.section == "stream"   ? streamBound
                             : row.section == "frames" ? framesBound
                                                       : callsBound;
        if (!std::isnan(bound)) {
          row.anchor = "cipher-bound rate";
          row.anchorValue = bound;
          row.ratio = row.value / bound;
          row.target = "≥ 0.9× cipher-bound";
          row.verdict = row.ratio >= 0.9 ? "met" : "missed";
        }
        break;
      }
      }
    }
  }

  void writeOutputs(const RunInfo& info) {
    const std::pair<const std::string&, std::function<void(const std::string&)>> outputs[] = {
        {o_.csv, [&](const std::string& path) { writeCsv(path, rows_); }},
        {o_.md, [&](const std::string& path) { writeMarkdown(path, info, rows_); }},
        {o_.plotData, [&](const std::string& path) { writePlotData(path, rows_); }}};
    try {
      for (const auto& [path, write] : outputs) {
        if (!path.empty()) {
          write(path);
          std::cout << "wrote " << path << "\n";
        }
      }
    } catch (const std::exception& e) {
      fail("output", e);
    }
  }

  const Options& o_;
  std::vector<Stack> stacks_;
  std::vector<Row> rows_;
  std::map<std::string, double> sm4_;
  std::vector<std::string> errors_;
  double step1Ms_ = kNone;
  double step10Ms_ = kNone;
  // The machine's own round trip: the raw FIFO ping's median.
  double machineTripMs_ = kNone;
};

} // namespace
} // namespace bench
} // namespace thriftusb

int main(int argc, char** argv) {
  using namespace thriftusb::bench;
  Options options;
  if (!parse(argc, argv, options)) {
    usage();
    return 2;
  }
  gVerbose = options.verbose;
  apache::thrift::GlobalOutput.setOutputFunction(captureLog);
  Watchdog watchdog;
  gWatchdog = &watchdog;
  try {
    Bench bench(options);
    const int result = bench.run();
    gWatchdog = nullptr;
    return result;
  } catch (const std::exception& e) {
    std::cerr << "thriftusb_bench: " << e.what() << "\n";
    return 1;
  }
}
