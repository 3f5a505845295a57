#!/usr/bin/env bash
# The manual pages as a reader gets them: each one is rendered by man (LC_ALL=C, 80 columns)
# with every warning of man and groff on, and must render without a warning, with no line wider
# than the terminal and with no @NAME@ that configure left unreplaced. cfgctl(1) must also name
# every option and command word of cfgctl's own usage text, so that a new option cannot go
# undocumented.
#   man_test.sh MANDIR CFGCTL
set -uo pipefail
dir=$1 cfgctl=$2
export LC_ALL=C MANWIDTH=80
passed=0 failed=0
check() {  # check NAME COMMAND...
    if "${@:2}"; then
        passed=$((passed + 1))
    else
        failed=$((failed + 1))
        echo "FAIL $1"
    fi
}
for page in "$dir/cfgctl.1" "$dir/cfgd.8" "$dir/cfgd-web-passwd.8"; do
    warnings=$(man --warnings -l "$page" 2>&1 >/dev/null)
    printf '%s' "${warnings:+$warnings$'\n'}"
    check "$page renders without warnings" [ -z "$warnings" ]
    text=$(man -l "$page" 2>/dev/null | col -bx)
    check "$page: NAME section" grep -q '^NAME' <<<"$text"
    wide=$(awk 'length > 80' <<<"$text")
    printf '%s' "${wide:+$wide$'\n'}"
    check "$page: no line over 80 columns" [ -z "$wide" ]
    unreplaced=$(grep -n '@[A-Z_]*@' "$page")
    printf '%s' "${unreplaced:+$unreplaced$'\n'}"
    check "$page: every @NAME@ replaced" [ -z "$unreplaced" ]
done

# The page's source with roff's minus signs as the usage text writes them; each option and
# command word of the usage's synopsis lines and option lines must stand in a bold macro there.
source=$(sed 's/\\-/-/g' "$dir/cfgctl.1")
usage=$("$cfgctl" --help)
synopsis=$(grep -E '^ *(Usage: )?cfgctl ' <<<"$usage")
words=$(grep -oE -- '-[-A-Za-z]+' <<<"$synopsis"
        grep -E '^  -' <<<"$usage" | grep -oE -- '^  -[-A-Za-z]+|, -[-A-Za-z]+' | tr -d ' ,'
        tr ' |' '\n' <<<"$synopsis" | grep -xE '[a-z]+' | grep -vx cfgctl)
while read -r word; do
    check "cfgctl(1) documents $word" \
        grep -qE -- "^\.(B|BR|RB|BI) (.*[ \"])?$word([ \"]|$)" <<<"$source"
done < <(sort -u <<<"$words")
echo "$passed passed, $failed failed"
((failed == 0))
