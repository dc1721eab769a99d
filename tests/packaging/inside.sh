# shellcheck shell=bash disable=SC2034
# inside.sh, sourced by what runs as root in the container of a test: its steps, each by name, and the line FAILED of the one
# that failed. The last one prints "All steps done.".
set -Eeuo pipefail
cd /root/try
export DEBIAN_FRONTEND=noninteractive
registry=/etc/zemhttpd/zemhttpd.reg
log=/var/log/zemhttpd/zemhost.log
volume=/var/lib/zemhttpd/volume

fail() {
    printf 'FAILED: %s\n' "$1"
    systemctl --no-pager --full status zemhttpd.service || true
    tail -n 5 "$log" || true
    exit 1
}
trap 'fail "line $LINENO: $BASH_COMMAND"' ERR
step() { printf '%s\n' "$1"; }

# The loopback needs rights over networks, which a container inside a container may not have.
if ! grep -qw 127.0.0.1 /proc/net/fib_trie; then
    printf 'No loopback.\n'
    exit 0
fi

# The session of the installed README, in a folder of its own: ends well, complains of nothing, prints what it is said to print.
session_of_the_readme() {
    local wanted printed
    zcat -f /usr/share/doc/zemhttpd/README.md* | sed -n '/^```sh$/,/^```$/{/^```/!p}' >session.sh
    [ "$(grep -c '^zem ' session.sh)" -gt 5 ] || fail 'the README has no session'
    mkdir session
    ln -s $volume session/volume
    (cd session && bash -euo pipefail ../session.sh </dev/null >../said 2>../complained) || fail "$(tail -n 3 said complained)"
    [ ! -s complained ] || fail "$(cat complained)"
    [ "$(grep -c '^# -> ' session.sh)" -gt 4 ] || fail 'the README does not say what is printed'
    exec 3<said
    while IFS= read -r wanted; do
        while IFS= read -r printed <&3 || fail "not printed, or not in this order: $wanted"; do
            [ "$printed" != "$wanted" ] || break
        done
    done < <(sed -n 's/^# -> //p' session.sh)
    exec 3<&-
}
