# What the cases of zemhost_test.sh and rights_test.sh share; each is run as SCRIPT ZEMHOST SOURCE_DIR CASE and runs one
# case_CASE against the program. Every case has a directory of its own in $work; 77 means that this machine cannot run the
# case. Sourced.
# shellcheck shell=bash
set -euo pipefail
zemhost=$1
source_dir=$2
wanted=$3
unset ZEM_REGISTRY

# shellcheck source=tests/scratch.sh
. "$source_dir/tests/scratch.sh"
drop=()

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
    "${drop[@]}" "$zemhost" --version >/dev/null 2>&1 || cannot 'nobody may not go where the program lies'
}

choose_port=random_port
random_port() { echo $((10000 + RANDOM % 20000)); }

# Cases about what root gives up need root.
be_root() {
    [ "$(id -u)" -eq 0 ] || cannot 'only root can'
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
    timeout 120 cat <&6 >"$work/out" || fail 'no whole answer'
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
        if read -t 120 -r ready <&5; then return; fi
        wait "$pid" || true
        pid=''
        grep -qF 'is taken by another program' "$work/err" || break
    done
    fail 'no ready line'
}

stop() {  # stop SIGNAL: and expects the exit code 0
    kill "-$1" "$pid"
    expect_end "zemhost after $1"
    cat <&5 >"$work/out"
    says out "zemhost stops: SIG$1"
}

run_case() {
    if ! declare -F "case_$wanted" >/dev/null; then fail "there is no case $wanted"; fi
    "case_$wanted"
}
