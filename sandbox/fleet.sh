#!/usr/bin/env bash
# A simulated fleet of gateways for the Ansible collection: one private sandbox holding a
# controller namespace and N simulated devices, each a single-device sandbox (sandbox/sandbox.sh's
# set-up: namespaces, tmpfs, logging stubs, simulated gateway driver, its own cfgd) reached over
# SSH (Debian's dropbear) on a bridge of the controller.
set -euo pipefail

FLEET_SELF=$(readlink -f "${BASH_SOURCE[0]}")
# The single device's constants and functions (build_device, protect_host_mounts, ...).
# shellcheck source=sandbox/sandbox.sh
. "$(dirname "$FLEET_SELF")/sandbox.sh"

readonly FLEET_SELF
readonly FLEET_MAX=200                # addresses 198.51.100.11 .. .210
readonly NET_PREFIX=198.51.100        # TEST-NET-2: never routed, and only inside anyway
readonly CONTROLLER_ADDRESS=$NET_PREFIX.1
readonly BRIDGE=fleet0
readonly CONTROLLER_HOSTNAME=fleet-controller
# Inside the controller (its /tmp is a tmpfs of its own).
readonly FLEET_DIR=/tmp/fleet
readonly FLEET_RUN=$FLEET_DIR/.run    # keys and the devices' start-up reports
readonly READY_SECONDS=120
# Inside a device (its /mnt is a tmpfs of its own).
readonly DEVICE_FILES=/mnt/.fleet     # root's login shell and the host key
readonly DEVICE_HOME=/home/root       # root's home: its authorized_keys
readonly DEVICE_BIN=/usr/local/sbin   # first in dropbear's PATH for root: the cfgctl wrapper

fleet_usage() {
    cat <<EOF
Usage: sandbox/fleet.sh N [COMMAND [ARG...]]

Starts N (1 to $FLEET_MAX) simulated gateways and a controller in a private sandbox (mount, UTS,
IPC, network and PID namespaces), runs COMMAND in the controller (no COMMAND: an interactive
shell), then stops everything and exits with COMMAND's status. Must run as root, from a checkout
with a build (CFGD_BUILD_DIR, default <repo>/build: targets cfgd, cfgctl, cfgd_gwsim).

Device K: host name gw-K, address $NET_PREFIX.(10+K)/24 on its eth0 (a veth to the bridge
$BRIDGE of the controller, $CONTROLLER_ADDRESS), namespaces of its own, the single sandbox's
device (sandbox/sandbox.sh help) with its own cfgd, and dropbear on port 22 (any address), that
lets in root with the run's key only; an SSH session finds cfgctl in PATH.

In the controller:
  CFGD_FLEET_INVENTORY   Ansible inventory: group gateways, hosts gw-1..gw-N
  CFGD_FLEET_DIR         $FLEET_DIR: key (the run's SSH key), inventory.ini, ssh_config
                         (root's ~/.ssh/config in the controller: ssh gw-K works), bin/, and per
                         device gw-K/: commands.log (the stubs' command log), cfgctl.log (each
                         cfgctl run's arguments), ssh.log (dropbear's log), shell.log (each SSH
                         session's command, one line per session), cfgd.log (cfgd's output),
                         setup.log (the device's set-up errors)
  PATH                   starts with \$CFGD_FLEET_DIR/bin: fleet-exec K COMMAND... runs COMMAND
                         in device K (its namespaces and environment), e.g. fleet-exec 2 cfgctl dump
  ANSIBLE_INVENTORY=\$CFGD_FLEET_INVENTORY, ANSIBLE_COLLECTIONS_PATH=<repo>/collections,
                         ANSIBLE_HOST_KEY_CHECKING=False, HOME=/root and ANSIBLE_LOCAL_TEMP
                         on tmpfs
This machine's mounts are read-only there, except the repository and the build directory.
EOF
}

fleet_die() {
    echo "fleet: $*" >&2
    exit 2
}

# ---------------------------------------------------------------------------------------------
# Outside.

fleet_main() {
    local count=${1:-}
    case "$count" in
        -h | --help | help) fleet_usage; return 0 ;;
        __controller) shift; controller "$@" ;;  # never returns
        __device) shift; device "$@" ;;          # never returns
    esac
    if [[ ! $count =~ ^[1-9][0-9]*$ ]] || ((count > FLEET_MAX)); then
        fleet_usage >&2
        exit 2
    fi
    shift
    check_host
    local tool
    for tool in /usr/sbin/dropbear dropbearkey ssh-keygen ssh; do
        command -v "$tool" >/dev/null ||
            fleet_die "'$tool' is missing: install dropbear-bin and openssh-client (scripts/setup.sh does)"
    done
    local program
    for program in cfgd tools/cfgctl "$GWSIM_LIBRARY"; do
        [ -e "$BUILD_DIR/$program" ] ||
            fleet_die "no $BUILD_DIR/$program (build the targets cfgd cfgctl cfgd_gwsim)"
    done
    local dir
    for dir in "$REPO" "$BUILD_DIR"; do
        case "$dir/" in "$FLEET_DIR"/*) fleet_die "$dir would be covered by the fleet's files" ;; esac
    done
    local -a command=()
    (($#)) && command=("$(absolute_command "$1")" "${@:2}")
    SB_REPO=$REPO SB_BUILD=$BUILD_DIR SB_CWD=$PWD SB_HOST_NET=$(readlink /proc/self/ns/net) \
        setpriv --pdeathsig KILL -- \
        unshare "${NAMESPACES[@]}" -- \
        /bin/bash "$FLEET_SELF" __controller "$count" "${command[@]}" 0<&0 &
    local child=$!
    trap ':' INT  # the foreground command gets it; the sandbox ends with that command
    trap 'stop_fleet "$child"' TERM HUP
    wait_for "$child"
    return "$exit_status"
}

# Passes a stop request on to the controller (unshare blocks it); before there is one, ends all.
# shellcheck disable=SC2317  # called from a trap
stop_fleet() {
    local controller=
    read -r controller _ <"/proc/$1/task/$1/children" 2>/dev/null || true
    if [ -n "$controller" ]; then
        kill -TERM "$controller" 2>/dev/null || true
    else
        kill -KILL "$1" 2>/dev/null || true
    fi
}

# ---------------------------------------------------------------------------------------------
# The controller: the first process of the outer namespaces.

controller() {
    local count=$1
    shift
    export -n SB_REPO SB_BUILD SB_CWD SB_HOST_NET
    # A PID namespace's first process gets only the signals it handles.
    trap 'exit 143' TERM HUP
    set -o errtrace
    trap 'echo "fleet: setting up failed at: $BASH_COMMAND" >&2' ERR
    build_controller "$count"
    start_devices "$count"
    trap - ERR

    cd "$SB_CWD" 2>/dev/null || cd /tmp
    export HOME=/root TMPDIR=/tmp PATH=$FLEET_DIR/bin:$PATH
    export CFGD_FLEET_DIR=$FLEET_DIR CFGD_FLEET_INVENTORY=$FLEET_DIR/inventory.ini
    export ANSIBLE_INVENTORY=$CFGD_FLEET_INVENTORY  # so that -i can be left out
    export ANSIBLE_COLLECTIONS_PATH=$SB_REPO/collections ANSIBLE_HOST_KEY_CHECKING=False
    export ANSIBLE_LOCAL_TEMP=/tmp/ansible-local CFGD_BUILD_DIR=$SB_BUILD
    local -a command=("$@")
    if ((${#command[@]} == 0)); then
        write_shell_rc "$count" >"$FLEET_RUN/bashrc"
        command=(/bin/bash --rcfile "$FLEET_RUN/bashrc" -i)
    fi
    local child=
    trap ':' INT
    trap 'stop_child "$child"' TERM HUP
    "${command[@]}" 0<&0 &
    child=$!
    wait_for "$child"
    # Leaving ends every process of the PID namespace, the devices' with them.
    exit "$exit_status"
}

build_controller() {
    local count=$1 repo_fd build_fd target options
    exec {repo_fd}<"$SB_REPO" {build_fd}<"$SB_BUILD"
    # This machine's mounts, read-only; what follows is the controller's own.
    while read -r target options; do
        make_read_only "$(printf '%b' "$target")" "$options"
    done < <(findmnt -rn -o TARGET,VFS-OPTIONS)
    mount -t proc -o nosuid,nodev,noexec fleet-proc /proc
    mount -t sysfs -o ro,nosuid,nodev,noexec fleet-sys /sys
    cover_with_tmpfs /tmp 1777
    cover_with_tmpfs /run
    cover_with_tmpfs /mnt
    cover_with_tmpfs /home
    cover_with_tmpfs /root 0700
    cover_with_tmpfs /dev/shm 1777  # Python's multiprocessing (Ansible's forks)
    # The checkout and the build at their own paths, also when they lie below those.
    bind_descriptor "$repo_fd" "$SB_REPO"
    case "$SB_BUILD/" in
        "$SB_REPO"/*) ;;
        *) bind_descriptor "$build_fd" "$SB_BUILD" ;;
    esac
    exec {repo_fd}<&- {build_fd}<&-
    hostname "$CONTROLLER_HOSTNAME"

    [ "$(readlink /proc/self/ns/net)" != "$SB_HOST_NET" ] ||
        fleet_die "not in a network namespace of its own; the network is left alone"
    ip link set lo up
    ip link add "$BRIDGE" type bridge
    ip addr add "$CONTROLLER_ADDRESS/24" dev "$BRIDGE"
    ip link set "$BRIDGE" up

    mkdir -p "$FLEET_RUN" "$FLEET_DIR/bin" /tmp/ansible-local
    ssh-keygen -q -t ed25519 -N '' -C fleet -f "$FLEET_DIR/key"
    dropbearkey -t ed25519 -f "$FLEET_RUN/host_key" >/dev/null 2>&1
    write_inventory "$count" >"$FLEET_DIR/inventory.ini"
    write_ssh_config "$count" >"$FLEET_DIR/ssh_config"
    install -d -m 0700 /root/.ssh
    ln -s "$FLEET_DIR/ssh_config" /root/.ssh/config  # ssh gw-K, from the controller
    write_fleet_exec >"$FLEET_DIR/bin/fleet-exec"
    chmod 0755 "$FLEET_DIR/bin/fleet-exec"
}

write_inventory() {
    local k
    echo "[gateways]"
    for ((k = 1; k <= $1; ++k)); do
        echo "gw-$k ansible_host=$NET_PREFIX.$((10 + k))"
    done
    cat <<EOF

[gateways:vars]
ansible_user=root
ansible_ssh_private_key_file=$FLEET_DIR/key
ansible_ssh_common_args='-o StrictHostKeyChecking=no -o UserKnownHostsFile=/dev/null'
EOF
}

write_ssh_config() {
    local k
    for ((k = 1; k <= $1; ++k)); do
        printf 'Host gw-%d\n    HostName %s\n' "$k" "$NET_PREFIX.$((10 + k))"
    done
    cat <<EOF
Host *
    User root
    IdentityFile $FLEET_DIR/key
    StrictHostKeyChecking no
    UserKnownHostsFile /dev/null
    LogLevel ERROR
EOF
}

write_fleet_exec() {
    cat <<'EOF'
#!/bin/bash
# fleet-exec K COMMAND [ARG...]: runs COMMAND inside simulated device K (its namespaces and the
# environment its cfgd has) and exits with its status.
set -euo pipefail
dir=${CFGD_FLEET_DIR:-/tmp/fleet}/gw-${1:-}
if (($# < 2)) || [[ ! ${1} =~ ^[0-9]+$ ]] || [ ! -s "$dir/.pid" ]; then
    echo "usage: fleet-exec K COMMAND [ARG...] (K: a device of this fleet)" >&2
    exit 2
fi
read -r pid <"$dir/.pid"
mapfile -t environment <"$dir/.environment"
shift
exec nsenter --target "$pid" --mount --uts --ipc --net --pid -- /usr/bin/env -i \
    "${environment[@]}" /bin/bash -c 'cd /tmp && exec "$@"' fleet-exec "$@"
EOF
}

write_shell_rc() {
    cat <<EOF
PS1='fleet-controller:\w# '
echo "fleet: $1 devices gw-1..gw-$1 at $NET_PREFIX.11.. answer SSH; try:"
echo "  ssh gw-1 cfgctl get general.order_number       (~/.ssh/config: \$CFGD_FLEET_DIR/ssh_config)"
echo "  ansible gateways -m raw -a 'cfgctl get can0.bitrate'      (inventory: \$CFGD_FLEET_INVENTORY)"
echo "  ansible-playbook $REPO/bench/fleet/change.yml   (the collection cfgd.gateway)"
echo "  fleet-exec 1 cfgctl dump;  tail \$CFGD_FLEET_DIR/gw-1/commands.log"
echo "exit ends the fleet"
EOF
}

# Starts the devices side by side, gives each its eth0 on the bridge, and waits until every one
# answers on port 22 with its cfgd running.
start_devices() {
    local count=$1 k own
    local -a pids=()
    own=$(readlink /proc/self/ns/net)
    for ((k = 1; k <= count; ++k)); do
        mkdir -p "$FLEET_DIR/gw-$k"
        SB_MODE=fleet SB_STATE=$FLEET_DIR/gw-$k SB_REPO=$SB_REPO SB_BUILD=$SB_BUILD \
            SB_HOST_NET=$own SB_MODULE=1 SB_FLASH=0 \
            unshare "${NAMESPACES[@]}" -- \
            /bin/bash "$FLEET_SELF" __device "$k" </dev/null 2>"$FLEET_DIR/gw-$k/setup.log" &
        pids[k]=$!
    done
    for ((k = 1; k <= count; ++k)); do
        while [ "$(readlink "/proc/${pids[k]}/ns/net" 2>/dev/null)" = "$own" ]; do
            /bin/sleep 0.01
        done
        ip link add "veth-gw-$k" type veth peer name "$ETHERNET" netns "${pids[k]}"
        ip link set "veth-gw-$k" master "$BRIDGE" up
    done
    local tenths
    for ((k = 1; k <= count; ++k)); do
        for ((tenths = 0; ; ++tenths)); do
            [ -e "$FLEET_DIR/gw-$k/.pid" ] && break
            kill -0 "${pids[k]}" 2>/dev/null ||
                fleet_die "device gw-$k failed to start: $(tail -n 3 "$FLEET_DIR/gw-$k/setup.log")"
            ((tenths < READY_SECONDS * 10)) || fleet_die "device gw-$k did not start in time"
            /bin/sleep 0.1
        done
    done
}

# ---------------------------------------------------------------------------------------------
# A device: the first process of its own namespaces, inside the controller's.

# Replaces the single sandbox's eth0 (a veth pair of its own): the controller hands this one in,
# its other end on the bridge.
make_network() {
    [ "$(readlink /proc/self/ns/net)" != "$SB_HOST_NET" ] ||
        fleet_die "not in a network namespace of its own; the network is left alone"
    ip link set lo up
    local tries
    for ((tries = 0; tries < 1000; ++tries)); do
        ip link show "$ETHERNET" >/dev/null 2>&1 && break
        /bin/sleep 0.01
    done
    ip addr add "$DEVICE_ADDRESS/24" dev "$ETHERNET"
    ip link set "$ETHERNET" up
}

device() {
    local k=$1 stat host_pid token key_fd host_key_fd
    export -n SB_MODE SB_STATE SB_REPO SB_BUILD SB_HOST_NET SB_MODULE SB_FLASH
    readonly DEVICE_ADDRESS=$NET_PREFIX.$((10 + k)) DEVICE_HOSTNAME=gw-$k
    # As the controller sees it (its procfs is still mounted): fleet-exec's target.
    read -r stat </proc/self/stat
    host_pid=${stat%% *}
    token=$(od -An -N8 -tx1 /dev/urandom | tr -d ' \n')
    exec {key_fd}<"$FLEET_DIR/key.pub" {host_key_fd}<"$FLEET_RUN/host_key"
    set -o errtrace
    trap 'echo "fleet: gw-'"$k"': setting up failed at: $BASH_COMMAND" >&2' ERR
    build_device "$token"
    hostname "$DEVICE_HOSTNAME"
    sed -i -e "s/^\(devicename *= \).*/\1$DEVICE_HOSTNAME/" \
        -e "s/^\(ipv4 *= \).*/\1$DEVICE_ADDRESS/" \
        -e "s/^\(description *= \).*/\1Simulated gateway $DEVICE_HOSTNAME of the fleet/" \
        /mnt/user/kiv_config.ini
    set_up_ssh "$key_fd" "$host_key_fd"
    exec {key_fd}<&- {host_key_fd}<&-

    local -a environment
    mapfile -t environment < <(inside_environment "$token")
    install_cfgctl_wrapper "${environment[@]}"
    # dropbear with the environment of a device's init, not the simulation's.
    env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin /usr/sbin/dropbear -F -E -s -g -j -k -m \
        -r "$DEVICE_FILES/host_key" -p 22 -P /run/dropbear.pid \
        </dev/null 2>>"$IN_STATE/ssh.log" &
    export "${environment[@]}"
    cd /tmp
    "$SB_BUILD/cfgd" </dev/null >>"$IN_STATE/cfgd.log" 2>&1 &
    local tenths
    for ((tenths = 0; tenths < 300; ++tenths)); do
        [ -s /tmp/kiv_lock ] && ss -Hltn "sport = :22" | grep -q . && break
        /bin/sleep 0.1
    done
    [ -s /tmp/kiv_lock ] || fleet_die "gw-$k: cfgd did not start (see its cfgd.log)"
    trap - ERR
    printf '%s\n' "${environment[@]}" >"$IN_STATE/.environment"
    printf '%s\n' "$host_pid" >"$IN_STATE/.pid"
    # Stays for dropbear and whatever the sessions leave running; the controller's end ends it.
    trap 'exit 0' TERM HUP
    while :; do
        /bin/sleep 3600 &
        wait $! || true
    done
}

# root of the device: home in the device's /home with only the run's key, a login shell that logs
# each session's command, ptys of the device's own for sessions that ask for one (ssh -tt).
set_up_ssh() {
    mkdir -p "$DEVICE_FILES" "$DEVICE_HOME/.ssh"
    cat <&"$2" >"$DEVICE_FILES/host_key"
    chmod 0600 "$DEVICE_FILES/host_key"
    cat <&"$1" >"$DEVICE_HOME/.ssh/authorized_keys"
    chmod 0700 "$DEVICE_HOME" "$DEVICE_HOME/.ssh"
    chmod 0600 "$DEVICE_HOME/.ssh/authorized_keys"
    cat >"$DEVICE_FILES/shell" <<EOF
#!/bin/sh
# root's login shell on $DEVICE_HOSTNAME: each session's command as one line of shell.log.
if [ "\$1" = -c ]; then
    printf '%s\n' "\$(printf '%s' "\$2" | tr '\n' ' ')" >>$IN_STATE/shell.log
    exec /bin/sh "\$@"
fi
echo '(login shell)' >>$IN_STATE/shell.log
exec /bin/sh -l
EOF
    chmod 0755 "$DEVICE_FILES/shell"
    echo "$DEVICE_FILES/shell" >>/etc/shells
    sed -i "s|^root:\([^:]*\):\([^:]*\):\([^:]*\):\([^:]*\):[^:]*:[^:]*\$|root:\1:\2:\3:\4:$DEVICE_HOME:$DEVICE_FILES/shell|" \
        /etc/passwd
    # Login records of the device's own, so that dropbear has nothing to complain about.
    cover_with_tmpfs /var/log 0755 1m
    touch /var/log/lastlog /var/log/wtmp /run/utmp
    mkdir -p /dev/pts
    mount -t devpts -o newinstance,ptmxmode=0666,mode=0620 fleet-pts /dev/pts
    ln -s pts/ptmx /dev/ptmx
    mknod -m 0666 /dev/tty c 5 0
}

# The words of a sh command line, each in single quotes.
sh_quoted() {
    local word
    for word; do
        printf " '%s'" "${word//\'/\'\\\'\'}"
    done
}

# cfgctl in an SSH session's PATH: logs its arguments, then runs the build's cfgctl with the
# simulation's environment (the driver library, the stubs first in PATH).
install_cfgctl_wrapper() {
    cover_with_tmpfs "$DEVICE_BIN"
    cat >"$DEVICE_BIN/cfgctl" <<EOF
#!/bin/sh
printf '%s\n' "\$*" >>$IN_STATE/cfgctl.log
exec /usr/bin/env -i$(sh_quoted "$@" "$SB_BUILD/tools/cfgctl") "\$@"
EOF
    chmod 0755 "$DEVICE_BIN/cfgctl"
    make_read_only "$DEVICE_BIN" rw
}

fleet_main "$@"; exit
