#!/usr/bin/env bash
# rights_test.sh ZEMHOST SOURCE_DIR CASE: what the program does with the rights that it has, has not, or gives up.
# shellcheck source=tests/zemhost/cases.sh
. "$(dirname "${BASH_SOURCE[0]}")/cases.sh"

# What nobody named may be missing, but not unreadable: it would look empty.
case_registry_file_unreadable() {
    be_nobody
    : >"$work/file"
    chmod 000 "$work/file"
    expect 3 --registry "$work/file" --volume "$work"
    last_line_is "zemhost: the registry file '$work/file' cannot be read; change its rights or give another with --registry FILE."
}

case_registry_file_of_the_environment_unreadable() {
    be_nobody
    : >"$work/file"
    chmod 000 "$work/file"
    ZEM_REGISTRY=$work/file expect 3 --volume "$work"
    last_line_is "zemhost: the registry file '$work/file' cannot be read; change its rights or give another with --registry FILE."
}

case_volume_that_cannot_be_listed() {
    be_nobody
    mkdir -m 000 "$work/closed"
    expect 3 --listen 127.0.0.1 --volume "$work/closed"
    last_line_is "zemhost: the volume root '$work/closed' cannot be listed (Permission denied); change its rights or give another with --volume DIR."
}

# An archive that is mounted read-only is of use.
case_volume_that_can_only_be_read_is_served() {
    be_nobody
    mkdir -p "$work/volume/media"
    printf 'hello' >"$work/volume/media/note.txt"
    chmod 555 "$work/volume" "$work/volume/media"
    start
    ask 'GET /media/note.txt HTTP/1.1\r\nHost: x\r\nConnection: close\r\n\r\n'
    says out 'HTTP/1.1 200 OK'
    stop TERM
    last_line_is "zemhost: the volume root '$work/volume' cannot be written to by this user: clients can only read; change its rights or give another with --volume DIR."
}

case_port_forbidden() {
    be_nobody
    [ "$(cat /proc/sys/net/ipv4/ip_unprivileged_port_start)" -gt 79 ] || cannot 'everybody may open port 79 here'
    expect 4 --listen 127.0.0.1 --port 79 --volume "$work"
    last_line_is 'zemhost: port 79 of 127.0.0.1 may not be opened by this user; give a port above 1023 with --port N, or run zemhost as root with --user NAME.'
}

case_user_unknown() {
    expect 3 --listen 127.0.0.1 --volume "$work" --user no-such-user
    last_line_is "zemhost: there is no user 'no-such-user'; give one that exists with --user NAME."
}

case_user_with_roots_rights() {
    expect 3 --listen 127.0.0.1 --volume "$work" --user root
    last_line_is "zemhost: the user 'root' has root's rights; give one without with --user NAME."
}

case_user_without_name() {
    expect 2 --user=
    last_line_is 'zemhost: --user needs a value; see zemhost --help.'
}

case_user_of_others_is_only_for_root() {
    be_nobody
    expect 3 --listen 127.0.0.1 --volume "$work" --user daemon
    last_line_is "zemhost: only root can become the user 'daemon'; start zemhost as root or without --user."
}

case_user_who_it_is_already() {
    be_nobody
    if [ ${#drop[@]} -eq 0 ]; then start --user "$(id -un)"; else start --user nobody; fi
    has_no_rights "$(ps -o uid= -p "$pid")"
    stop TERM
}

case_user_who_may_not_read_the_registry_file() {
    be_root
    settings_file ''
    chmod 600 "$work/settings.reg"
    expect 3 --registry "$work/settings.reg" --listen 127.0.0.1 --port "$(random_port)" --volume "$work" --user nobody
    last_line_is "zemhost: the registry file '$work/settings.reg' cannot be read; change its rights or give another with --registry FILE."
}

case_user_who_may_not_see_the_volume() {
    be_root
    mkdir -m 700 "$work/closed"
    expect 3 --listen 127.0.0.1 --port "$(random_port)" --volume "$work/closed" --user nobody
    last_line_is "zemhost: the volume root '$work/closed' cannot be listed (Permission denied); change its rights or give another with --volume DIR."
}

# Root opens a port that others may not, and keeps nothing of being root.
case_user_after_a_low_port() {
    be_root
    mkdir "$work/volume" "$work/logs"
    chown nobody: "$work/volume" "$work/logs"
    choose_port=low_port
    start --user nobody --log "$work/logs/log"
    has_no_rights "$(id -u nobody)"
    python3 -B - "$source_dir" "$port" <<'END' || fail 'no frame'
import sys
sys.path.insert(0, sys.argv[1] + '/clients/python')
from zemclient import MediaType, StreamDescriptor, ZemClient
with ZemClient('http://127.0.0.1:' + sys.argv[2], 'user') as client:
    with client.create_file('clip', StreamDescriptor(MediaType.VIDEO, 'mjpg', 25, 1)) as file:
        file.write(0, b'a frame')
        file.flush()
        assert [f.data for f in file.frames()] == [b'a frame']
END
    [ "$(stat -c %U:%G "$work/volume/clip")" = "nobody:$(id -gn nobody)" ] || fail 'the file is not of the user'
    [ "$(stat -c %U:%G "$work/logs/log")" = "nobody:$(id -gn nobody)" ] || fail 'the log is not of the user'
    stop TERM
}

# Without --user too a capability that was only for the port goes, as under a service manager that gives one.
case_capability_for_the_port_is_given_up() {
    be_root
    mkdir "$work/volume"
    chmod 755 "$work"
    chown nobody: "$work/volume"
    drop=(setpriv --reuid=nobody --regid="$(id -g nobody)" --clear-groups --bounding-set=-all,+net_bind_service
        --inh-caps=-all,+net_bind_service --ambient-caps=-all,+net_bind_service --)
    "${drop[@]}" "$zemhost" --version >/dev/null 2>&1 || cannot 'nobody may not go where the program lies'
    choose_port=low_port
    start
    grep -q '^CapBnd:.*0400$' "/proc/$pid/status" || fail 'it did not start with the capability'
    has_no_rights "$(id -u nobody)"
    stop TERM
}

run_case
