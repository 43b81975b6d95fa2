#!/bin/bash
# Checks scripts/install-engine --remote and --mirror: a prefix whose daemon is
# a scanning service on 127.0.0.1 reached over TCP alone, the stream limit,
# and definitions from one mirror only. Needs Debian's ClamAV packages.
set -uo pipefail

repo=$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)
installer=$repo/scripts/install-engine
marker=KORVANE-HARMLESS-TEST-MARKER-479d68183ddb73ac

passed=0 failed=0
pass() { passed=$((passed + 1)); echo "ok   $1"; }
fail() { failed=$((failed + 1)); echo "FAIL $1"; [[ -z ${2-} ]] || printf '     %s\n' "$2"; }
expect_eq() { # name expected actual
    if [[ $3 == "$2" ]]; then pass "$1"; else fail "$1" "expected [$2], got [$3]"; fi
}
expect_match() { # name regex actual
    if [[ $3 =~ $2 ]]; then pass "$1"; else fail "$1" "[$3] does not match /$2/"; fi
}
expect_no_match() { # name regex actual
    if [[ $3 =~ $2 ]]; then fail "$1" "[$3] matches /$2/"; else pass "$1"; fi
}

tmp=$(mktemp -d "${TMPDIR:-/tmp}/kv remote.XXXXXX")
prefix="$tmp/remote prefix"
service=$tmp/service
daemon_pid=

stop_service() {
    [[ -n $daemon_pid ]] || return 0
    kill "$daemon_pid" 2>/dev/null
    wait "$daemon_pid" 2>/dev/null
    daemon_pid=
}
cleanup() {
    stop_service
    rm -rf "$tmp"
}
trap cleanup EXIT
trap 'exit 130' INT TERM

# --- a scanning service on 127.0.0.1 ---------------------------------------

mkdir -p "$service/db"
printf 'Korvane.Test.Marker:0:*:%s\n' "$(printf %s "$marker" | od -An -tx1 | tr -d ' \n')" > "$service/db/korvane.ndb"
# A port nobody uses is found by trying: the daemon exits when it cannot bind.
start_service() {
    local tries
    for tries in 1 2 3 4 5 6 7 8; do
        [[ -n ${port-} ]] || port=$((20000 + RANDOM % 40000))
        cat > "$service/clamd.conf" <<CONF
TCPAddr 127.0.0.1
TCPSocket $port
StreamMaxLength 1M
DatabaseDirectory $service/db
TemporaryDirectory $tmp
Foreground yes
LogSyslog no
CONF
        /usr/sbin/clamd --config-file="$service/clamd.conf" > "$service/clamd.out" 2>&1 &
        daemon_pid=$!
        for _ in $(seq 300); do
            [[ $(/usr/bin/clamdscan --config-file="$service/clamd.conf" --ping 1 2>/dev/null) == PONG ]] && return 0
            kill -0 "$daemon_pid" 2>/dev/null || break
            sleep 0.1
        done
        stop_service
        # Once a prefix names the port, only that one will do.
        [[ -z ${fixed_port-} ]] || return 1
        port=
    done
    return 1
}
if start_service; then pass "a daemon listens on 127.0.0.1:$port"
else fail "a daemon listens on 127.0.0.1" "$(cat "$service/clamd.out")"; echo "$passed passed, $failed failed"; exit 1; fi
fixed_port=1

# --- options ---------------------------------------------------------------

for bad in "--remote 127.0.0.1" "--remote host:70000" "--stream-max-length 1M" "--mirror a#b"; do
    # shellcheck disable=SC2086
    if out=$("$installer" $bad "$tmp/never" 2>&1); then fail "refuses $bad" "$out"
    else pass "refuses $bad"; fi
done

# --- layout ----------------------------------------------------------------

if out=$("$installer" --remote "127.0.0.1:$port" --stream-max-length 1M --mirror "http://127.0.0.1:9/clamav" "$prefix" 2>&1)
then pass "install a remote prefix"
else fail "install a remote prefix" "$out"; echo "$passed passed, $failed failed"; exit 1; fi
expect_match "summary names the service" "scanning service: 127.0.0.1:$port" "$out"

conf=$(<"$prefix/etc/clamd.conf")
expect_match "clamd.conf names the service's address" $'(^|\n)TCPAddr 127.0.0.1\n' "$conf"
expect_match "clamd.conf names the service's port" $'(^|\n)TCPSocket '"$port"$'\n' "$conf"
expect_match "clamd.conf states the stream limit" $'(^|\n)StreamMaxLength 1M($|\n)' "$conf"
expect_no_match "clamd.conf names no local socket" $'(^|\n)LocalSocket' "$conf"
expect_match "clamdscan streams" "--stream" "$(<"$prefix/bin/clamdscan")"
expect_no_match "clamdscan does not pass descriptors" "--fdpass" "$(<"$prefix/bin/clamdscan")"
[[ ! -e $prefix/run && ! -e $prefix/libexec/engine-helper ]] && pass "no socket folder and no helper" \
    || fail "no socket folder and no helper"
if out=$("$prefix/sbin/clamd" 2>&1); then fail "sbin/clamd starts nothing" "$out"
else expect_match "sbin/clamd starts nothing and names the service" "127.0.0.1:$port" "$out"; fi
if (( EUID == 0 )); then
    expect_eq "definitions are root's, no engine account needed" "root" "$(stat -c %U "$prefix/share/clamav")"
fi

fresh=$(<"$prefix/etc/freshclam.conf")
expect_match "freshclam.conf takes the mirror" $'(^|\n)PrivateMirror http://127.0.0.1:9/clamav($|\n)' "$fresh"
expect_no_match "freshclam.conf names no other mirror" $'(^|\n)(DatabaseMirror|DNSDatabaseInfo)' "$fresh"

# --- scans through the service ---------------------------------------------

files=$tmp/files
mkdir -p "$files/folder"
printf 'x %s x\n' "$marker" > "$files/marked.txt"
echo "nothing to see here" > "$files/clean.txt"
# The marker past the limit: a client that sent only the first MiB would say OK.
{ head -c 1048576 /dev/zero; printf '%s' "$marker"; } > "$files/folder/over.bin"
cp "$files/marked.txt" "$files/folder/inner.txt"

printf '%s\n' "$files/folder" "$files/clean.txt" > "$tmp/list"
out=$("$prefix/bin/clamdscan" --no-summary --file-list="$tmp/list" 2>&1); status=$?
expect_match "a file over the limit is reported as not scanned" \
    "(^|$'\n')$files/folder/over.bin: Size limit exceeded \(StreamMaxLength 1048576 bytes\), not scanned ERROR" "$out"
expect_no_match "a file over the limit is never called clean" "over.bin: OK" "$out"
expect_match "the rest of its folder is scanned" "inner.txt: Korvane.Test.Marker.UNOFFICIAL FOUND" "$out"
expect_match "the rest of the list is scanned" "clean.txt: OK" "$out"
expect_eq "status 2 when a file was not scanned" 2 "$status"

# --- the service away ------------------------------------------------------

# With the local set out of the way, only the service can name a version.
stop_service
cp "$prefix/share/clamav/daily.cud" "$service/db/daily.cud"
start_service || fail "the service starts with our set"
mv "$prefix/share/clamav/daily.cud" "$tmp/local.cud"
expect_match "clamscan -V gives the service's line" "^ClamAV [0-9.]+/1/" "$("$prefix/bin/clamscan" -V)"
mv "$tmp/local.cud" "$prefix/share/clamav/daily.cud"
stop_service
out=$("$prefix/bin/clamdscan" --no-summary "$files/marked.txt" 2>&1); status=$?
expect_eq "status 2 while the service is away" 2 "$status"
expect_no_match "nothing is called clean while the service is away" ": OK" "$out"
expect_match "clamscan -V falls back on the local set while the service is away" \
    "^ClamAV [0-9.]+/1/" "$("$prefix/bin/clamscan" -V 2>/dev/null)"

# --- definitions from the mirror only --------------------------------------

# Nothing listens on port 9 of this machine: the update fails at once, having
# asked the mirror and nobody else.
"$prefix/bin/RunFreshclam" --stdout --no-dns > "$tmp/freshclam.out" 2>&1; status=$?
expect_no_match "RunFreshclam fails without its mirror" "^0$" "$status"
fc=$(<"$tmp/freshclam.out")
expect_match "RunFreshclam asks the mirror" "127\.0\.0\.1:9/clamav" "$fc"
expect_no_match "RunFreshclam asks nobody else" "clamav\.net" "$fc"

# A local prefix takes a mirror too and keeps its own daemon's socket.
local_prefix=$tmp/local
chmod 755 "$tmp"
if out=$("$installer" --mirror "https://mirror.example.org/clamav" "$local_prefix" 2>&1); then
    pass "install a local prefix with a mirror"
    expect_match "local freshclam.conf takes the mirror" $'(^|\n)PrivateMirror https://mirror.example.org/clamav($|\n)' \
        "$(<"$local_prefix/etc/freshclam.conf")"
    expect_no_match "local freshclam.conf names no other mirror" $'(^|\n)DatabaseMirror' "$(<"$local_prefix/etc/freshclam.conf")"
    expect_match "local clamdscan keeps passing descriptors" "--fdpass" "$(<"$local_prefix/bin/clamdscan")"
else
    fail "install a local prefix with a mirror" "$out"
fi

echo "$passed passed, $failed failed"
(( failed == 0 ))
