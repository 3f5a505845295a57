#!/bin/sh
# shellcheck disable=SC2016  # the checks are evaluated later, on purpose
# The installed init script S50cfgd, run by BusyBox (its sh, start-stop-daemon and applets)
# inside the sandbox, on the installed daemon:
#   sandbox/sandbox.sh test busybox sh tests/install/init_test.sh BUILD_DIR
set -u
[ -n "${CFGD_SANDBOX:-}" ] || { echo "init_test: runs inside the sandbox only" >&2; exit 2; }
build=$1 root=/tmp/install-root work=/tmp/init-test
mkdir -p "$work/bin"
DESTDIR=$root cmake --install "$build" --prefix /usr >"$work/install.log" 2>&1 ||
    { cat "$work/install.log"; exit 1; }
# BusyBox's applets first in PATH, except those the sandbox stubs (they stay in front of the
# real programs the daemon runs); sleep is BusyBox's, which really sleeps.
busybox --install -s "$work/bin"
for stub in "$CFGD_SANDBOX_BIN"/*; do
    [ "${stub##*/}" = sleep ] || rm -f "$work/bin/${stub##*/}"
done
PATH=$work/bin:$PATH
init=$root/etc/init.d/S50cfgd cfgctl=$root/usr/bin/cfgctl lock=/tmp/kiv_lock
defaults="DAEMON=$root/usr/sbin/cfgd CFGCTL=$cfgctl LOG=$work/cfgd.log PIDFILE=$work/cfgd.pid"
echo "$defaults" >/etc/default/cfgd

passed=0 failed=0
check() {  # check NAME TEST...: the test is a command; its output goes to the log on failure
    name=$1
    shift
    if "$@"; then
        passed=$((passed + 1)) && echo "ok   $name"
    else
        failed=$((failed + 1)) && echo "FAIL $name: $out (status $rc)"
    fi
}
run() { out=$(sh "$init" "$@" 2>&1) && rc=0 || rc=$?; }
has() { case "$out" in *"$1"*) return 0 ;; esac && return 1; }
lock_pid() { sed -n 's/^[0-9-]*, [0-9-]*, \([0-9]*\)$/\1/p' "$lock" 2>/dev/null; }
keys_gone() {
    for key in $keys; do ipcs -q -s | grep -qi "$(printf '0x%08x' "$key")" && return 1; done
    return 0
}
gone() { ! grep -qs '^State:[[:space:]]*[^Z[:space:]]' "/proc/$1/status"; }

run start
check "start: started, lock file of the pid" eval 'has started && [ "$rc" = 0 ] &&
    pid=$(lock_pid) && has "pid $pid"'
line=$(cat "$lock")
keys=$(echo "$line" | sed 's/, / /; s/,.*//')
check "start: the trials' directory, root's" eval '[ "$(stat -c %U:%a "$lock.trial")" = root:750 ]'
run status
check "status: running" eval '[ "$rc" = 0 ] && has "running (pid $pid)"'
out=$("$cfgctl" set can1.bitrate 125000 2>&1 && "$cfgctl" get can1.bitrate 2>&1) && rc=0 || rc=$?
check "cfgctl set, get" has 125000
for action in restart force-reload; do
    run "$action"
    check "$action: a new daemon" eval '[ "$rc" = 0 ] && has stopped && has started &&
        [ "$(lock_pid)" != "$pid" ] && pid=$(lock_pid) && line=$(cat "$lock")'
    out=$("$cfgctl" get can1.bitrate 2>&1) && rc=0 || rc=$?
    check "$action: the stored value kept" has 125000
done
run start
check "start while running: refused, nothing disturbed" eval '[ "$rc" != 0 ] &&
    has "already running (pid $pid)" && [ "$(cat "$lock")" = "$line" ] && kill -0 "$pid"'
run stop
check "stop: process, lock file, queue and semaphores gone" eval '[ "$rc" = 0 ] &&
    has stopped && gone "$pid" && [ ! -e "$lock" ] && keys_gone'
run status
check "status: not running (3)" eval '[ "$rc" = 3 ] && has "not running"'
printf 'planted, by, secret\n' >"$work/planted" && ln -s "$work/planted" "$lock"
run status
check "status: a planted lock file's words are no pid" eval '[ "$rc" = 3 ] &&
    ! grep -qs secret "$work/cfgd.pid"'
rm -f "$lock"
echo "$defaults CONFIG=/mnt/user/$(printf '%0300d' 0)" >/etc/default/cfgd
run start
check "failed start: its exit status and error" eval '[ "$rc" != 0 ] &&
    has "exit status 255" && has "filename to large" && [ ! -e "$lock" ]'
echo "$defaults CONFIG=/nonexistent/kiv_config.ini" >/etc/default/cfgd
run start
check "failed start: configuration not opened" eval '[ "$rc" != 0 ] && has "exit status 252"'
echo "$passed passed, $failed failed"
[ "$failed" = 0 ]
