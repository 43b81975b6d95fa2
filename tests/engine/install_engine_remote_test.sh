#!/bin/bash
# Checks what scripts/install-engine --remote and --mirror lay out: a prefix
# whose daemon is a scanning service reached over TCP alone, and definitions
# from one mirror only. Scans through such a prefix are tested with a real
# service by the agent's own tests. Needs Debian's ClamAV packages.
set -uo pipefail

repo=$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)
installer=$repo/scripts/install-engine

source "$repo/tests/engine/checks.sh"

tmp=$(mktemp -d "${TMPDIR:-/tmp}/kv remote.XXXXXX")
# A shared local prefix's daemon runs as the engine account, which must reach it.
chmod 755 "$tmp"
trap 'rm -rf "$tmp"' EXIT
trap 'exit 130' INT TERM
prefix="$tmp/remote prefix"

for bad in "--remote 127.0.0.1" "--remote host:70000" "--stream-max-length 1M" "--mirror a#b"; do
    # shellcheck disable=SC2086
    if out=$("$installer" $bad "$tmp/never" 2>&1); then fail "refuses $bad" "$out"; else pass "refuses $bad"; fi
done

# Nothing listens on port 9 of this machine: neither the service nor the mirror.
if out=$("$installer" --remote 127.0.0.1:9 --stream-max-length 1M --mirror "http://127.0.0.1:9/clamav" "$prefix" 2>&1)
then pass "install a remote prefix"
else fail "install a remote prefix" "$out"; finish; exit 1; fi

conf=$(<"$prefix/etc/clamd.conf")
expect_match "clamd.conf names the service" $'(^|\n)TCPAddr 127.0.0.1\nTCPSocket 9\n' "$conf"
expect_match "clamd.conf states the stream limit" $'(^|\n)StreamMaxLength 1M($|\n)' "$conf"
expect_no_match "clamd.conf names no local socket" $'(^|\n)LocalSocket' "$conf"
expect_match "clamdscan streams" "--stream" "$(<"$prefix/bin/clamdscan")"
expect_no_match "clamdscan does not pass descriptors" "--fdpass" "$(<"$prefix/bin/clamdscan")"
[[ ! -e $prefix/run && ! -e $prefix/libexec/engine-helper ]] && pass "no socket folder and no helper" \
    || fail "no socket folder and no helper"
if out=$("$prefix/sbin/clamd" 2>&1); then fail "sbin/clamd starts nothing" "$out"
else expect_match "sbin/clamd starts nothing and names the service" "127.0.0.1:9" "$out"; fi
if (( EUID == 0 )); then
    expect_match "definitions are root's, no engine account needed" "^root$" "$(stat -c %U "$prefix/share/clamav")"
fi
# The agent must still find its engine while the service is away.
expect_match "clamscan -V falls back on the local set while the service is away" \
    "^ClamAV [0-9.]+/1/" "$("$prefix/bin/clamscan" -V 2>/dev/null)"

fresh=$(<"$prefix/etc/freshclam.conf")
expect_match "freshclam.conf takes the mirror" $'(^|\n)PrivateMirror http://127.0.0.1:9/clamav($|\n)' "$fresh"
expect_no_match "freshclam.conf names no other mirror" $'(^|\n)(DatabaseMirror|DNSDatabaseInfo)' "$fresh"
"$prefix/bin/RunFreshclam" --stdout --no-dns > "$tmp/freshclam.out" 2>&1
fc=$(<"$tmp/freshclam.out")
expect_match "RunFreshclam asks the mirror" "127\.0\.0\.1:9/clamav" "$fc"
expect_no_match "RunFreshclam asks nobody else" "clamav\.net" "$fc"

# A local prefix takes a mirror too and keeps its own daemon.
local_prefix=$tmp/local
if out=$("$installer" --mirror "https://mirror.example.org/clamav" "$local_prefix" 2>&1); then
    fresh=$(<"$local_prefix/etc/freshclam.conf")
    expect_match "local freshclam.conf takes the mirror" $'(^|\n)PrivateMirror https://mirror.example.org/clamav($|\n)' "$fresh"
    expect_no_match "local freshclam.conf names no other mirror" $'(^|\n)DatabaseMirror' "$fresh"
    expect_match "local clamdscan keeps passing descriptors" "--fdpass" "$(<"$local_prefix/bin/clamdscan")"
else
    fail "install a local prefix with a mirror" "$out"
fi

finish
