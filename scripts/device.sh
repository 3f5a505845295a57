#!/usr/bin/env bash
# Builds cfgd and runs it on a simulated device: private namespaces, the device's directories
# on tmpfs, logging stubs for every program it runs. Extra arguments go to cfgd.
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/setup.sh
cmake -S . -B build -G Ninja >/dev/null
cmake --build build -j "$(nproc)"
exec sandbox/sandbox.sh run "$@"
