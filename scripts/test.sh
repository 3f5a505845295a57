#!/usr/bin/env bash
# Builds everything and runs every test: the plain build (unit tests and the end-to-end suite
# in the sandbox) and a build with AddressSanitizer and UndefinedBehaviorSanitizer.
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
echo "== all tests passed"
