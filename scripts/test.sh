#!/usr/bin/env bash
# Sets up a fresh Debian 12 machine (as root), builds qxcrl and runs its tests.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/install-deps.sh
cmake -S . -B build -G Ninja -DCMAKE_BUILD_TYPE=Release -DQXCRL_WERROR=ON
cmake --build build
ctest --test-dir build --output-on-failure -j "$(nproc)"
