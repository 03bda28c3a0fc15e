#!/usr/bin/env bash
# Makes, with the openssl command, the small PKI that fuzz/seed.sh builds
# seeds from, into <dir>:
#   ca.pem ca2.pem          an ECDSA and an RSA issuer
#   leaf.pem                issued by ca, revoked by crl; two distribution
#                           points of LDAP and HTTP URIs on the loopback
#   leaf2.pem               issued by ca, not revoked
#   leaf3.pem               issued by ca2, revoked by crl2
#   crl.pem                 ca's current CRL
#   crl2.pem                ca2's CRL, expired since 2020
#   long.pem                an issuer whose name is over 1,025 bytes as DER,
#                           longer than a cache can compare
#   long-leaf.pem           issued by long, revoked by long-crl
#   long-crl.pem            long's CRL
#   keys/<name>             private keys of several algorithms in every form
#                           the layer reads; the encrypted ones under the
#                           passphrase fuzz/private_key.cpp uses
set -euo pipefail

dir=$1
passphrase='qxfuzz passphrase'
mkdir -p "$dir/keys"
cd "$dir"

cat >pki.cnf <<'EOF'
[ca]
default_ca = issuer
[issuer]
database = index.txt
crlnumber = crlnumber
default_md = sha256
default_crl_days = 3650
[leaf]
basicConstraints = CA:FALSE
crlDistributionPoints = point_ldap, point_mixed
[point_ldap]
fullname = URI:ldap://127.0.0.1/cn=qxcrl%20fuzz%20CA?certificateRevocationList;binary, URI:ldap://localhost/cn=qxcrl%20fuzz%20CA
[point_mixed]
fullname = URI:http://127.0.0.1/ca.crl, URI:ldap://[::1]/cn=qxcrl%20fuzz%20CA
reasons = keyCompromise, CACompromise
EOF

# issuer <name> <subject> <key options...>: a self-signed issuer with its own database.
issuer() {
    local name=$1 subject=$2
    shift 2
    openssl genpkey "$@" -out "$name.key" 2>/dev/null
    openssl req -x509 -new -key "$name.key" -subj "$subject" -days 3650 -out "$name.pem" \
        2>/dev/null
    mkdir -p "$name.db"
    : >"$name.db/index.txt"
    echo 01 >"$name.db/crlnumber"
}

# leaf <name> <issuer> <serial>
leaf() {
    openssl genpkey -algorithm EC -pkeyopt ec_paramgen_curve:P-256 -out "$1.key" 2>/dev/null
    openssl req -new -key "$1.key" -subj "/CN=qxcrl fuzz $1" -out "$1.csr" 2>/dev/null
    openssl x509 -req -in "$1.csr" -CA "$2.pem" -CAkey "$2.key" -set_serial "$3" -days 3650 \
        -extfile pki.cnf -extensions leaf -out "$1.pem" 2>/dev/null
}

# ca <issuer> <openssl ca options...>
ca() {
    local name=$1
    shift
    (cd "$name.db" && openssl ca -config ../pki.cnf -keyfile "../$name.key" -cert "../$name.pem" \
        "$@" 2>/dev/null)
}

long_subject="/CN=qxcrl fuzz long"
for unit in $(seq 24); do
    long_subject+="/OU=unit $unit of an organisation whose name is long"
done
issuer ca "/CN=qxcrl fuzz ca" -algorithm EC -pkeyopt ec_paramgen_curve:P-256
issuer ca2 "/CN=qxcrl fuzz ca2" -algorithm RSA -pkeyopt rsa_keygen_bits:1024
issuer long "$long_subject" -algorithm EC -pkeyopt ec_paramgen_curve:P-256
leaf leaf ca 4660
leaf leaf2 ca 4661
leaf leaf3 ca2 4662
leaf long-leaf long 4663
ca ca -revoke ../leaf.pem -crl_reason keyCompromise
ca ca -gencrl -out ../crl.pem
ca ca2 -revoke ../leaf3.pem
ca ca2 -gencrl -crl_lastupdate 20190101000000Z -crl_nextupdate 20200101000000Z -out ../crl2.pem
ca long -revoke ../long-leaf.pem
ca long -gencrl -out ../long-crl.pem

# Private keys: each algorithm in PKCS#8 and traditional form, PEM and DER,
# and encrypted with PBKDF2 and with scrypt (work factors kept small so that
# each input stays fast).
key_kinds=(
    "rsa:-algorithm RSA -pkeyopt rsa_keygen_bits:1024"
    "rsa-pss:-algorithm RSA-PSS -pkeyopt rsa_keygen_bits:1024"
    "ec-p256:-algorithm EC -pkeyopt ec_paramgen_curve:P-256"
    "ec-p384:-algorithm EC -pkeyopt ec_paramgen_curve:P-384"
    "ed25519:-algorithm ED25519"
    "ed448:-algorithm ED448"
    "x25519:-algorithm X25519"
)
for kind in "${key_kinds[@]}"; do
    name=${kind%%:*}
    read -r -a options <<<"${kind#*:}"
    key="keys/$name.pem"
    openssl genpkey "${options[@]}" -out "$key" 2>/dev/null
    openssl pkey -in "$key" -outform DER -out "keys/$name.der"
    openssl pkey -in "$key" -traditional -out "keys/$name-traditional.pem" 2>/dev/null || true
    openssl pkey -in "$key" -traditional -outform DER -out "keys/$name-traditional.der" \
        2>/dev/null || true
    openssl pkcs8 -topk8 -in "$key" -v2 aes-128-cbc -iter 1 -passout "pass:$passphrase" \
        -out "keys/$name-pbkdf2.pem"
    openssl pkcs8 -topk8 -in "$key" -v2 aes-256-cbc -iter 1 -passout "pass:$passphrase" \
        -outform DER -out "keys/$name-pbkdf2.der"
    openssl pkcs8 -topk8 -in "$key" -scrypt -scrypt_N 16 -scrypt_r 1 -scrypt_p 1 \
        -passout "pass:$passphrase" -out "keys/$name-scrypt.pem"
    openssl pkey -in "$key" -traditional -aes128 -passout "pass:$passphrase" \
        -out "keys/$name-traditional-encrypted.pem" 2>/dev/null || true
done
# Empty outputs are forms an algorithm does not have.
find keys -type f -empty -delete
