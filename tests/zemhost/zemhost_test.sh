#!/usr/bin/env bash
# zemhost_test.sh ZEMHOST SOURCE_DIR CASE: runs one case_CASE below against the program. Every case has a directory of
# its own in $work; 77 means that this machine cannot run the case.
set -euo pipefail
zemhost=$1
source_dir=$2
wanted=$3
unset ZEM_REGISTRY

work=$(mktemp -d)
pid=''
drop=()
clean_up() {
    [ -z "$pid" ] || kill -KILL "$pid" 2>/dev/null || true
    wait
    rm -rf "$work"
}
trap clean_up EXIT

fail() {
    printf 'FAILED: %s\n' "$1" >&2
    for file in "$work"/out "$work"/err; do
        [ ! -f "$file" ] || sed "s|^|$(basename "$file"): |" "$file" >&2
    done
    exit 1
}

# expect CODE OPTION...: runs zemhost to its end.
expect() {
    local code=$1 status=0
    shift
    "${drop[@]}" "$zemhost" "$@" >"$work/out" 2>"$work/err" || status=$?
    [ "$status" -eq "$code" ] || fail "exit code $status, not $code"
}
says() { grep -qF -- "$2" "$work/$1" || fail "$1 does not say: $2"; }  # says out|err TEXT
last_line_is() { [ "$(tail -n 1 "$work/err")" = "$1" ] || fail "the last line is not: $1"; }

# Root reads every file and opens every port: cases about rights run zemhost as somebody who may not.
be_nobody() {
    [ "$(id -u)" -eq 0 ] || return 0
    chmod 755 "$work"
    drop=(setpriv --reuid=65534 --regid=65534 --clear-groups --inh-caps=-all --)
    "${drop[@]}" "$zemhost" --version >/dev/null 2>&1 || exit 77  # it lies where nobody may not go
}

choose_port=random_port
random_port() { echo $((10000 + RANDOM % 20000)); }

# Cases about what root gives up need root.
be_root() {
    [ "$(id -u)" -eq 0 ] || { echo 'only root can try this'; exit 77; }
    chmod 755 "$work"
}

low_port() { echo $((600 + RANDOM % 400)); }

# settings_file LINE...: a registry file with these values of the server's key.
settings_file() {
    printf '%s\r\n' 'Windows Registry Editor Version 5.00' '[HKEY_LOCAL_MACHINE\Software\Quorvane Group\ZEM]' "$@" \
        >"$work/settings.reg"
}

# ask REQUEST: sends it as printf writes it; the answer is in out.
ask() {
    exec 6<>"/dev/tcp/127.0.0.1/$port"
    # shellcheck disable=SC2059
    printf "$1" >&6
    timeout 30 cat <&6 >"$work/out" || fail 'no whole answer'
    exec 6>&-
}

# has_no_rights UID: every thread of the server has this user, no capability, and no way to one.
has_no_rights() {
    local threads=0 user
    for status in /proc/"$pid"/task/*/status; do
        user=$(awk '/^Uid:/ { print $2, $3, $4, $5 }' "$status")
        [ "$user" = "$1 $1 $1 $1" ] || fail "a thread has the users $user"
        for set in CapInh CapPrm CapEff CapAmb; do
            grep -qE "^$set:[[:space:]]0+$" "$status" || fail "a thread has $(grep "$set" "$status")"
        done
        grep -qE '^NoNewPrivs:[[:space:]]1$' "$status" || fail 'a thread could get more rights'
        if grep -E '^(Gid|Groups):' "$status" | grep -qE '[[:space:]]0([[:space:]]|$)'; then fail "a thread is in root's group"; fi
        threads=$((threads + 1))
    done
    [ "$threads" -gt 4 ] || fail "only $threads threads"
}

# start OPTION...: starts zemhost on a free port, the number of which is in $port, and waits for its ready line.
start() {
    mkdir -p "$work/volume"
    [ -p "$work/pipe" ] || mkfifo "$work/pipe"
    # Whom the server becomes need not reach the tree.
    install -m 644 "$source_dir/packaging/zemhttpd.reg" "$work/packaged.reg"
    for _ in 1 2 3 4 5; do
        port=$("$choose_port")
        "${drop[@]}" "$zemhost" --registry "$work/packaged.reg" --listen 127.0.0.1 --port "$port" \
            --volume "$work/volume" "$@" >"$work/pipe" 2>"$work/err" &
        pid=$!
        exec 5<"$work/pipe"
        if read -t 30 -r ready <&5; then return; fi
        wait "$pid" || true
        pid=''
        grep -qF 'is taken by another program' "$work/err" || break
    done
    fail 'no ready line'
}

stop() {  # stop SIGNAL: and expects the exit code 0
    local status=0
    kill "-$1" "$pid"
    wait "$pid" || status=$?
    pid=''
    [ "$status" -eq 0 ] || fail "exit code $status after $1"
    cat <&5 >"$work/out"
    says out "zemhost stops: SIG$1"
}

case_help() {
    expect 0 --help
    for option in --registry --listen --port --volume --user --log --settings --version --help; do
        says out "  $option"
    done
    says out 'Exit codes: 0 '
}

case_version() {
    expect 0 --version
    grep -qE '^zemhost [0-9]+\.[0-9]+\.[0-9]+$' "$work/out" || fail 'no version'
}

case_unknown_option() {
    expect 2 --prot 8080
    last_line_is "zemhost: there is no option '--prot'; see zemhost --help."
}

case_wrong_port() {
    expect 2 --port 65536
    last_line_is "zemhost: '65536' is not a port; give a number from 1 to 65535 with --port."
}

case_settings_and_their_sources() {
    expect 0 --registry "$source_dir/packaging/zemhttpd.reg" --port 8123 --settings
    printf '%s\n' 'port 8123 option' 'listen 127.0.0.1 registry' 'volume /var/lib/zemhttpd/volume registry' \
        'log-format text registry' 'address http://127.0.0.1:8123' | cmp - "$work/out" || fail 'other settings'
}

case_settings_without_registry_file() {
    ZEM_REGISTRY=$work/none expect 0 --settings
    printf '%s\n' 'port 80 default' 'listen all default' 'volume none default' \
        'log-format text default' 'address http://127.0.0.1:80' |
        cmp - "$work/out" || fail 'other settings'
}

# The script at the root looks at its options before it installs or builds anything.
case_run_refuses_wrong_options() {
    zemhost=$source_dir/run
    expect 0 --help
    for option in --build --port --listen --volume --registry; do says out " $option"; done
    for wrong in --port --port= '--listen=' '--volume=' '--registry='; do
        expect 2 "$wrong"
        last_line_is "run: ${wrong%=} needs a value; see ./run --help"
    done
    expect 2 --volume ''
    last_line_is 'run: --volume needs a value; see ./run --help'
    expect 2 --prot 8080
    last_line_is 'run: there is no option --prot; see ./run --help'
}

case_registry_file_missing() {
    expect 3 --registry "$work/none" --volume "$work"
    last_line_is "zemhost: the registry file '$work/none' does not exist; give one that does with --registry FILE."
}

case_registry_file_unreadable() {
    be_nobody
    : >"$work/file"
    chmod 000 "$work/file"
    expect 3 --registry "$work/file" --volume "$work"
    last_line_is "zemhost: the registry file '$work/file' cannot be read; change its rights or give another with --registry FILE."
}

case_registry_file_malformed() {
    echo '{ "port": 8080 }' >"$work/file"
    expect 3 --registry "$work/file" --volume "$work"
    last_line_is "zemhost: the registry file '$work/file' is not a registry export; its first line must be: Windows Registry Editor Version 5.00."
}

# What nobody named may be missing, but not unreadable: it would look empty.
case_registry_file_of_the_environment_unreadable() {
    be_nobody
    : >"$work/file"
    chmod 000 "$work/file"
    ZEM_REGISTRY=$work/file expect 3 --volume "$work"
    last_line_is "zemhost: the registry file '$work/file' cannot be read; change its rights or give another with --registry FILE."
}

case_log_format_unknown() {
    settings_file '"LogFormat"="xml"'
    expect 3 --registry "$work/settings.reg" --volume "$work"
    last_line_is "zemhost: the registry value LogFormat is 'xml'; give it text or json."
}

case_volume_not_set() {
    ZEM_REGISTRY=$work/none expect 3 --listen 127.0.0.1
    last_line_is 'zemhost: no volume root is set; give the directory that holds the media with --volume DIR.'
}

case_volume_missing() {
    expect 3 --listen 127.0.0.1 --volume "$work/none"
    last_line_is "zemhost: the volume root '$work/none' does not exist; create it or give another with --volume DIR."
}

case_volume_is_a_file() {
    : >"$work/file"
    expect 3 --listen 127.0.0.1 --volume "$work/file"
    last_line_is "zemhost: the volume root '$work/file' is not a directory; give one with --volume DIR."
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

case_address_is_no_address() {
    expect 3 --listen localhost --volume "$work"
    last_line_is "zemhost: 'localhost' is not an IP address; give one, such as 127.0.0.1, with --listen ADDRESS."
}

case_address_of_another_machine() {
    expect 4 --listen 192.0.2.1 --port "$(random_port)" --volume "$work"
    last_line_is 'zemhost: 192.0.2.1 is not an address of this machine; give one that is with --listen ADDRESS.'
}

case_log_file_cannot_be_opened() {
    expect 3 --listen 127.0.0.1 --port "$(random_port)" --volume "$work" --log "$work/none/log"
    last_line_is "zemhost: cannot open the log file '$work/none/log': No such file or directory; give another with --log FILE."
}

case_port_taken() {
    start
    expect 4 --registry "$source_dir/packaging/zemhttpd.reg" --listen 127.0.0.1 --port "$port" --volume "$work"
    last_line_is "zemhost: port $port of 127.0.0.1 is taken by another program; stop that, or give another port with --port N."
    stop TERM
}

case_port_forbidden() {
    be_nobody
    [ "$(cat /proc/sys/net/ipv4/ip_unprivileged_port_start)" -gt 79 ] || exit 77
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
    "${drop[@]}" "$zemhost" --version >/dev/null 2>&1 || { echo 'nobody may not go where the program lies'; exit 77; }
    choose_port=low_port
    start
    grep -q '^CapBnd:.*0400$' "/proc/$pid/status" || fail 'it did not start with the capability'
    has_no_rights "$(id -u nobody)"
    stop TERM
}

case_tells_the_service_manager() {
    mkdir "$work/volume"
    for volume in "$work/volume" "$work/none"; do
        python3 -B - "$work/socket" "$zemhost" --registry "$source_dir/packaging/zemhttpd.reg" --listen 127.0.0.1 \
            --port "$(random_port)" --volume "$volume" >"$work/out" 2>"$work/err" <<'END' || fail 'no datagram'
import os, socket, subprocess, sys
path, command = sys.argv[1], sys.argv[2:]
for name in [path, '\0' + path]:
    with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as manager:
        manager.bind(name)
        manager.settimeout(30)
        process = subprocess.Popen(command, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL,
                                   env=dict(os.environ, NOTIFY_SOCKET=name.replace('\0', '@')))
        print(manager.recv(4096).decode())
        process.terminate()
        process.wait(30)
os.unlink(path)
END
        if [ "$volume" = "$work/volume" ]; then said='READY=1'; else
            said="STATUS=the volume root '$work/none' does not exist; create it or give another with --volume DIR"
        fi
        printf '%s\n%s\n' "$said" "$said" | cmp - "$work/out" || fail 'it says something else'
    done
}

case_ready_and_stopped_by_sigterm() {
    start
    [ "$ready" = "zemhost ready: http://127.0.0.1:$port/ (volume root $work/volume)" ] || fail "ready line: $ready"
    (exec 3<>"/dev/tcp/127.0.0.1/$port") || fail 'ready, but nobody listens'
    stop TERM
    [ ! -s "$work/err" ] || fail 'something went to standard error'
    if (exec 3<>"/dev/tcp/127.0.0.1/$port") 2>/dev/null; then fail 'stopped, but somebody listens'; fi
}

case_stopped_by_sigint() {
    start
    stop INT
}

case_port_is_free_again_after_a_stop() {
    start
    exec 6<>"/dev/tcp/127.0.0.1/$port"  # a connection that is there at the stop leaves its address busy for a while
    stop TERM
    exec 6>&-
    rm "$work/pipe"
    mkfifo "$work/pipe"
    "$zemhost" --listen 127.0.0.1 --port "$port" --volume "$work/volume" >"$work/pipe" 2>"$work/err" &
    pid=$!
    exec 5<"$work/pipe"
    read -t 30 -r ready <&5 || fail 'no second ready line'
    stop TERM
}

case_status_page() {
    start
    exec 6<>"/dev/tcp/127.0.0.1/$port"
    printf 'GET /media/status HTTP/1.1\r\nHost: x\r\nConnection: close\r\n\r\n' >&6
    timeout 30 cat <&6 >"$work/out" || fail "no whole answer"
    says out 'HTTP/1.1 200 OK'
    grep -qE '^0 [0-9]+ [0-9]+$' "$work/out" || fail 'no capacity'
    stop TERM
}

case_join_is_in_the_log_file() {
    start --log "$work/log"
    exec 6<>"/dev/tcp/127.0.0.1/$port"
    printf 'POST /media/ HTTP/1.1\r\nHost: x\r\nZem-Id: studio-1\r\nContent-Length: 16\r\nConnection: close\r\n\r\n' >&6
    printf '\1\0\0\0\17\0\0\0\4\0\0\0\0\0\0\0' >&6
    timeout 30 cat <&6 >"$work/out" || fail "no whole answer"
    says out 'HTTP/1.1 200 OK'
    stop TERM
    cp "$work/log" "$work/out"
    grep -qE '^20[0-9-]{8} [0-9:.]{12} trace   \[[0-9]+\] .*: Joining ' "$work/out" || fail 'no join in the log'
    [ ! -s "$work/err" ] || fail 'something went to standard error'
}

# Control characters in what clients send stay inside the object that they are logged in.
case_log_as_json() {
    settings_file '"LogFormat"="json"'
    start --registry "$work/settings.reg" --log "$work/log"
    ask 'POST /media/ HTTP/1.1\r\nHost: x\r\nZem-Id: a"},{\\ b\r\nContent-Length: 20\r\nConnection: close\r\n\r\n\1\0\0\0\5\0\0\0\10\0\0\0\0\0\0\0\0\0\0\0'
    says out 'HTTP/1.1 200 OK'
    stop TERM
    python3 -B - "$work/log" <<'END' || fail 'the log is something else'
import datetime, json, sys
records = [json.loads(line) for line in open(sys.argv[1], encoding='utf-8')]
for record in records:
    datetime.datetime.fromisoformat(record['time']).utcoffset().total_seconds()
    assert record['thread'] > 0 and record['level'], record
unknown = [r for r in records if 'Unknown client' in r['message']]
assert len(unknown) == 1 and unknown[0]['message'].startswith('a"},{\\ b: '), records
assert unknown[0]['level'] == 'error' and unknown[0]['source'] == 'httpcmdhdlr.cpp', unknown
assert unknown[0]['result'] == '0x80070057' and unknown[0]['line'] != 0, unknown
END
}

case_log_is_opened_again_at_sigusr1() {
    start --log "$work/log"
    mv "$work/log" "$work/log.old"
    kill -USR1 "$pid"
    local end=$((SECONDS + 30))
    until [ -e "$work/log" ]; do [ $SECONDS -lt $end ] || fail 'no new log file'; done
    ask 'POST /media/ HTTP/1.1\r\nHost: x\r\nZem-Id: studio-1\r\nContent-Length: 16\r\nConnection: close\r\n\r\n\1\0\0\0\17\0\0\0\4\0\0\0\0\0\0\0'
    stop TERM
    grep -q 'Joining' "$work/log" || fail 'the new file is not written to'
    if grep -q 'Joining' "$work/log.old"; then fail 'the old file is written to'; fi
}

# Every option and exit code of --help is on the manual page, and no other.
case_manual_page() {
    page=$source_dir/packaging/zemhost.8
    "$zemhost" --help | grep -oE '^  --[a-z]+' | tr -d ' ' | sort >"$work/out"
    sed -n '/^\.SH OPTIONS/,/^\.SH SIGNALS/p' "$page" | grep -E '^\.BI? \\-\\-' | sed 's/\\//g' | grep -oE -- '--[a-z]+' |
        sort | cmp - "$work/out" || fail 'the page has other options than --help'
    codes=$(sed -n '/^\.SH EXIT STATUS/,/^\.SH FILES/p' "$page" | grep -oE '^\.B [0-9]' | cut -c4-)
    for code in $codes; do "$zemhost" --help | tr '\n' ' ' | grep -qE "[:;] $code " || fail "--help has no exit code $code"; done
    [ "$(wc -w <<<"$codes")" -eq 5 ] || fail 'the page lacks exit codes'
    if command -v man >/dev/null; then
        # A minimised system has a stand-in for man that says so.
        warnings=$(LC_ALL=C.UTF-8 MANROFFSEQ='' MANWIDTH=80 man --warnings -E UTF-8 -l -Tutf8 -Z "$page" 2>&1 >/dev/null)
        [ -z "$warnings" ] || fail "man warns: $warnings"
    fi
}

if ! declare -F "case_$wanted" >/dev/null; then fail "there is no case $wanted"; fi
"case_$wanted"
