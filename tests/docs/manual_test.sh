#!/usr/bin/env bash
# manual_test.sh PROGRAM PAGE: every option and exit code of --help is on the manual page and no other, and man has nothing
# to say against the page.
set -euo pipefail
program=$1 page=$2
# shellcheck source=tests/scratch.sh
. "$(dirname "${BASH_SOURCE[0]}")/../scratch.sh"

"$program" --help >"$work/help"
grep -oE '^  (-[a-z], )?--[a-z]+' "$work/help" | tr -d ' ' | tr , '\n' | sort >"$work/told"
[ -s "$work/told" ] || fail '--help tells no options'
sed -n '/^\.SH OPTIONS/,/^\.SH [^O]/p' "$page" | sed -n '/^\.B[IR]\{0,1\} /s/\\//gp' | grep -oE -- ' --?[a-z]+' |
    tr -d ' ' | sort -u >"$work/listed"
diff "$work/told" "$work/listed" || fail 'the page has other options than --help'

sed -n '/^Exit codes:/,$s/^  \([0-9]\)  .*/\1/p' "$work/help" >"$work/told"
[ -s "$work/told" ] || fail '--help tells no exit codes'
sed -n '/^\.SH EXIT STATUS/,/^\.SH [^E]/p' "$page" | sed -n 's/^\.B \([0-9]\)$/\1/p' >"$work/listed"
diff "$work/told" "$work/listed" || fail 'the page has other exit codes than --help'

if command -v man >/dev/null; then
    said=$(LC_ALL=C.UTF-8 MANROFFSEQ='' MANWIDTH=80 man --warnings -E UTF-8 -l -Tutf8 -Z "$page" 2>&1 >/dev/null)
    [ -z "$said" ] || fail "man says: $said"
fi
