#!/usr/bin/env bash
# Checks the layering and the form of the sources: tidy.sh SOURCE_DIR BUILD_DIR. Prints every breach; exits 1 on any.
set -euo pipefail
cd "$1"
build=$2
failed=0

breach() {  # breach TITLE LINES: reports lines that break a rule
    [ -z "$2" ] && return
    printf '%s\n%s\n\n' "$1" "$2"
    failed=1
}
search() { grep -rnE --include='*.h' --include='*.cpp' "$@" || true; }  # search PATTERN PATHS...

library=(zemhttpd mediaio apps)

# One core, two platforms: the system's own headers stay behind the seam. The seams: platform/, the store's file I/O, and
# the programs' terminal and signal handling.
breach 'a platform switch outside platform/:' "$(search '\b_WIN32\b|<windows\.h>' "${library[@]}" tests bench fuzz)"
breach 'a system header or call outside the seams:' "$(
    search '#include <(sys/|linux/|pthread|epoll|unistd|fcntl|poll|netinet/|arpa/)|\bepoll_[a-z]+\(|\bpthread_[a-z_]+\(' \
        zemhttpd mediaio | grep -vE '^mediaio/(store|foreign|allocator|errorlog)/[a-z_]*posix[a-z_]*\.(h|cpp):' || true)"
breach 'wide literals are TEXT("..."):' "$(search '(^|[^A-Za-z0-9_])L"' zemhttpd mediaio platform)"

# The store and the server wait with std::condition_variable on a lock named hold or lock.
breach 'a wait on an atomic is WaitWhile of platform/atomicwait.h, and a latch or semaphore the system'"'"'s:' "$(
    search '\.wait\(|std::(latch|barrier|counting_semaphore|binary_semaphore)\b' zemhttpd mediaio apps/zemhost apps/zemfsck |
        grep -vE '\.wait\((hold|lock)|^mediaio/foreign/' || true)"

# Seconds of compiling for each source that includes them.
breach 'the parser of the command line is behind apps/zem/parser.h:' "$(
    search '#include [<"]CLI/' apps tests | grep -vE '^apps/zem/(parser|help|usage)\.cpp:' || true)"

breach 'no room reaches into a source file:' "$(search '#include ".*\.cpp"' "${library[@]}" platform tests)"

# Form.
breach 'a header of 300 lines or more:' "$(
    find zemhttpd mediaio platform apps -name '*.h' -exec awk 'END { if (NR >= 300) print FILENAME ": " NR }' {} \;)"
breach 'a line over 100 columns:' "$(
    find zemhttpd mediaio platform apps tests bench fuzz -name '*.h' -o -name '*.cpp' |
        xargs -r awk 'length > 100 { print FILENAME ":" FNR ": " length }')"

# Nothing falls out of the build.
if [ -f "$build/compile_commands.json" ]; then
    breach 'a source file that nothing compiles:' "$(
        # What only the other system has is compiled, and looked at, in that system's build.
        other='_windows\.cpp$|^platform/windows/|^tests/windows/'
        if grep -q '_windows\.cpp"' "$build/compile_commands.json"; then
            other='posix|^apps/zem/|^mediaio/foreign/|^tests/|^fuzz/'
        fi
        find zemhttpd mediaio platform apps tests fuzz -name '*.cpp' | grep -vE "$other" | while read -r file; do
            grep -qF "/$file\"" "$build/compile_commands.json" || echo "$file"
        done)"
fi
exit $failed
