#!/usr/bin/env python3
"""Turns the benchmark's JSON (thriftusb_bench --benchmark_out_format=json) into
results.md (tables: each figure, what it is compared with, the ratio, the machine and
its load) and throughput.png (bulk throughput by stack, drawn by gnuplot).

usage: bench-report.py RESULTS.json OUT_DIR [--command=TEXT] [--seconds=N]
                      [--load-after=TEXT]   (the run's command, its length and
                                             /proc/loadavg when it ended, for the header)
"""
import json, os, platform, random, re, subprocess, sys

USB3 = 450  # MB/s of payload a USB 3 SuperSpeed link carries at most
ANCHOR = "framed-fd"
# How each stack waits, for the polling floor of its round trip: "kernel" (no step),
# "one" (the caller polls for the answer, the peer answers without a step of its own)
# or "threaded" (blocking mode: flush waits for the writer thread, which sends at its
# next wake-up on both sides).
PACING = {"framed-fd": "kernel", "tcp": "kernel", "usbsocket": "one", "sec-sm4": "one",
          "threaded": "threaded", "nbsec-plain": "threaded", "nbsec-sm4": "threaded"}
SKIP = re.compile(r"^(min_time:.*|real_time|manual_time|iterations:\d+|repeats:\d+)$")


def fmt(v, digits=3):
    if v is None:
        return "-"
    if v == 0 or abs(v) >= 10 ** digits:
        return "%.0f" % v
    return "%.*g" % (digits, v)


def load(path):
    with open(path) as f:
        data = json.load(f)
    figures = {}  # name -> {"median": row, "min": row, "max": row}
    for b in data["benchmarks"]:
        name = "/".join(p for p in b["run_name"].split("/") if not SKIP.match(p))
        kind = b.get("aggregate_name", "median") if b["run_type"] == "aggregate" else "median"
        figures.setdefault(name, {})[kind] = b
    return data["context"], figures


class Report:
    def __init__(self, context, figures):
        self.context, self.figures, self.out = context, figures, []

    def get(self, name, key="bytes_per_second", kind="median", scale=1e-6):
        row = self.figures.get(name, {}).get(kind)
        return None if row is None or key not in row else row[key] * scale

    def label(self, name):
        return self.figures[name]["median"].get("label") or name

    def stacks(self, family):
        """(stack id, benchmark name) of a family's plain cases, in the run's order."""
        return [(n.split("/")[1], n) for n in self.figures
                if n.split("/")[0] == family and ":" not in n.split("/")[-1]]

    def table(self, header, rows):
        self.out.append("| " + " | ".join(header) + " |")
        # Text in the first column and in those named below, figures right-aligned.
        text = ("Stack", "Implementation", "operation", "setting", "compared with", "target",
                "met?", "polling step", "threads")
        self.out.append("|" + "|".join("---" if h in text else "---:" for h in header) + "|")
        self.out.extend("| " + " | ".join(r) + " |" for r in rows)
        self.out.append("")

    def sm4(self, op, size):
        return self.get("sm4/Sm4Cipher/CBC/%s/%d" % (op, size))

    def bounds(self):
        """Cipher-bound rates of the encrypted stacks, MB/s, by family."""
        e, d = self.sm4("encrypt", 1 << 20), self.sm4("decrypt", 1 << 20)
        e64, d64 = self.sm4("encrypt", 65536), self.sm4("decrypt", 65536)
        return {"stream": min(e64, d64) if e64 and d64 else None,
                "frames": min(e, d) if e and d else None,
                "echo": 1 / (1 / e + 1 / d) if e and d else None}

    def throughput(self, title, family, suffix=""):
        bound = self.bounds()["frames" if suffix else family]
        anchor = self.get(family + "/" + ANCHOR + suffix)
        rows = []
        for sid, name in self.stacks(family):
            name += suffix
            if name not in self.figures:
                continue
            v = self.get(name)
            low, high = self.get(name, kind="min"), self.get(name, kind="max")
            cpu = self.get(name, "cpu_pct", scale=1)
            ref, ref_name, target, met = None, "-", "-", "-"
            if "sm4" in sid:
                ref, ref_name, target = bound, "cipher-bound rate", "≥ 0.9× cipher-bound"
                met = "met" if ref and v >= 0.9 * ref else "missed"
            elif sid != ANCHOR:
                ref, ref_name = anchor, "TFramedTransport/TFDTransport"
                if sid != "tcp":
                    target = "≥ 0.8× and ≥ %d MB/s" % USB3
                    met = "met" if ref and v >= 0.8 * ref and v >= USB3 else "missed"
            rows.append([self.label(name), fmt(v), "%s–%s" % (fmt(low), fmt(high)) if low else "-",
                         fmt(cpu), ref_name, fmt(ref), fmt(v / ref, 2) + "×" if ref else "-",
                         target, met])
        self.out += ["## " + title, ""]
        self.table(["Stack", "MB/s (median)", "range", "CPU %", "compared with", "its MB/s",
                    "ratio", "target", "met?"], rows)

    def sensitivity(self):
        rows = []
        for name in self.figures:
            parts = name.split("/")
            if parts[0] != "stream" or ":" not in parts[-1] or parts[-1] == "frames:1MiB":
                continue
            base = "/".join(parts[:-1])
            v, ref = self.get(name), self.get(base)
            rows.append([self.label(name), parts[-1].replace(":", " "), fmt(v),
                         fmt(self.get(name, "cpu_pct", scale=1)), fmt(ref),
                         fmt(v / ref, 2) + "×" if ref else "-"])
        self.out += ["## Sensitivity of the stream to the ring buffer, the frame size and "
                     "the cable buffer", ""]
        self.table(["Stack", "setting", "MB/s (median)", "CPU %", "with the main settings",
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

    def roundtrips(self):
        work = self.get("ping/" + ANCHOR, "p50_ms", scale=1) or 0
        steps = {1000: self.get("step/usleep/1000", "p50_ms", scale=1),
                 10000: self.get("step/usleep/10000", "p50_ms", scale=1)}
        rows = []
        for sid, name in self.stacks("ping"):
            p50, p99 = self.get(name, "p50_ms", scale=1), self.get(name, "p99_ms", scale=1)
            pacing = PACING.get(sid, "one")
            step = steps[1000 if sid in ("usbsocket", "sec-sm4") else 10000]
            f50 = f99 = None
            if pacing != "kernel" and step:
                f50, f99 = self.floor(pacing, step, work)
            rows.append([self.label(name), "none" if pacing == "kernel" else fmt(step) + " ms",
                         fmt(p50), fmt(p99), fmt(f50), fmt(f99),
                         "≤ floor + 1 ms" if f50 else "-",
                         ("met" if p50 <= f50 + 1 and p99 <= f99 + 1 else "missed") if f50 else "-",
                         fmt(self.get(name, "cpu_us_per_call", scale=1)),
                         fmt(self.figures[name]["median"]["iterations"])])
        self.out += ["## Small-call round trip: `ping()`", "",
                     "The polling floor is what the fixed polling steps alone make of an empty "
                     "call arriving at a random moment, with the step as measured here "
                     "(`usleep`, p50) and the anchor's round trip as the only work.", ""]
        self.table(["Stack", "polling step", "p50 ms", "p99 ms", "floor p50 ms", "floor p99 ms",
                    "target", "met?", "CPU µs per call", "calls"], rows)

    def cipher(self):
        rows = []
        for name in self.figures:
            parts = name.split("/")
            if parts[0] != "sm4":
                continue
            size = int(parts[4])
            size = "%d MiB" % (size >> 20) if size >= 1 << 20 else "%d KiB" % (size >> 10)
            threads = parts[5].replace("threads:", "") + ", one object" if len(parts) > 5 else "1"
            rows.append([parts[1], "%s %s %s" % (parts[2], parts[3], size), threads,
                         fmt(self.get(name)),
                         "%s–%s" % (fmt(self.get(name, kind="min")), fmt(self.get(name, kind="max")))
                         if self.get(name, kind="min") else "-"])
        b = self.bounds()
        self.out += ["## SM4 alone", "",
                     "Sm4Cipher pads (PKCS#7) as the framed transports call it; OpenSSL and "
                     "libgcrypt are called directly on whole blocks.", ""]
        self.table(["Implementation", "operation", "threads", "MB/s (median)", "range"], rows)
        self.out += [
            "- Cipher-bound rate of an encrypted stream of 64 KiB frames: %s MB/s (the slower "
            "of Sm4Cipher CBC encrypt and decrypt at 64 KiB: sender and receiver cipher at "
            "the same time)" % fmt(b["stream"]),
            "- Cipher-bound rate of encrypted `echo(1 MiB)` calls: %s MB/s (1 / (1/encrypt + "
            "1/decrypt) at 1 MiB: each direction is encrypted, then decrypted)" % fmt(b["echo"]),
            "- Cipher-bound rate of an encrypted stream of 1 MiB frames: %s MB/s" % fmt(b["frames"]),
            ""]

    def idle(self):
        rows = [[self.label(n), fmt(self.get(n, "real_time", scale=1)),
                 fmt(self.get(n, "cpu_pct", scale=1)), fmt(self.get(n, "switches_per_s", scale=1))]
                for _, n in self.stacks("idle")]
        self.out += ["## Idle cost of an open connection", "",
                     "Both ends open in one process, the device's end waiting for a call.", ""]
        self.table(["Stack", "window s", "CPU % of one core", "context switches per s"], rows)

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
            "- Encrypted stacks: SM4-CBC through Sm4Cipher, each end its own cipher object",
            "- Throughput: median of 5 runs of at least 0.4 s (range: slowest and fastest); "
            "round trips: at least 4 s of calls per stack; idle: %s s per stack"
            % fmt(float(c.get("idle_seconds", 0))),
        ]
        if command:
            self.out.append("- Command: `%s`%s" % (command, ", %s s" % seconds if seconds else ""))
        if c.get("quick") == "yes":
            self.out.append("- QUICK MODE: the figures only prove that every case works")
        self.out += ["", "How the figures are taken, and why each stack lands where it does: "
                     "[analysis.md](analysis.md).", "",
                     "MB/s are 10^6 bytes per second of payload; CPU % is the process's CPU "
                     "time over the wall time (200 % = both cores busy).", ""]

    def plot(self, out_dir):
        names = [(sid, n) for sid, n in self.stacks("stream")]
        data = os.path.join(out_dir, ".throughput.dat")
        with open(data, "w") as f:
            for sid, n in names:
                v = [self.get(n), self.get(n + "/frames:1MiB"), self.get("echo/" + n[7:])]
                f.write("\t".join([self.label(n)] + ["-" if x is None else "%g" % x for x in v]) + "\n")
        taken = self.taken()
        png = os.path.join(out_dir, "throughput.png")
        script = PLOT % {"height": 220 + 42 * len(names), "png": png, "taken": taken,
                         "n": len(names), "data": data, "usb3": USB3}
        try:
            subprocess.run(["gnuplot"], input=script, text=True, check=True)
        finally:
            os.remove(data)


PLOT = r'''set terminal pngcairo size 1400,%(height)d font "sans,11"
set output "%(png)s"
set datafile separator "\t"
set datafile missing "-"
set title "thriftusb bulk throughput by stack, MB/s (log scale)\n{/*0.8 %(taken)s}"
set logscale x
set xrange [1:10000]
set yrange [%(n)d - 0.5:-0.5]
set format x "%%g"
set grid xtics
set style fill solid 0.85 border -1
set key outside bottom center horizontal
set lmargin 52
set arrow from %(usb3)d, graph 0 to %(usb3)d, graph 1 nohead dashtype 2 linewidth 2 linecolor rgb "#c00000"
set label "USB 3 link, %(usb3)d MB/s" at 470, graph 0.02 front textcolor rgb "#c00000"
plot "%(data)s" using (1):($0 - 0.27):(1):2:($0 - 0.4):($0 - 0.14):ytic(1) \
       with boxxyerror linecolor rgb "#2f6fb0" title "stream of 64 KiB writes (framed: a frame per write)", \
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
    report = Report(*load(args[0]))
    report.header(opts.get("command"), opts.get("seconds"), opts.get("load-after"))
    report.throughput("Bulk throughput: one-way stream of 64 KiB writes", "stream")
    report.throughput("Bulk throughput: the framed stacks with 1 MiB frames (16 writes per "
                      "flush)", "stream", "/frames:1MiB")
    report.sensitivity()
    report.throughput("Bulk throughput: Thrift calls `echo(binary)` with 1 MiB each way", "echo")
    report.roundtrips()
    report.cipher()
    report.idle()
    with open(os.path.join(args[1], "results.md"), "w") as f:
        f.write("\n".join(report.out).rstrip() + "\n")
    report.plot(args[1])
    print("wrote %s and throughput.png" % os.path.join(args[1], "results.md"))


if __name__ == "__main__":
    main()
