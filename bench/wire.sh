# A client of the command protocol in shell, just enough to put one frame on the server and to build the requests that
# are measured. Sourced; expects $work, a directory of the caller's, and $zem_url, the server's base URL. The functions
# that build a request write it to standard output.
# shellcheck shell=bash disable=SC2154

zem_id=bench
zem_token=''  # of the open file: 8 bytes as \x escapes

zem_u32() {  # zem_u32 NUMBER...: little-endian
    local number
    for number in "$@"; do
        # shellcheck disable=SC2059  # the escapes are the format
        printf "$(printf '\\x%02x\\x%02x\\x%02x\\x%02x' $((number & 255)) $((number >> 8 & 255)) \
            $((number >> 16 & 255)) $((number >> 24 & 255)))"
    done
}

zem_zeros() { head -c "$1" /dev/zero; }

zem_name() {  # zem_name ASCII: a name field of 260 UTF-16 units
    printf '%s' "$1" | sed 's/./&\x00/g'
    zem_zeros $((520 - 2 * ${#1}))
}

# shellcheck disable=SC2059
zem_token_bytes() { printf "$zem_token"; }

zem_header() { zem_u32 1 "$1" "$2"; }  # zem_header CODE BODY_SIZE

zem_post() {  # zem_post REQUEST_FILE REPLY_FILE
    curl -sS --fail --max-time 20 -o "$2" -H "Zem-Id: $zem_id" -A 'zembench (Bench/0.1.0)' -H 'Expect:' \
        --data-binary "@$1" "$zem_url"
}

zem_post_raw() {  # zem_post_raw REQUEST_FILE REPLY_FILE: the reply with its HTTP header
    curl -sS --fail --max-time 20 -i -o "$2" -H "Zem-Id: $zem_id" -A 'zembench (Bench/0.1.0)' -H 'Expect:' \
        --data-binary "@$1" "$zem_url"
}

zem_command() {  # zem_command BUILDER...: sends what the builder writes; the reply is in $work/reply
    "$@" >"$work/request"
    zem_post "$work/request" "$work/reply"
}

zem_keepalive_request() { zem_header 17 0; }
zem_leave_request() { zem_header 16 0; }
zem_join_request() { zem_header 15 4; zem_u32 0; }
zem_close_request() { zem_header 5 8; zem_token_bytes; }

zem_create_request() {  # zem_create_request NAME: a video file at 25 frames a second, replacing what is there
    zem_header 1 1100
    zem_name "$1"
    zem_name ''
    zem_u32 $((1 << 16 | 56)) 1 0x47504a4d 25 1 1920 1080 0 0 0 0 0 0 0
    zem_u32 0x13
}

zem_open_request() {  # zem_open_request NAME
    zem_header 2 1052
    zem_name "$1"
    zem_name ''
    zem_u32 0 1 0
}

zem_take_token() {  # from the reply to an open or a create
    zem_token=$(od -An -v -tx1 -j20 -N8 "$work/reply" | sed 's/ /\\x/g')
    [ "$zem_token" != '\x00\x00\x00\x00\x00\x00\x00\x00' ] || fail "the server did not open the file; see its log: $(tail -n 5 "$work/zemhost.log")"
}

zem_entry() {  # zem_entry WORD24 WORD32: one stream entry for position 0
    zem_zeros 8
    zem_token_bytes
    zem_u32 0 0 "$1" 0 "$2"
    zem_zeros 60
}

zem_read_request() {
    zem_header 3 112
    zem_u32 0 1 0 0
    zem_entry 0 0
}

zem_write_request() {  # zem_write_request DATA_FILE
    zem_header 4 112
    zem_u32 0 1 0 0
    zem_entry 1 "$(stat -c %s "$1")"
    cat "$1"
}

zem_open_for_reading() {  # zem_open_for_reading NAME: as a client that joins anew
    zem_command zem_leave_request
    zem_command zem_join_request
    zem_command zem_open_request "$1"
    zem_take_token
}

# zem_write_frame NAME DATA_FILE: makes a file with one frame, and reads it back: what is measured must be the frame.
zem_write_frame() {
    zem_command zem_join_request
    zem_command zem_create_request "$1"
    zem_take_token
    zem_command zem_write_request "$2"
    zem_command zem_close_request
    for _ in $(seq 100); do
        zem_open_for_reading "$1"
        zem_command zem_read_request
        if tail -c +117 "$work/reply" | cmp -s - "$2"; then return; fi
        sleep 0.05
    done
    fail "the frame cannot be read back; see the server's log: $(tail -n 5 "$work/zemhost.log")"
}
