#!/usr/bin/env bash
# unit_test.sh SOURCE_DIR ZEMHOST: systemd understands every line of the service's unit, and finds its sandbox tight.
set -euo pipefail
source_dir=$1 zemhost=$2
for line in User=zemhttpd ProtectSystem=strict PrivateTmp=yes NoNewPrivileges=yes SystemCallFilter=@system-service \
    CapabilityBoundingSet=CAP_NET_BIND_SERVICE; do
    grep -qxF "$line" "$source_dir/packaging/zemhttpd.service" || { printf 'the unit lacks %s\n' "$line"; exit 1; }
done
command -v systemd-analyze >/dev/null || { printf 'not tried: there is no systemd-analyze\n'; exit 77; }
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
# It asks for programs and manual pages by the names that they have once installed.
sed -e "s|/usr/sbin/zemhost|$zemhost|" -e '/^Documentation=/d' "$source_dir/packaging/zemhttpd.service" \
    >"$work/zemhttpd.service"
said=$(SYSTEMD_LOG_LEVEL=warning systemd-analyze verify --man=no "$work/zemhttpd.service" 2>&1 |
    grep -F zemhttpd.service || true)
[ -z "$said" ] || { printf '%s\n' "$said"; exit 1; }
# In tenths; 20 of 100 and less counts as well protected.
systemd-analyze security --offline=yes --threshold=20 --no-pager "$work/zemhttpd.service" >"$work/report" || {
    cat "$work/report"
    exit 1
}
tail -n 1 "$work/report"
