#!/usr/bin/env bash
# contents_test.sh SOURCE_DIR BUILD_DIR: what is in the Debian package, laid out in a folder: needs no rights, where deb_test.sh
# needs root and a container. The programs run from there, and the server serves a file.
set -euo pipefail
source_dir=$1 build=$2
# shellcheck source=tests/scratch.sh
. "$source_dir/tests/scratch.sh"
command -v dpkg-shlibdeps >/dev/null || cannot 'there is no dpkg-shlibdeps'

(cd "$build" && cpack -B "$work" >"$work/err" 2>&1) || fail 'no package'
package=$(echo "$work"/zemhttpd_*_*.deb)
dpkg-deb -R "$package" "$work/root"
root=$work/root
[ "$(dpkg-deb -f "$package" Version)" = "$("$build/bin/zemhost" --version | cut -d' ' -f2)-1" ] || fail 'another version'

# What the package asks dpkg to keep is what lies in /etc, and all of that.
[ "$(cd "$root" && find etc -type f -printf '/%p\n' | sort)" = "$(sort "$root/DEBIAN/conffiles")" ] || fail 'conffiles'
cmp "$source_dir/packaging/zemhttpd.reg" "$root/etc/zemhttpd/zemhttpd.reg"
for script in postinst prerm postrm; do
    [ -x "$root/DEBIAN/$script" ] || fail "$script cannot be run"
    sh -n "$root/DEBIAN/$script" || fail "$script"
done
for file in etc/logrotate.d/zemhttpd lib/systemd/system/zemhttpd.service usr/share/zemhttpd/console.html \
    usr/share/man/man1/zem.1.gz usr/share/man/man1/zemfsck.1.gz usr/share/man/man8/zemhost.8.gz \
    usr/share/bash-completion/completions/zem usr/share/zsh/vendor-completions/_zem \
    usr/share/fish/vendor_completions.d/zem.fish usr/share/doc/zemhttpd/README.md usr/share/doc/zemhttpd/copyright \
    usr/share/doc/zemhttpd/docs/operations.md usr/share/doc/zemhttpd/examples/host.cpp \
    usr/share/doc/zemhttpd/clients/python/zemclient.py usr/include/zemhttpd/zemhttpd/entry/zemhttpd.h; do
    [ -s "$root/$file" ] || fail "there is no /$file"
done
for name in libzemhttpd.so zemhttpd.pc zemhttpdConfig.cmake libzembaseio.so; do
    [ -n "$(find "$root/usr/lib" -name $name -size +0)" ] || fail "there is no $name"
done
if find "$root" -name '*.md' -exec grep -l "$source_dir" {} +; then fail 'a page names a folder of this machine'; fi
python3 -B "$source_dir/tests/docs/links_test.py" "$root/usr/share/doc/zemhttpd" installed

# Whoever has only what Depends names, and what that depends on, has every library that is loaded.
depends_of() { sed 's/([^)]*)//g; s/:any//g; s/ //g; s/[,|]/\n/g' | grep . || true; }
dpkg-deb -f "$package" Depends | depends_of >"$work/new"
until [ ! -s "$work/new" ]; do
    cat "$work/new" >>"$work/depends"
    # shellcheck disable=SC2016
    { xargs dpkg-query -W -f '${Pre-Depends},${Depends}\n' <"$work/new" 2>/dev/null || true; } | depends_of | sort -u >"$work/more"
    grep -vxFf "$work/depends" "$work/more" >"$work/new" || true
done
find "$root/usr" -type f \( -path '*bin/*' -o -name '*.so*' \) -exec ldd {} + >"$work/loads"
if grep 'not found' "$work/loads"; then fail 'a library is not found'; fi
awk '$2 == "=>" && $3 ~ /^\// { print $3 }' "$work/loads" | sort -u | grep -vF -e "$root/" -e "$build/" >"$work/libraries"
[ "$(wc -l <"$work/libraries")" -gt 10 ] || fail 'almost no libraries'
while read -r library; do
    real=$(realpath "$library")
    owner=$(dpkg -S "$real" "${real#/usr}" "$library" "${library#/usr}" 2>/dev/null | cut -d: -f1 | sort -u) || true
    grep -qxF "${owner:-nobody}" "$work/depends" || fail "Depends does not bring $library of ${owner:-no package}"
done <"$work/libraries"

# It needs nothing but what is in it: the shipped settings, with a port, a volume and a log of ours.
export PATH=$root/usr/sbin:$root/usr/bin:$PATH
mkdir -p "$work/volume/media"
cp "$root/usr/share/zemhttpd/console.html" "$work/volume/media/"
ready=''
for _ in 1 2 3 4 5; do
    port=$((10000 + RANDOM % 20000))
    mkfifo "$work/said"
    zemhost --registry "$root/etc/zemhttpd/zemhttpd.reg" --port $port --volume "$work/volume" --log "$work/log" >"$work/said" 2>&1 &
    pid=$!
    exec 5<"$work/said"
    rm "$work/said"
    if read -t 120 -r ready <&5 && [[ $ready == 'zemhost ready: '* ]]; then break; fi
    kill -KILL "$pid" 2>/dev/null || true
    wait "$pid" || true
    pid='' ready="not ready: $ready"
done
[ -n "$pid" ] || fail "$ready"
export ZEM_SERVER=http://127.0.0.1:$port
zem doctor || fail 'zem doctor'
zem get media/console.html -o - | cmp - "$work/volume/media/console.html" || fail 'the console page'
kill -TERM "$pid"
expect_end zemhost
