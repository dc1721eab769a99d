#!/usr/bin/env bash
# zemhost_test.sh ZEMHOST SOURCE_DIR CASE: the program from its command line to its exit code.
# shellcheck source=tests/zemhost/cases.sh
. "$(dirname "${BASH_SOURCE[0]}")/cases.sh"

case_help() {
    expect 0 --help
    for option in --registry --listen --port --volume --user --log --settings --version '-h, --help'; do
        says out "  $option"
    done
    says out 'Exit codes:'
    says out '  0  stopped as asked'
    cp "$work/out" "$work/long"
    expect 0 -h
    cmp "$work/long" "$work/out" || fail '-h says something else'
    expect 2 -h=yes
    last_line_is 'zemhost: -h takes no value; see zemhost --help.'
}

case_version() {
    expect 0 --version
    grep -qE '^zemhost [0-9]+\.[0-9]+\.[0-9]+$' "$work/out" || fail 'no version'
}

case_unknown_option() {
    expect 2 --prot 8080
    last_line_is "zemhost: there is no option '--prot'; see zemhost --help."
}

case_wrong_port() {
    expect 2 --port 65536
    last_line_is "zemhost: '65536' is not a port; give a number from 1 to 65535 with --port."
}

case_settings_and_their_sources() {
    expect 0 --registry "$source_dir/packaging/zemhttpd.reg" --port 8123 --settings
    printf '%s\n' 'port 8123 option' 'listen 127.0.0.1 registry' 'volume /var/lib/zemhttpd/volume registry' \
        'log-format text registry' 'address http://127.0.0.1:8123' | cmp - "$work/out" || fail 'other settings'
}

# Whatever stands in this machine's own registry file.
no_settings() {
    printf 'Windows Registry Editor Version 5.00\n' >"$work/empty.reg"
}

case_settings_of_an_empty_registry_file() {
    no_settings
    ZEM_REGISTRY=$work/empty.reg expect 0 --settings
    printf '%s\n' 'port 80 default' 'listen all default' 'volume none default' \
        'log-format text default' 'address http://127.0.0.1:80 on every address' |
        cmp - "$work/out" || fail 'other settings'
}

case_settings_with_a_key_that_nobody_reads() {
    settings_file '"HttpPort"=dword:00001f90' '[HKEY_LOCAL_MACHINE\Software\Quorvane\ZEM]' '"HttpPort"=dword:00000050'
    expect 0 --registry "$work/settings.reg" --settings
    says out 'port 8080 registry'
    says out 'note nobody reads the value httpport of hkey_local_machine\software\quorvane\zem'
}

# The script at the root looks at its options before it installs or builds anything.

case_run_refuses_wrong_options() {
    zemhost=$source_dir/run
    expect 0 --help
    for option in --build --port --listen --volume --registry; do says out " $option"; done
    for wrong in --port --port= '--listen=' '--volume=' '--registry='; do
        expect 2 "$wrong"
        last_line_is "run: ${wrong%=} needs a value; see ./run --help"
    done
    expect 2 --volume ''
    last_line_is 'run: --volume needs a value; see ./run --help'
    expect 2 --prot 8080
    last_line_is 'run: there is no option --prot; see ./run --help'
    for wrong in 0 65536 http 123456; do
        expect 2 --port "$wrong"
        last_line_is "run: '$wrong' is not a port; give a number from 1 to 65535 with --port"
    done
    expect 2 --volume "$work/none"
    last_line_is "run: there is no directory $work/none; see ./run --help"
    expect 2 --registry "$work/none"
    last_line_is "run: there is no file $work/none; see ./run --help"
}

case_test_tells_its_options_before_it_builds() {
    mkdir "$work/tree"
    cp "$source_dir/test" "$work/tree/test"
    ln -s "$source_dir/packaging" "$work/tree/packaging"
    zemhost=$work/tree/test
    for option in --help -h; do
        expect 0 "$option"
        for told in -R -L --coverage --windows 'ninja -C build/release commands_test'; do says out "$told"; done
        [ ! -e "$work/tree/build" ] || fail 'it builds'
    done
}

case_the_long_run_tells_what_it_does_before_it_does_anything() {
    mkdir -p "$work/tree/.ci"  # nothing is there that it could do
    cp "$source_dir/.ci/run" "$work/tree/.ci/run"
    zemhost=$work/tree/.ci/run
    expect 0 --help
    says out '75 minutes'
    expect 2 --quick
    last_line_is '.ci/run: there is no option --quick; see .ci/run --help'
}

case_packages_of_a_group_that_there_is_not() {
    zemhost=$source_dir/packaging/install-packages
    expect 1 build nonsuch
    last_line_is "install-packages: there is no group 'nonsuch'; there are: $(sed -n 's/^packages_\([a-z]*\)=.*/\1/p' \
        "$source_dir/packaging/packages.sh" | sort | tr '\n' ' ')"
    expect 1
    expect 0 --help
    says out 'Groups: bench '
}

case_run_waits_for_another_build_in_its_folder() {
    tree=$work/tree
    mkdir -p "$tree/build/release" "$work/built"
    : >"$tree/build/release/build.ninja"
    cp "$source_dir/run" "$tree/run"
    ln -s "$source_dir/packaging" "$tree/packaging"
    printf '#!/bin/sh\ntouch "%s"\n' "$work/was_built" >"$work/built/ninja"
    chmod +x "$work/built/ninja"
    mkfifo "$work/pipe"
    exec 8>"$tree/build/release.lock"
    flock 8
    PATH=$work/built:$PATH "$tree/run" --build >"$work/out" 2>"$work/pipe" 8>&- &
    pid=$!
    exec 5<"$work/pipe"
    line=''
    until [ "$line" = 'Waiting for another build of release' ]; do read -t 120 -r line <&5 || fail 'it does not wait'; done
    [ ! -e "$work/was_built" ] || fail 'it builds beside the other'
    flock -u 8
    expect_end run
    [ -e "$work/was_built" ] || fail 'it does not build afterwards'
}

# start_run OPTION...: starts the script in a tree of links, so that the volume that it makes is not the developer's. Its ready
# line is in $line, what it says before in $before.
start_run() {
    tree=$work/tree
    mkdir -p "$tree/apps" "$tree/build" "$work/built"
    cp "$source_dir/run" "$tree/run"
    ln -s "$source_dir/packaging" "$tree/packaging"
    ln -s "$source_dir/apps/console" "$tree/apps/console"
    ln -s "$(dirname "$(dirname "$zemhost")")" "$tree/build/release"
    printf '#!/bin/sh\n' >"$work/built/ninja"  # what runs this test has built
    chmod +x "$work/built/ninja"
    mkfifo "$work/pipe"
    for _ in 1 2 3 4 5; do
        port=$(random_port)
        PATH=$work/built:$PATH "$tree/run" --port "$port" "$@" >"$work/pipe" 2>"$work/err" &
        pid=$!
        exec 5<"$work/pipe"
        before=''
        while read -t 120 -r line <&5; do
            if [[ $line == 'zemhost ready'* ]]; then break 2; fi
            before+=$line
        done
        wait "$pid" || true
        pid=''
        grep -qF 'is taken by another program' "$work/err" || fail 'no ready line'
    done
}

case_run_lets_an_option_hold_over_a_value_that_is_none() {
    settings_file '"HttpPort"=dword:00000000'
    mkdir "$work/volume"
    start_run --registry "$work/settings.reg" --volume "$work/volume"
    [ "$line" = "zemhost ready: http://127.0.0.1:$port/ (volume root $work/volume)" ] || fail "ready line: $line"
    stop TERM
}

case_run_serves_a_volume_of_its_own_with_the_console_page() {
    start_run
    [ "$line" = "zemhost ready: http://127.0.0.1:$port/ (volume root $tree/volume)" ] || fail "ready line: $line"
    ask 'GET /media/console.html HTTP/1.0\r\nHost: x\r\n\r\n'
    tail -c "$(wc -c <"$source_dir/apps/console/console.html")" "$work/out" | cmp - "$source_dir/apps/console/console.html" ||
        fail 'the console page is another'
    ask 'GET /media/status HTTP/1.0\r\nHost: x\r\n\r\n'
    says out 'HTTP/1.1 200 OK'
    stop TERM
}

case_run_tells_an_address_that_can_be_asked() {
    start_run --listen 0.0.0.0
    [ "$line" = "zemhost ready: http://127.0.0.1:$port/ on every address (volume root $tree/volume)" ] || fail "ready line: $line"
    until [[ $line == 'In a browser: '* ]]; do IFS= read -t 120 -r line <&5 || fail 'it does not say what to try'; done
    [ "$line" = "In a browser: http://127.0.0.1:$port/media/console.html" ] || fail "it says $line"
    stop TERM
}

# What to try is told when the server is ready, and not where it cannot start.
case_run_tells_what_to_try_once_it_serves() {
    start_run
    [ -z "$before" ] || fail "before it is ready it says: $before"
    local told=''
    until [[ $line == 'In a browser: '* ]]; do
        IFS= read -t 120 -r line <&5 || fail "it does not say what to try: $told"
        told+=$line$'\n'
    done
    printf '%s\n' "$told" >"$work/out"
    says out 'Ctrl-C ends it.'
    says out "  curl http://127.0.0.1:$port/media/status"
    says out "  $tree/build/release/bin/zem --server http://127.0.0.1:$port put CLIP media/clip"
    says out "In a browser: http://127.0.0.1:$port/media/console.html"
    zemhost=$tree/run
    PATH=$work/built:$PATH expect 4 --port "$port"
    last_line_is "zemhost: port $port of 127.0.0.1 is taken by another program; stop that, or give another port with --port N."
    [ ! -s "$work/out" ] || fail 'it tells what to try where it does not serve'
    printf '%s\r\n' 'Windows Registry Editor Version 5.00' '[HKEY_LOCAL_MACHINE\Software\Quorvane Group\RUD\vfs]' \
        "\"0\"=\"$work/none\"" >"$work/settings.reg"
    PATH=$work/built:$PATH expect 3 --registry "$work/settings.reg" --port "$port"
    last_line_is "zemhost: the volume root '$work/none' does not exist; create it or give another with --volume DIR."
    [ ! -s "$work/out" ] || fail 'it tells what to try where there is no volume'
    stop TERM
}

case_registry_file_missing() {
    expect 3 --registry "$work/none" --volume "$work"
    last_line_is "zemhost: the registry file '$work/none' does not exist; give one that does with --registry FILE."
}

# Nobody knows what it was to set, and without it the server could be open to everybody.
case_registry_file_of_the_environment_missing() {
    for arguments in '--listen 127.0.0.1' --settings; do
        # shellcheck disable=SC2086
        ZEM_REGISTRY=$work/none expect 3 --volume "$work" $arguments
        last_line_is "zemhost: the registry file '$work/none' does not exist; give one that does with --registry FILE."
    done
}

case_registry_file_malformed() {
    echo '{ "port": 8080 }' >"$work/file"
    expect 3 --registry "$work/file" --volume "$work"
    last_line_is "zemhost: the registry file '$work/file' is not a registry export; its first line must be: Windows Registry Editor Version 5.00."
}

case_log_format_unknown() {
    settings_file '"LogFormat"="xml"'
    for settings in '' --settings; do
        expect 3 --registry "$work/settings.reg" --volume "$work" $settings
        last_line_is "zemhost: the registry value LogFormat is 'xml'; give it text or json."
        [ ! -s "$work/out" ] || fail 'something went to standard output'
    done
}

case_settings_with_an_address_that_is_none() {
    expect 3 --listen nowhere --settings
    last_line_is "zemhost: 'nowhere' is not an IP address; give one, such as 127.0.0.1, with --listen ADDRESS."
    [ ! -s "$work/out" ] || fail 'something went to standard output'
}

case_port_that_is_none_in_the_registry() {
    for number in 0 65536 4294967295; do
        settings_file "\"HttpPort\"=dword:$(printf %08x $number)"
        for settings in '' --settings; do
            expect 3 --registry "$work/settings.reg" --volume "$work" $settings
            last_line_is "zemhost: the registry value HttpPort is $number; give it a number from 1 to 65535."
            [ ! -s "$work/out" ] || fail 'something went to standard output'
        done
    done
    expect 0 --registry "$work/settings.reg" --port 8123 --settings  # an option is laid over it
    says out 'port 8123 option'
}

# Without its value the server would be elsewhere, or open to everybody.
case_values_that_decide_and_are_not_read() {
    local parameters='[HKEY_LOCAL_MACHINE\System\CurrentControlSet\Services\HTTP\Parameters]'
    for lines in '"HttpPort"="8080"' '"LogFormat"=dword:00000001' "$parameters"$'\r\n''"ListenOnlyList"="127.0.0.1"' \
        '[HKEY_LOCAL_MACHINE\Software\Quorvane Group\RUD\vfs]'$'\r\n''"0"=dword:00000001'; do
        settings_file "$lines" "$parameters" '"MaxRequestBytes"="1"'
        for settings in '' --settings; do
            expect 3 --registry "$work/settings.reg" $settings
            [ "$(grep -c 'which is not read; its line must be "' "$work/err")" = 2 ] || fail 'not both are named'
            [ ! -s "$work/out" ] || fail 'something went to standard output'
        done
    done
    settings_file '"HttpPort"="8080"'
    expect 0 --registry "$work/settings.reg" --port 8123 --settings  # an option is laid over it
}

# The line that is advised is one.
case_advised_line_is_read() {
    local parameters='[HKEY_LOCAL_MACHINE\System\CurrentControlSet\Services\HTTP\Parameters]'
    settings_file "$parameters" '"ListenOnlyList"="10.1.2.3,::1"'
    expect 3 --registry "$work/settings.reg" --settings
    settings_file "$parameters" "$(sed -n 's/.*its line must be \(.*\) (10.1.2.3,::1).$/\1/p' "$work/err")"
    expect 0 --registry "$work/settings.reg" --settings
    says out 'listen 10.1.2.3,::1 registry'
}

case_other_values_that_are_not_read_are_named() {
    settings_file '"HttpFileServer"="1"'
    expect 3 --registry "$work/settings.reg" --settings
    last_line_is "zemhost: $(said_of_file_server)."
    start --registry "$work/settings.reg"
    stop TERM
    last_line_is "zemhost: $(said_of_file_server)."
}
said_of_file_server() {
    printf '%s' 'the registry value HttpFileServer of Software\Quorvane Group\ZEM is a text, which is not read; ' \
        'its line must be "HttpFileServer"=dword:00000001 (1 in hexadecimal)'
}

# What a line was meant to set nobody knows.
case_registry_file_with_a_line_that_is_none() {
    settings_file '"HttpPort"=8080'
    for settings in '' --settings; do
        expect 3 --registry "$work/settings.reg" --volume "$work" $settings
        says err "registry: $work/settings.reg:3: the value is of no known kind"
        last_line_is "zemhost: the registry file '$work/settings.reg' has lines that are not understood, named above; mend them, or put a ; before each."
        [ ! -s "$work/out" ] || fail 'something went to standard output'
    done
}

case_volume_not_set() {
    no_settings
    ZEM_REGISTRY=$work/empty.reg expect 3 --listen 127.0.0.1
    last_line_is 'zemhost: no volume root is set; give the directory that holds the media with --volume DIR.'
}

case_volume_missing() {
    expect 3 --listen 127.0.0.1 --volume "$work/none"
    last_line_is "zemhost: the volume root '$work/none' does not exist; create it or give another with --volume DIR."
}

# GET and DELETE put the root in front of a name, and both together have 259 characters at most.
case_volume_with_a_long_name() {
    local folder=$work
    while [ ${#folder} -lt 240 ]; do folder+=/123456789; done
    while [ ${#folder} -lt 250 ]; do folder+=x; done
    mkdir -p "${folder}x"
    expect 3 --listen 127.0.0.1 --volume "${folder}x"
    last_line_is "zemhost: the volume root '${folder}x' has 251 characters, and with the name of a file there may be 259; give a shorter one with --volume DIR."
    mkdir "$folder"
    start --volume "$folder"
    mkdir "$folder/zem"
    echo x >"$folder/zem/1234"
    [ "$(curl -s -o /dev/null -w '%{http_code}' "http://127.0.0.1:$port/zem/123")" = 400 ] || fail 'there is none'
    mv "$folder/zem/1234" "$folder/zem/123"
    [ "$(curl -s "http://127.0.0.1:$port/zem/123")" = x ] || fail 'a name of eight characters'
    stop TERM
    says err "the volume root '$folder' is so long that GET and DELETE reach no file whose name, with /media/ or /zem/, has more than 8 characters; a shorter one is given with --volume DIR."
}

case_volume_is_a_file() {
    : >"$work/file"
    expect 3 --listen 127.0.0.1 --volume "$work/file"
    last_line_is "zemhost: the volume root '$work/file' is not a directory; give one with --volume DIR."
}

case_address_is_no_address() {
    expect 3 --listen localhost --volume "$work"
    last_line_is "zemhost: 'localhost' is not an IP address; give one, such as 127.0.0.1, with --listen ADDRESS."
}

case_address_of_no_machine() {
    for address in 224.0.0.1 255.255.255.255 ff02::1 fe80::1 ::ffff:127.0.0.1; do
        for settings in '' --settings; do
            expect 3 --listen "$address" --volume "$work" $settings
            last_line_is "zemhost: $address is a multicast, broadcast, link-local or IPv4-mapped address, on which no server can listen here; give another with --listen ADDRESS."
        done
    done
}

case_address_in_the_registry_that_is_none() {
    local parameters='[HKEY_LOCAL_MACHINE\System\CurrentControlSet\Services\HTTP\Parameters]'
    settings_file "$parameters" '"ListenOnlyList"=hex(7):31,00,00,00,00,00'
    expect 3 --registry "$work/settings.reg" --volume "$work"
    last_line_is "zemhost: the registry value ListenOnlyList: '1' is not an IP address; give one, such as 127.0.0.1, with --listen ADDRESS."
    settings_file "$parameters" '"ListenOnlyList"="10.0.0.1 ::1, ::1"'
    expect 3 --registry "$work/settings.reg" --volume "$work"
    says err "'10.0.0.1 ::1' is no IP address"
}

case_address_that_is_given_twice() {
    for settings in '' --settings; do
        expect 3 --listen 127.0.0.1,127.0.0.1 --volume "$work" $settings
        last_line_is 'zemhost: the address 127.0.0.1 is given twice; give each once with --listen ADDRESS.'
    done
    port=$(random_port)
    expect 4 --listen 127.0.0.1,0.0.0.0 --port "$port" --volume "$work"
    last_line_is "zemhost: one of the addresses is part of another, and port $port cannot be opened on both; give one of them with --listen ADDRESS."
}

case_ready_on_every_address() {
    start --listen 0.0.0.0
    [ "$ready" = "zemhost ready: http://127.0.0.1:$port/ on every address (volume root $work/volume)" ] ||
        fail "ready line: $ready"
    stop TERM
}

case_address_of_another_machine() {
    expect 4 --listen 192.0.2.1 --port "$(random_port)" --volume "$work"
    last_line_is 'zemhost: 192.0.2.1 is not an address of this machine; give one that is with --listen ADDRESS.'
}

case_log_file_cannot_be_opened() {
    expect 3 --listen 127.0.0.1 --port "$(random_port)" --volume "$work" --log "$work/none/log"
    last_line_is "zemhost: cannot open the log file '$work/none/log': No such file or directory; give another with --log FILE."
}

# Nobody reads the pipe: opening it must not wait, for a start that waits holds the port and hears no signal.
case_log_file_is_a_pipe_that_nobody_reads() {
    mkfifo "$work/log"
    drop=(timeout -s KILL 60)
    expect 3 --listen 127.0.0.1 --port "$(random_port)" --volume "$work" --log "$work/log"
    last_line_is "zemhost: cannot open the log file '$work/log': No such device or address; give another with --log FILE."
}

case_log_goes_to_a_pipe_that_is_read() {
    mkfifo "$work/log"
    exec 8<>"$work/log"
    start --log "$work/log"
    ask 'POST /media/ HTTP/1.1\r\nHost: x\r\nZem-Id: studio-1\r\nContent-Length: 16\r\nConnection: close\r\n\r\n\1\0\0\0\17\0\0\0\4\0\0\0\0\0\0\0'
    stop TERM
    local logged=''
    until [[ $logged == *Joining* ]]; do read -t 120 -r logged <&8 || fail 'no join in the log'; done
}

case_port_taken() {
    start
    expect 4 --registry "$source_dir/packaging/zemhttpd.reg" --listen 127.0.0.1 --port "$port" --volume "$work"
    last_line_is "zemhost: port $port of 127.0.0.1 is taken by another program; stop that, or give another port with --port N."
    stop TERM
}

case_tells_the_service_manager() {
    mkdir "$work/volume"
    for volume in "$work/volume" "$work/none"; do
        python3 -B - "$work/socket" "$zemhost" --registry "$source_dir/packaging/zemhttpd.reg" --listen 127.0.0.1 \
            --port "$(random_port)" --volume "$volume" >"$work/out" 2>"$work/err" <<'END' || fail 'no datagram'
import os, socket, subprocess, sys
path, command = sys.argv[1], sys.argv[2:]
for name in [path, '\0' + path]:
    with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as manager:
        manager.bind(name)
        manager.settimeout(30)
        process = subprocess.Popen(command, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL,
                                   env=dict(os.environ, NOTIFY_SOCKET=name.replace('\0', '@')))
        print(manager.recv(4096).decode())
        process.terminate()
        process.wait(30)
os.unlink(path)
END
        if [ "$volume" = "$work/volume" ]; then said='READY=1'; else
            said="STATUS=the volume root '$work/none' does not exist; create it or give another with --volume DIR"
        fi
        printf '%s\n%s\n' "$said" "$said" | cmp - "$work/out" || fail 'it says something else'
    done
}

case_ready_and_stopped_by_sigterm() {
    start
    [ "$ready" = "zemhost ready: http://127.0.0.1:$port/ (volume root $work/volume)" ] || fail "ready line: $ready"
    (exec 3<>"/dev/tcp/127.0.0.1/$port") || fail 'ready, but nobody listens'
    stop TERM
    [ ! -s "$work/err" ] || fail 'something went to standard error'
    if (exec 3<>"/dev/tcp/127.0.0.1/$port") 2>/dev/null; then fail 'stopped, but somebody listens'; fi
}

case_stopped_by_sigint() {
    start
    stop INT
}

case_port_is_free_again_after_a_stop() {
    start
    exec 6<>"/dev/tcp/127.0.0.1/$port"  # a connection that is there at the stop leaves its address busy for a while
    stop TERM
    exec 6>&-
    rm "$work/pipe"
    mkfifo "$work/pipe"
    "$zemhost" --listen 127.0.0.1 --port "$port" --volume "$work/volume" >"$work/pipe" 2>"$work/err" &
    pid=$!
    exec 5<"$work/pipe"
    read -t 120 -r ready <&5 || fail 'no second ready line'
    stop TERM
}

case_status_page() {
    start
    exec 6<>"/dev/tcp/127.0.0.1/$port"
    printf 'GET /media/status HTTP/1.1\r\nHost: x\r\nConnection: close\r\n\r\n' >&6
    timeout 120 cat <&6 >"$work/out" || fail "no whole answer"
    says out 'HTTP/1.1 200 OK'
    grep -qE '^0 [0-9]+ [0-9]+$' "$work/out" || fail 'no capacity'
    stop TERM
}

case_join_is_in_the_log_file() {
    start --log "$work/log"
    exec 6<>"/dev/tcp/127.0.0.1/$port"
    printf 'POST /media/ HTTP/1.1\r\nHost: x\r\nZem-Id: studio-1\r\nContent-Length: 16\r\nConnection: close\r\n\r\n' >&6
    printf '\1\0\0\0\17\0\0\0\4\0\0\0\0\0\0\0' >&6
    timeout 120 cat <&6 >"$work/out" || fail "no whole answer"
    says out 'HTTP/1.1 200 OK'
    stop TERM
    cp "$work/log" "$work/out"
    grep -qE '^20[0-9-]{8} [0-9:.]{12} trace   \[[0-9]+\] .*: Joining ' "$work/out" || fail 'no join in the log'
    [ ! -s "$work/err" ] || fail 'something went to standard error'
}

# Control characters in what clients send stay inside the object that they are logged in.

case_log_as_json() {
    settings_file '"LogFormat"="json"'
    TZ=here3:30 start --registry "$work/settings.reg" --log "$work/log"
    ask 'POST /media/ HTTP/1.1\r\nHost: x\r\nZem-Id: a"},{\\ b\r\nContent-Length: 20\r\nConnection: close\r\n\r\n\1\0\0\0\5\0\0\0\10\0\0\0\0\0\0\0\0\0\0\0'
    says out 'HTTP/1.1 200 OK'
    stop TERM
    python3 -B - "$work/log" <<'END' || fail 'the log is something else'
import datetime, json, sys
records = [json.loads(line) for line in open(sys.argv[1], encoding='utf-8')]
for record in records:
    time = datetime.datetime.fromisoformat(record['time'])
    assert time.utcoffset() == -datetime.timedelta(hours=3, minutes=30), record
    assert abs(time - datetime.datetime.now(datetime.timezone.utc)) < datetime.timedelta(hours=1), record
    assert record['thread'] > 0 and record['level'], record
unknown = [r for r in records if 'Unknown client' in r['message']]
assert len(unknown) == 1 and unknown[0]['message'].startswith('a"},{\\ b: '), records
assert unknown[0]['level'] == 'error' and unknown[0]['source'] == 'httpcmdhdlr.cpp', unknown
assert unknown[0]['result'] == '0x80070057' and unknown[0]['line'] != 0, unknown
END
}

case_log_is_opened_again_at_sigusr1() {
    start --log "$work/log"
    mv "$work/log" "$work/log.old"
    kill -USR1 "$pid"
    local end=$((SECONDS + 120))
    until [ -e "$work/log" ]; do [ $SECONDS -lt $end ] || fail 'no new log file'; done
    ask 'POST /media/ HTTP/1.1\r\nHost: x\r\nZem-Id: studio-1\r\nContent-Length: 16\r\nConnection: close\r\n\r\n\1\0\0\0\17\0\0\0\4\0\0\0\0\0\0\0'
    stop TERM
    grep -q 'Joining' "$work/log" || fail 'the new file is not written to'
    if grep -q 'Joining' "$work/log.old"; then fail 'the old file is written to'; fi
}

run_case
