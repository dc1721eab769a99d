#!/usr/bin/env bash
# unit_test.sh SOURCE_DIR ZEMHOST: systemd understands every line of the service's unit, and finds its sandbox tight.
set -euo pipefail
source_dir=$1 zemhost=$2
# shellcheck source=tests/scratch.sh
. "$source_dir/tests/scratch.sh"
told=(report)
for line in User=zemhttpd ProtectSystem=strict PrivateTmp=yes NoNewPrivileges=yes SystemCallFilter=@system-service \
    CapabilityBoundingSet=CAP_NET_BIND_SERVICE; do
    grep -qxF "$line" "$source_dir/packaging/zemhttpd.service" || fail "the unit lacks $line"
done
command -v systemd-analyze >/dev/null || cannot 'there is no systemd-analyze'
# It asks for programs and manual pages by the names that they have once installed.
sed -e "s|/usr/sbin/zemhost|$zemhost|" -e '/^Documentation=/d' "$source_dir/packaging/zemhttpd.service" \
    >"$work/zemhttpd.service"
said=$(SYSTEMD_LOG_LEVEL=warning systemd-analyze verify --man=no "$work/zemhttpd.service" 2>&1 |
    grep -F zemhttpd.service || true)
[ -z "$said" ] || fail "$said"
# In tenths; 20 of 100 and less counts as well protected.
systemd-analyze security --offline=yes --threshold=20 --no-pager "$work/zemhttpd.service" >"$work/report" ||
    fail 'its sandbox is not tight'
tail -n 1 "$work/report"
