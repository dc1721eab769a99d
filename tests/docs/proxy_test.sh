#!/usr/bin/env bash
# proxy_test.sh ZEMHOST SOURCE_DIR: the nginx example of docs/security.md as it stands, but for ports and paths: a client
# with a certificate gets through, with whole commands and frames; one without, and a DELETE, do not.
set -euo pipefail
zemhost=$1 source_dir=$2
# shellcheck source=tests/scratch.sh
. "$source_dir/tests/scratch.sh"
end_with=TERM told=(host.log nginx.log answer)
for tool in nginx openssl curl; do
    command -v "$tool" >/dev/null || [ -x "/usr/sbin/$tool" ] || cannot "there is no $tool"
done
nginx=$(command -v nginx || echo /usr/sbin/nginx)
cd "$work"
mkdir volume

certificate() {  # certificate NAME SUBJECT [SIGNER]
    openssl req -new -newkey rsa:2048 -nodes -keyout "$1.key" -subj "/CN=$2" -out "$1.csr" 2>/dev/null
    if [ -z "${3:-}" ]; then
        openssl x509 -req -in "$1.csr" -signkey "$1.key" -days 2 -out "$1.pem" 2>/dev/null
    else
        openssl x509 -req -in "$1.csr" -CA "$3.pem" -CAkey "$3.key" -CAcreateserial -days 2 -out "$1.pem" 2>/dev/null
    fi
}
certificate studio-ca studio
certificate server localhost studio-ca
certificate client edit-1 studio-ca
certificate stranger nobody

ready=''
for _ in 1 2 3 4 5; do
    port=$((10000 + RANDOM % 20000))
    coproc HOST { exec "$zemhost" --listen 127.0.0.1 --port "$port" --volume "$work/volume" 2>"$work/host.log"; }
    server=$HOST_PID
    pid=$server
    if read -t 120 -r ready <&"${HOST[0]}"; then break; fi
    wait "$server" || true
    pid=''
done
[[ $ready == 'zemhost ready'* ]] || fail 'zemhost is not ready'

example=$(sed -n '/^```nginx/,/^```/p' "$source_dir/docs/security.md" | sed '/^```/d')
for _ in 1 2 3 4 5; do
    front=$((10000 + RANDOM % 20000))
    {
        printf 'daemon off;\npid %s/pid;\nerror_log %s/nginx.log;\nuser %s;\nevents {}\nhttp {\naccess_log off;\n' \
            "$work" "$work" "$(id -un)"
        for kind in client_body proxy fastcgi uwsgi scgi; do printf '%s_temp_path %s/temp;\n' $kind "$work"; done
        sed -e "s|listen 8443|listen 127.0.0.1:$front|" -e "s|127.0.0.1:8080|127.0.0.1:$port|" \
            -e "s|/etc/zemhttpd/|$work/|" <<<"$example"
        printf '}\n'
    } >nginx.conf
    "$nginx" -t -q -c "$work/nginx.conf" 2>/dev/null || { "$nginx" -t -c "$work/nginx.conf" || true; fail 'nginx does not take it'; }
    "$nginx" -c "$work/nginx.conf" 2>>nginx.log &
    proxy=$!
    pid="$proxy $server"
    end=$((SECONDS + 120))
    until (exec 3<>"/dev/tcp/127.0.0.1/$front") 2>/dev/null; do
        kill -0 "$proxy" 2>/dev/null || { proxy='' pid=$server; break; }
        [ $SECONDS -lt $end ] || fail 'nginx does not listen'
    done
    [ -z "$proxy" ] || break
done
[ -n "$proxy" ] || fail 'nginx does not run'

ask() { curl -sS --max-time 120 --cacert studio-ca.pem --resolve "localhost:$front:127.0.0.1" -o answer -w '%{http_code}' "$@"; }
with=(--cert client.pem --key client.key)
[ "$(ask "${with[@]}" -D head "https://localhost:$front/media/status")" = 200 ] || fail 'no status page'
grep -q '^Server: Quorvane ZEM /' head || fail 'it does not tell its own version'
grep -qE '^0 [0-9]+ [0-9]+$' answer || fail 'the status page is something else'

# A JOIN, and a KEEP_ALIVE of 12 bytes that is answered with 16.
printf '\1\0\0\0\17\0\0\0\4\0\0\0\0\0\0\0' >join
printf '\2\0\0\0\21\0\0\0\0\0\0\0' >alive
for command in join alive; do
    [ "$(ask "${with[@]}" -H 'Zem-Id: edit-1' --data-binary "@$command" "https://localhost:$front/zem/")" = 200 ] ||
        fail "$command is refused"
    [ "$(stat -c %s answer)" -eq 16 ] || fail "$command is answered with $(stat -c %s answer) bytes"
done
[ "$(ask "${with[@]}" "https://localhost:$front/media/clients")" = 200 ] || fail 'no clients page'
grep -q 'edit-1' answer || fail 'nobody has joined'

mkdir volume/media
echo hello >volume/media/note.txt
[ "$(ask "${with[@]}" "https://localhost:$front/media/note.txt")" = 200 ] || fail 'no file'
[ "$(ask "${with[@]}" -X DELETE "https://localhost:$front/media/note.txt")" = 403 ] || fail 'DELETE gets through'
[ -e volume/media/note.txt ] || fail 'the file is deleted'
[ "$(ask "https://localhost:$front/media/status")" = 400 ] || fail 'no certificate is needed'
[ "$(ask --cert stranger.pem --key stranger.key "https://localhost:$front/media/status")" = 400 ] ||
    fail 'any certificate is enough'
