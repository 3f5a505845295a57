#!/bin/bash
# The collection's integration tests, in the controller of a simulated fleet of 3 or more:
#   sandbox/fleet.sh 3 collections/ansible_collections/cfgd/gateway/tests/integration/run.sh
set -euo pipefail
cd "$(dirname "$0")"
export ANSIBLE_FORCE_COLOR=0 ANSIBLE_NOCOLOR=1
ansible-playbook -i "$CFGD_FLEET_INVENTORY" fleet.yml
