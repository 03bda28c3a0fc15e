#!/usr/bin/env bash
# Builds the libFuzzer targets with clang into build-fuzz/ and runs each for
# N seconds (first argument, default 60) from seeds made out of the shared
# corpus and a small PKI of its own. Any crash, timeout, leak or sanitizer
# report fails the run; the input that caused it is left in
# build-fuzz/artifacts/.
set -euo pipefail
cd "$(dirname "$0")/.."

seconds=${1:-60}
targets=(der_details pem_text file_load base64 concat_status cert_record private_key ldap_answer
    http_answer crl_differential one_crl_file)
build=build-fuzz

# Per target: the largest input, and a dictionary where the input has
# keywords. Texts go up to 1 MiB, where a cost that grows with the square of
# their length shows, from the start (libFuzzer would otherwise raise its
# limit so slowly that a minute stays under 40 KiB); their timeout leaves
# room for such an input under the sanitizers. The others read single
# objects, which stay small.
text="-max_len=1048576 -len_control=0 -timeout=30 -dict=fuzz/pem_markers.dict"
declare -A options=(
    [der_details]="-max_len=65536 -timeout=10"
    [pem_text]=$text
    [file_load]="-max_len=65536 -timeout=10"
    [base64]="-max_len=65536 -timeout=10"
    [concat_status]=$text
    [cert_record]="-max_len=65536 -timeout=10 -dict=fuzz/cert_record.dict"
    [private_key]="-max_len=16384 -timeout=10 -dict=fuzz/private_key.dict"
    [ldap_answer]="-max_len=65536 -timeout=10 -dict=fuzz/ldap_answer.dict"
    [http_answer]="-max_len=65536 -timeout=10 -dict=fuzz/pem_markers.dict"
    [crl_differential]="-max_len=65536 -timeout=10"
    [one_crl_file]=$text
)

CC=clang CXX=clang++ cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
    -DQXCRL_FUZZ=ON -DQXCRL_BUILD_TESTS=OFF -DQXCRL_WERROR=ON
cmake --build "$build" --target fuzz

fuzz/seed.sh "$build/seeds" "$build/fuzz/fuzz_crl_differential"
mkdir -p "$build/artifacts"

# libFuzzer's own per-input leak check rescans the heap whenever an input
# leaves OpenSSL's caches a different size, which slows the run some
# fiftyfold; the exit-time LeakSanitizer pass still sees every unreachable
# block, and the targets check the layer's own blocks per input.
export ASAN_OPTIONS=detect_leaks=1:halt_on_error=1:abort_on_error=1
export UBSAN_OPTIONS=halt_on_error=1:print_stacktrace=1

failed=()
for target in "${targets[@]}"; do
    corpus="$build/corpus/$target"
    log="$build/fuzz_$target.log"
    mkdir -p "$corpus"
    echo "fuzz.sh: $target for ${seconds}s"
    status=0
    read -r -a extra <<<"${options[$target]}"
    "$build/fuzz/fuzz_$target" "$corpus" "$build/seeds/$target" "${extra[@]}" \
        -max_total_time="$seconds" -rss_limit_mb=2048 -detect_leaks=0 \
        -print_final_stats=1 -artifact_prefix="$build/artifacts/$target-" \
        >"$log" 2>&1 || status=$?
    if [ "$status" -ne 0 ] || grep -qE '^==[0-9]+==ERROR|runtime error:|^SUMMARY:' "$log"; then
        echo "fuzz.sh: $target FAILED (exit $status); the end of $log:" >&2
        tail -60 "$log" >&2
        failed+=("$target")
    else
        grep -E '^Done [0-9]+ runs' "$log" || true
    fi
done

if [ ${#failed[@]} -gt 0 ]; then
    echo "fuzz.sh: failures in: ${failed[*]}" >&2
    exit 1
fi
echo "fuzz.sh: all targets clean"
