#!/usr/bin/env python3
"""Prints the comparison as one markdown table: each qxcrl figure beside raw
OpenSSL doing the same work, their ratio, the target and whether it is met.

Usage: bench_table.py COMPARE_JSON STATUS_TSV
COMPARE_JSON is compare_bench's JSON output; STATUS_TSV is what
scripts/bench_status.sh prints.
"""
import json
import sys

# Targets by (operation, argument): the ratio qxcrl / OpenSSL at most, or
# qxcrl's own time in microseconds at most.
RATIO_TARGETS = {
    ("DecodeDer", "1000000"): 0.1,
    ("MillionLookup", "hit:1"): 1,
    ("MillionLookup", "hit:0"): 1,
    ("MillionSpreadLookup", "hit:1"): 1,
    ("MillionSpreadLookup", "hit:0"): 1,
    ("RevokeSignEncode10k", "ec_p256"): 0.2,
    ("RevokeSignEncode10k", "rsa_2048"): 0.2,
}
MICROSECOND_TARGETS = {("CachedLookup", count): 2 for count in ("1", "100", "1000")}
# Memory targets for qxcrl alone: resident growth per DER byte of a held CRL,
# and the command's peak RSS per byte of the file it reads.
HELD_RSS_PER_DER = 1.5
STATUS_TIME_RATIO = 0.25
STATUS_RSS_PER_FILE = 1.6

MICROSECONDS = {"ns": 1e-3, "us": 1, "ms": 1e3, "s": 1e6}


def met(value, limit):
    return "yes" if value <= limit else "no"


def megabytes(count):
    return f"{count / 1e6:.0f} MB"


def benchmark_rows(report):
    sides = {}
    for b in report["benchmarks"]:
        # BM_<operation>_<side>/<argument>...
        base, *arguments = b["name"].split("/")
        operation, side = base.removeprefix("BM_").rsplit("_", 1)
        argument = "/".join(a for a in arguments if not a.startswith(("iterations:", "min_time:")))
        sides.setdefault((operation, argument), {})[side] = b
    rows = []
    for (operation, argument), pair in sides.items():
        if "qxcrl" not in pair or "openssl" not in pair:
            continue
        ours, theirs = pair["qxcrl"], pair["openssl"]
        size = argument or "-"
        failed = [b["error_message"] for b in (ours, theirs) if b.get("error_occurred")]
        if failed:
            rows.append((operation, size, "failed", "; ".join(failed), "-", "-", "-"))
        elif "rss_bytes" in ours:
            rows.append((operation + " (resident growth)", size,
                         f"{megabytes(ours['rss_bytes'])} ({ours['rss_per_der']:.2f}x DER)",
                         f"{megabytes(theirs['rss_bytes'])} ({theirs['rss_per_der']:.2f}x DER)",
                         f"{ours['rss_bytes'] / theirs['rss_bytes']:.2f}",
                         f"qxcrl <= {HELD_RSS_PER_DER}x DER",
                         met(ours["rss_per_der"], HELD_RSS_PER_DER)))
        else:
            unit = ours["time_unit"]
            ratio = ours["real_time"] / theirs["real_time"]
            target, verdict = "-", "-"
            if (operation, argument) in RATIO_TARGETS:
                limit = RATIO_TARGETS[(operation, argument)]
                target, verdict = f"<= {limit}", met(ratio, limit)
            elif (operation, argument) in MICROSECOND_TARGETS:
                limit = MICROSECOND_TARGETS[(operation, argument)]
                target = f"qxcrl <= {limit} us"
                verdict = met(ours["real_time"] * MICROSECONDS[unit], limit)
            rows.append((operation, size, f"{ours['real_time']:.3g} {unit}",
                         f"{theirs['real_time']:.3g} {theirs['time_unit']}", f"{ratio:.2f}", target,
                         verdict))
    return rows


def status_rows(path):
    # format -> tool -> (best seconds, peak RSS in KiB, file bytes)
    runs = {}
    for line in open(path):
        form, tool, seconds, rss, size = line.split("\t")
        runs.setdefault(form, {})[tool] = (float(seconds), int(rss) * 1024, int(size))
    rows = []
    for form, tools in runs.items():
        (ours, our_rss, size), (theirs, their_rss, _) = tools["qxcrl"], tools["openssl"]
        what = f"`qxcrl status --issuer` / `openssl crl -noout`, {form.upper()} ({size / 1e6:.1f} MB)"
        rows.append((what + ", best wall time", "1000000", f"{ours:.3f} s", f"{theirs:.3f} s",
                     f"{ours / theirs:.2f}", f"<= {STATUS_TIME_RATIO}",
                     met(ours / theirs, STATUS_TIME_RATIO)))
        rows.append((what + ", peak RSS", "1000000",
                     f"{megabytes(our_rss)} ({our_rss / size:.2f}x file)",
                     f"{megabytes(their_rss)} ({their_rss / size:.2f}x file)",
                     f"{our_rss / their_rss:.2f}", f"qxcrl <= {STATUS_RSS_PER_FILE}x file",
                     met(our_rss / size, STATUS_RSS_PER_FILE)))
    return rows


def main():
    report = json.load(open(sys.argv[1]))
    print("| operation | size | qxcrl | OpenSSL | ratio | target | met |")
    print("|---|---|---|---|---|---|---|")
    for row in benchmark_rows(report) + status_rows(sys.argv[2]):
        print("| " + " | ".join(row) + " |")
    ctx = report["context"]
    print(f"\n{ctx.get('host_name', '')}: {ctx.get('num_cpus')} CPUs at "
          f"{ctx.get('mhz_per_cpu')} MHz, {ctx.get('date', '')}")


main()
