#!/usr/bin/env bash
# Installs what building, testing and the sandbox need, from Debian's packages, when missing.
set -euo pipefail

packages=(g++ cmake ninja-build pkg-config libiniparser-dev libgtest-dev libgmock-dev
          clang-format util-linux procps iproute2 net-tools
          php-cli   # the PHP client library's tests; its sysvmsg and sysvsem come with it
          valgrind  # the benchmark counts the daemon's instructions with callgrind
          # The web front end inside the sandbox (sandbox/web-server.sh), its browser tests
          # (tests/web), its benchmark (bench/web_bench.py counts the pages' messages with
          # strace), the password script (openssl) and scripts/device.sh's forwarder (socat).
          lighttpd lighttpd-mod-openssl php-cgi chromium chromium-driver python3-selenium strace openssl socat
          # The init script's test (BusyBox's sh and start-stop-daemon); the packages' checks
          # (dpkg-deb, dpkg-shlibdeps, dpkg-parsechangelog) and Debian's package checker.
          busybox dpkg-dev lintian
          # The manual pages' test renders them with man and groff.
          man-db groff-base
          # The sandbox's flash simulation for the power-cut test (sandbox/flashsim); setfattr cuts.
          libfuse3-dev fuse3 attr
          # The front end's TLS check (testssl.sh) and its metrics check (promtool, in prometheus).
          testssl.sh prometheus
          # The simulated fleet: Ansible on the controller, dropbear and ssh between them.
          ansible-core dropbear-bin openssh-client
          # The Ansible collection's lint (pyflakes; ansible-test's offline sanity tests).
          pyflakes3)
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
    # A package's server (lighttpd) must not start on this machine: while installing, a
    # policy-rc.d forbids every service start, unless the machine has a policy of its own.
    policy=/usr/sbin/policy-rc.d
    made_policy=0
    if [ ! -e "$policy" ]; then
        printf '#!/bin/sh\n# scripts/setup.sh: no service starts while it installs\nexit 101\n' |
            "${sudo_cmd[@]}" tee "$policy" >/dev/null
        "${sudo_cmd[@]}" chmod 0755 "$policy"
        made_policy=1
        trap '"${sudo_cmd[@]}" rm -f "$policy"' EXIT
    fi
    servers_before=" $(pgrep -d ' ' -x lighttpd || true) "
    "${sudo_cmd[@]}" apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
    if ((made_policy)); then
        "${sudo_cmd[@]}" rm -f "$policy"
        trap - EXIT
    fi
    # Should one have started anyway (no init system that asks the policy): the package's own
    # server, on its configuration, and only one that was not running before.
    for pid in $(pgrep -x lighttpd || true); do
        [[ $servers_before == *" $pid "* ]] && continue
        tr '\0' ' ' <"/proc/$pid/cmdline" 2>/dev/null | grep -q -- '-f /etc/lighttpd/lighttpd.conf' ||
            continue
        echo "setup: stopping the lighttpd (pid $pid) that its package started"
        "${sudo_cmd[@]}" kill -TERM "$pid" 2>/dev/null || true
    done
fi
