#!/usr/bin/env bash
# Installs the Debian packages that building and testing need (run as root).
# Skips apt-get entirely when everything is already there.
set -euo pipefail

packages=(
    cmake ninja-build g++ pkg-config python3
    libssl-dev openssl
    libsqlite3-dev
    libldap-dev slapd ldap-utils
    libcurl4-openssl-dev
    libgtest-dev libgmock-dev libbenchmark-dev
    clang libclang-rt-14-dev
    gnutls-bin man-db
    time
)

missing=()
for package in "${packages[@]}"; do
    [ "$(dpkg-query -W -f='${Status}' "$package" 2>/dev/null)" = "install ok installed" ] \
        || missing+=("$package")
done

if [ ${#missing[@]} -gt 0 ]; then
    echo "installing: ${missing[*]}"
    export DEBIAN_FRONTEND=noninteractive
    # The tests run their own slapd with their own configuration on a port of
    # their own; the package's directory and service are not wanted. Without a
    # configuration the package makes no database, and a policy-rc.d that
    # refuses keeps the package from starting its service while installing.
    if command -v debconf-set-selections >/dev/null; then
        echo 'slapd slapd/no_configuration boolean true' | debconf-set-selections
    fi
    policy=/usr/sbin/policy-rc.d
    made_policy=no
    if [ ! -e "$policy" ]; then
        printf '#!/bin/sh\nexit 101\n' >"$policy"
        chmod 755 "$policy"
        made_policy=yes
    fi
    status=0
    { apt-get update -q && apt-get install -y -q --no-install-recommends "${missing[@]}"; } \
        || status=$?
    if [ "$made_policy" = yes ]; then
        rm -f "$policy"
    fi
    [ "$status" -eq 0 ] || exit "$status"
fi
