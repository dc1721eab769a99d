# shellcheck shell=bash
# container.sh, sourced after scratch.sh: boots a system that lies in a folder, without network, to try something in it.
: "${work:?}"

# boot SYSTEM COMMAND: COMMAND, run in there by systemd as root once the system is up, and what it printed. Fails when its last
# line is not "All steps done."; says that it cannot be tried where no container boots, or none that can talk to itself.
boot() {
    local system=$1 said=$1/root/try/out
    rm -f "$system/usr/sbin/policy-rc.d"  # what is installed in there is started as on a machine
    cat >"$system/etc/systemd/system/try.service" <<END
[Unit]
Requires=basic.target
After=basic.target
SuccessAction=poweroff-force
FailureAction=poweroff-force
[Service]
Type=oneshot
ExecStart=$2
StandardOutput=file:/root/try/out
StandardError=inherit
END
    # Outside systemd there is no unit to keep; under it the container must not ask for one.
    local options=(--register=no)
    [ -d /run/systemd/system ] || options+=(--keep-unit)
    # What a container is refused and a machine is not: io_uring, and locked memory, without which a library of FFmpeg's complains.
    SYSTEMD_NSPAWN_UNIFIED_HIERARCHY=1 timeout -k 10 400 systemd-nspawn "${options[@]}" --quiet --private-network \
        --system-call-filter='@memlock io_uring_setup io_uring_enter io_uring_register' -D "$system" --boot --console=pipe \
        systemd.unit=try.service </dev/null >"$work/boot" 2>&1 || true
    if [ ! -e "$said" ]; then
        sed 's/^/boot: /' "$work/boot" | tail -n 20
        cannot 'no system boots in a container here'
    fi
    if grep -qx 'No loopback.' "$said"; then cannot 'a container here has no loopback'; fi
    cat "$said"
    tail -n 1 "$said" | grep -qx 'All steps done.' || fail 'the last step did not end'
}
