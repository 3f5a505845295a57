#!/usr/bin/env bash
# The web server's TLS as Debian's testssl.sh sees it, inside the sandbox, offline: no protocol
# below TLS 1.2 and no weak cipher category offered, TLS 1.2 or 1.3 with strong ciphers offered,
# HSTS sent, and no finding worse than informational.
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
found = {f["id"]: f for f in json.load(open(sys.argv[1]))}
wanted = {**dict.fromkeys(["SSLv2", "SSLv3", "TLS1", "TLS1_1", "cipherlist_NULL", "cipherlist_aNULL",
                           "cipherlist_EXPORT", "cipherlist_LOW", "cipherlist_3DES_IDEA",
                           "cipherlist_AVERAGE"], "not offered"),
          "TLS1_2": "offered", "TLS1_3": "offered", "cipherlist_STRONG": "offered"}
failed = [f"{name}: {found.get(name, {}).get('finding')!r}, not {text!r}" for name, text in wanted.items()
          if not found.get(name, {}).get("finding", "").startswith(text)]
failed += ["HSTS not sent"] * (found.get("HSTS_time", {}).get("severity") != "OK")
# engine_problem: Debian's openssl has no GOST engine, which says nothing about the server.
failed += [f"{f['id']} {f['severity']}: {f['finding']}" for f in found.values()
           if f["severity"] not in ("OK", "INFO") and f["id"] != "engine_problem"]
print("\n".join(failed) or f"{len(found)} findings, all as they should be")
sys.exit(1 if failed else 0)
CHECK
