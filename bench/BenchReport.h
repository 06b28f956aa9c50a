#ifndef THRIFTUSB_BENCH_BENCHREPORT_H
#define THRIFTUSB_BENCH_BENCHREPORT_H

#include <cmath>
#include <string>
#include <utility>
#include <vector>

namespace thriftusb {
namespace bench {

/** Not a number: a figure that does not apply. */
constexpr double kNone = NAN;

/** One figure of the report: a line of the CSV. */
struct Row {
  /** stream, calls, roundtrip, cipher, idle */
  std::string section;
  /** Short stack or case name, e.g. "usbsocket". */
  std::string id;
  /** Name in the tables. */
  std::string label;
  /** What was measured, e.g. "MB/s", "p50". */
  std::string metric;
  /** The median of the repetitions (or the percentile, for round trips). */
  double value = kNone;
  std::string unit;
  /** Smallest and largest repetition. */
  double low = kNone;
  double high = kNone;
  /** Process CPU time over wall time, percent of one core, during the measurement. */
  double cpuPercent = kNone;
  /** What the figure is compared with, and its value in the same unit. */
  std::string anchor;
  double anchorValue = kNone;
  /** value / anchorValue */
  double ratio = kNone;
  /** The target, in words, and whether it was met ("met", "missed" or empty). */
  std::string target;
  std::string verdict;
  std::string note;
};

/** A row with what identifies it and its figure; the other fields stay empty. */
inline Row makeRow(std::string section, std::string id, std::string label, std::string metric,
                   double value, std::string unit) {
  Row row;
  row.section = std::move(section);
  row.id = std::move(id);
  row.label = std::move(label);
  row.metric = std::move(metric);
  row.value = value;
  row.unit = std::move(unit);
  return row;
}

/** Median of @p values (NaN when empty). */
double median(std::vector<double> values);

/** Nearest-rank percentile @p p (0 to 100) of @p values (NaN when empty). */
double percentile(std::vector<double> values, double p);

/** Facts about the machine and the run, for the header of the report. */
struct RunInfo {
  std::string date;
  std::string cpu;
  int cores = 0;
  std::string kernel;
  std::string loadBefore;
  std::string loadAfter;
  /** "section N %": CPU time of other processes during each section, % of all cores. */
  std::vector<std::string> loadDuring;
  std::string thrift;
  std::string openssl;
  std::string gcrypt;
  std::string cipherBackend;
  std::string command;
  std::vector<std::string> settings;
  double seconds = 0;
};

/** The first line of /proc/loadavg (empty when unreadable). */
std::string loadAverage();

/** Fills the machine facts of @p info (date, CPU, cores, kernel). */
void describeMachine(RunInfo& info);

/** Writes every row as CSV with a header line; throws on an I/O failure. */
void writeCsv(const std::string& path, const std::vector<Row>& rows);

/** Writes the report as Markdown tables; throws on an I/O failure. */
void writeMarkdown(const std::string& path, const RunInfo& info, const std::vector<Row>& rows);

/**
 * Writes the bulk figures for the plot: one line per stack with its label and its
 * MB/s in the stream, in the stream of 1 MiB frames and in the calls ("-" where it
 * was not measured).
 */
void writePlotData(const std::string& path, const std::vector<Row>& rows);

/** @p v with @p digits significant digits, "-" for NaN. */
std::string format(double v, int digits = 3);

} // namespace bench
} // namespace thriftusb

#endif
