#!/usr/bin/env bash
# The manual pages as a reader gets them (LC_ALL=C, 80 columns): no warning of man or groff, no
# line wider than the terminal, no @NAME@ left by configure; and cfgctl(1) names, in a bold
# macro, every option and command word of cfgctl's own usage, so that none goes undocumented.
#   man_test.sh MANDIR CFGCTL
set -uo pipefail
dir=$1 cfgctl=$2
export LC_ALL=C MANWIDTH=80
failed=0
fail() { echo "FAIL $*"; failed=$((failed + 1)); }
for page in "$dir/cfgctl.1" "$dir/cfgd.8" "$dir/cfgd-web-passwd.8" "$dir/cfgd-web-cert.8"; do
    warnings=$(man --warnings -l "$page" 2>&1 >/dev/null) && [ -z "$warnings" ] ||
        fail "$page: $warnings"
    wide=$(man -l "$page" 2>/dev/null | col -bx | awk 'length > 80')
    [ -z "$wide" ] || fail "$page: wider than 80 columns: $wide"
    ! grep -n '@[A-Z_]*@' "$page" || fail "$page: @NAME@ left"
done
source=$(sed 's/\\-/-/g' "$dir/cfgctl.1")
usage=$("$cfgctl" --help)
synopsis=$(grep -E '^ *(Usage: )?cfgctl ' <<<"$usage")
words=$(grep -oE -- '-[-A-Za-z]+' <<<"$synopsis"
        grep -oE -- '^  -[-A-Za-z]+|, -[-A-Za-z]+' <<<"$usage" | tr -d ' ,'
        tr ' |' '\n' <<<"$synopsis" | grep -xE '[a-z]+' | grep -vx cfgctl)
for word in $(sort -u <<<"$words"); do
    grep -qE -- "^\.(B|BR|RB|BI) (.*[ \"])?$word([ \"]|$)" <<<"$source" ||
        fail "cfgctl(1) does not document $word"
done
echo "$failed failed"
((failed == 0))
