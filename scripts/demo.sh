#!/usr/bin/env bash
# Sets up a fresh Debian 12 machine (as root), builds the qxcrl command and
# runs its demo: a test CA's CRL created, revoked into, re-dated, stored,
# written, cached, queried and verified in a new temporary folder.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/install-deps.sh
cmake -S . -B build -G Ninja -DCMAKE_BUILD_TYPE=Release -DQXCRL_WERROR=ON
cmake --build build --target qxcrl_cli
exec build/cli/qxcrl demo "$@"
