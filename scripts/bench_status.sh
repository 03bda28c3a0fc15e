#!/usr/bin/env bash
# Times `qxcrl status --issuer` and `openssl crl -noout` on one CRL file of a
# million entries, PEM and DER, each run RUNS times (default 3). Prints one
# tab-separated line per command: format, tool, best wall seconds, highest
# peak RSS in KiB, file bytes. Usage: scripts/bench_status.sh BUILD_DIR
# (a Release build with the million_crl_files and qxcrl_cli targets built).
set -euo pipefail

build=$(realpath "$1")
runs=${RUNS:-3}
dir=$(mktemp -d)
trap 'rm -rf "$dir"' EXIT

"$build/bench/million_crl_files" "$dir"
# The command's store is made in the current directory: keep it in the scratch one.
cd "$dir"

# measure FORMAT TOOL FILE EXPECTED COMMAND...: the command must print EXPECTED
# (nothing for openssl crl -noout) and exit 0, or 1 for a revoked certificate.
measure() {
    local format=$1 tool=$2 file=$3 expected=$4
    shift 4
    local best="" peak=0 start end seconds rss output status
    for _ in $(seq "$runs"); do
        start=$EPOCHREALTIME
        status=0
        output=$(/usr/bin/time -f "%M" -o rss.txt "$@") || status=$?
        end=$EPOCHREALTIME
        if [ "$output" != "$expected" ] || [ "$status" -gt 1 ]; then
            echo "bench_status: '$*' printed '$output' with exit $status" >&2
            exit 1
        fi
        seconds=$(awk -v start="$start" -v end="$end" 'BEGIN { printf "%.3f", end - start }')
        best=$(awk -v a="$seconds" -v b="$best" 'BEGIN { print (b == "" || a < b) ? a : b }')
        rss=$(tail -n 1 rss.txt)
        if [ "$rss" -gt "$peak" ]; then
            peak=$rss
        fi
    done
    printf '%s\t%s\t%s\t%s\t%s\n' "$format" "$tool" "$best" "$peak" "$(stat -c %s "$file")"
}

for format in pem der; do
    measure "$format" qxcrl "crl.$format" revoked \
        "$build/cli/qxcrl" status --cert cert.pem --crl "crl.$format" --issuer issuer.pem
    measure "$format" openssl "crl.$format" "" \
        openssl crl -inform "$format" -noout -in "crl.$format"
done
