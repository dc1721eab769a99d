# shellcheck shell=bash
# scratch.sh, sourced: a folder of the test's own ($work) and what it runs (the process IDs in $pid); neither outlives the test.
work=$(mktemp -d)
pid=''
end_with=KILL  # TERM for what has processes of its own to end
told=(out err) # what is in these files of $work belongs to a failure

undo() { :; }  # what a test has to put away before its folder goes
clean_up() {
    local one
    for one in $pid; do kill "-$end_with" "$one" 2>/dev/null || true; done
    wait
    undo
    chmod -R u+rwX "$work"  # a test may have closed a folder
    rm -rf "$work"
}
trap clean_up EXIT

# With what commands left in the files that are told of.
fail() {
    local file
    printf 'FAILED: %s\n' "$1" >&2
    for file in "${told[@]/#/$work/}"; do
        [ ! -f "$file" ] || tail -n 100 "$file" | sed "s|^|${file##*/}: |" >&2
    done
    exit 1
}

# Not a failure: this machine lacks what the test needs.
cannot() {
    printf 'not tried: %s\n' "$1"
    exit 77
}

# expect_end NAME: the one process was told to end, and does so in order.
expect_end() {
    local status=0
    wait "$pid" || status=$?
    pid=''
    [ "$status" -eq 0 ] || fail "$1 ended with $status"
}
