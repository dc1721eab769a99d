#!/usr/bin/env bash
# steps_test.sh SOURCE_DIR: what .ci/run tells at the end of steps that went well, that did so at the second try, that looked at
# a part, that failed, and that did not end.
set -euo pipefail
source_dir=$1
# shellcheck source=tests/scratch.sh
. "$source_dir/tests/scratch.sh"
told=(end)
logs=$work/logs
whole_s=600
# shellcheck source=.ci/steps.sh
. "$source_dir/.ci/steps.sh"

# The second try says more than all that is printed at the end.
second_time() {
    if [ -e "$work/tried" ]; then
        seq -f 'second %g' 500
    else
        touch "$work/tried"
        printf 'first: the frame is another\n'
        return 1
    fi
}
never() {
    printf 'never: that is wrong\n'
    return 1
}
unsteady() { twice second_time second_time; }
hopeless() { twice never never; }
# A second try would find this machine no different.
elsewhere() {
    local status=0
    twice elsewhere cannot_be_tried || status=$?
    [ $status -eq 77 ] && return 3
}
cannot_be_tried() {
    echo tried >>"$work/elsewhere"
    printf 'in part: this machine has none\n'
    return 77
}
# Had no time for all.
half() {
    printf 'in part: 2 of 4 were not looked at\n'
    return 3
}
# Says it, and fails all the same.
worse() {
    half || return 1
}
# With a child that does not hear the signal that its parent ends at.
endless() {
    printf 'endless: began\n'
    # shellcheck disable=SC2016
    flock "$work/lives" sh -c 'trap "" TERM; echo >"$1"; exec sleep 1000' sh "$work/begun" &
    cat "$work/begun" >/dev/null
    wait
}
# As ctest prints it.
tests() {
    printf '      Start  1: good\n1/2 Test  #1: good ...   Passed\nnoise\n      Start  2: bad\n2/2 Test  #2: bad ...***Failed\nthe reason\n'
    printf '50%% tests passed\n'
    return 1
}

{
    step 'well' true
    step 'unsteady' unsteady
    step 'elsewhere' elsewhere
    step 'half' half
    step 'worse' worse
    step --shown 'shown' never
    step 'tests' tests
    step 'hopeless' hopeless
    mkfifo "$work/begun"
    step --within 1 'endless' endless
    whole_s=0
    step --shown --within 100 'too late' true
} >/dev/null
tell_unwell >"$work/end"
has() { grep -qxF -- "$1" "$work/end" || fail "the end lacks: $1"; }
has 'first: the frame is another'
has 'in part: 2 of 4 were not looked at'
summary >"$work/results" && fail 'failures do not count'
[ "$(tail -n 1 "$work/results")" = 'deciding: 2 passed, 4 failed, 2 in part' ] || fail "the last line: $(tail -n 1 "$work/results")"
(failed=0 && summary >/dev/null) || fail 'success does not count'
(failed=0 passed=0 && summary >/dev/null) && fail 'nothing that ran is a success'
[ "$(sed '1,/^== summary/d; $d' "$work/results" | awk '{ print $1, $2 }' | paste -sd,)" = 'well passed,unsteady unsteady,elsewhere in,half in,worse FAILED,shown to,tests FAILED,hopeless FAILED,endless FAILED,too late' ] ||
    fail "results: $(cat "$work/results")"
[ "$(wc -l <"$work/elsewhere")" -eq 1 ] || fail 'what cannot be tried is tried twice'
has 'the reason'
if grep -qx noise "$work/end"; then fail 'a test that passed is told of'; fi
has 'never: that is wrong'
[ "$(grep -c 'never: that is wrong' "$work/end")" -eq 3 ] || fail 'shown once, hopeless twice'
has 'endless: began'
has 'not finished within 1 s'
has 'there was no time left for it'
flock -w 30 "$work/lives" true || fail 'what a step started outlives it'
# Who ends the whole, ends the step.
mkfifo "$work/waiting"
cat >"$work/whole" <<'END'
logs=$1/whole.logs
whole_s=600
. "$2/.ci/steps.sh"
step waiting flock "$1/waits" sh -c 'echo >"$1"; exec sleep 1000' sh "$1/waiting"
END
bash "$work/whole" "$work" "$source_dir" >/dev/null &
whole=$!
cat "$work/waiting" >/dev/null
kill "$whole"
wait "$whole" && fail 'a signal does not end it'
flock -w 30 "$work/waits" true || fail 'what a step started outlives the whole'
# What decided comes last.
[ "$(grep '^== ' "$work/end" | tail -n 1)" = '== from build/ci/09.log' ] || fail 'what failed is not last'
if grep -q '01.log' "$work/end"; then fail 'what went well is told of'; fi
