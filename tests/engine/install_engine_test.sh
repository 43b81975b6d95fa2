#!/bin/bash
# End-to-end check of scripts/install-engine: installs into a throwaway prefix
# (with a space in its path), then drives the wrappers and a real daemon on it.
# Needs Debian's ClamAV packages, or root so the installer can fetch them.
set -uo pipefail

repo=$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)
installer=$repo/scripts/install-engine
sig_version=$(grep -Ev '^[[:space:]]*(#|$)' "$repo/resources/signatures/version" | head -n1 | tr -d '[:space:]')
marker=KORVANE-HARMLESS-TEST-MARKER-479d68183ddb73ac

passed=0 failed=0
pass() { passed=$((passed + 1)); echo "ok   $1"; }
fail() { failed=$((failed + 1)); echo "FAIL $1"; [[ -z ${2-} ]] || printf '     %s\n' "$2"; }
expect_eq() { # name expected actual
    if [[ $3 == "$2" ]]; then pass "$1"; else fail "$1" "expected [$2], got [$3]"; fi
}
check() { # name command...
    local name=$1; shift
    if "$@"; then pass "$name"; else fail "$name"; fi
}
expect_match() { # name regex actual
    if [[ $3 =~ $2 ]]; then pass "$1"; else fail "$1" "[$3] does not match /$2/"; fi
}

tmp=$(mktemp -d "${TMPDIR:-/tmp}/kv engine.XXXXXX")
prefix="$tmp/engine prefix"
empty="$tmp/empty prefix"
daemon_pids=()

stop_daemon() { # pid file
    local pid
    pid=$(cat "$1" 2>/dev/null) || return 0
    [[ $pid =~ ^[0-9]+$ ]] && kill -0 "$pid" 2>/dev/null || return 0
    kill "$pid"
    for _ in $(seq 100); do kill -0 "$pid" 2>/dev/null || return 0; sleep 0.1; done
    kill -KILL "$pid" 2>/dev/null
}
cleanup() {
    local pid
    stop_daemon "$prefix/run/clamd.pid"
    stop_daemon "$empty/run/clamd.pid"
    for pid in "${daemon_pids[@]}"; do kill "$pid" 2>/dev/null; done
    rm -rf "$tmp"
}
trap cleanup EXIT
trap 'exit 130' INT TERM

# --- install ---------------------------------------------------------------

if out=$(cd / && "$installer" "$prefix" 2>&1); then pass "install into a fresh prefix"
else fail "install into a fresh prefix" "$out"; echo "$passed passed, $failed failed"; exit 1; fi
expect_match "summary names the socket" "socket: +$prefix/run/clamd.sock" "$out"
cp "$prefix/share/clamav/daily.cud" "$tmp/first.cud"
if out=$(cd "$tmp" && "$installer" "$prefix" 2>&1); then pass "second install over the same prefix"
else fail "second install over the same prefix" "$out"; fi
check "an unchanged signature set is kept byte for byte" cmp -s "$tmp/first.cud" "$prefix/share/clamav/daily.cud"
# A damaged set is rebuilt; the scans further down run on the rebuilt one.
head -c 700 "$tmp/first.cud" > "$prefix/share/clamav/daily.cud"
"$installer" "$prefix" > /dev/null 2>&1
# A rebuild stamps its own time, so compare what the set holds, not its bytes.
check "a damaged signature set is rebuilt" \
    cmp -s <(sigtool --list-sigs="$tmp/first.cud" 2>/dev/null | sort) \
           <(sigtool --list-sigs="$prefix/share/clamav/daily.cud" 2>/dev/null | sort)
check "the rebuilt set is not empty" test -n "$(sigtool --list-sigs="$prefix/share/clamav/daily.cud" 2>/dev/null)"

# --- layout ----------------------------------------------------------------

missing=()
for f in bin/clamscan bin/clamdscan bin/RunFreshclam sbin/clamd; do
    [[ -x $prefix/$f ]] || missing+=("$f")
done
expect_eq "wrappers are executable" "" "${missing[*]}"
expect_eq "run/ is sticky and world-writable" 1777 "$(stat -c %a "$prefix/run")"
expect_eq "share/clamav is writable by every user" 777 "$(stat -c %a "$prefix/share/clamav")"
expect_eq "freshclam.log is writable by every user" 666 "$(stat -c %a "$prefix/share/clamav/freshclam.log")"
expect_eq "only our daily.cud holds definitions" "daily.cud freshclam.log" \
    "$(cd "$prefix/share/clamav" && echo *)"
conf=$(<"$prefix/etc/clamd.conf")
expect_match "clamd.conf socket under the prefix" $'(^|\n)LocalSocket '"$prefix/run/clamd.sock"$'\n' "$conf"
expect_match "clamd.conf PID file under the prefix" $'(^|\n)PidFile '"$prefix/run/clamd.pid"$'\n' "$conf"
expect_match "clamd.conf detaches" $'(^|\n)Foreground no\n' "$conf"
if [[ $conf =~ (^|$'\n')User[[:space:]] ]]; then fail "clamd.conf has no User line"; else pass "clamd.conf has no User line"; fi
expect_match "freshclam.conf database folder" \
    $'(^|\n)DatabaseDirectory '"$prefix/share/clamav"$'\n' "$(<"$prefix/etc/freshclam.conf")"

# --- version line ----------------------------------------------------------

version=$("$prefix/bin/clamscan" -V)
expect_match "clamscan -V carries our definitions version" "^ClamAV [0-9.]+/$sig_version/[A-Z][a-z]{2} [A-Z][a-z]{2} [ 0-9][0-9] [0-9:]{8} [0-9]{4}$" "$version"
expect_eq "clamscan --version says the same" "$version" "$("$prefix/bin/clamscan" --version)"

# An empty database folder must read as missing definitions.
"$installer" "$empty" > /dev/null 2>&1
rm -f "$empty/share/clamav/"*
expect_match "clamscan -V without definitions has no slash" '^ClamAV [0-9.]+$' "$("$empty/bin/clamscan" -V)"
start=$SECONDS
timeout 60 "$empty/sbin/clamd" > /dev/null 2>&1
status=$?
expect_eq "clamd without definitions fails with 1" 1 "$status"
pid=$(cat "$empty/run/clamd.pid" 2>/dev/null)
if [[ -n $pid ]] && kill -0 "$pid" 2>/dev/null; then daemon_pids+=("$pid"); fail "no daemon left without definitions"
else pass "no daemon left without definitions"; fi
check "clamd gives up promptly" test $((SECONDS - start)) -lt 30

# Official definitions (stood in for by a daily.cvd header of another version)
# take over: the real line passes through untouched.
fake=$tmp/fake
mkdir -p "$fake/build" "$fake/datadir"
cp "$repo/resources/signatures/korvane.ndb" "$fake/build/daily.ndb"
echo x > "$fake/build/COPYING"
(cd "$fake/build" && echo test | sigtool --datadir="$fake/datadir" --build=daily.cud --unsigned --cvd-version=4242) > /dev/null 2>&1
cp "$fake/build/daily.cud" "$empty/share/clamav/daily.cvd"
"$installer" "$empty" > /dev/null 2>&1
expect_eq "with official daily definitions ours step aside" "daily.cvd freshclam.log korvane.cud" \
    "$(cd "$empty/share/clamav" && echo *)"
expect_eq "clamscan -V passes the official line through" \
    "$(/usr/bin/clamscan --database="$empty/share/clamav" -V)" "$("$empty/bin/clamscan" -V)"
expect_match "the official version wins" '^ClamAV [0-9.]+/4242/' "$("$empty/bin/clamscan" -V)"
cp "$prefix/share/clamav/daily.cud" "$empty/share/clamav/daily.cud"
rm -f "$empty/share/clamav/korvane.cud"
"$empty/bin/RunFreshclam" --version > /dev/null 2>&1
expect_eq "RunFreshclam moves our set aside once official definitions exist" "daily.cvd freshclam.log korvane.cud" \
    "$(cd "$empty/share/clamav" && echo *)"

# --- RunFreshclam ----------------------------------------------------------

/usr/bin/freshclam --config-file="$prefix/etc/freshclam.conf" --no-such-option > /dev/null 2>&1
direct=$?
"$prefix/bin/RunFreshclam" --no-such-option > /dev/null 2>&1
expect_eq "RunFreshclam exits with freshclam's status" "$direct" "$?"

# Progress lines must start with "Downloading": no time stamp in front of them.
# A copy of the configuration that may run as root here; only the first line is read.
{ cat "$prefix/etc/freshclam.conf"; echo "DatabaseOwner root"; } > "$tmp/freshclam-root.conf"
first=$(timeout 30 /usr/bin/freshclam --config-file="$tmp/freshclam-root.conf" --stdout 2>&1 | head -n1)
expect_match "freshclam's lines carry no time stamp" '^ClamAV update process started' "$first"

# --- an ordinary user ------------------------------------------------------

# Root runs the installer as nobody; anyone else is an ordinary user already.
as_user=()
(( EUID != 0 )) || as_user=(setpriv --reuid=65534 --regid=65534 --clear-groups)
out=$(cd / && "${as_user[@]}" "$installer" 2>&1)
status=$?
check "an ordinary user cannot install into the default prefix" test "$status" -ne 0
expect_match "and is told that it needs root" 'needs root' "$out"
expect_match "without raw errors of the tools" '^install-engine: [^'$'\n'']*$' "$out"

# --- daemon ----------------------------------------------------------------

home=$tmp/files
mkdir -p "$home"
# Split so this file does not itself carry the test string.
# shellcheck disable=SC2016
e1='X5O!P%@AP[4\PZX54(P^)7CC)7}$EICAR'
# shellcheck disable=SC2016
e2='-STANDARD-ANTIVIRUS-TEST-FILE!$H+H*'
printf '%s%s\n' "$e1" "$e2" > "$home/eicar.com"
printf 'notes before %s and after\n' "$marker" > "$home/marker.txt"
printf 'an ordinary clean file\n' > "$home/clean.txt"
cp /usr/share/clamav-testfiles/clam.exe "$home/clam.exe"
cp /usr/share/clamav-testfiles/clam.zip "$home/clam.zip"

start=$(date +%s%N)
# A launcher that never returns (daemon left in the foreground) fails here.
if out=$(timeout 60 "$prefix/sbin/clamd" 2>&1); then pass "clamd starts on the prefix"
else fail "clamd starts on the prefix" "$out"; fi
echo "     clamd returned after $(( ($(date +%s%N) - start) / 1000000 )) ms"
pid=$(cat "$prefix/run/clamd.pid" 2>/dev/null)
[[ -n $pid ]] && daemon_pids+=("$pid")
# The launcher returns only once the daemon listens, so no waiting here.
check "socket listens when clamd returns" test -S "$prefix/run/clamd.sock"
expect_eq "daemon reports the version clamscan -V prints" "$version" "$("$prefix/bin/clamdscan" -V)"

scan() { "$prefix/bin/clamdscan" --no-summary "$@" 2>&1; }
expect_eq "EICAR found" "$home/eicar.com: Korvane.Test.Eicar.UNOFFICIAL FOUND" "$(scan "$home/eicar.com")"
expect_eq "marker found inside text" "$home/marker.txt: Korvane.Test.Marker.UNOFFICIAL FOUND" "$(scan "$home/marker.txt")"
expect_eq "clean file OK" "$home/clean.txt: OK" "$(scan "$home/clean.txt")"
scan "$home/clean.txt" > /dev/null
expect_eq "clean scan exits 0" 0 "$?"
expect_eq "clamav-testfiles sample found under our name" \
    "$home/clam.exe: Korvane.Test.File-clam.exe.UNOFFICIAL FOUND" "$(scan "$home/clam.exe")"
expect_match "clamav-testfiles archive found" "^$home/clam.zip: Korvane\.Test\.File-clam\.[a-z.]+\.UNOFFICIAL FOUND$" "$(scan "$home/clam.zip")"
printf '%s\n' "$home/clean.txt" "$home/eicar.com" "$home/marker.txt" > "$tmp/list"
out=$(scan --file-list="$tmp/list")
status=$?
expect_eq "--file-list scans every listed file" \
    "$home/clean.txt: OK"$'\n'"$home/eicar.com: Korvane.Test.Eicar.UNOFFICIAL FOUND"$'\n'"$home/marker.txt: Korvane.Test.Marker.UNOFFICIAL FOUND" "$out"
expect_eq "infected scan exits 1" 1 "$status"
expect_eq "clamscan wrapper uses the same definitions" "$home/eicar.com: Korvane.Test.Eicar.UNOFFICIAL FOUND" \
    "$("$prefix/bin/clamscan" --no-summary "$home/eicar.com" 2>&1)"

stop_daemon "$prefix/run/clamd.pid"
if [[ -n $pid ]] && kill -0 "$pid" 2>/dev/null; then fail "daemon stops"; else pass "daemon stops"; fi
check "socket removed on stop" test ! -e "$prefix/run/clamd.sock"

echo "$passed passed, $failed failed"
(( failed == 0 ))
