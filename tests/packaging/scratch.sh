# shellcheck shell=bash
# scratch.sh, sourced: a folder of the test's own ($work) and a process ($pid); neither outlives the test.
work=$(mktemp -d)
pid=''
clean_up() {
    [ -z "$pid" ] || kill -KILL "$pid" 2>/dev/null || true
    wait
    rm -rf "$work"
}
trap clean_up EXIT

# With what a command left in $work/err.
fail() {
    printf 'FAILED: %s\n' "$1" >&2
    [ ! -f "$work/err" ] || cat "$work/err" >&2
    exit 1
}

# The process was told to end.
expect_end() {
    local status=0
    wait "$pid" || status=$?
    pid=''
    [ "$status" -eq 0 ] || fail "$1 ended with $status"
}
