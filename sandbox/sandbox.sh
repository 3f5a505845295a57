#!/usr/bin/env bash
# Runs cfgd, its end-to-end tests and its clients on a private simulated device, inside Linux
# namespaces, so that nothing the daemon does (ip link, ifconfig, reboot, sethostname, files in
# /etc, /tmp, /mnt, IPC objects) can reach the machine that runs it.
set -euo pipefail

SELF=$(readlink -f "${BASH_SOURCE[0]}")
REPO=$(dirname "$(dirname "$SELF")")
STATE_ROOT=${CFGD_SANDBOX_STATE:-$REPO/.sandbox}
BUILD_DIR=$(readlink -m "${CFGD_BUILD_DIR:-$REPO/build}")
CFGD=${CFGD_BIN:-$BUILD_DIR/cfgd}
readonly SELF REPO STATE_ROOT BUILD_DIR CFGD

readonly SANDBOX_HOSTNAME=cfgd-sandbox
# Fixed places inside the sandbox (on its private /mnt).
readonly IN_PROC=/mnt/.proc        # the real procfs of the sandbox's PID namespace
readonly IN_REPO=/mnt/.repo        # the repository
readonly IN_STATE=/mnt/.sandbox    # this sandbox's state directory on the host (command log)
readonly IN_BIN=/mnt/.bin          # the logging stubs, first in PATH
readonly IN_SIM=/mnt/.sim          # the device simulation's files (fixed in sandbox/stub too)
readonly IN_LOG=$IN_STATE/commands.log
readonly MARKER=/etc/cfgd-sandbox  # holds the sandbox's token; tests look for it
readonly PROC_PID_LINKS=8192       # /proc/1 .. /proc/8192 lead into $IN_PROC

# unshare's options for a sandbox's namespaces (the fleet's controller and devices too); with
# --kill-child the first process inside dies with unshare.
readonly NAMESPACES=(--mount --uts --ipc --net --pid --fork --kill-child --propagation private)
# Programs the daemon runs through the shell; each is replaced by the logging stub.
readonly STUBBED_PROGRAMS=(ip ifconfig route ntpd killall modprobe rmmod reboot sync sleep)
# Of these, the stub runs the real net-tools after logging, inside the sandbox's network
# namespace only (the set-up saves them in $IN_SIM before covering them).
readonly REAL_NET_TOOLS=(ifconfig route)
# The Ethernet port: one end of a veth pair in the sandbox's network namespace; the other end
# stays there too, so that the port has a carrier.
readonly ETHERNET=eth0
readonly ETHERNET_PEER=eth0-peer
# The gateway driver's simulation (sandbox/gwsim), preloaded into everything run inside.
readonly GWSIM_LIBRARY=libcfgd_gwsim.so
# The flash simulation (sandbox/flashsim), mounted over /mnt/user on request.
readonly FLASHSIM=cfgd_flashsim
# The gateway module as the sample /proc/modules and /proc/devices list it.
readonly MODULE_NAME=tarn_gw
readonly MODULE_DEVICE=tarn-gw
# The real ones of these are covered by the stub too, so that even a call by absolute path
# cannot reconfigure the machine (sleep and sync are harmless and the sandbox's own scripts
# may need them).
readonly MASKED_PROGRAMS=(ip ifconfig route ntpd killall modprobe rmmod reboot)
# Programs the daemon runs by their device paths.
readonly STUBBED_PATHS=(/etc/init.d/udhcpc.sh /etc/init.d/S41udhcpd.sh /etc/init.d/S39wlan
                        /etc/init.d/S39uap /etc/init.d/S10wlan /home/tarn/canoip/canoipd)
# Host directories covered by private ones inside.
readonly COVERED=(/tmp /etc /mnt /home /run /dev /proc)

usage() {
    cat <<EOF
Usage: sandbox/sandbox.sh run [cfgd options]
       sandbox/sandbox.sh exec CMD [ARGS...]
       sandbox/sandbox.sh test CMD [ARGS...]

Runs programs on a private simulated device: private mount, UTS, IPC, network and PID
namespaces, so that nothing they do reaches this machine. Must run as root.

  run     Starts the daemon ($CFGD by default) with the given options in a new
          sandbox and shows the command log live. Ctrl-C or SIGTERM stops the daemon
          (SIGTERM) and removes the sandbox. One run sandbox at a time.
  exec    Runs CMD inside the sandbox of the running 'run' (same PATH and environment);
          its exit status is passed through. E.g.: sandbox/sandbox.sh exec cfgctl get 0 2 0
  test    Runs CMD in a fresh sandbox without a daemon, removes the sandbox afterwards and
          exits with CMD's status. E.g.: sandbox/sandbox.sh test build/tests/e2e/cfgd_e2e

Inside the sandbox:
  host name        $SANDBOX_HOSTNAME
  /tmp /mnt /home /run /etc /dev  private tmpfs; /etc is a copy of this machine's /etc, with
                   stub init scripts in /etc/init.d and a private /etc/resolv.conf
  /proc            tmpfs with the device's devices, modules and boardinfo; all other entries
                   are links into $IN_PROC, the sandbox's real procfs; process directories
                   only for PIDs 1 to $PROC_PID_LINKS (all of them in $IN_PROC)
  /tmp/uboot_env, /mnt/user/platform.config, /mnt/user/kiv_config.ini
                   sample device files from sandbox/device/; the last is the daemon's default
                   configuration file (static LAN address, one route)
  /dev             null, zero, full, random and urandom only (and fuse, with CFGD_SANDBOX_FLASH=1)
  gateway driver   simulated: <build>/$GWSIM_LIBRARY, preloaded into every program
                   (LD_PRELOAD), answers open, ioctl and close of /dev/tarn-gw and
                   /dev/canoip0..7 (which are not files) while /proc/modules names
                   $MODULE_NAME, else open fails with ENODEV; each process has a driver of its
                   own, and a module loaded anew starts without routes
  network          a private network namespace: lo and $ETHERNET, one end of a veth pair
                   (the other end, $ETHERNET_PEER, stays inside too); /sys is a sysfs of its own
                   (/sys/class/net lists these)
  $IN_BIN        logging stubs for ${STUBBED_PROGRAMS[*]},
                   first in PATH, followed by the build's tools directory and the build
                   directory; the real ip, ifconfig, route, killall, reboot... are covered by
                   the stub as well. After logging, ifconfig and route run the real
                   net-tools on the sandbox's network (only there); modprobe $MODULE_DEVICE and
                   rmmod $MODULE_DEVICE add and remove the module's lines in /proc/modules and
                   /proc/devices; ip and all others only log
  $IN_REPO       the repository; it (and the build directory) is also at its own path
  everything else of this machine is read-only.

Every stub appends its command line (program base name and arguments, joined by blanks, e.g.
"ip link set can0 down"; the name alone without arguments) to one command log. It records
what the program received: the shell has already removed quotes and surplus blanks.
The log is \$CFGD_SANDBOX_LOG inside ($IN_LOG); outside it is
$STATE_ROOT/run/commands.log for 'run' (kept after it stops) or
$STATE_ROOT/test-<pid>/commands.log for 'test' (removed afterwards unless
CFGD_SANDBOX_KEEP=1).
A benchmark reads /proc/<pid>/status of the processes it starts at $IN_PROC/<pid>/status.

Environment inside: PATH, CFGD_SANDBOX (the sandbox's token, also in $MARKER),
CFGD_SANDBOX_LOG, CFGD_SANDBOX_PROC=$IN_PROC, CFGD_SANDBOX_REPO=$IN_REPO,
CFGD_SANDBOX_BIN=$IN_BIN, CFGD_BUILD_DIR, LD_PRELOAD (the driver simulation) and
ASAN_OPTIONS with verify_asan_link_order=0 added (the simulation is loaded before the
sanitizer runtime of a sanitizer build).

Settings (environment): CFGD_BUILD_DIR (default <repo>/build), CFGD_BIN (the daemon for
'run', default \$CFGD_BUILD_DIR/cfgd), CFGD_SANDBOX_STATE (default <repo>/.sandbox),
CFGD_SANDBOX_KEEP=1 (keep the state directory of 'test'), CFGD_SANDBOX_MODULE=0 (the
device starts without the gateway module loaded; the daemon's modprobe loads it),
CFGD_SANDBOX_FLASH=1 (/mnt/user is the flash simulation <build>/$FLASHSIM over the same
files, which keeps written data until it is synced; 'setfattr -n trusted.flashsim.cut -v drop
/mnt/user' (or -v torn) cuts the power: unsynced data is lost, or torn; /dev has fuse too).
EOF
}

die() {
    echo "sandbox: $*" >&2
    exit 2
}

# ---------------------------------------------------------------------------------------------
# Outside: checks, starting and stopping sandboxes.

check_host() {
    [ "$(id -u)" -eq 0 ] || die "must run as root (it creates namespaces and mounts)"
    [ -z "${CFGD_SANDBOX:-}" ] || die "already inside a sandbox"
    local tool
    for tool in unshare nsenter setpriv mount findmnt flock; do
        command -v "$tool" >/dev/null ||
            die "'$tool' is missing: install util-linux (scripts/setup.sh does)"
    done
    for tool in ip "${REAL_NET_TOOLS[@]}"; do
        command -v "$tool" >/dev/null ||
            die "'$tool' is missing: install iproute2 and net-tools (scripts/setup.sh does)"
    done
    case "${CFGD_SANDBOX_MODULE:-1}" in
        0 | 1) ;;
        *) die "CFGD_SANDBOX_MODULE must be 0 or 1" ;;
    esac
    case "${CFGD_SANDBOX_FLASH:-0}" in
        0) ;;
        1) if [ ! -x "$BUILD_DIR/$FLASHSIM" ] || [ ! -c /dev/fuse ]; then
               die "CFGD_SANDBOX_FLASH=1 needs $BUILD_DIR/$FLASHSIM (target $FLASHSIM) and" \
                   "/dev/fuse (install fuse3; scripts/setup.sh does)"
           fi ;;
        *) die "CFGD_SANDBOX_FLASH must be 0 or 1" ;;
    esac
    local dir
    for dir in "$REPO" "$BUILD_DIR" "$STATE_ROOT"; do
        case "$(readlink -m "$dir")/" in
            /etc/* | /proc/* | /dev/* | /run/* | /mnt/.*)
                die "$dir cannot be reached inside the sandbox; move it elsewhere" ;;
        esac
    done
    for dir in "${COVERED[@]}"; do
        [ -d "$dir" ] || die "$dir does not exist on this machine"
    done
}

# A path as given on the command line, made absolute so that it means the same inside.
absolute_command() {
    case "$1" in
        */*) readlink -m "$1" ;;
        *) printf '%s\n' "$1" ;;
    esac
}

# Starts the sandbox in the background; sets `sandbox_pid` (the unshare process). The sandbox
# dies with this script: setpriv makes unshare die with its parent, and unshare kills the
# sandbox's first process, whose end ends every process of the PID namespace.
start_sandbox() {
    local mode=$1 state=$2
    shift 2
    SB_MODE=$mode SB_STATE=$state SB_REPO=$REPO SB_BUILD=$BUILD_DIR SB_CWD=$PWD \
        SB_HOST_NET=$(readlink /proc/self/ns/net) SB_MODULE=${CFGD_SANDBOX_MODULE:-1} \
        SB_FLASH=${CFGD_SANDBOX_FLASH:-0} \
        setpriv --pdeathsig KILL -- \
        unshare "${NAMESPACES[@]}" -- \
        /bin/bash "$SELF" __inside "$@" 0<&0 &
    sandbox_pid=$!
}

# Asks the sandbox of state directory $1 to stop: its first process passes SIGTERM on to the
# command it runs. Before that process has recorded itself there is nothing to stop gently.
stop_sandbox() {
    local inside_pid=
    [ -r "$1/sandbox.pid" ] && read -r inside_pid _ <"$1/sandbox.pid"
    if [ -n "$inside_pid" ]; then
        kill -TERM "$inside_pid" 2>/dev/null || true
    else
        kill -KILL "$sandbox_pid" 2>/dev/null || true
    fi
}

# Waits for the background process $1 to end and sets `exit_status` to its status. A wait cut
# short by a trapped signal (status 128 + n) is resumed, or asked again once the process has
# ended, since bash keeps the statuses of its ended background processes.
wait_for() {
    local status again
    while :; do
        status=0
        wait "$1" || status=$?
        kill -0 "$1" 2>/dev/null || break
    done
    if ((status > 128)); then
        again=0
        wait "$1" 2>/dev/null || again=$?
        ((again == 127)) || status=$again
    fi
    exit_status=$status
}

# The host PID of the first process of the running 'run' sandbox, if it is alive.
running_sandbox_pid() {
    local dir=$STATE_ROOT/run pid start
    [ -r "$dir/sandbox.pid" ] || return 1
    read -r pid start <"$dir/sandbox.pid" || return 1
    [ -r "/proc/$pid/stat" ] || return 1
    # Guards against a reused PID: the start time must match and it must be in another
    # mount namespace.
    [ "$(process_start_time "$pid")" = "$start" ] || return 1
    [ "$(readlink "/proc/$pid/ns/mnt")" != "$(readlink /proc/self/ns/mnt)" ] || return 1
    printf '%s\n' "$pid"
}

process_start_time() {
    local stat
    read -r stat <"/proc/$1/stat" || return 1
    start_time_of "$stat"
}

# The start time (field 22) of a /proc/<pid>/stat line.
start_time_of() {
    local -a fields
    read -r -a fields <<<"${1##*) }"  # the fields after the command name, which may hold blanks
    printf '%s\n' "${fields[19]}"
}

cmd_run() {
    local dir=$STATE_ROOT/run
    [ -x "$CFGD" ] || die "no daemon at $CFGD (build it, or set CFGD_BIN)"
    case "$(readlink -f "$CFGD")" in
        "$REPO"/* | "$BUILD_DIR"/*) ;;
        *) die "$CFGD must lie in $REPO or $BUILD_DIR to be reachable inside" ;;
    esac
    mkdir -p "$dir"
    # Held while this run lives, so that a second one cannot start even while this one sets up.
    local lock_fd
    exec {lock_fd}>>"$dir/lock"
    flock -n "$lock_fd" || die "a sandbox is already running; stop it first"
    rm -f "$dir/sandbox.pid" "$dir/sandbox.env"
    : >"$dir/commands.log"

    local stopping=0
    trap 'stopping=1; stop_sandbox "$dir"' INT TERM HUP
    start_sandbox run "$dir" "$(readlink -f "$CFGD")" "$@" {lock_fd}>&-
    while [ ! -s "$dir/sandbox.pid" ] && kill -0 "$sandbox_pid" 2>/dev/null; do
        sleep 0.05
    done
    if [ -s "$dir/sandbox.pid" ]; then
        ((stopping == 0)) || stop_sandbox "$dir"
        echo "sandbox: cfgd runs on host '$SANDBOX_HOSTNAME'; command log $dir/commands.log"
        echo "sandbox: try '$0 exec cfgctl get 0 2 0' (order number), '... get 2 1 2 2 1 8'" \
            "(LAN address and MAC), '... get 5 1 1 5 1 8' (route 1 state and peer);" \
            "Ctrl-C stops it"
        tail -n +1 -f --pid="$sandbox_pid" "$dir/commands.log" &
    fi
    wait_for "$sandbox_pid"
    wait  # for tail, which ends with the sandbox
    rm -f "$dir/sandbox.pid" "$dir/sandbox.env"
    trap - INT TERM HUP
    echo "sandbox: cfgd ended with status $exit_status; the command log stays in" \
        "$dir/commands.log"
    ((stopping)) && return 0
    return "$exit_status"
}

cmd_exec() {
    (($#)) || die "exec needs a command"
    local dir=$STATE_ROOT/run pid
    pid=$(running_sandbox_pid) || die "no sandbox is running; start one with '$0 run'"
    local -a environment
    mapfile -t environment <"$dir/sandbox.env"
    # shellcheck disable=SC2016  # expanded by the shell inside
    exec nsenter --target "$pid" --mount --uts --ipc --net --pid -- \
        /usr/bin/env "${environment[@]}" /bin/bash -c \
        'cd "$0" 2>/dev/null || cd /tmp; exec "$@"' "$PWD" "$(absolute_command "$1")" "${@:2}"
}

cmd_test() {
    (($#)) || die "test needs a command"
    mkdir -p "$STATE_ROOT"
    local dir=$STATE_ROOT/test-$$ stale
    for stale in "$STATE_ROOT"/test-*; do  # left by a 'test' that was killed
        [ -d "$stale" ] && ! kill -0 "${stale##*-}" 2>/dev/null && rm -rf "$stale"
    done
    rm -rf "$dir"
    mkdir "$dir"
    trap 'stop_sandbox "$dir"' INT TERM HUP
    start_sandbox test "$dir" "$(absolute_command "$1")" "${@:2}"
    wait_for "$sandbox_pid"
    trap - INT TERM HUP
    if [ "${CFGD_SANDBOX_KEEP:-0}" = 1 ]; then
        echo "sandbox: kept $dir" >&2
    else
        rm -rf "$dir"
    fi
    return "$exit_status"
}

# ---------------------------------------------------------------------------------------------
# Inside: the first process of the new namespaces builds the device and runs the command.

# Bind-remounts a mount read-only, keeping its other per-mount options. "bind" is essential:
# without it the remount would make the file system itself read-only, for this machine too.
make_read_only() {
    local target=$1 option kept=
    local -a options
    IFS=, read -r -a options <<<"$2"
    for option in "${options[@]}"; do
        [ "$option" = rw ] || [ "$option" = ro ] || kept+=",$option"
    done
    mount -o "remount,bind,ro$kept" "$target" 2>/dev/null || true  # some cannot, e.g. cgroups
}

make_read_write() {
    mount -o remount,bind,rw "$1"
}

# Makes every mount of this machine that stays visible read-only (the covered ones are hidden).
protect_host_mounts() {
    local target options covered hidden
    while read -r target options; do
        target=$(printf '%b' "$target")
        hidden=0
        for covered in "${COVERED[@]}"; do
            case "$target/" in "$covered"/*) hidden=1 ;; esac
        done
        ((hidden)) || make_read_only "$target" "$options"
    done < <(findmnt -rn -o TARGET,VFS-OPTIONS)
}

cover_with_tmpfs() {
    mount -t tmpfs -o "mode=${2:-0755},size=${3:-64m}" "sandbox-${1##*/}" "$1"
}

# Binds the directory open as descriptor $1 (opened before its path was covered) at $2.
bind_descriptor() {
    mkdir -p "$2"
    mount --no-canonicalize --bind "/proc/self/fd/$1" "$2"
    make_read_write "$2"
}

# The sandbox's own files, once the repository is reachable at its fixed place (its own path
# may lie under a covered directory, such as a clone in /tmp).
readonly IN_FILES=$IN_REPO/sandbox

install_stub() {
    install -D -m 0755 "$IN_FILES/stub" "$1"
}

# The device's Ethernet port, made with the real ip before the stub covers it; only in a network
# namespace other than this machine's.
make_network() {
    local own
    own=$(readlink /proc/self/ns/net)
    if [ -z "$own" ] || [ "$own" = "$SB_HOST_NET" ]; then
        die "not in a network namespace of its own; the network is left alone"
    fi
    ip link set lo up
    ip link add "$ETHERNET" type veth peer name "$ETHERNET_PEER"
    ip link set "$ETHERNET_PEER" up
    ip link set "$ETHERNET" up
}

# Copies of the real net-tools for the stub, taken before the stub covers them, and the network
# namespace they may act on (the stub checks it before running them).
save_net_tools() {
    local tool
    for tool in "${REAL_NET_TOOLS[@]}"; do
        install -m 0755 "$(readlink -f "$(command -v "$tool")")" "$IN_SIM/$tool"
    done
    readlink /proc/self/ns/net >"$IN_SIM/netns"
}

# The device's /proc files, without the gateway module's lines when the sandbox is to start
# without it. The modprobe stub adds the lines kept in $IN_SIM.
install_proc_files() {
    grep "^$MODULE_NAME " "$IN_FILES/device/modules" >"$IN_SIM/module.line"
    grep -E "^ *[0-9]+ $MODULE_DEVICE\$" "$IN_FILES/device/devices" >"$IN_SIM/device.line"
    install -m 0444 "$IN_FILES/device/boardinfo" /proc/
    if [ "$SB_MODULE" = 1 ]; then
        install -m 0444 "$IN_FILES/device/devices" "$IN_FILES/device/modules" /proc/
    else
        grep -vxF -f "$IN_SIM/module.line" "$IN_FILES/device/modules" >/proc/modules
        grep -vxF -f "$IN_SIM/device.line" "$IN_FILES/device/devices" >/proc/devices
        chmod 0444 /proc/modules /proc/devices
    fi
}

build_device() {
    local token=$1 repo_fd state_fd build_fd='' dev name
    exec {repo_fd}<"$SB_REPO" {state_fd}<"$SB_STATE"
    case "$SB_BUILD/" in
        "$SB_REPO"/*) ;;
        *) [ -d "$SB_BUILD" ] && exec {build_fd}<"$SB_BUILD" ;;
    esac
    local -A dev_fd=()
    local fd
    local -a devices=(null zero full random urandom)
    [ "$SB_FLASH" = 0 ] || devices+=(fuse)
    for dev in "${devices[@]}"; do
        exec {fd}<"/dev/$dev"
        dev_fd[$dev]=$fd
    done

    make_network
    # Both set the name of the new UTS namespace only.
    hostname "$SANDBOX_HOSTNAME" 2>/dev/null ||
        printf '%s\n' "$SANDBOX_HOSTNAME" >/proc/sys/kernel/hostname
    cover_with_tmpfs /tmp 1777
    mkdir /tmp/.etc
    cp -a /etc/. /tmp/.etc/
    cover_with_tmpfs /etc
    cp -a /tmp/.etc/. /etc/
    rm -rf /tmp/.etc
    cover_with_tmpfs /mnt
    cover_with_tmpfs /home
    cover_with_tmpfs /run
    cover_with_tmpfs /dev 0755 1m
    for dev in "${!dev_fd[@]}"; do
        touch "/dev/$dev"
        fd=${dev_fd[$dev]}
        mount --no-canonicalize --bind "/proc/self/fd/$fd" "/dev/$dev"
        exec {fd}<&-
    done
    ln -s /proc/self/fd /dev/fd
    ln -s /proc/self/fd/0 /dev/stdin
    ln -s /proc/self/fd/1 /dev/stdout
    ln -s /proc/self/fd/2 /dev/stderr
    mkdir /dev/shm
    cover_with_tmpfs /dev/shm 1777

    mkdir -p "$IN_PROC" /mnt/user "$IN_BIN" "$IN_SIM"
    mount -t proc -o nosuid,nodev,noexec sandbox-proc "$IN_PROC"
    cover_with_tmpfs /proc 0555 1m
    for name in "$IN_PROC"/*; do
        name=${name##*/}
        case "$name" in
            [0-9]* | devices | modules | boardinfo) ;;
            *) ln -s "$IN_PROC/$name" "/proc/$name" ;;
        esac
    done
    # A tmpfs cannot follow the processes, so the process directories get a fixed range of
    # links (LeakSanitizer reads /proc/<pid>/task); PIDs are handed out from 1 in the new
    # namespace, so the long-lived programs always fall into it.
    seq 1 "$PROC_PID_LINKS" | sed "s|^|$IN_PROC/|" | xargs ln -s -t /proc

    protect_host_mounts
    # A sysfs of the sandbox's network namespace: /sys/class/net lists its interfaces.
    mount -t sysfs -o ro,nosuid,nodev,noexec sandbox-sys /sys
    bind_descriptor "$repo_fd" "$IN_REPO"
    bind_descriptor "$state_fd" "$IN_STATE"
    exec {repo_fd}<&- {state_fd}<&-
    # The repository (and the build directory) at their own paths too, so that paths made on
    # this machine (by CMake, by a caller) work inside.
    mkdir -p "$SB_REPO"
    mount --bind "$IN_REPO" "$SB_REPO"
    make_read_write "$SB_REPO"
    if [ -n "$build_fd" ]; then
        bind_descriptor "$build_fd" "$SB_BUILD"
        exec {build_fd}<&-
    fi

    install_proc_files
    install -m 0644 "$IN_FILES/device/uboot_env" /tmp/uboot_env
    install -m 0644 "$IN_FILES/device/platform.config" /mnt/user/platform.config
    install -m 0644 "$IN_FILES/device/kiv_config.ini" /mnt/user/kiv_config.ini
    # Over the directory it serves, which it opens first: the files above are on the flash.
    [ "$SB_FLASH" = 0 ] || "$SB_BUILD/$FLASHSIM" /mnt/user /mnt/user
    rm -f /etc/resolv.conf
    install -m 0644 "$IN_FILES/device/resolv.conf" /etc/resolv.conf
    printf '%s\n' "$token" >"$MARKER"
    save_net_tools
    for name in "${STUBBED_PROGRAMS[@]}"; do
        install_stub "$IN_BIN/$name"
    done
    for name in "${STUBBED_PATHS[@]}"; do
        install_stub "$name"
    done
    local -A masked=()
    local real
    for name in "${MASKED_PROGRAMS[@]}"; do
        for dev in /usr/local/sbin /usr/local/bin /usr/sbin /usr/bin /sbin /bin; do
            real=$(readlink -f "$dev/$name") || continue
            [ -f "$real" ] || continue
            [ -z "${masked[$real]:-}" ] || continue
            # A multi-call binary also serves the shell and the tools the sandbox needs.
            [ "${real##*/}" != busybox ] || continue
            mount --bind "$IN_BIN/$name" "$real"
            masked[$real]=1
        done
    done
    : >>"$IN_LOG"
}

# The environment of everything run inside, one NAME=value per line.
inside_environment() {
    local token=$1 gwsim=$SB_BUILD/$GWSIM_LIBRARY
    if [ -f "$gwsim" ]; then
        printf '%s\n' "LD_PRELOAD=${LD_PRELOAD:+$LD_PRELOAD:}$gwsim" \
            "ASAN_OPTIONS=${ASAN_OPTIONS:+$ASAN_OPTIONS:}verify_asan_link_order=0"
    else
        echo "sandbox: no $gwsim (target cfgd_gwsim): the gateway driver's nodes" \
            "cannot be opened" >&2
    fi
    printf '%s\n' \
        "PATH=$IN_BIN:$SB_BUILD/tools:$SB_BUILD:/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin" \
        "CFGD_SANDBOX=$token" \
        "CFGD_SANDBOX_LOG=$IN_LOG" \
        "CFGD_SANDBOX_PROC=$IN_PROC" \
        "CFGD_SANDBOX_REPO=$IN_REPO" \
        "CFGD_SANDBOX_BIN=$IN_BIN" \
        "CFGD_BUILD_DIR=$SB_BUILD" \
        "HOME=/tmp" \
        "TMPDIR=/tmp"
}

# Passes a stop request on to the command; one that ignores it is killed after five seconds.
# shellcheck disable=SC2317  # called from a trap
stop_child() {
    [ -n "$1" ] || return 0
    kill -TERM "$1" 2>/dev/null || return 0
    local tenths
    for ((tenths = 0; tenths < 50; ++tenths)); do
        kill -0 "$1" 2>/dev/null || return 0
        /bin/sleep 0.1  # by its path: the sleep in PATH is the stub
    done
    kill -KILL "$1" 2>/dev/null || true
}

inside() {
    local stat host_pid start token
    export -n SB_MODE SB_STATE SB_REPO SB_BUILD SB_CWD SB_HOST_NET SB_MODULE SB_FLASH  # only for this script
    # Read through this machine's procfs while it is still mounted: the PID as seen outside,
    # which 'exec' needs for nsenter, and the start time that guards against a reused PID.
    read -r stat </proc/self/stat
    host_pid=${stat%% *}
    start=$(start_time_of "$stat")
    token=$(od -An -N8 -tx1 /dev/urandom | tr -d ' \n')
    set -o errtrace
    trap 'echo "sandbox: setting up failed at: $BASH_COMMAND" >&2' ERR
    build_device "$token"
    trap - ERR

    local -a environment
    mapfile -t environment < <(inside_environment "$token")
    export "${environment[@]}"
    cd "$SB_CWD" 2>/dev/null || cd /tmp

    local child=
    trap 'stop_child "$child"' TERM INT HUP
    "$@" 0<&0 &
    child=$!
    [ "$SB_MODE" != run ] || printf '%s\n' "${environment[@]}" >"$IN_STATE/sandbox.env"
    printf '%s %s\n' "$host_pid" "$start" >"$IN_STATE/sandbox.pid"
    wait_for "$child"
    # Leaving ends every process still in the PID namespace, and with them the namespaces.
    exit "$exit_status"
}

# ---------------------------------------------------------------------------------------------

main() {
    local command=${1:-}
    (($#)) && shift
    case "$command" in
        __inside) inside "$@" ;;
        run) check_host && cmd_run "$@" ;;
        exec) check_host && cmd_exec "$@" ;;
        test) check_host && cmd_test "$@" ;;
        -h | --help | help) usage ;;
        *) usage >&2; exit 2 ;;
    esac
}

# On one line, so that bash has read all of it before running it: replacing this file while a
# sandbox runs cannot change what that sandbox does next. Sourced (sandbox/fleet.sh), it only
# defines its functions.
if [ "${BASH_SOURCE[0]}" = "$0" ]; then main "$@"; exit; fi
