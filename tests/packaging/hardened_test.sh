#!/usr/bin/env bash
# hardened_test.sh STAGE BUILD_DIR: the programs and libraries that are shipped carry the protections that they were built
# for. What leaves no mark in a file is looked up in how it was compiled.
set -euo pipefail
stage=$1 build=$2
failed=0
lacks() {
    printf '%s %s\n' "${1#"$stage"/}" "$2"
    failed=1
}

programs=("$stage"/sbin/zemhost "$stage"/bin/*)
libraries=("$stage"/lib/*/libzemhttpd.so "$stage"/lib/*/zemhttpd/*.so)
[ ${#libraries[@]} -ge 6 ] || lacks lib "has only ${#libraries[@]} libraries"
checked=''
for file in "${programs[@]}" "${libraries[@]}"; do
    headers=$(readelf -lW "$file")
    dynamic=$(readelf -dW "$file")
    symbols=$(readelf -W --dyn-syms "$file")
    grep -q 'GNU_RELRO' <<<"$headers" || lacks "$file" 'has no tables that become read-only (relro)'
    grep -qE 'FLAGS_1.*\bNOW\b' <<<"$dynamic" || lacks "$file" 'binds its calls late (now)'
    grep -qE 'GNU_STACK.* RW +0x' <<<"$headers" || lacks "$file" 'has a stack that can be executed'
    if grep -qE 'LOAD.* RWE ' <<<"$headers"; then lacks "$file" 'has memory to write and execute'; fi
    if grep -q TEXTREL <<<"$dynamic"; then lacks "$file" 'has code that is changed when it is loaded'; fi
    grep -q ' __stack_chk_fail' <<<"$symbols" || lacks "$file" 'has no stack canaries'
    checked+=$(grep -oE '__[a-z]+_chk\b' <<<"$symbols" || true)
    # Every function that may be called by its address begins with the mark of a target.
    if [ "$(uname -m)" = x86_64 ]; then
        marks=$(objdump -d --no-show-raw-insn -j .text "$file" | grep -c endbr64 || true)
        [ "$marks" -ge 10 ] || lacks "$file" "has only $marks marked targets of jumps (cf-protection)"
    fi
done
for file in "${programs[@]}"; do
    readelf -hW "$file" | grep -q 'Type: *DYN' || lacks "$file" 'lies at one fixed place (pie)'
    readelf -dW "$file" | grep -qE 'FLAGS_1.*\bPIE\b' || lacks "$file" 'is not marked as pie'
done
call=__snprintf_chk
grep -q "$call" <<<"$checked" || lacks 'the whole' "has no $call (_FORTIFY_SOURCE)"

python3 - "$build/compile_commands.json" <<'END' || failed=1
import json, re, sys
flags = ['-fstack-protector-strong', '-fstack-clash-protection', '-D_FORTIFY_SOURCE=2']
entries = [e for e in json.load(open(sys.argv[1]))
           if not re.search(r'/tests/', e['file'])]
bare = [(e['file'], flag) for e in entries for flag in flags if flag not in e['command'].split()]
for file, flag in bare:
    print(file, 'is compiled without', flag)
if len(entries) < 50:
    print('only', len(entries), 'sources')
sys.exit(1 if bare or len(entries) < 50 else 0)
END
exit $failed
