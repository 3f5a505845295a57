#!/usr/bin/env bash
# Builds cfgd and runs it on a simulated device: private namespaces, the device's directories
# on tmpfs, logging stubs for every program it runs, an eth0 of its own that its LAN settings
# really configure, a simulated gateway driver for its routes, and a sample configuration file
# with a static address and a route (sandbox/device/kiv_config.ini). Extra arguments go to cfgd;
# CFGD_SANDBOX_MODULE=0 starts the device without the gateway module, which cfgd then loads.
#
# The device's web front end runs too: lighttpd and php-cgi inside the sandbox (as www-data,
# sandbox/web-server.sh), which also listen on a UNIX socket in the sandbox's state directory
# (.sandbox/run/web.sock, root only); on this machine socat forwards 127.0.0.1:8080
# (CFGD_WEB_PORT) to it, and nothing else. It speaks HTTPS with a self-signed certificate made
# for this run (the browser warns about it once). The sign-in is user "admin" with a password
# made for this run only, which is printed with the address.
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/setup.sh
cmake -S . -B build -G Ninja >/dev/null
# Only what the device runs: the daemon, cfgctl and the gateway driver's simulation (the tests
# are scripts/test.sh's).
cmake --build build -j "$(nproc)" --target cfgd cfgctl cfgd_gwsim

port=${CFGD_WEB_PORT:-8080}
state=$(readlink -m "${CFGD_SANDBOX_STATE:-.sandbox}")/run
mkdir -p "$state"
rm -f "$state/web.sock"

# Once the sandbox is up: the web server inside, then the forwarder here (exec: the helper's
# process is the forwarder's, ended below when the device stops).
web() {
    local tries password url
    for ((tries = 0; tries < 300; ++tries)); do
        sandbox/sandbox.sh exec true 2>/dev/null && break
        sleep 0.1
    done
    password=$(od -An -N12 -tx1 /dev/urandom | tr -d ' \n')
    printf '%s\n' "$password" | web/cfgd-web-passwd admin "$state/web.htpasswd" 2>/dev/null
    # Inside, the state directory is where the command log is.
    # shellcheck disable=SC2016  # expanded inside
    url=$(sandbox/sandbox.sh exec bash -c 'dir=$(dirname "$CFGD_SANDBOX_LOG") &&
        CFGD_WEB_UNIX_SOCKET=$dir/web.sock sandbox/web-server.sh start 80 /tmp/kiv_lock \
            "$dir/web.htpasswd"') || {
        echo "device: the web server did not start" >&2
        return 1
    }
    [ -S "$state/web.sock" ] || {
        echo "device: no $state/web.sock" >&2
        return 1
    }
    echo "device: web front end (inside: $url) at https://127.0.0.1:$port/ -" \
        "user admin, password $password"
    exec socat "TCP-LISTEN:$port,bind=127.0.0.1,reuseaddr,fork" "UNIX-CONNECT:$state/web.sock"
}

web &
forwarder=$!
status=0
sandbox/sandbox.sh run "$@" || status=$?
kill -TERM "$forwarder" 2>/dev/null || true
wait "$forwarder" 2>/dev/null || true
rm -f "$state/web.sock" "$state/web.htpasswd"
exit "$status"
