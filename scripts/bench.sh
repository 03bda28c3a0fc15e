#!/usr/bin/env bash
# Builds the benchmarks optimised and prints one table: each figure beside raw
# OpenSSL doing the same work, with the ratio and the target (bench/bench_table.py),
# the memory a decoded CRL holds, and `qxcrl status --issuer` against
# `openssl crl` on a file (scripts/bench_status.sh). Sets up a fresh Debian 12
# machine (as root) like the other scripts. Takes a few minutes: the largest
# CRLs hold a million entries.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/install-deps.sh
cmake -S . -B build-release -G Ninja -DCMAKE_BUILD_TYPE=Release -DQXCRL_WERROR=ON >/dev/null
cmake --build build-release -j2 --target compare_bench million_crl_files qxcrl_cli
build-release/bench/compare_bench --benchmark_format=json --benchmark_min_time=0.5 \
    --benchmark_out=build-release/compare.json --benchmark_out_format=json >/dev/null
scripts/bench_status.sh build-release >build-release/status.tsv
python3 bench/bench_table.py build-release/compare.json build-release/status.tsv
