#!/usr/bin/env bash
# Builds the benchmarks optimised and prints each figure beside raw OpenSSL
# doing the same work, with the ratio. Sets up a fresh Debian 12 machine
# (as root) like the other scripts. Takes a few minutes: the largest CRLs
# hold a million entries.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/install-deps.sh
cmake -S . -B build-release -G Ninja -DCMAKE_BUILD_TYPE=Release -DQXCRL_WERROR=ON >/dev/null
cmake --build build-release --target compare_bench
build-release/bench/compare_bench --benchmark_format=json --benchmark_min_time=0.5 \
    --benchmark_out=build-release/compare.json --benchmark_out_format=json >/dev/null
python3 - build-release/compare.json <<'PY'
import json, sys

report = json.load(open(sys.argv[1]))
rows = {}
for b in report["benchmarks"]:
    # BM_<operation>_<side>/<argument>...
    base, *arguments = b["name"].split("/")
    operation, side = base.removeprefix("BM_").rsplit("_", 1)
    argument = "/".join(a for a in arguments if not a.startswith(("iterations:", "min_time:")))
    rows.setdefault((operation, argument), {})[side] = (b["real_time"], b["time_unit"])

print(f"| operation | size | qxcrl | OpenSSL | ratio |")
print(f"|---|---|---|---|---|")
for (operation, argument), sides in rows.items():
    if "qxcrl" not in sides or "openssl" not in sides:
        continue
    (ours, unit), (theirs, _) = sides["qxcrl"], sides["openssl"]
    print(f"| {operation} | {argument or '-'} | {ours:.3g} {unit} | {theirs:.3g} {unit} | "
          f"{ours / theirs:.2f} |")
ctx = report["context"]
print(f"\n{ctx.get('host_name', '')}: {ctx.get('num_cpus')} CPUs at {ctx.get('mhz_per_cpu')} MHz, "
      f"{ctx.get('date', '')}")
PY
