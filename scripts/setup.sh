#!/usr/bin/env bash
# Installs what building, testing and the sandbox need, from Debian's packages, when missing.
set -euo pipefail

packages=(g++ cmake ninja-build pkg-config libiniparser-dev libgtest-dev libgmock-dev
          clang-format util-linux procps iproute2 net-tools
          php-cli   # the PHP client library's tests; its sysvmsg and sysvsem come with it
          valgrind) # the benchmark counts the daemon's instructions with callgrind
# `setup.sh fuzz`: also clang and its libFuzzer, for scripts/fuzz.sh.
[ "${1:-}" = fuzz ] && packages+=(clang libclang-rt-dev)
missing=()
# The device build and the armel unit tests: Debian's armel cross compiler, the armel C library,
# iniparser and GoogleTest from the archive (multiarch), and qemu user emulation to run tests.
packages+=(g++-arm-linux-gnueabi libc6:armel libiniparser-dev:armel libgtest-dev:armel qemu-user)
for package in "${packages[@]}"; do
    dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q "install ok installed" ||
        missing+=("$package")
done
if ((${#missing[@]})); then
    echo "setup: installing ${missing[*]}"
    sudo_cmd=()
    [ "$(id -u)" -eq 0 ] || sudo_cmd=(sudo)
    export DEBIAN_FRONTEND=noninteractive
    dpkg --print-foreign-architectures | grep -qx armel ||
        "${sudo_cmd[@]}" dpkg --add-architecture armel
    "${sudo_cmd[@]}" apt-get update -qq
    "${sudo_cmd[@]}" apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
fi
