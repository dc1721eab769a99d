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

random_port() { echo $((10000 + RANDOM % 20000)); }

# start OPTION...: starts zemhost on a free port, the number of which is in $port, and waits for its ready line.
start() {
    mkdir -p "$work/volume"
    mkfifo "$work/pipe"
    for _ in 1 2 3 4 5; do
        port=$(random_port)
        "$zemhost" --registry "$source_dir/packaging/zemhttpd.reg" --listen 127.0.0.1 --port "$port" \
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
    for option in --registry --listen --port --volume --log --settings --version --help; do
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
        'address http://127.0.0.1:8123' | cmp - "$work/out" || fail 'other settings'
}

case_settings_without_registry_file() {
    ZEM_REGISTRY=$work/none expect 0 --settings
    printf '%s\n' 'port 80 default' 'listen all default' 'volume none default' 'address http://127.0.0.1:80' |
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

case_address_is_no_address() {
    expect 3 --listen localhost --volume "$work"
    last_line_is "zemhost: 'localhost' is not an IP address; give one, such as 127.0.0.1, with --listen ADDRESS."
}

case_address_of_another_machine() {
    expect 4 --listen 192.0.2.1 --port "$(random_port)" --volume "$work"
    last_line_is 'zemhost: 192.0.2.1 is not an address of this machine; give one that is with --listen ADDRESS.'
}

case_log_file_cannot_be_opened() {
    expect 3 --listen 127.0.0.1 --volume "$work" --log "$work/none/log"
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
    last_line_is 'zemhost: port 79 of 127.0.0.1 may not be opened by this user; give a port above 1023 with --port N, or run zemhost as root.'
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

if ! declare -F "case_$wanted" >/dev/null; then fail "there is no case $wanted"; fi
"case_$wanted"
