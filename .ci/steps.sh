# The steps of .ci/run and what is told of them at the end. Sourced; expects $logs, the folder of their outputs, and $whole_s,
# the seconds that all of them may take: who waits for the end of .ci/run hears nothing of a step that never ends.
# shellcheck shell=bash disable=SC2034

: "${logs:?}" "${whole_s:?}"

# twice NAME COMMAND...: a second try for what may fail by chance. When that finds nothing, the first one's words are printed at
# the end all the same, to be looked into.
twice() {
    local status=0
    "${@:2}" || status=$?
    case $status in
        0 | 77) return $status ;;  # 77: it cannot be tried here
    esac
    printf 'unsteady: %s\n' "$1"
    "${@:2}"
}

# What ctest printed of the tests that failed, and its closing lines.
failed_tests() {
    awk '/^ *[0-9]+\/[0-9]+ Test +#[0-9]+:/ { show = /\*\*\*/ }
         /^ +Start +[0-9]+:/ { show = 0 }
         /^[0-9]+% tests passed/ { show = 1 }
         show' "$1"
}

# What stands before "unsteady:", which is what the first try said; the second may have said much more.
first_try() {
    awk '/^unsteady: / { print before $0; exit } { before = before $0 "\n" }' "$1" | tail -n 60
}

# What is worth reading of a step's output.
excerpt() {
    failed_tests "$1" | grep . && return
    first_try "$1"
    # Of a step that failed also the end; all of one that failed at once.
    if [ "$2" -ne 0 ]; then sed '1,/^unsteady: /d' "$1" | grep . | tail -n 60 || tail -n 60 "$1"; fi
}

# A step has a process group of its own: what is to end .ci/run has to be passed on.
groups=()
end_groups() {
    local group
    for group in "${groups[@]}"; do kill -TERM -- "-$group" 2>/dev/null || true; done
}
trap 'end_groups; exit 130' HUP INT TERM

# within SECONDS COMMAND...: ends it, and all that it started, when it takes longer; 124 says so.
within() {
    local started watch status=0 late=$logs/late
    rm -f "$late"
    set -m  # a process group for each
    ("${@:2}") &
    started=$!
    (sleep "$1" && touch "$late" && kill -TERM -- "-$started" && sleep 10 && kill -KILL -- "-$started") >/dev/null 2>&1 &
    watch=$!
    set +m
    groups=("$started" "$watch")
    wait "$started" || status=$?
    groups=()
    kill -KILL -- "-$watch" 2>/dev/null || true
    wait "$watch" 2>/dev/null || true
    if [ -e "$late" ]; then
        kill -KILL -- "-$started" 2>/dev/null || true  # what did not hear the first signal
        status=124
    fi
    return "$status"
}

# The first failure in COMMAND ends it.
strictly() {
    set -e
    "$@"
}

mkdir -p "$logs"
results=()
unwell=()
passed=0  # of the steps that decide
failed=0
in_part=0

# step [--shown] [--within SECONDS] TITLE COMMAND...: runs it in a shell of its own, so that its first failure ends it. A step that
# found nothing wrong, but had no time to look at everything, prints a line "in part: ..." and exits with 3.
step() {
    local decides=1 allowed=$((whole_s - SECONDS)) start=$SECONDS result=passed status=0 title log
    if [ "$1" = --shown ]; then
        decides=0
        shift
    fi
    if [ "$1" = --within ]; then
        if [ "$2" -lt "$allowed" ]; then allowed=$2; fi
        shift 2
    fi
    title=$1
    log=$logs/$(printf %02d $((${#results[@]} + 1))).log
    shift
    printf '\n== %s (%d:%02d)\n' "$title" $((SECONDS / 60)) $((SECONDS % 60))
    if [ "$allowed" -le 0 ]; then
        printf 'there was no time left for it\n' >"$log"
        status=124
    else
        set +e
        within "$allowed" strictly "$@" >"$log" 2>&1 </dev/null
        status=$?
        set -e
        if [ $status -eq 124 ]; then printf 'not finished within %d s\n' "$allowed" >>"$log"; fi
    fi
    tail -n 12 "$log"
    if grep -q '^unsteady: ' "$log"; then result=unsteady; fi
    if [ $decides -eq 0 ]; then
        if [ $status -ne 0 ]; then result="to look at"; fi
    elif [ $status -eq 3 ] && grep -q '^in part: ' "$log"; then
        result="in part"
        in_part=$((in_part + 1))
    elif [ $status -ne 0 ]; then
        result=FAILED
        failed=$((failed + 1))
    else
        passed=$((passed + 1))
    fi
    case $result in
    passed) ;;
    FAILED) unwell+=("$status $log") ;;
    *) unwell=("$status $log" "${unwell[@]}") ;;  # what decided is printed last
    esac
    results+=("$(printf '%-48s %-12s %3d %5d s' "$title" "$result" $status $((SECONDS - start)))")
}

# Of every step that did not pass at once what it said.
tell_unwell() {
    local one log
    for one in "${unwell[@]}"; do
        log=${one#* }
        printf '\n== from build/ci/%s\n' "${log##*/}"
        excerpt "$log" "${one%% *}" | tail -n 150 | cut -c 1-500
    done
}

# The table of all steps, and as the last line how those that decide ended. Fails when one of these did, or none ran.
summary() {
    printf '\n== summary (%d:%02d)\n' $((SECONDS / 60)) $((SECONDS % 60))
    printf '%s\n' "${results[@]}"
    printf 'deciding: %d passed, %d failed' "$passed" "$failed"
    if [ "$in_part" -gt 0 ]; then printf ', %d in part' "$in_part"; fi
    printf '\n'
    [ "$passed" -gt 0 ] && [ "$failed" -eq 0 ]
}
