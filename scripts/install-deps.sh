#!/usr/bin/env bash
# Installs the Debian packages that building and testing need (run as root).
# Skips apt-get entirely when everything is already there.
set -euo pipefail

packages=(
    cmake ninja-build g++ pkg-config
    libssl-dev openssl
    libsqlite3-dev
    libgtest-dev libgmock-dev libbenchmark-dev
)

missing=()
for package in "${packages[@]}"; do
    dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q 'install ok installed' \
        || missing+=("$package")
done

if [ ${#missing[@]} -gt 0 ]; then
    echo "installing: ${missing[*]}"
    export DEBIAN_FRONTEND=noninteractive
    apt-get update -q
    apt-get install -y -q --no-install-recommends "${missing[@]}"
fi
