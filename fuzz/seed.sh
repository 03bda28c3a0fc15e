#!/usr/bin/env bash
# Fills <out>/<target>/ (default build-fuzz/seeds) with seed inputs made from
# the shared corpus ($QXCRL_CORPUS or ../shared/corpus), from a small PKI
# that fuzz/seed_pki.sh makes with the openssl command, and from the built
# fuzz_crl_differential (second argument, default <out>/../fuzz/):
#   der_details  DER CRLs              file_load  DER and PEM CRLs
#   pem_text     PEM CRLs              base64     PEM bodies
#   concat_status  PEM CRLs with the certificates of their issuers
#   cert_record  a certificate, then "--qxfetch--", a control byte and the
#                DER of its issuer's CRL (what fuzz/cert_record.cpp reads)
#   private_key  keys of several algorithms and forms, some encrypted
#   ldap_answer  the walk's two bound bytes, then a directory's answer to a
#                search: entries holding CRLs, references, results
#                (what fuzz/ldap_answer.cpp reads)
#   http_answer  two bound bytes and a framing byte, then a web server's
#                body: DER CRLs and PEM texts (what fuzz/http_answer.cpp reads)
#   crl_differential  DER CRLs, CRLs that the target signs with the key of
#                its fixed issuer, so that it compares verifications that pass,
#                and fuzz/differential_cases/
#   one_crl_file  DER and PEM CRLs, and fuzz/one_crl_cases/ (a DER CRL whose
#                extension carries a PEM CRL block)
# Files over 64 KiB are left out: libFuzzer sizes its inputs after the
# largest seed, and megabyte inputs would slow every run.
set -euo pipefail
cd "$(dirname "$0")/.."

out=${1:-build-fuzz/seeds}
differential=${2:-$(dirname "$out")/fuzz/fuzz_crl_differential}
corpus=${QXCRL_CORPUS:-../shared/corpus}
max_bytes=65536
separator='--qxfetch--'
targets=(der_details file_load pem_text base64 concat_status cert_record private_key
    ldap_answer http_answer crl_differential one_crl_file)

if [ ! -d "$corpus" ]; then
    echo "seed.sh: no corpus at $corpus" >&2
    exit 1
fi
if [ ! -x "$differential" ]; then
    echo "seed.sh: no differential target at $differential (build it first)" >&2
    exit 1
fi

rm -rf "$out"
for target in "${targets[@]}"; do
    mkdir -p "$out/$target"
done
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

small() {
    [ "$(stat -c %s "$1")" -le "$max_bytes" ]
}

# fetch_seed <certificate> <control byte> <CRL DER>: the cert_record layout
# with one answer.
fetch_seed() {
    cat "$1"
    printf '%s' "$separator"
    printf "\\x$2"
    cat "$3"
}

# byte <number>: one octet.
byte() {
    printf "\\x$(printf %02x "$1")"
}
# tlv <tag in hex>: standard input as one BER element, definite length.
tlv() {
    local content n
    content=$(mktemp -p "$work")
    cat >"$content"
    n=$(stat -c %s "$content")
    printf "\\x$1"
    if [ "$n" -lt 128 ]; then
        byte "$n"
    elif [ "$n" -lt 256 ]; then
        printf '\x81'
        byte "$n"
    else
        printf '\x83'
        byte $((n >> 16))
        byte $(((n >> 8) & 255))
        byte $((n & 255))
    fi
    cat "$content"
    rm -f "$content"
}

# LDAP answers to the search, whose message ID is 2 (the bind's is 1).
ldap_message() {
    { printf '\x02\x01\x02'; cat; } | tlv 30
}
# ldap_attribute <type> <value file>...: a PartialAttribute.
ldap_attribute() {
    local type=$1
    shift
    {
        printf '%s' "$type" | tlv 04
        for value in "$@"; do tlv 04 <"$value"; done | tlv 31
    } | tlv 30
}
# ldap_message_of <tag in hex>: standard input as that operation's message.
ldap_message_of() {
    tlv "$1" | ldap_message
}
# An entry of the attributes on standard input.
ldap_entry() {
    { printf 'cn=qxcrl fuzz CA' | tlv 04; tlv 30; } | ldap_message_of 64
}
# ldap_result <code in hex>: the search's result, no matched DN, no text.
ldap_result() {
    printf "\\x0a\\x01\\x$1\\x04\\x00\\x04\\x00" | ldap_message_of 65
}
# The two bound bytes of ldap_answer: values, then memory (see the target).
ldap_bounds() {
    printf "\\x$1\\x$2"
}
binary='certificateRevocationList;binary'

# CRLs of the corpus, and each one's PEM by its issuer's hash, so that
# certificates can be put with the CRL of their issuer.
declare -A crl_der_of crl_pem_of
count=0
while IFS= read -r -d '' file; do
    small "$file" || continue
    name=$(sha1sum "$file" | cut -c1-16)
    der="$work/$name.der"
    # The DER of the file as openssl reads it, either form; malformed DER
    # that openssl refuses is kept as it is, since it makes good seeds.
    if openssl crl -inform DER -in "$file" -outform DER -out "$der" 2>/dev/null ||
        openssl crl -inform PEM -in "$file" -outform DER -out "$der" 2>/dev/null; then
        hash=$(openssl crl -inform DER -in "$der" -noout -hash 2>/dev/null || true)
    elif [[ "$file" != *.pem ]]; then
        cp "$file" "$der"
        hash=
    else
        continue
    fi
    cp "$der" "$out/der_details/$name"
    cp "$der" "$out/crl_differential/$name"
    { printf '\x0f\x0f\x00'; cat "$der"; } >"$out/http_answer/$name"
    { ldap_bounds 3f 11; ldap_attribute "$binary" "$der" | ldap_entry; ldap_result 00; } \
        >"$out/ldap_answer/$name"
    cp "$der" "$out/file_load/$name"
    cp "$der" "$out/one_crl_file/$name"
    pem="$work/$name.pem"
    if openssl crl -inform DER -in "$der" -outform PEM -out "$pem" 2>/dev/null; then
        cp "$pem" "$out/pem_text/$name"
        cp "$pem" "$out/file_load/$name.pem"
        cp "$pem" "$out/one_crl_file/$name.pem"
        grep -v -- '-----' "$pem" >"$out/base64/$name"
        if [ -n "$hash" ] && [ -z "${crl_der_of[$hash]:-}" ]; then
            crl_der_of[$hash]=$der
            crl_pem_of[$hash]=$pem
        fi
    fi
    count=$((count + 1))
done < <(find "$corpus/pkits/crls" "$corpus/edge" "$corpus/realworld" -type f \
    \( -name '*.crl' -o -name '*.der' -o -name '*.pem' \) -print0 | sort -z)

# Several CRLs in one text, as a concatenated PEM file holds them.
# (No `| head` here: with pipefail, the writer it cuts off would fail the script.)
mapfile -t texts < <(find "$out/pem_text" -type f | sort)
cat "${texts[@]:0:3}" >"$out/pem_text/concatenated"

# Certificates of the corpus: alone and with their issuer's CRL for
# cert_record (control byte 01: every URL counts as a directory's), and in
# a bundle with that CRL for concat_status.
n=0
while IFS= read -r -d '' file; do
    small "$file" || continue
    # Few processes per file: there are hundreds of them.
    n=$((n + 1))
    cert=$file
    if [[ "$file" == *.pem ]]; then
        cert="$work/cert-$n.der"
        openssl x509 -in "$file" -outform DER -out "$cert" 2>/dev/null || continue
    fi
    hash=$(openssl x509 -inform DER -in "$cert" -noout -issuer_hash 2>/dev/null) || continue
    if [ -n "${crl_der_of[$hash]:-}" ]; then
        fetch_seed "$cert" 01 "${crl_der_of[$hash]}" >"$out/cert_record/cert-$n"
        { cat "${crl_pem_of[$hash]}"; openssl x509 -inform DER -in "$cert"; } \
            >"$out/concat_status/cert-$n"
    else
        cp "$cert" "$out/cert_record/cert-$n"
    fi
done < <(find "$corpus" -type f \( -name '*.crt' -o -name '*.cer' -o -name '*.der' -o \
    -name '*.pem' \) -print0 | sort -z)
# Bundles as they were found: CRLs and certificates in one file.
while IFS= read -r -d '' file; do
    small "$file" || continue
    cp "$file" "$out/concat_status/$(sha1sum "$file" | cut -c1-16)"
done < <(find "$corpus" -type f -name '*.pem' -exec grep -qa 'BEGIN CERTIFICATE' {} \; \
    -exec grep -qa 'CRL-----' {} \; -print0 | sort -z)

while IFS= read -r -d '' file; do
    cp "$file" "$out/private_key/$(basename "$file")"
done < <(find "$corpus" -type f \( -name '*.key' -o -name '*.pri' \) -print0)

# The PKI made here: current and expired CRLs, a revoked leaf with LDAP
# distribution points, and keys in every form.
pki="$work/pki"
fuzz/seed_pki.sh "$pki"
for crl in crl crl2 long-crl; do
    openssl crl -in "$pki/$crl.pem" -outform DER -out "$work/$crl.der"
    cp "$work/$crl.der" "$out/der_details/pki-$crl"
    cp "$work/$crl.der" "$out/crl_differential/pki-$crl"
    cp "$pki/$crl.pem" "$out/pem_text/pki-$crl"
done
cp "$pki"/keys/* "$out/private_key/"
for leaf in leaf leaf2 leaf3 long-leaf; do
    openssl x509 -in "$pki/$leaf.pem" -outform DER -out "$work/$leaf.der"
done
seeds="$out/cert_record"
fetch_seed "$work/leaf.der" 00 "$work/crl.der" >"$seeds/pki-leaf"
fetch_seed "$pki/leaf.pem" 00 "$work/crl.der" >"$seeds/pki-leaf-pem"
fetch_seed "$work/leaf2.der" 00 "$work/crl.der" >"$seeds/pki-leaf-not-revoked"
fetch_seed "$work/leaf3.der" 00 "$work/crl2.der" >"$seeds/pki-leaf-expired-crl"
fetch_seed "$work/long-leaf.der" 00 "$work/long-crl.der" >"$seeds/pki-leaf-long-issuer"
printf 'not a CRL' >"$work/garbage"
fetch_seed "$work/leaf.der" 00 "$work/garbage" >"$seeds/pki-leaf-garbage"
# Nothing from the first directory, another issuer's CRL with a failure
# from the second, the issuer's CRL from the third.
{
    fetch_seed "$work/leaf.der" 04 /dev/null
    fetch_seed /dev/null 02 "$work/crl2.der"
    fetch_seed /dev/null 00 "$work/crl.der"
} >"$seeds/pki-leaf-third-answer"
cp "$work/leaf.der" "$seeds/pki-leaf-alone"
seeds="$out/ldap_answer"
crl=$work/crl.der crl2=$work/crl2.der long=$work/long-crl.der
: >"$work/empty"
{
    ldap_bounds 3f 11
    { ldap_attribute "$binary" "$crl" "$long"; ldap_attribute certificateRevocationList "$crl2"; } |
        ldap_entry
    ldap_result 00
} >"$seeds/pki-two-attributes"
{
    ldap_bounds 3f 11
    ldap_attribute "$binary" "$crl" | ldap_entry
    printf 'ldap://127.0.0.1/cn=elsewhere' | tlv 04 | ldap_message_of 73
    ldap_attribute "$binary" "$crl2" "$work/empty" | ldap_entry
    ldap_result 00
} >"$seeds/pki-entries-and-reference"
{ ldap_bounds 3f 11; ldap_result 20; } >"$seeds/pki-no-such-object"
{ ldap_bounds 3f 11; ldap_attribute "$binary" "$crl" | ldap_entry; } >"$seeds/pki-no-result"
# More values than the first byte allows (5), more bytes than the second (64).
{
    ldap_bounds 04 11
    ldap_attribute "$binary" "$crl" "$crl" "$crl" "$crl" "$crl" "$crl" | ldap_entry
    ldap_result 00
} >"$seeds/pki-too-many-values"
{ ldap_bounds 3f 00; ldap_attribute "$binary" "$long" "$long" | ldap_entry; ldap_result 00; } \
    >"$seeds/pki-too-many-bytes"
seeds="$out/http_answer"
{ printf '\x0f\x0f\x00'; cat "$pki/crl.pem" "$pki/leaf.pem" "$pki/crl2.pem"; } >"$seeds/pki-pem"
{ printf '\x0f\x0f\x01'; cat "$pki/crl.pem"; } >"$seeds/pki-pem-no-length"
{ printf '\x0f\x0f\x02'; cat "$crl"; } >"$seeds/pki-der-claims-more"
{ printf '\x0f\x0f\x03'; cat "$crl"; } >"$seeds/pki-der-claims-less"
{ printf '\x00\x00\x00'; cat "$long"; } >"$seeds/pki-der-over-the-cap"
{ printf '\x01\x0f\x00'; cat "$pki/crl.pem" "$pki/crl2.pem" "$pki/crl.pem"; } >"$seeds/pki-pem-too-many"
seeds="$out/concat_status"
(cd "$pki" && cat ca.pem leaf.pem crl.pem leaf2.pem ca2.pem crl2.pem leaf3.pem) >"$seeds/pki-bundle"
(cd "$pki" && cat crl.pem crl2.pem leaf.pem leaf2.pem leaf3.pem) >"$seeds/pki-crls-first"
sed 's/$/\r/' "$seeds/pki-bundle" >"$seeds/pki-bundle-crlf"
(cd "$pki" && cat crl.pem long-crl.pem leaf.pem long-leaf.pem) >"$seeds/pki-long-issuer"
{ sed 's/X509 CRL/CRL/' "$pki/crl.pem"; cat "$pki/leaf.pem"; } >"$seeds/pki-other-label"

# CRLs signed by the differential target's fixed issuer, whose key only the
# target holds; it writes them and exits.
QXCRL_DIFFERENTIAL_SEEDS="$out/crl_differential" "$differential"
# Some of those, changed by hand where OpenSSL is lenient: a list of entry
# extensions under a primitive SEQUENCE tag, a CRL Number value as a
# constructed OCTET STRING, an outer signature algorithm unlike the inner one.
cp fuzz/differential_cases/* "$out/crl_differential/"
cp fuzz/one_crl_cases/* "$out/one_crl_file/"

for target in "${targets[@]}"; do
    echo "seed.sh: $target: $(find "$out/$target" -type f | wc -l) seeds"
done
[ "$count" -gt 0 ]
