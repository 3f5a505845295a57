#!/usr/bin/env bash
# The collection's integration tests, in the controller of a simulated fleet of 3 or more:
#   sandbox/fleet.sh 3 collections/ansible_collections/cfgd/gateway/tests/integration/run.sh
set -euo pipefail
cd "$(dirname "$0")"
export ANSIBLE_FORCE_COLOR=0 ANSIBLE_NOCOLOR=1
ansible-playbook -i "$CFGD_FLEET_INVENTORY" fleet.yml
# The example rollout: through every device, then, refused by the first or cutting it off, no
# further; a device cut off comes back on its old values at its trial's deadline.
rollout() {
    ansible-playbook -i "$CFGD_FLEET_INVENTORY" ../../playbooks/rollout.yml -l gw-1,gw-2 \
        -e trial_seconds=10 -e can_bitrate="$@"
}
gw1() { fleet-exec 1 "$CFGD_BUILD_DIR/tools/cfgctl" "$@"; }
rollout 1000000
runs=$(cat "$CFGD_FLEET_DIR/gw-2/cfgctl.log")
if rollout 4999; then echo "FAIL: a refused rate went through"; exit 1; fi
if rollout 125000 -e '{"also_set": {"lan0.ipv4": "198.51.100.250"}}'; then echo "FAIL: gw-1 cut off, no stop"; exit 1; fi
[ "$(cat "$CFGD_FLEET_DIR/gw-2/cfgctl.log")" = "$runs" ] || { echo "FAIL: gw-2 was reached"; exit 1; }
for _ in $(seq 100); do gw1 trial >/dev/null 2>&1 || break; sleep 0.2; done
[ "$(gw1 get can1.bitrate lan0.ipv4 | tr '\n' ' ')" = "1000000 198.51.100.11 " ] || { echo "FAIL: gw-1 not rolled back"; exit 1; }
echo "integration: passed"
