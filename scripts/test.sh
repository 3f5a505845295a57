#!/usr/bin/env bash
# Builds everything and runs every test: the plain build (unit tests and the end-to-end suite
# in the sandbox), a build with AddressSanitizer and UndefinedBehaviorSanitizer, and the unit
# tests cross-built for the device (armel) under qemu user emulation.
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/setup.sh

echo "== format"
files=$(git ls-files -co --exclude-standard -- '*.cpp' '*.h')
clang-format --dry-run -Werror $files

jobs=$(nproc)
for variant in build build-asan; do
    echo "== $variant"
    sanitize=OFF
    [ "$variant" = build-asan ] && sanitize=ON
    cmake -S . -B "$variant" -G Ninja -DCFGD_SANITIZE=$sanitize -DCFGD_WERROR=ON >/dev/null
    cmake --build "$variant" -j "$jobs"
    ctest --test-dir "$variant" --output-on-failure -j "$jobs"
done

# The unit tests once more as the device runs them: 32-bit ARMv5, under qemu user emulation.
echo "== build-armel"
cmake -S . -B build-armel -G Ninja -DCMAKE_TOOLCHAIN_FILE=cmake/armel-toolchain.cmake \
    -DCFGD_WERROR=ON >/dev/null
cmake --build build-armel -j "$jobs"
ctest --test-dir build-armel --output-on-failure -j "$jobs"
# The Debian packages of both profiles for the host and armel, checked: lintian, and each
# package's daemon run in the sandbox (armel under qemu) to show its profile.
echo "== packages"
bash scripts/package-test.sh
echo "== all tests passed"
