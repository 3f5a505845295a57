#!/usr/bin/env bash
# The simulated fleet: each device answers SSH with its own host name, address and cfgd, logs the
# session and the cfgctl run, and while the fleet runs nothing of it shows in this machine's
# network namespace or host name.
set -euo pipefail
if [ "${1:-}" = inside ]; then
    for k in 1 2 3; do
        answer=$(ssh -F "$CFGD_FLEET_DIR/ssh_config" "gw-$k" hostname\; cfgctl get lan0.ipv4)
        [ "$answer" = "$(printf 'gw-%d\n198.51.100.%d' "$k" $((10 + k)))" ] &&
            grep -qx 'get lan0.ipv4' "$CFGD_FLEET_DIR/gw-$k/cfgctl.log" &&
            grep -q "Pubkey auth succeeded for 'root'" "$CFGD_FLEET_DIR/gw-$k/ssh.log" || exit 1
    done
    touch "$2/ready"
    until [ -e "$2/done" ]; do sleep 0.1; done
    exit
fi
sync_dir=$(mktemp -d "${CFGD_BUILD_DIR:?}/fleet-test.XXXXXX")  # kept after a failure
host_name=$(hostname)
"$(dirname "$0")/../../sandbox/fleet.sh" 3 "$0" inside "$sync_dir" &
until [ -e "$sync_dir/ready" ]; do kill -0 $! || { wait $!; exit 1; }; sleep 0.1; done
leaks=$(ss -Hltnp | grep -E 'dropbear|cfgd|198\.51\.100\.' || ip -o addr | grep '198\.51\.100\.' ||
    ip -o link | grep -E 'fleet0|veth-gw' || [ "$(hostname)" = "$host_name" ] || echo "host name")
touch "$sync_dir/done"
wait $! && rm -r "$sync_dir" && [ -z "$leaks" ] || { echo "failed; reaches this machine: ${leaks:-nothing}" >&2; exit 1; }
