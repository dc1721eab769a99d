#!/usr/bin/env bash
# fresh_test.sh SOURCE_DIR BUILD_DIR: the Debian package on a fresh machine: a Debian of the packages that every Debian has and
# systemd, made with mmdebstrap from where this machine's own packages come from, and booted in a container without network.
# What deb_test.sh cannot show, whose system is this one, is that nothing is missing that only developers have.
# 77, and why, where that cannot be.
set -euo pipefail
source_dir=$1 build=$2
here=$source_dir/tests/packaging
# shellcheck source=tests/scratch.sh
. "$source_dir/tests/scratch.sh"
# shellcheck source=tests/packaging/container.sh
. "$here/container.sh"
[ "$(id -u)" -eq 0 ] || cannot 'only root can boot a system of its own'
for tool in mmdebstrap dpkg-shlibdeps systemd-nspawn; do
    command -v "$tool" >/dev/null || cannot "there is no $tool"
done
release=$(. /etc/os-release && printf '%s %s' "$ID" "${VERSION_CODENAME-}")
[[ $release == debian\ ?* ]] || cannot "this is no Debian but $release"
suite=${release#* }
mirror=$(apt-get indextargets --format '$(SITE)' 'Identifier: Packages' "Codename: $suite" 'Component: main' | sed -n 1p || true)
[ -n "$mirror" ] || cannot "apt knows of no packages of $suite (apt-get update)"

(cd "$build" && cpack -B "$work/packages" >"$work/err" 2>&1) || fail 'no package'
try=$work/try
mkdir "$try"
mv "$work"/packages/zemhttpd_*_*.deb "$try/first.deb"
cp "$here/inside.sh" "$here/fresh_inside.sh" "$try"
# All that will be installed is fetched now: the container has no network.
mmdebstrap --quiet --variant=minbase --include=systemd-sysv,dbus --skip=cleanup/apt \
    --customize-hook="cp -r '$try' \"\$1/root/\"" \
    --customize-hook='chroot "$1" apt-get install -qq -o APT::Install-Recommends=true --download-only /root/try/first.deb ffmpeg curl' \
    "$suite" "$work/system" "$mirror" >"$work/out" 2>&1 || {
    if grep -E 'Could not (resolve|connect)|Temporary failure|Connection (timed out|failed)|404 +Not Found' "$work/out"; then
        cannot 'the packages cannot be fetched'
    fi
    fail 'no Debian can be made'
}
boot "$work/system" /root/try/fresh_inside.sh
