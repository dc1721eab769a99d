#!/usr/bin/env bash
# Runs as root in the container of deb_test.sh: what happens to the package in its life, step by step.
# shellcheck source=tests/packaging/inside.sh
. /root/try/inside.sh
export PYTHONPATH=/root/try

answers() {  # answers PORT
    [[ $(curl -sS --max-time 120 "http://127.0.0.1:$1/media/status") =~ ^0\ [0-9]+\ [0-9]+ ]] || fail "port $1 does not answer"
}
main_pid() { systemctl show -P MainPID zemhttpd.service; }
owner() { stat -c %U:%G "$1"; }

step 'installs'
apt-get install -qq --no-install-recommends ./first.deb  # no network: what it depends on is there
[ -z "$(dpkg -V zemhttpd)" ]
[ "$(owner $volume)" = zemhttpd:zemhttpd ]
[ "$(owner /var/log/zemhttpd)" = zemhttpd:adm ]
[ "$(getent passwd zemhttpd | cut -d: -f7)" = /usr/sbin/nologin ]
man -w zemhost zem >/dev/null
for completion in bash-completion/completions/zem zsh/vendor-completions/_zem fish/vendor_completions.d/zem.fish; do
    [ -s "/usr/share/$completion" ]
done
ldconfig -p | grep -q 'libzemhttpd\.so\.0 '
if ldd /usr/sbin/zemhost /usr/bin/zem /usr/bin/zemfsck | grep 'not found'; then fail 'a library is not found'; fi

step 'is started, and at every boot'
[ "$(systemctl is-enabled zemhttpd.service)" = enabled ]
systemctl is-active zemhttpd.service
answers 8080
zem status
curl -sS --max-time 120 http://127.0.0.1:8080/media/console.html | cmp - /usr/share/zemhttpd/console.html

step 'runs in its sandbox'
pid=$(main_pid)
[ "$(ps -o user= -p "$pid")" = zemhttpd ]
grep -qE '^CapEff:\s0+$' "/proc/$pid/status"
grep -qE '^CapPrm:\s0+$' "/proc/$pid/status"
grep -qE '^CapBnd:\s0+400$' "/proc/$pid/status"
grep -qE '^NoNewPrivs:\s1$' "/proc/$pid/status"
grep -qE '^Seccomp:\s2$' "/proc/$pid/status"
for place in /etc /usr /var/tmp/.. /root; do
    if nsenter -t "$pid" -m -- touch "$place/touched" 2>/dev/null; then fail "$place can be written to"; fi
done
touch /tmp/of-the-system
if nsenter -t "$pid" -m -- test -e /tmp/of-the-system; then fail '/tmp is everybody'"'"'s'; fi

step 'writes and reads frames there, with io_uring'
python3 -B - <<'END'
from zemclient import MediaType, StreamDescriptor, ZemClient
with ZemClient('http://127.0.0.1:8080', 'packaged') as client:
    with client.create_file('clip', StreamDescriptor(MediaType.VIDEO, 'mjpg', 25, 1)) as file:
        for number in range(100):
            file.write(number, b'frame %d ' % number * 1000)
        file.flush()
        assert [f.data for f in file.frames()] == [b'frame %d ' % n * 1000 for n in range(100)]
END
[ "$(owner $volume/clip)" = zemhttpd:zemhttpd ]
[ "$(owner $log)" = zemhttpd:adm ]
if grep io_uring $log; then fail 'io_uring is refused'; fi

step 'reads foreign files there'
ffmpeg -v error -f lavfi -i testsrc2=size=320x240:rate=25 -t 1 -c:v mjpeg $volume/clip.mov
[ "$(zem framemd5 clip.mov | grep -c '^[0-9]')" -eq 25 ]
if grep -q 'foreign files cannot be read' $log; then fail 'the module for foreign files is not loaded'; fi

step 'runs the session of the README as it stands'
session_of_the_readme
zem rm media/clip.v0 media/clip.a0 media/clip.mov media/whole.v0 media/whole.a0 media/whole.clip

step 'a host program of one'"'"'s own is built and runs with it'
# shellcheck disable=SC2046
c++ -std=c++20 /usr/share/doc/zemhttpd/examples/host.cpp $(pkg-config --cflags --libs zemhttpd) -o host
sed 's/"HttpPort"=dword:00001f90/"HttpPort"=dword:00001f91/' $registry >host.reg
[ "$(./host host.reg </dev/null)" = 'host: ready' ]

step 'has its log put away'
[ -s $log ]
logrotate -f /etc/logrotate.d/zemhttpd
[ "$(find /var/log/zemhttpd -name 'zemhost.log-*' | wc -l)" -eq 1 ]
end=$((SECONDS + 120))
until [ -e $log ]; do [ $SECONDS -lt $end ] || fail 'the log is not opened again'; done
python3 -B -c "from zemclient import ZemClient
with ZemClient('http://127.0.0.1:8080', 'after'): pass"
end=$((SECONDS + 120))
until grep -q "after" $log; do [ $SECONDS -lt $end ] || fail 'nothing goes to the new log'; done

step 'serves at port 80 when it is told to'
sed -i 's/"HttpPort"=dword:00001f90/"HttpPort"=dword:00000050/' $registry
systemctl restart zemhttpd.service
answers 80
grep -qE '^CapEff:\s0+$' "/proc/$(main_pid)/status"

step 'says why it does not start, and is not started again and again'
mv $volume $volume.away
if systemctl restart zemhttpd.service 2>/dev/null; then fail 'it starts without a volume'; fi
[ "$(systemctl show -P ExecMainStatus zemhttpd.service)" = 3 ]
[ "$(systemctl show -P NRestarts zemhttpd.service)" = 0 ]
systemctl show -P StatusText zemhttpd.service | grep -F "the volume root '$volume' does not exist; create it"
mv $volume.away $volume
systemctl restart zemhttpd.service
answers 80

step 'is started again when it was killed'
systemctl kill -s KILL zemhttpd.service
end=$((SECONDS + 120))
until curl -s --max-time 5 -o /dev/null http://127.0.0.1/media/status; do [ $SECONDS -lt $end ] || fail 'it stays down'; done

step 'upgrades, and keeps the settings and the media'
before=$(main_pid)
apt-get install -qq --no-install-recommends -o Dpkg::Options::=--force-confold ./next.deb
grep -q '"HttpPort"=dword:00000050' $registry
if grep -q 'next version' $registry; then fail 'the settings were replaced'; fi
grep -q 'next version' $registry.dpkg-dist
[ "$(main_pid)" != "$before" ]
answers 80
[ -s $volume/clip ]
[ "$(systemctl is-enabled zemhttpd.service)" = enabled ]

step 'goes back to the version before'
apt-get install -qq --no-install-recommends --allow-downgrades -o Dpkg::Options::=--force-confold ./first.deb
[ "$(dpkg-query -W -f '${Version}' zemhttpd)" = "$(dpkg-deb -f first.deb Version)" ]
grep -q '"HttpPort"=dword:00000050' $registry
answers 80
[ -s $volume/clip ]

step 'stays off over an upgrade when it was switched off, also while the volume is away'
systemctl disable --now zemhttpd.service 2>/dev/null
mv $volume $volume.away
ln -s /srv/away $volume
dpkg --force-confold -i next.deb >/dev/null
rm $volume
mv $volume.away $volume
[ "$(systemctl is-enabled zemhttpd.service || true)" = disabled ]
systemctl enable --now zemhttpd.service 2>/dev/null
answers 80

step 'is removed, but not what belongs to the operator'
dpkg -r zemhttpd
[ ! -e /usr/sbin/zemhost ]
[ ! -e /lib/systemd/system/zemhttpd.service ]
if curl -s --max-time 5 -o /dev/null http://127.0.0.1/media/status; then fail 'it still answers'; fi
[ -s $volume/clip ]
[ -s $registry ]
[ -s $log ]

step 'comes back as it was'
dpkg -i next.deb
answers 80
[ "$(systemctl is-enabled zemhttpd.service)" = enabled ]

step 'is purged, but not the media'
dpkg -P zemhttpd
[ ! -e /etc/zemhttpd ]
[ ! -e /etc/logrotate.d/zemhttpd ]
[ ! -e /var/log/zemhttpd ]
[ -s $volume/clip ]
[ -z "$(find /etc/systemd /var/lib/systemd -name '*zemhttpd*')" ]
if dpkg-query -W zemhttpd 2>/dev/null; then fail 'dpkg still knows it'; fi

step 'leaves nothing when there were no media'
rm -r "${volume:?}"/clip*
apt-get install -qq --no-install-recommends ./first.deb >/dev/null
answers 8080
dpkg -P zemhttpd >/dev/null
[ ! -e /var/lib/zemhttpd ]
trap - ERR
printf 'All steps done.\n'
