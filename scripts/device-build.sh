#!/usr/bin/env bash
# Builds cfgd and cfgctl for the gateway (armel: 32-bit ARMv5TE, little-endian, soft float),
# strips them and prints their sizes and the shared libraries they need; then builds the fully
# static variant and prints its sizes. Fails when a binary needs a shared library other than
# the C library and iniparser, or when the stripped daemon is over its flash budget.
# The hardened profile (CFGD_HARDENED) by default; --legacy builds the profile without it. The
# budget holds for both.
#   scripts/device-build.sh [--legacy] [BUILD_TYPE]   (default MinSizeRel; in build-device/out)
set -euo pipefail
cd "$(dirname "$0")/.."

hardened=ON
if [ "${1:-}" = --legacy ]; then
    hardened=OFF
    shift
fi
build_type=${1:-MinSizeRel}
case "$build_type" in
    -*)
        echo "usage: scripts/device-build.sh [--legacy] [BUILD_TYPE]" >&2
        exit 2
        ;;
esac
triplet=arm-linux-gnueabi
toolchain=cmake/armel-toolchain.cmake
daemon_budget=$((400 * 1024))  # bytes of the stripped, dynamically linked daemon
# What the device provides as shared libraries: the C library (with its loader) and iniparser.
allowed_needed='^(libc\.so\.[0-9]+|ld-linux\.so\.[0-9]+|libiniparser\.so\.[0-9]+)$'
out=build-device/out
jobs=$(nproc)
((jobs > 2)) && jobs=2

bash scripts/setup.sh

build() {  # build DIR [cmake options...]
    local dir=$1
    shift
    # The toolchain file counts only when a build directory is made; given again, cmake warns.
    [ -f "$dir/CMakeCache.txt" ] || set -- -DCMAKE_TOOLCHAIN_FILE="$toolchain" "$@"
    cmake -S . -B "$dir" -G Ninja -DCMAKE_BUILD_TYPE="$build_type" -DCFGD_TESTS=OFF \
        -DCFGD_BENCH=OFF -DCFGD_HARDENED="$hardened" "$@" >/dev/null
    cmake --build "$dir" -j "$jobs" --target cfgd cfgctl
}

needed() {  # the shared libraries a binary names, one per line
    "$triplet-readelf" -d "$1" | sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p'
}

kib() { awk -v b="$1" 'BEGIN { printf "%.1f KiB", b / 1024 }'; }

status=0
report() {  # report NAME UNSTRIPPED [static]
    local name=$1 binary=$2 stripped="$out/$1" size libraries
    "$triplet-strip" -o "$stripped" "$binary"
    size=$(stat -c %s "$stripped")
    libraries=$(needed "$stripped" | paste -sd ' ')
    printf '%-14s %8d bytes  %10s   needs: %s\n' "$name" "$size" "$(kib "$size")" \
        "${libraries:-(nothing: static)}"
    for library in $libraries; do
        if ! [[ $library =~ $allowed_needed ]]; then
            echo "device-build: $name needs $library; only the C library and iniparser may be" \
                "shared (link the C++ runtime statically)" >&2
            status=1
        fi
    done
    if [ "$name" = cfgd ] && ((size > daemon_budget)); then
        echo "device-build: cfgd is $(kib "$size"), over its budget of $(kib "$daemon_budget")." \
            "Largest symbols:" >&2
        "$triplet-nm" -C --size-sort -S "$binary" | tail -n 20 >&2
        "$triplet-size" "$binary" >&2
        status=1
    fi
}

if [ "$hardened" = ON ]; then
    echo "profile: hardened (legacy: scripts/device-build.sh --legacy ${build_type})"
else
    echo "profile: legacy (hardened: scripts/device-build.sh ${build_type})"
fi
echo "== device build ($triplet, $build_type): build-device"
build build-device
mkdir -p "$out"
iniparser_shared=$(sed -n 's/^INIPARSER_LIBRARY:FILEPATH=//p' build-device/CMakeCache.txt)

echo "== fully static variant: build-device-static"
build build-device-static -DCMAKE_EXE_LINKER_FLAGS=-static \
    -DINIPARSER_LIBRARY="${iniparser_shared%.so}.a"

echo "== stripped binaries in $out (budget of cfgd: $(kib "$daemon_budget"))"
report cfgd build-device/cfgd
report cfgctl build-device/tools/cfgctl
report cfgd-static build-device-static/cfgd
report cfgctl-static build-device-static/tools/cfgctl
"$triplet-readelf" -h "$out/cfgd" | sed -n 's/^ *Flags: *//p' | sed 's/^/cfgd ELF flags: /'
exit $status
