#!/usr/bin/env bash
# deb_test.sh SOURCE_DIR BUILD_DIR: makes the Debian package, has lintian look at it, and tries it on a system of its own:
# an overlay of this one, booted in a container without network, in which deb_inside.sh installs, uses, upgrades, removes
# and purges it under the real dpkg and systemd. Nothing of this system is changed. 77, and why, where that cannot be.
set -euo pipefail
source_dir=$1 build=$2
here=$source_dir/tests/packaging
# shellcheck source=tests/scratch.sh
. "$source_dir/tests/scratch.sh"
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
rm -f "$system/usr/sbin/policy-rc.d"
rm -f "$system/var/lib/man-db/auto-update"  # its index of all pages, seven times over, is not what is tried
mkdir "$system/root/try"
mv "$package" "$system/root/try/first.deb"
mv "$root/packages/next.deb" "$system/root/try"
cp "$here/deb_inside.sh" "$source_dir/clients/python/zemclient.py" "$system/root/try"
cat >"$system/etc/systemd/system/try.service" <<'END'
[Unit]
Requires=basic.target
After=basic.target
SuccessAction=poweroff-force
FailureAction=poweroff-force
[Service]
Type=oneshot
ExecStart=/root/try/deb_inside.sh
StandardOutput=file:/root/try/out
StandardError=inherit
END
# What a container is refused and a machine is not: io_uring, and locked memory, without which a library of FFmpeg's complains.
# Outside systemd there is no unit to keep; under it the container must not ask for one.
options=(--register=no)
[ -d /run/systemd/system ] || options+=(--keep-unit)
SYSTEMD_NSPAWN_UNIFIED_HIERARCHY=1 timeout -k 10 400 systemd-nspawn "${options[@]}" --quiet --private-network \
    --system-call-filter='@memlock io_uring_setup io_uring_enter io_uring_register' -D "$system" --boot --console=pipe \
    systemd.unit=try.service </dev/null >"$root/boot" 2>&1 || true
if [ ! -e "$system/root/try/out" ]; then
    sed 's/^/boot: /' "$root/boot" | tail -n 20
    cannot 'no system boots in a container here'
fi
cat "$system/root/try/out"
tail -n 1 "$system/root/try/out" | grep -qx 'All steps done.' || fail 'the last step did not end'
