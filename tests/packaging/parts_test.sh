#!/usr/bin/env bash
# parts_test.sh SOURCE_DIR BUILD_DIR: cpack first builds the target `packaged`, and that makes everything that is installed from
# the build folder, so that nobody need know what else to build before.
set -euo pipefail
source_dir=$1 build=$2
# shellcheck source=tests/scratch.sh
. "$source_dir/tests/scratch.sh"

grep -qE '^set\(CPACK_INSTALL_COMMANDS ".* --build .* --target packaged"\)' "$build/CPackConfig.cmake" ||
    fail 'cpack does not build the package first'
ninja -C "$build" -t targets all | sed -n "s|^$build/||; s|: [A-Za-z_].*||p" | sort -u >"$work/built"
# The graph names one output of a step, the commands the others (a library's links).
{
    ninja -C "$build" -t graph packaged | sed -n 's|.*\[label="\([^" ]*\)".*|\1|p'
    ninja -C "$build" -t commands packaged | tr -s ' ' '\n'
} | sed "s|^$build/||" | sort -u >"$work/packaged"

# Files, and folders with all that is built in them.
find "$build" -name cmake_install.cmake -not -path "$build/tests/*" -exec grep -ohE "\"$build/[^\"]+\"" {} + |
    tr -d '"' | sed "s|^$build/||" | grep -v 'cmake_install\.cmake$' | sort -u >"$work/installed"
count=0
while read -r path; do
    while read -r file; do
        grep -qxF "$file" "$work/packaged" || fail "$file is installed, and not built by the target packaged"
        count=$((count + 1))
    done < <(awk -v path="$path" '$0 == path || (path ~ /\/$/ && index($0, path) == 1)' "$work/built")
done <"$work/installed"
# The programs, the libraries, the manual page, three completions, the documents.
[ "$count" -ge 14 ] || fail "only $count files are installed from the build folder"
