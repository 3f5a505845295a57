#!/usr/bin/env bash
# Builds cfgd and runs it on a simulated device: private namespaces, the device's directories
# on tmpfs, logging stubs for every program it runs, an eth0 of its own that its LAN settings
# really configure, a simulated gateway driver for its routes, and a sample configuration file
# with a static address and a route (sandbox/device/kiv_config.ini). Extra arguments go to cfgd;
# CFGD_SANDBOX_MODULE=0 starts the device without the gateway module, which cfgd then loads.
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/setup.sh
cmake -S . -B build -G Ninja >/dev/null
cmake --build build -j "$(nproc)"
exec sandbox/sandbox.sh run "$@"
