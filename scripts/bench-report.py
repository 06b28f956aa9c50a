#!/usr/bin/env python3
"""Turns the benchmark's JSON (thriftusb_bench --benchmark_out_format=json) into
results.md (tables: each figure in polling and in waking mode side by side, what it is
compared with, the ratio, the targets met, the machine and its load) and throughput.png
(bulk throughput by stack and mode, drawn by gnuplot).

usage: bench-report.py RESULTS.json OUT_DIR [--command=TEXT] [--seconds=N]
                      [--load-after=TEXT]   (the run's command, its length and
                                             /proc/loadavg when it ended, for the header)
                      [--previous=OLD.json] (an earlier run, whose figures polling mode
                                             is checked against)
"""
import json, os, platform, random, re, subprocess, sys

USB3 = 450  # MB/s of payload a USB 3 SuperSpeed link carries at most
ANCHOR = "framed-fd"
MODES = ("polling", "waking")
# How each stack waits in polling mode, for the polling floor of its round trip:
# "kernel" (no step), "one" (the caller polls for the answer, the peer answers without
# a step of its own) or "threaded" (blocking mode: flush waits for the writer thread,
# which sends at its next wake-up on both sides).
PACING = {"framed-fd": "kernel", "tcp": "kernel", "usbsocket": "one", "sec-sm4": "one",
          "threaded": "threaded", "nbsec-plain": "threaded", "nbsec-sm4": "threaded"}
# Waking mode's round-trip target, p50 in ms, by stack.
WAKING_PING_MS = {"usbsocket": 0.2, "threaded": 1, "nbsec-plain": 1, "nbsec-sm4": 1,
                  "threaded-nb": 1, "nbsec-plain-nb": 1, "nbsec-sm4-nb": 1}
# What counts as noise between two runs of polling mode (see Report.previous_run).
NOISE_MEDIANS = 0.10  # throughput: medians this close, or overlapping ranges
NOISE_SHARE = 0.25    # round trip and idle CPU: this share of the figure, or ...
NOISE_STEP = 1.05     # ... round trip: one polling step (and its jitter), or ...
NOISE_IDLE = 0.3      # ... idle CPU: percentage points of one core
SKIP = re.compile(r"^(min_time:.*|real_time|manual_time|iterations:\d+|repeats:\d+)$")


def fmt(v, digits=3):
    if v is None:
        return "-"
    if v == 0 or abs(v) >= 10 ** digits:
        return "%.0f" % v
    return "%.*g" % (digits, v)


def pair(a, b, digits=3):
    """Polling | waking in one cell; an anchor's single figure alone."""
    return fmt(a, digits) if b is None else "%s / %s" % (fmt(a, digits), fmt(b, digits))


def verdict(ok):
    return "-" if ok is None else "met" if ok else "missed"


def load(path):
    with open(path) as f:
        data = json.load(f)
    figures = {}  # name -> {"median": row, "min": row, "max": row}
    for b in data["benchmarks"]:
        name = "/".join(p for p in b["run_name"].split("/") if not SKIP.match(p))
        kind = b.get("aggregate_name", "median") if b["run_type"] == "aggregate" else "median"
        figures.setdefault(name, {})[kind] = b
    return data["context"], figures


def case(family, sid, mode=None, variant=""):
    return "/".join(p for p in (family, sid, mode, variant) if p)


class Report:
    def __init__(self, context, figures, previous=None):
        self.context, self.figures, self.out = context, figures, []
        self.previous = previous  # (context, figures) of an earlier run, or None
        self.checks = []  # [target, figures, met?] of waking mode's targets

    def find(self, family, sid, mode, variant="", figures=None):
        """A case's name in @figures; polling mode is also an anchor's only case, and a
        stack's case in a run from before the modes."""
        figures = self.figures if figures is None else figures
        for name in [case(family, sid, mode, variant)] + (
                [case(family, sid, None, variant)] if mode == "polling" else []):
            if name in figures:
                return name
        return None

    def get(self, name, key="bytes_per_second", kind="median", scale=1e-6, figures=None):
        row = (self.figures if figures is None else figures).get(name or "", {}).get(kind)
        return None if row is None or key not in row else row[key] * scale

    def value(self, family, sid, mode, variant="", key="bytes_per_second", kind="median",
              scale=1e-6):
        return self.get(self.find(family, sid, mode, variant), key, kind, scale)

    def label(self, sid):
        return next(r["median"].get("label") for n, r in self.figures.items()
                    if n.split("/")[1] == sid)

    def stacks(self, family, variant=""):
        """The stacks with a case of @family (and @variant), in the run's order."""
        sids = []
        for n in self.figures:
            sid = n.split("/")[1] if "/" in n else ""
            if n.split("/")[0] == family and sid not in sids and \
                    self.find(family, sid, "polling", variant):
                sids.append(sid)
        return sids

    @staticmethod
    def table(header, rows):
        """A markdown table, as lines."""
        out = ["| " + " | ".join(header) + " |"]
        # Text in the first column and in those named below, figures right-aligned.
        text = ("Stack", "Implementation", "operation", "setting", "compared with", "target",
                "met?", "polling step", "threads", "Target", "figures", "Figure", "within noise")
        out.append("|" + "|".join("---" if h.split(",")[0] in text else "---:"
                                  for h in header) + "|")
        return out + ["| " + " | ".join(r) + " |" for r in rows] + [""]

    def sm4(self, op, size):
        return self.get("sm4/Sm4Cipher/CBC/%s/%d" % (op, size))

    def bounds(self):
        """Cipher-bound rates of the encrypted stacks, MB/s, by family."""
        e, d = self.sm4("encrypt", 1 << 20), self.sm4("decrypt", 1 << 20)
        e64, d64 = self.sm4("encrypt", 65536), self.sm4("decrypt", 65536)
        return {"stream": min(e64, d64) if e64 and d64 else None,
                "frames": min(e, d) if e and d else None,
                "echo": 1 / (1 / e + 1 / d) if e and d else None}

    def target(self, sid, family, variant):
        """(what it is compared with, its MB/s, the target, the test) of a stack."""
        if "sm4" in sid:
            ref = self.bounds()["frames" if variant else family]
            return ("cipher-bound rate", ref, "≥ 0.9× cipher-bound",
                    (lambda v: v >= 0.9 * ref) if ref else None)
        if sid == ANCHOR:
            return "-", None, "-", None
        ref = self.value(family, ANCHOR, "polling", variant)
        if sid == "tcp":
            return "TFramedTransport/TFDTransport", ref, "-", None
        return ("TFramedTransport/TFDTransport", ref, "≥ 0.8× and ≥ %d MB/s" % USB3,
                (lambda v: v >= 0.8 * ref and v >= USB3) if ref else None)

    def throughput(self, title, family, variant=""):
        rows = []
        for sid in self.stacks(family, variant):
            v = {m: self.value(family, sid, m, variant) for m in MODES}
            rng = {m: "%s–%s" % (fmt(self.value(family, sid, m, variant, kind="min")),
                                 fmt(self.value(family, sid, m, variant, kind="max")))
                   if self.value(family, sid, m, variant, kind="min") else "-" for m in MODES}
            cpu = [self.value(family, sid, m, variant, "cpu_pct", scale=1) for m in MODES]
            ref_name, ref, goal, test = self.target(sid, family, variant)
            ratio = [v[m] / ref if ref and v[m] else None for m in MODES]
            met = [verdict(test(v[m])) if test and v[m] else "-" for m in MODES]
            rows.append([self.label(sid), fmt(v["polling"]), rng["polling"], fmt(v["waking"]),
                         rng["waking"],
                         fmt(v["waking"] / v["polling"], 2) + "×" if v["waking"] else "-",
                         pair(*cpu), ref_name, fmt(ref), pair(*ratio, digits=2),
                         goal, met[0] if v["waking"] is None else " / ".join(met)])
        self.out += ["## " + title, ""]
        self.out += self.table(["Stack", "polling MB/s", "range", "waking MB/s", "range",
                    "waking ÷ polling", "CPU %, polling / waking", "compared with",
                    "its MB/s", "ratio, polling / waking", "target", "met?, polling / waking"],
                   rows)

    def sensitivity(self):
        rows = []
        for name in self.figures:
            parts = name.split("/")
            if parts[0] != "stream" or ":" not in parts[-1] or parts[-1] == "frames:1MiB" \
                    or parts[2] == "waking":
                continue
            sid, variant = parts[1], parts[-1]
            v = [self.value("stream", sid, m, variant) for m in MODES]
            ref = [self.value("stream", sid, m) for m in MODES]
            cpu = [self.value("stream", sid, m, variant, "cpu_pct", scale=1) for m in MODES]
            ratio = [a / b if a and b else None for a, b in zip(v, ref)]
            rows.append([self.label(sid), variant.replace(":", " "), pair(*v), pair(*cpu),
                         pair(*ref), pair(*ratio, digits=2)])
        self.out += ["## Sensitivity of the stream to the ring buffer, the frame size and "
                     "the cable buffer", "",
                     "Each cell: polling / waking mode.", ""]
        self.out += self.table(["Stack", "setting", "MB/s", "CPU %", "MB/s with the main settings",
                    "ratio"], rows)

    def floor(self, pacing, step, work):
        """p50 and p99 of what the polling steps alone make of an empty call, when
        calls come at random moments and the only work is @work ms."""
        rng = random.Random(2024)
        trips = []
        for _ in range(100000):
            answered = rng.uniform(0, step) + work
            if pacing == "threaded":
                answered += rng.uniform(0, step) + rng.uniform(0, step)
            trips.append(max(1, -(-answered // step)) * step)
        trips.sort()
        return trips[len(trips) // 2 - 1], trips[int(len(trips) * 0.99) - 1]

    def step(self, sid, figures=None):
        """The polling step of a stack as usleep makes it here, ms; None in the kernel."""
        if PACING.get(sid) == "kernel":
            return None
        us = 1000 if sid in ("usbsocket", "sec-sm4") else 10000
        return self.get("step/usleep/%d" % us, "p50_ms", scale=1, figures=figures)

    def roundtrips(self):
        work = self.value("ping", ANCHOR, "polling", key="p50_ms", scale=1) or 0
        rows = []
        for sid in self.stacks("ping"):
            p = {(m, q): self.value("ping", sid, m, key=q + "_ms", scale=1)
                 for m in MODES for q in ("p50", "p99")}
            step, f50, f99, met = self.step(sid), None, None, "-"
            if step:
                f50, f99 = self.floor(PACING.get(sid, "one"), step, work)
                met = verdict(p["polling", "p50"] <= f50 + 1 and p["polling", "p99"] <= f99 + 1)
            goal = WAKING_PING_MS.get(sid)
            wmet = verdict(p["waking", "p50"] <= goal) if goal and p["waking", "p50"] else "-"
            iters = [self.figures[n]["median"]["iterations"] if n else None
                     for n in (self.find("ping", sid, m) for m in MODES)]
            rows.append([self.label(sid), fmt(step) + " ms" if step else "none",
                         fmt(p["polling", "p50"]), fmt(p["polling", "p99"]),
                         pair(f50, f99) if f50 else "-", met,
                         fmt(p["waking", "p50"]), fmt(p["waking", "p99"]),
                         "p50 ≤ %s ms" % fmt(goal) if goal else "-", wmet,
                         pair(*[self.value("ping", sid, m, key="cpu_us_per_call", scale=1)
                                for m in MODES]), pair(*iters)])
        self.out += ["## Small-call round trip: `ping()`", "",
                     "The polling floor is what the fixed polling steps alone make of an empty "
                     "call arriving at a random moment, with the step as measured here "
                     "(`usleep`, p50) and the anchor's round trip as the only work; "
                     "polling mode's target is p50 and p99 within 1 ms of it.", ""]
        self.out += self.table(
            ["Stack", "polling step", "polling p50 ms", "p99 ms", "floor p50 / p99", "met?",
             "waking p50 ms", "p99 ms", "target", "met?", "CPU µs per call, polling / waking",
             "calls, polling / waking"], rows)

    def cipher(self):
        rows = []
        for name in self.figures:
            parts = name.split("/")
            if parts[0] != "sm4":
                continue
            size = int(parts[4])
            size = "%d MiB" % (size >> 20) if size >= 1 << 20 else "%d KiB" % (size >> 10)
            threads = parts[5].replace("threads:", "") + ", one object" if len(parts) > 5 else "1"
            low, high = self.get(name, kind="min"), self.get(name, kind="max")
            rows.append([parts[1], "%s %s %s" % (parts[2], parts[3], size), threads,
                         fmt(self.get(name)), "%s–%s" % (fmt(low), fmt(high)) if low else "-"])
        b = self.bounds()
        self.out += ["## SM4 alone", "",
                     "Sm4Cipher pads (PKCS#7) as the framed transports call it; OpenSSL and "
                     "libgcrypt are called directly on whole blocks.", ""]
        self.out += self.table(
            ["Implementation", "operation", "threads", "MB/s (median)", "range"], rows)
        self.out += [
            "- Cipher-bound rate of an encrypted stream of 64 KiB frames: %s MB/s (the slower "
            "of Sm4Cipher CBC encrypt and decrypt at 64 KiB: sender and receiver cipher at "
            "the same time)" % fmt(b["stream"]),
            "- Cipher-bound rate of encrypted `echo(1 MiB)` calls: %s MB/s (1 / (1/encrypt + "
            "1/decrypt) at 1 MiB: each direction is encrypted, then decrypted)" % fmt(b["echo"]),
            "- Cipher-bound rate of an encrypted stream of 1 MiB frames: %s MB/s"
            % fmt(b["frames"]), ""]

    def idle(self):
        rows = []
        for sid in self.stacks("idle"):
            cpu = [self.value("idle", sid, m, key="cpu_pct", scale=1) for m in MODES]
            sw = [self.value("idle", sid, m, key="switches_per_s", scale=1) for m in MODES]
            rows.append([self.label(sid),
                         fmt(self.value("idle", sid, "polling", key="real_time", scale=1)),
                         pair(*cpu), pair(*sw)])
        self.out += ["## Idle cost of an open connection", "",
                     "Both ends open in one process, the device's end waiting for a call. "
                     "Each cell: polling / waking mode.", ""]
        self.out += self.table(
            ["Stack", "window s", "CPU % of one core", "context switches per s"], rows)

    def check(self, goal, figures, ok):
        self.checks.append([goal, figures, verdict(ok)])

    def waking_targets(self):
        """Waking mode's targets, each computed from the run's figures."""
        for sid, goal in WAKING_PING_MS.items():
            p50 = self.value("ping", sid, "waking", key="p50_ms", scale=1)
            if p50 is not None:
                self.check("`ping()` p50 ≤ %s ms, waking: %s" % (fmt(goal), self.label(sid)),
                           "%s ms (polling: %s ms)" % (fmt(p50), fmt(self.value(
                               "ping", sid, "polling", key="p50_ms", scale=1))), p50 <= goal)
        v = self.value("stream", "nbsec-plain", "waking")
        if v is not None:
            self.check("stream of 64 KiB frames ≥ 200 MB/s, waking: " + self.label("nbsec-plain"),
                       "%s MB/s (polling: %s)" % (fmt(v), fmt(self.value(
                           "stream", "nbsec-plain", "polling"))), v >= 200)
        v, ref = self.value("echo", "threaded", "waking"), self.value("echo", ANCHOR, "polling")
        if v is not None and ref:
            self.check("`echo(1 MiB)` ≥ 0.5× %s, waking: %s" % (self.label(ANCHOR),
                                                                self.label("threaded")),
                       "%s MB/s = %s× of %s MB/s" % (fmt(v), fmt(v / ref, 2), fmt(ref)),
                       v >= 0.5 * ref)
        for sid in self.stacks("idle"):
            cpu = [self.value("idle", sid, m, key="cpu_pct", scale=1) for m in MODES]
            if cpu[1] is not None:
                self.checks.append([
                    "idle CPU, waking ≤ polling: " + self.label(sid),
                    "waking %s %%, polling %s %% of a core" % (fmt(cpu[1]), fmt(cpu[0])),
                    "met" if cpu[1] <= cpu[0] else "within noise (%+.0f %%)" % (
                        100 * (cpu[1] / cpu[0] - 1)) if self.idle_noise(*cpu) else "missed"])

    @staticmethod
    def idle_noise(a, b):
        """Whether two figures of idle CPU differ by no more than noise."""
        return abs(b - a) <= max(NOISE_IDLE, NOISE_SHARE * a)

    def previous_run(self):
        """Polling mode's figures beside the same figures of the earlier run, as lines;
        adds the check that they are within noise."""
        if not self.previous:
            return []
        context, old = self.previous
        rows, within = [], []

        def add(what, sid, a, b, ok):
            within.append(ok)
            rows.append([self.label(sid), what, fmt(a), fmt(b),
                         fmt(b / a, 2) + "×" if a and b else "-", "yes" if ok else "NO"])

        for family, variant in (("stream", ""), ("stream", "frames:1MiB"), ("echo", "")):
            for sid in self.stacks(family, variant):
                was = self.find(family, sid, "polling", variant, old)
                now = self.find(family, sid, "polling", variant)
                a, b = self.get(was, figures=old), self.get(now)
                if a is None or b is None:
                    continue
                lo = [self.get(was, kind="min", figures=old), self.get(now, kind="min")]
                hi = [self.get(was, kind="max", figures=old), self.get(now, kind="max")]
                overlap = None not in lo + hi and lo[0] <= hi[1] and lo[1] <= hi[0]
                add("%s%s MB/s" % (family, " " + variant if variant else ""), sid, a, b,
                    overlap or abs(b - a) <= NOISE_MEDIANS * a)
        for sid in self.stacks("ping"):
            for q in ("p50", "p99"):
                a = self.get(self.find("ping", sid, "polling", figures=old), q + "_ms", scale=1,
                             figures=old)
                b = self.value("ping", sid, "polling", key=q + "_ms", scale=1)
                if a is not None and b is not None:
                    add("ping %s ms" % q, sid, a, b,
                        abs(b - a) <= max(NOISE_STEP * (self.step(sid) or 0), NOISE_SHARE * a))
        for sid in self.stacks("idle"):
            a = self.get(self.find("idle", sid, "polling", figures=old), "cpu_pct", scale=1,
                         figures=old)
            b = self.value("idle", sid, "polling", key="cpu_pct", scale=1)
            if a is not None and b is not None:
                add("idle CPU %", sid, a, b, self.idle_noise(a, b))
        self.check("polling mode within noise of the run of %s" % context["date"][:16]
                   .replace("T", " "), "%d of %d figures" % (sum(within), len(within)),
                   all(within))
        return [
            "## Polling mode against the previous run", "",
            "The run of %s (load average before it: `%s`) beside this one. Within noise: "
            "throughput whose ranges of five runs overlap or whose medians differ by at most "
            "%d %%; round trips that differ by at most one polling step (+%d %% for the "
            "step's jitter; the pollers of the two ends can stay in or out of phase for a "
            "whole measurement) or %d %%; idle CPU that differs by at most %s points of one "
            "core or %d %%." % (
                context["date"][:16].replace("T", " "),
                " ".join("%.2f" % v for v in context.get("load_avg", [])),
                100 * NOISE_MEDIANS, round(100 * (NOISE_STEP - 1)), 100 * NOISE_SHARE,
                fmt(NOISE_IDLE), 100 * NOISE_SHARE), ""] + self.table(
            ["Stack", "Figure", "previous", "this run", "ratio", "within noise"], rows)

    def targets(self):
        """The targets' table; @return the comparison with the previous run, as lines."""
        self.waking_targets()
        previous = self.previous_run()
        self.out += ["## Targets of waking mode", "",
                     "Each computed from this run's figures; the tables below have the rest.",
                     ""]
        self.out += self.table(["Target", "figures", "met?"], self.checks)
        return previous

    def taken(self):
        """When and where the run was taken (the report is made on the same machine)."""
        c, cpu = self.context, "unknown CPU"
        try:
            with open("/proc/cpuinfo") as f:
                cpu = next(l.split(":", 1)[1].strip() for l in f if l.startswith("model name"))
        except (OSError, StopIteration):
            pass
        return "Taken %s on %s (%d cores), Linux %s" % (
            c["date"][:16].replace("T", " "), cpu, c["num_cpus"], platform.release())

    def header(self, command, seconds, after):
        c = self.context
        before = " ".join("%.2f" % v for v in c.get("load_avg", []))
        self.out += [
            "# thriftusb benchmark results", "",
            self.taken() + ".", "",
            "- Load average before the run: `%s`; after: `%s`" % (before, after or "-"),
            "- Thrift %s; %s; libgcrypt %s; Sm4Cipher backend: %s" % (
                c.get("thrift"), c.get("openssl"), c.get("libgcrypt", "-"), c.get("sm4_backend")),
            "- Cable: two FIFOs of %s bytes of kernel buffer each, a fresh pair per case; "
            "block size of the USB transports %s bytes; TNonblockingUsbSocket rings of %s bytes"
            % (c.get("pipe_bytes"), c.get("block_bytes"), c.get("ring_bytes")),
            "- Wait modes: every stack but the anchors runs each case twice, both ends in "
            "polling mode (the default), then both in waking mode (`setWaitMode(WaitMode::"
            "Waking)`); the anchors wait in the kernel and run once",
            "- Encrypted stacks: SM4-CBC through Sm4Cipher, each end its own cipher object",
            "- Throughput: median of 5 runs of at least 0.4 s (range: slowest and fastest); "
            "round trips: calls for at least 4 s per stack and mode, the pauses between them "
            "included; idle: %s s per stack and mode" % fmt(float(c.get("idle_seconds", 0))),
        ]
        if command:
            self.out.append("- Command: `%s`%s" % (command, ", %s s" % seconds if seconds else ""))
        if c.get("quick") == "yes":
            self.out.append("- QUICK MODE: the figures only prove that every case works")
        self.out += ["", "How the figures are taken, and why each stack lands where it does: "
                     "[analysis.md](analysis.md).", "",
                     "MB/s are 10^6 bytes per second of payload; CPU % is the process's CPU "
                     "time over the wall time (200 % = both cores busy). A cell with two "
                     "figures holds polling / waking mode; an anchor's has one.", ""]

    def plot(self, out_dir):
        rows = [(sid, m) for sid in self.stacks("stream") for m in MODES
                if self.find("stream", sid, m)]
        data = os.path.join(out_dir, ".throughput.dat")
        with open(data, "w") as f:
            for sid, m in rows:
                name = self.label(sid) + (", " + m if self.find("stream", sid, "waking") else "")
                v = [self.value("stream", sid, m), self.value("stream", sid, m, "frames:1MiB"),
                     self.value("echo", sid, m)]
                f.write("\t".join([name] + ["-" if x is None else "%g" % x for x in v]) + "\n")
        png = os.path.join(out_dir, "throughput.png")
        script = PLOT % {"height": 220 + 30 * len(rows), "png": png, "taken": self.taken(),
                         "n": len(rows), "data": data, "usb3": USB3}
        try:
            subprocess.run(["gnuplot"], input=script, text=True, check=True)
        finally:
            os.remove(data)


PLOT = r'''set terminal pngcairo size 1400,%(height)d font "sans,11"
set output "%(png)s"
set datafile separator "\t"
set datafile missing "-"
set title "thriftusb bulk throughput by stack and wait mode, MB/s (log scale)\n{/*0.8 %(taken)s}"
set logscale x
set xrange [1:10000]
set yrange [%(n)d - 0.5:-0.5]
set format x "%%g"
set grid xtics
set style fill solid 0.85 border -1
set key outside bottom center horizontal
set lmargin 64
set arrow from %(usb3)d, graph 0 to %(usb3)d, graph 1 nohead dashtype 2 linewidth 2 \
  linecolor rgb "#c00000"
set label "USB 3 link, %(usb3)d MB/s" at 470, graph 0.02 front textcolor rgb "#c00000"
plot "%(data)s" using (1):($0 - 0.27):(1):2:($0 - 0.4):($0 - 0.14):ytic(1) \
       with boxxyerror linecolor rgb "#2f6fb0" \
       title "stream of 64 KiB writes (framed: a frame per write)", \
     "" using (1):($0):(1):3:($0 - 0.13):($0 + 0.13) \
       with boxxyerror linecolor rgb "#7fb3e0" title "same, framed stacks in 1 MiB frames", \
     "" using (1):($0 + 0.27):(1):4:($0 + 0.14):($0 + 0.4) \
       with boxxyerror linecolor rgb "#e08a1e" title "Thrift calls echo(1 MiB), both ways"
'''


def main():
    args = [a for a in sys.argv[1:] if not a.startswith("--")]
    opts = dict(a[2:].split("=", 1) for a in sys.argv[1:] if a.startswith("--"))
    if len(args) != 2:
        sys.exit(__doc__)
    report = Report(*load(args[0]),
                    previous=load(opts["previous"]) if opts.get("previous") else None)
    report.header(opts.get("command"), opts.get("seconds"), opts.get("load-after"))
    previous = report.targets()
    report.throughput("Bulk throughput: one-way stream of 64 KiB writes", "stream")
    report.throughput("Bulk throughput: the framed stacks with 1 MiB frames (16 writes per "
                      "flush)", "stream", "frames:1MiB")
    report.sensitivity()
    report.throughput("Bulk throughput: Thrift calls `echo(binary)` with 1 MiB each way", "echo")
    report.roundtrips()
    report.cipher()
    report.idle()
    report.out += previous
    with open(os.path.join(args[1], "results.md"), "w") as f:
        f.write("\n".join(report.out).rstrip() + "\n")
    report.plot(args[1])
    print("wrote %s and throughput.png" % os.path.join(args[1], "results.md"))


if __name__ == "__main__":
    main()
