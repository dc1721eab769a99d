#!/usr/bin/env bash
# Runs as root in the container of fresh_test.sh, a Debian of the packages that every Debian has: what its operator does first.
# shellcheck source=tests/packaging/inside.sh
. /root/try/inside.sh

step 'has nothing of what is wanted yet'
for name in zemhttpd ffmpeg curl libavformat59 liburing2 libpugixml1v5; do
    if dpkg-query -W "$name" 2>/dev/null; then fail "$name is there before it is installed"; fi
done

step 'installs with what it depends on'
apt-get install -qq ./first.deb >installed 2>&1 || fail "$(tail -n 20 installed)"
[ -z "$(dpkg -V zemhttpd)" ]
[ "$(dpkg-query -W -f '${db:Status-Status}' logrotate)" = installed ]

step 'is started, and answers'
[ "$(systemctl is-enabled zemhttpd.service)" = enabled ]
[ "$(systemctl is-active zemhttpd.service)" = active ]
zem status
zem doctor | tee doctor
grep -qx '8 ok, 0 warnings, 0 failures' doctor
if grep -E 'io_uring|cannot' $log; then fail 'the log complains'; fi

step 'runs the session of the README as it stands'
apt-get install -qq ffmpeg curl >installed 2>&1 || fail "$(tail -n 20 installed)"
session_of_the_readme

step 'has the frames after a restart'
systemctl restart zemhttpd.service
zem framemd5 media/clip.v0 | tail -n 1 | grep -q '^0,        249,        249'

step 'is purged'
apt-get purge -qq zemhttpd >installed 2>&1 || fail "$(tail -n 20 installed)"
[ ! -e /usr/bin/zem ]
[ ! -e /usr/sbin/zemhost ]
[ -s $volume/media/clip.v0 ]
trap - ERR
printf 'All steps done.\n'
