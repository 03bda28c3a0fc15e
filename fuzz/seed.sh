#!/usr/bin/env bash
# Fills <out>/<target>/ (default build-fuzz/seeds) with seed inputs made from
# the CRLs of the shared corpus ($QXCRL_CORPUS or ../shared/corpus):
# DER for der_details, DER and PEM for file_load, PEM for pem_text and PEM
# bodies for base64. Files over 64 KiB are left out: libFuzzer sizes its
# inputs after the largest seed, and megabyte inputs would slow every run.
set -euo pipefail
cd "$(dirname "$0")/.."

out=${1:-build-fuzz/seeds}
corpus=${QXCRL_CORPUS:-../shared/corpus}
max_bytes=65536

if [ ! -d "$corpus" ]; then
    echo "seed.sh: no corpus at $corpus" >&2
    exit 1
fi

rm -rf "$out"
mkdir -p "$out"/{der_details,file_load,pem_text,base64}
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

count=0
while IFS= read -r -d '' file; do
    [ "$(stat -c %s "$file")" -le "$max_bytes" ] || continue
    name=$(sha1sum "$file" | cut -c1-16)
    der="$work/$name.der"
    # The DER of the file as openssl reads it, either form; malformed DER
    # that openssl refuses is kept as it is, since it makes good seeds.
    if openssl crl -inform DER -in "$file" -outform DER -out "$der" 2>/dev/null ||
        openssl crl -inform PEM -in "$file" -outform DER -out "$der" 2>/dev/null; then
        :
    elif [[ "$file" != *.pem ]]; then
        cp "$file" "$der"
    else
        continue
    fi
    cp "$der" "$out/der_details/$name"
    cp "$der" "$out/file_load/$name"
    pem="$work/$name.pem"
    if openssl crl -inform DER -in "$der" -outform PEM -out "$pem" 2>/dev/null; then
        cp "$pem" "$out/pem_text/$name"
        cp "$pem" "$out/file_load/$name.pem"
        grep -v -- '-----' "$pem" >"$out/base64/$name"
    fi
    count=$((count + 1))
done < <(find "$corpus/pkits/crls" "$corpus/edge" "$corpus/realworld" -type f \
    \( -name '*.crl' -o -name '*.der' -o -name '*.pem' \) -print0 | sort -z)

# Several CRLs in one text, as a concatenated PEM file holds them.
# (No `| head` here: with pipefail, the writer it cuts off would fail the script.)
mapfile -t texts < <(find "$out/pem_text" -type f | sort)
cat "${texts[@]:0:3}" >"$out/pem_text/concatenated"

for target in der_details file_load pem_text base64; do
    echo "seed.sh: $target: $(find "$out/$target" -type f | wc -l) seeds"
done
[ "$count" -gt 0 ]
