#!/usr/bin/env bash
# Installs qxcrl into a temporary prefix, builds the examples against it once
# with pkg-config and once with find_package(qxcrl), and runs both builds on
# a CRL and two certificates made with the openssl command: one revoked, one
# not. Any wrong output or exit code fails the run.
set -euo pipefail
cd "$(dirname "$0")/.."
root=$PWD

work=$(mktemp -d /tmp/qxcrl-examples.XXXXXX)
trap 'rm -rf "$work"' EXIT
prefix="$work/prefix"

cmake -S . -B build-examples -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DQXCRL_BUILD_TESTS=OFF -DQXCRL_WERROR=ON
cmake --build build-examples
cmake --install build-examples --prefix "$prefix" >/dev/null

fail() {
    echo "examples.sh: $*" >&2
    exit 1
}

for file in include/qxcrl/qxcrl.h include/qxcrl/qxlayer.h include/qxcrl/r_types.h \
    lib/pkgconfig/qxcrl.pc lib/cmake/qxcrl/qxcrlConfig.cmake; do
    [ -f "$prefix/$file" ] || fail "not installed: $file"
done
# The command-line tool is installed whenever the build has it.
if grep -q '^add_subdirectory(cli)' CMakeLists.txt; then
    [ -x "$prefix/bin/qxcrl" ] || fail "the build has the command-line tool but bin/qxcrl is not installed"
fi
# Its manual pages, where man finds them under the prefix.
if [ -d man ]; then
    command -v man >/dev/null || fail "no man command (scripts/install-deps.sh installs man-db)"
    for page in man/*.1; do
        name=$(basename "$page" .1)
        MANPAGER=cat man -M "$prefix/share/man" "$name" 2>/dev/null | grep -q "^NAME" \
            || fail "man -M $prefix/share/man $name finds no page"
    done
fi

# A CA, one certificate it revokes and one it does not, and its CRL.
pki="$work/pki"
mkdir -p "$pki/new"
: >"$pki/index.txt"
echo 1000 >"$pki/serial"
cat >"$pki/ca.cnf" <<CNF
[ca]
default_ca = example
[example]
dir = $pki
database = $pki/index.txt
serial = $pki/serial
new_certs_dir = $pki/new
certificate = $pki/ca.pem
private_key = $pki/ca.key
default_md = sha256
default_days = 30
default_crl_days = 7
policy = anything
crl_extensions = crl_ext
[anything]
commonName = supplied
[crl_ext]
authorityKeyIdentifier = keyid
CNF
openssl req -x509 -newkey rsa:2048 -nodes -keyout "$pki/ca.key" -out "$pki/ca.pem" \
    -subj "/O=qxcrl examples/CN=Example CA" -days 30 2>/dev/null
for name in revoked valid; do
    openssl req -newkey rsa:2048 -nodes -keyout "$pki/$name.key" -out "$pki/$name.csr" \
        -subj "/CN=$name.example" 2>/dev/null
    openssl ca -batch -config "$pki/ca.cnf" -in "$pki/$name.csr" -out "$pki/$name.pem" \
        -notext 2>/dev/null
done
openssl ca -config "$pki/ca.cnf" -revoke "$pki/revoked.pem" 2>/dev/null
openssl ca -config "$pki/ca.cnf" -gencrl -out "$pki/crl.pem" 2>/dev/null
openssl crl -in "$pki/crl.pem" -outform DER -out "$pki/crl.der"
openssl x509 -in "$pki/valid.pem" -outform DER -out "$pki/valid.der"
# A revocation counts only once its date has passed.
sleep 1

# expect <exit code> <output> <command...>
expect() {
    local code=$1 output=$2 actual status=0
    shift 2
    actual=$("$@" 2>"$work/stderr") || status=$?
    [ "$status" -eq "$code" ] || fail "$*: exit $status, wanted $code ($(cat "$work/stderr"))"
    [ "$actual" = "$output" ] || fail "$*: printed '$actual', wanted '$output'"
}

run_examples() {
    local bin=$1
    expect 1 revoked "$bin/check_crl" "$pki/revoked.pem" "$pki/crl.pem"
    expect 1 revoked "$bin/check_crl" "$pki/revoked.pem" "$pki/crl.der"
    expect 0 valid "$bin/check_crl" "$pki/valid.pem" "$pki/crl.pem"
    expect 0 valid "$bin/check_crl" "$pki/valid.der" "$pki/crl.der"
    expect 2 "" "$bin/check_crl" "$pki/valid.pem" "$pki/ca.key"
    expect 2 "" "$bin/check_crl" "$pki/valid.pem"
    local details
    details=$("$bin/crl_summary" "$pki/crl.der") || fail "crl_summary failed"
    grep -qx 'issuer: CN=Example CA,O=qxcrl examples' <<<"$details" ||
        fail "crl_summary: wrong issuer in: $details"
    grep -qE '^thisUpdate: [0-9]{4}-[0-9]{2}-[0-9]{2}T' <<<"$details" ||
        fail "crl_summary: no thisUpdate in: $details"
    grep -qE '^nextUpdate: [0-9]{4}-[0-9]{2}-[0-9]{2}T' <<<"$details" ||
        fail "crl_summary: no nextUpdate in: $details"
    grep -qx 'entries: 1' <<<"$details" || fail "crl_summary: wrong entry count in: $details"
    expect 1 "" "$bin/crl_summary" "$pki/ca.pem"
}

export LD_LIBRARY_PATH="$prefix/lib${LD_LIBRARY_PATH:+:$LD_LIBRARY_PATH}"

mkdir -p "$work/pkgconfig"
PKG_CONFIG_PATH="$prefix/lib/pkgconfig" make -s -C "$work/pkgconfig" -f "$root/examples/Makefile"
run_examples "$work/pkgconfig"

cmake -S examples -B "$work/cmake" -G Ninja -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
cmake --build "$work/cmake" >/dev/null
run_examples "$work/cmake"

echo "examples.sh: both builds pass"
