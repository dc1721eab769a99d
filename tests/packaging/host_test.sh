#!/usr/bin/env bash
# host_test.sh STAGE SOURCE_DIR COMPILER cmake|pkgconfig|headers: a program of somebody else's, against what is installed
# below STAGE. The first two build examples/host.cpp, run it from an empty environment and have it answer a request; the
# last one compiles every installed header alone.
set -euo pipefail
stage=$1 source_dir=$2 compiler=$3 way=$4
# shellcheck source=tests/scratch.sh
. "$source_dir/tests/scratch.sh"

case $way in
    headers)
        count=0
        while read -r header; do
            printf '#include "%s"\nint main() {}\n' "$header" >"$work/$count.cpp"
            "$compiler" -std=c++20 -fsyntax-only -Wall -Wextra -Werror -Wno-unknown-pragmas \
                -I"$stage/include/zemhttpd" "$work/$count.cpp" || fail "$header does not stand alone"
            count=$((count + 1))
        done < <(cd "$stage/include/zemhttpd" && find . -name '*.h' -printf '%P\n' | grep -v windowsnames)
        [ "$count" -gt 10 ] || fail "only $count headers"
        exit 0
        ;;
    cmake)
        # The sources are copied: nothing may be found through the tree that they come from.
        cp -r "$source_dir/examples" "$work/examples"
        cmake -S "$work/examples" -B "$work/build" -G Ninja -DCMAKE_PREFIX_PATH="$stage" \
            -DCMAKE_CXX_COMPILER="$compiler" >"$work/err" 2>&1 || fail 'not configured'
        cmake --build "$work/build" >"$work/err" 2>&1 || fail 'not built'
        host=$work/build/host
        ;;
    pkgconfig)
        command -v pkg-config >/dev/null || cannot 'there is no pkg-config'
        PKG_CONFIG_PATH=$(dirname "$stage"/lib/*/pkgconfig/zemhttpd.pc)
        export PKG_CONFIG_PATH
        [ "$(pkg-config --modversion zemhttpd)" = "$("$stage/sbin/zemhost" --version | cut -d' ' -f2)" ] ||
            fail 'another version'
        cp "$source_dir/examples/host.cpp" "$work"
        # shellcheck disable=SC2046
        "$compiler" -std=c++20 "$work/host.cpp" $(pkg-config --cflags --libs zemhttpd) -o "$work/host" || fail 'not built'
        host=$work/host
        ;;
esac

# A registry file that is missing would leave it without a volume, at port 80 of every address.
status=0
"$host" "$work/none.reg" </dev/null >"$work/out" 2>"$work/err" || status=$?
[ "$status" -eq 1 ] || fail "without its registry file it ends with $status"
grep -qxF "host: cannot read $work/none.reg" "$work/err" || fail 'it does not say what is missing'
rm "$work/out"

mkdir "$work/volume"
mkfifo "$work/in" "$work/out"
ready=''
for _ in 1 2 3 4 5; do
    port=$((10000 + RANDOM % 20000))
    cat >"$work/settings.reg" <<END
Windows Registry Editor Version 5.00
[HKEY_LOCAL_MACHINE\\Software\\Quorvane Group\\ZEM]
"HttpPort"=dword:$(printf %08x "$port")
[HKEY_LOCAL_MACHINE\\Software\\Quorvane Group\\RUD\\vfs]
"0"="$work/volume"
[HKEY_LOCAL_MACHINE\\System\\CurrentControlSet\\Services\\HTTP\\Parameters]
"ListenOnlyList"=hex(7):31,00,32,00,37,00,2e,00,30,00,2e,00,30,00,2e,00,31,00,00,00,00,00
END
    env -i "$host" "$work/settings.reg" <"$work/in" >"$work/out" 2>"$work/err" &
    pid=$!
    exec 6>"$work/in" 5<"$work/out"
    if read -t 120 -r ready <&5; then break; fi
    exec 6>&- 5<&-
    wait "$pid" || true
    pid=''
done
[ "$ready" = 'host: ready' ] || fail "it says '$ready', not that it is ready"
exec 7<>"/dev/tcp/127.0.0.1/$port"
printf 'GET /media/status HTTP/1.1\r\nHost: x\r\nConnection: close\r\n\r\n' >&7
timeout 120 cat <&7 >"$work/answer" || fail 'no whole answer'
grep -q '^HTTP/1.1 200 OK' "$work/answer" || fail "it answers $(head -n 1 "$work/answer")"
exec 6>&-  # the end of its input
expect_end host
