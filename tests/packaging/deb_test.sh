#!/usr/bin/env bash
# deb_test.sh SOURCE_DIR BUILD_DIR: makes the Debian package, has lintian look at it, and tries it on a system of its own:
# an overlay of this one, booted in a container without network, in which deb_inside.sh installs, uses, upgrades, removes
# and purges it under the real dpkg and systemd. Nothing of this system is changed. 77, and why, where that cannot be.
set -euo pipefail
source_dir=$1 build=$2
here=$source_dir/tests/packaging
# shellcheck source=tests/scratch.sh
. "$source_dir/tests/scratch.sh"
# shellcheck source=tests/packaging/container.sh
. "$here/container.sh"
[ "$(id -u)" -eq 0 ] || cannot 'only root can boot a system of its own'
for tool in dpkg-shlibdeps systemd-nspawn lintian logrotate ffmpeg curl; do
    command -v "$tool" >/dev/null || [ -x "/usr/sbin/$tool" ] || cannot "there is no $tool"
done

if [ "${3:-}" != inside ]; then
    unshare --mount true 2>/dev/null || cannot 'this system allows no mounts of its own'
    clean_up  # the folder is made once more there
    exec unshare --mount --propagation private "$0" "$source_dir" "$build" inside
fi

root=$work/root
mkdir "$root"
mount -t tmpfs -o size=1g,mode=755 none "$root"
undo() { umount -l "$root"; }
mkdir "$root/upper" "$root/work" "$root/system" "$root/packages"
mount -t overlay -o "lowerdir=/,upperdir=$root/upper,workdir=$root/work" overlay "$root/system" 2>/dev/null ||
    cannot 'this system has no overlay file system'

(cd "$build" && cpack -B "$root/packages" >"$work/err" 2>&1) || fail 'no package'
package=$(echo "$root"/packages/zemhttpd_*_*.deb)
lintian --allow-root --fail-on error,warning "$package"
depends=$(dpkg-deb -f "$package" Depends)
for name in libc6 libstdc++6 liburing2 libpugixml1v5 libavformat libcurl4 adduser; do
    [[ $depends == *$name* ]] || fail "Depends lacks $name: $depends"
done

# The next version, with another settings file.
dpkg-deb -R "$package" "$root/next"
sed -i 's/^Version: .*/&.1/' "$root/next/DEBIAN/control"
printf '\n; A comment of the next version.\n' >>"$root/next/etc/zemhttpd/zemhttpd.reg"
(cd "$root/next" && find . -type f -not -path './DEBIAN/*' -printf '%P\0' | sort -z | xargs -0 md5sum >DEBIAN/md5sums)
dpkg-deb --root-owner-group -b "$root/next" "$root/packages/next.deb" >/dev/null

system=$root/system
rm -f "$system/var/lib/man-db/auto-update"  # its index of all pages, seven times over, is not what is tried
mkdir "$system/root/try"
mv "$package" "$system/root/try/first.deb"
mv "$root/packages/next.deb" "$system/root/try"
cp "$here/inside.sh" "$here/deb_inside.sh" "$source_dir/clients/python/zemclient.py" "$system/root/try"
boot "$system" /root/try/deb_inside.sh
