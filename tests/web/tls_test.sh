#!/usr/bin/env bash
# The web server's TLS as Debian's testssl.sh sees it, inside the sandbox, offline: no protocol
# below TLS 1.2 and no weak cipher category offered, TLS 1.2 and 1.3 with strong ciphers offered,
# HSTS sent.
#   sandbox/sandbox.sh test tests/web/tls_test.sh CFGCTL
set -euo pipefail
repo=$(dirname "$(dirname "$(dirname "$(readlink -f "$0")")")")
printf 'tls-test-password\n' | "$repo/web/cfgd-web-passwd" tester /tmp/tls.htpasswd 2>/dev/null
CFGD_CFGCTL=$1 "$repo/sandbox/web-server.sh" start 8301 /tmp/tls.lock /tmp/tls.htpasswd >/dev/null
trap '"$repo/sandbox/web-server.sh" stop 8301' EXIT
testssl --quiet --warnings batch --color 0 --jsonfile /tmp/tls.json -p -s -h \
    https://127.0.0.1:8301/ >/tmp/tls.txt 2>&1 || { cat /tmp/tls.txt; exit 1; }
python3 - /tmp/tls.json <<'CHECK'
import json, sys
found = {f["id"]: (f["severity"], f["finding"]) for f in json.load(open(sys.argv[1]))}
offered = ["TLS1_2", "TLS1_3", "cipherlist_STRONG"]
failed = [f"{name}: {found.get(name)}" for name in offered + "SSLv2 SSLv3 TLS1 TLS1_1 cipherlist_NULL "
          "cipherlist_aNULL cipherlist_EXPORT cipherlist_LOW cipherlist_3DES_IDEA cipherlist_AVERAGE".split()
          if not found.get(name, ("", ""))[1].startswith("offered" if name in offered else "not offered")]
failed += ["HSTS not sent"] * (found.get("HSTS_time", ("",))[0] != "OK")
sys.exit("\n".join(failed) or None)
CHECK
