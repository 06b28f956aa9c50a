#include "BenchReport.h"

#include <algorithm>
#include <cstdio>
#include <ctime>
#include <fstream>
#include <map>
#include <sstream>
#include <stdexcept>

#include <sys/utsname.h>
#include <unistd.h>

namespace thriftusb {
namespace bench {

double median(std::vector<double> values) {
  if (values.empty()) {
    return kNone;
  }
  std::sort(values.begin(), values.end());
  const size_t n = values.size();
  return n % 2 == 1 ? values[n / 2] : (values[n / 2 - 1] + values[n / 2]) / 2;
}

double percentile(std::vector<double> values, double p) {
  if (values.empty()) {
    return kNone;
  }
  std::sort(values.begin(), values.end());
  // Nearest rank: the smallest value with at least p percent of the values at or
  // below it.
  auto rank = static_cast<size_t>(std::ceil(p / 100.0 * static_cast<double>(values.size())));
  rank = std::max<size_t>(rank, 1);
  return values[std::min(rank, values.size()) - 1];
}

std::string loadAverage() {
  std::ifstream in("/proc/loadavg");
  std::string line;
  std::getline(in, line);
  return line;
}

void describeMachine(RunInfo& info) {
  char date[64];
  const std::time_t now = std::time(nullptr);
  std::tm utc{};
  gmtime_r(&now, &utc);
  std::strftime(date, sizeof date, "%Y-%m-%d %H:%M UTC", &utc);
  info.date = date;

  std::ifstream cpuinfo("/proc/cpuinfo");
  std::string line;
  while (std::getline(cpuinfo, line)) {
    if (line.rfind("model name", 0) == 0) {
      const auto colon = line.find(':');
      info.cpu = colon == std::string::npos ? line : line.substr(colon + 2);
      break;
    }
  }
  info.cores = static_cast<int>(::sysconf(_SC_NPROCESSORS_ONLN));
  utsname names{};
  if (::uname(&names) == 0) {
    info.kernel = std::string(names.sysname) + " " + names.release;
  }
}

std::string format(double v, int digits) {
  if (std::isnan(v)) {
    return "-";
  }
  char text[64];
  const double magnitude = std::fabs(v);
  if (magnitude >= std::pow(10.0, digits) || magnitude == 0) {
    std::snprintf(text, sizeof text, "%.0f", v);
  } else {
    const int decimals =
        std::max(0, digits - 1 - static_cast<int>(std::floor(std::log10(magnitude))));
    std::snprintf(text, sizeof text, "%.*f", decimals, v);
  }
  return text;
}

namespace {

std::string csvField(const std::string& text) {
  if (text.find_first_of(",\"\n") == std::string::npos) {
    return text;
  }
  std::string quoted = "\"";
  for (char c : text) {
    if (c == '"') {
      quoted += '"';
    }
    quoted += c;
  }
  return quoted + "\"";
}

std::string csvNumber(double v) {
  if (std::isnan(v)) {
    return "";
  }
  char text[64];
  std::snprintf(text, sizeof text, "%.6g", v);
  return text;
}

std::ofstream openOut(const std::string& path) {
  std::ofstream out(path);
  if (!out) {
    throw std::runtime_error("cannot write " + path);
  }
  return out;
}

void closeOut(std::ofstream& out, const std::string& path) {
  out.close();
  if (!out) {
    throw std::runtime_error("cannot write " + path);
  }
}

const Row* find(const std::vector<Row>& rows, const std::string& section, const std::string& id,
                const std::string& metric) {
  for (const Row& row : rows) {
    if (row.section == section && row.id == id && row.metric == metric) {
      return &row;
    }
  }
  return nullptr;
}

// Ids of the rows of @p section, in order of first appearance.
std::vector<std::string> idsOf(const std::vector<Row>& rows, const std::string& section) {
  std::vector<std::string> ids;
  for (const Row& row : rows) {
    if (row.section == section && std::find(ids.begin(), ids.end(), row.id) == ids.end()) {
      ids.push_back(row.id);
    }
  }
  return ids;
}

std::string range(const Row& row, int digits = 3) {
  if (std::isnan(row.low)) {
    return "-";
  }
  return format(row.low, digits) + "–" + format(row.high, digits);
}

std::string ratio(double r) {
  return std::isnan(r) ? "-" : format(r, 2) + "×";
}

void throughputTable(std::ostream& out, const std::vector<Row>& rows, const std::string& section) {
  out << "| Stack | MB/s (median) | range | CPU % | compared with | its MB/s | ratio | "
         "target | met? |\n";
  out << "|---|---:|---:|---:|---|---:|---:|---|---|\n";
  for (const Row& row : rows) {
    if (row.section != section) {
      continue;
    }
    out << "| " << row.label << " | " << format(row.value) << " | " << range(row) << " | "
        << format(row.cpuPercent, 2) << " | " << (row.anchor.empty() ? "-" : row.anchor) << " | "
        << format(row.anchorValue) << " | " << ratio(row.ratio) << " | "
        << (row.target.empty() ? "-" : row.target) << " | "
        << (row.verdict.empty() ? "-" : row.verdict) << " |\n";
  }
  for (const Row& row : rows) {
    if (row.section == section && !row.note.empty()) {
      out << "\n- " << row.label << ": " << row.note;
    }
  }
  out << "\n";
}

} // namespace

void writeCsv(const std::string& path, const std::vector<Row>& rows) {
  std::ofstream out = openOut(path);
  out << "section,id,label,metric,value,unit,low,high,cpu_percent,anchor,anchor_value,ratio,"
         "target,verdict,note\n";
  for (const Row& row : rows) {
    out << csvField(row.section) << ',' << csvField(row.id) << ',' << csvField(row.label) << ','
        << csvField(row.metric) << ',' << csvNumber(row.value) << ',' << csvField(row.unit) << ','
        << csvNumber(row.low) << ',' << csvNumber(row.high) << ',' << csvNumber(row.cpuPercent)
        << ',' << csvField(row.anchor) << ',' << csvNumber(row.anchorValue) << ','
        << csvNumber(row.ratio) << ',' << csvField(row.target) << ',' << csvField(row.verdict)
        << ',' << csvField(row.note) << '\n';
  }
  closeOut(out, path);
}

void writeMarkdown(const std::string& path, const RunInfo& info, const std::vector<Row>& rows) {
  std::ofstream out = openOut(path);
  out << "# thriftusb benchmark results\n\n";
  out << "Taken " << info.date << " on " << info.cpu << " (" << info.cores << " cores online), "
      << info.kernel << ".\n\n";
  out << "- Load average (/proc/loadavg) before the run: `" << info.loadBefore << "`; after: `"
      << info.loadAfter << "`";
  out << "\n";
  if (!info.loadDuring.empty()) {
    out << "- CPU time of other processes during each section, share of all " << info.cores
        << " cores (0 % = a quiet machine):";
    for (size_t i = 0; i < info.loadDuring.size(); ++i) {
      out << (i == 0 ? " " : ", ") << info.loadDuring[i];
    }
    out << "\n";
  }
  out << "- Thrift " << info.thrift << "; " << info.openssl;
  if (!info.gcrypt.empty()) {
    out << "; libgcrypt " << info.gcrypt;
  }
  out << "; Sm4Cipher backend: " << info.cipherBackend << "\n";
  for (const std::string& setting : info.settings) {
    out << "- " << setting << "\n";
  }
  out << "- Command: `" << info.command << "`, " << format(info.seconds, 3) << " s\n\n";
  out << "How the figures are taken, and why each stack lands where it does: "
         "[analysis.md](analysis.md).\n\n";
  out << "MB/s are 10^6 bytes per second of payload. Each throughput figure is the median of "
         "the timed repetitions (range: slowest and fastest); CPU % is the process's CPU time "
         "over the wall time while it ran (200 % = both cores busy).\n\n";

  auto throughputSection = [&](const char* section, const char* heading) {
    if (!idsOf(rows, section).empty()) {
      out << "## Bulk throughput: " << heading << "\n\n";
      throughputTable(out, rows, section);
      out << "\n";
    }
  };
  throughputSection("stream", "one-way stream of 64 KiB writes");
  throughputSection("frames",
                    "the framed stacks with 1 MiB frames (16 writes of 64 KiB per flush)");
  if (!idsOf(rows, "sweep").empty()) {
    out << "## Sensitivity of the stream to the ring buffer, the frame size and the cable "
           "buffer\n\n";
    out << "| Stack | setting | MB/s (median) | range | CPU % | with the main run's settings | "
           "ratio |\n";
    out << "|---|---|---:|---:|---:|---:|---:|\n";
    for (const Row& row : rows) {
      if (row.section == "sweep") {
        out << "| " << row.label << " | " << row.note << " | " << format(row.value) << " | "
            << range(row) << " | " << format(row.cpuPercent, 2) << " | "
            << format(row.anchorValue) << " | " << ratio(row.ratio) << " |\n";
      }
    }
    out << "\n";
  }
  throughputSection("calls", "Thrift calls `echo(binary)` with 1 MiB each way");

  const auto trips = idsOf(rows, "roundtrip");
  if (!trips.empty()) {
    out << "## Small-call round trip: `ping()`\n\n";
    out << "| Stack | polling step | p50 ms | p99 ms | floor p50 ms | floor p99 ms | p50 − floor | "
           "p99 − floor | target | met? | CPU µs per call | calls by whole polling steps |\n";
    out << "|---|---|---:|---:|---:|---:|---:|---:|---|---|---:|---|\n";
    for (const std::string& id : trips) {
      const Row* p50 = find(rows, "roundtrip", id, "p50");
      const Row* p99 = find(rows, "roundtrip", id, "p99");
      if (p50 == nullptr || p99 == nullptr) {
        continue;
      }
      const double d50 = p50->value - p50->anchorValue;
      const double d99 = p99->value - p99->anchorValue;
      std::string verdict = p50->verdict;
      if (p99->verdict == "missed") {
        verdict = "missed";
      }
      const Row* detail = find(rows, "roundtrip-detail", id, "CPU per call");
      out << "| " << p50->label << " | " << p50->note << " | " << format(p50->value) << " | "
          << format(p99->value) << " | " << format(p50->anchorValue) << " | "
          << format(p99->anchorValue) << " | " << format(d50, 2) << " | " << format(d99, 2)
          << " | " << (p50->target.empty() ? "-" : p50->target) << " | "
          << (verdict.empty() ? "-" : verdict) << " | "
          << (detail != nullptr ? format(detail->value) : "-") << " | "
          << (detail != nullptr ? detail->note : "-") << " |\n";
    }
    out << "\n";
  }

  if (!idsOf(rows, "cipher").empty()) {
    out << "## Cipher-bound rate: SM4 alone, one core\n\n";
    out << "| Implementation | Operation | MB/s (median) | range |\n";
    out << "|---|---|---:|---:|\n";
    for (const Row& row : rows) {
      if (row.section == "cipher") {
        out << "| " << row.label << " | " << row.metric << " | " << format(row.value) << " | "
            << range(row) << " |\n";
      }
    }
    out << "\n";
    for (const Row& row : rows) {
      if (row.section == "bound") {
        out << "- " << row.label << ": " << format(row.value) << " MB/s (" << row.note << ")\n";
      }
    }
    out << "\n";
  }

  const auto idles = idsOf(rows, "idle");
  if (!idles.empty()) {
    out << "## Idle cost\n\n";
    out << "| Case | seconds | CPU ms | CPU % of one core | context switches per s |\n";
    out << "|---|---:|---:|---:|---:|\n";
    for (const std::string& id : idles) {
      const Row* seconds = find(rows, "idle", id, "seconds");
      const Row* cpu = find(rows, "idle", id, "CPU ms");
      const Row* percent = find(rows, "idle", id, "CPU %");
      const Row* switches = find(rows, "idle", id, "context switches/s");
      if (seconds == nullptr || cpu == nullptr || percent == nullptr || switches == nullptr) {
        continue;
      }
      out << "| " << seconds->label << " | " << format(seconds->value) << " | "
          << format(cpu->value) << " | " << format(percent->value) << " | "
          << format(switches->value) << " |\n";
    }
    out << "\n";
  }
  closeOut(out, path);
}

void writePlotData(const std::string& path, const std::vector<Row>& rows) {
  std::ofstream out = openOut(path);
  out << "# label\tstream MB/s\t1 MiB frames MB/s\tcalls MB/s\n";
  std::vector<std::string> ids = idsOf(rows, "stream");
  for (const std::string& id : idsOf(rows, "calls")) {
    if (std::find(ids.begin(), ids.end(), id) == ids.end()) {
      ids.push_back(id);
    }
  }
  for (const std::string& id : ids) {
    const Row* stream = find(rows, "stream", id, "MB/s");
    const Row* frames = find(rows, "frames", id, "MB/s");
    const Row* calls = find(rows, "calls", id, "MB/s");
    const std::string& label = stream != nullptr ? stream->label : calls->label;
    auto value = [](const Row* row) {
      return row == nullptr || std::isnan(row->value) ? std::string("-") : csvNumber(row->value);
    };
    out << '"' << label << "\"\t" << value(stream) << '\t' << value(frames) << '\t'
        << value(calls) << '\n';
  }
  closeOut(out, path);
}

} // namespace bench
} // namespace thriftusb
