#!/bin/bash
# End-to-end check of scripts/install-engine: installs into a throwaway prefix
# (with a space in its path), then drives the wrappers and a real daemon on it.
# Needs Debian's ClamAV packages, or root so the installer can fetch them.
set -uo pipefail

repo=$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)
installer=$repo/scripts/install-engine
sig_version=$(grep -Ev '^[[:space:]]*(#|$)' "$repo/resources/signatures/version" | head -n1 | tr -d '[:space:]')
marker=KORVANE-HARMLESS-TEST-MARKER-479d68183ddb73ac

source "$repo/tests/engine/checks.sh"

tmp=$(mktemp -d "${TMPDIR:-/tmp}/kv engine.XXXXXX")
# A shared prefix's daemon runs as the engine account, which must reach it.
chmod 755 "$tmp"
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
else fail "install into a fresh prefix" "$out"; finish; exit 1; fi
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
conf=$(<"$prefix/etc/clamd.conf")
db=$prefix/share/clamav
if (( EUID == 0 )); then
    # Shared: only the engine account writes definitions or makes the socket.
    expect_eq "share/clamav belongs to clamav and only it may write there" "clamav 755" "$(stat -c '%U %a' "$db")"
    expect_eq "definitions belong to clamav and only it may change them" "" \
        "$(find "$db" -mindepth 1 \( ! -user clamav -o -perm /022 \) -printf '%P %u %m\n')"
    expect_eq "run/ belongs to clamav and only it may make the socket" "clamav 755" "$(stat -c '%U %a' "$prefix/run")"
    expect_eq "bin, sbin, etc and libexec are root's alone" "" \
        "$(find "$prefix/bin" "$prefix/sbin" "$prefix/etc" "$prefix/libexec" \( ! -user root -o -perm /022 \) -printf '%p %u %m\n')"
    expect_eq "the helper is setuid root" "root 4755" "$(stat -c '%U %a' "$prefix/libexec/engine-helper")"
    expect_match "clamd.conf runs the daemon as clamav" $'(^|\n)User clamav\n' "$conf"
    expect_match "every user may connect to the shared daemon" $'(^|\n)LocalSocketMode 666\n' "$conf"
else
    expect_eq "share/clamav is the owner's alone" 755 "$(stat -c %a "$db")"
    if [[ $conf =~ (^|$'\n')User[[:space:]] ]]; then fail "clamd.conf has no User line"; else pass "clamd.conf has no User line"; fi
    expect_match "only the owner may connect to a private daemon" $'(^|\n)LocalSocketMode 600\n' "$conf"
fi
expect_match "the client hands the daemon open files" ' --fdpass ' "$(<"$prefix/bin/clamdscan")"
expect_eq "only our daily.cud holds definitions" "daily.cud freshclam.log" \
    "$(cd "$prefix/share/clamav" && echo *)"
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
user_installer=$installer
if (( EUID == 0 )); then
    as_user=(setpriv --reuid=65534 --regid=65534 --clear-groups)
    # The checkout may lie in a folder nobody cannot enter: a copy of what the
    # installer reads, beside the prefix, is reachable.
    mkdir -p "$tmp/checkout/scripts" "$tmp/checkout/resources"
    cp -r "$repo/scripts/install-engine" "$repo/scripts/deps.d" "$repo/scripts/engine-helper.c" "$tmp/checkout/scripts/"
    cp -r "$repo/resources/signatures" "$tmp/checkout/resources/"
    chmod -R a+rX "$tmp/checkout"
    user_installer=$tmp/checkout/scripts/install-engine
fi
out=$(cd / && "${as_user[@]}" "$user_installer" 2>&1)
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

# --- several users ---------------------------------------------------------

# Two throw-away accounts, each with a home only it may enter, share the
# prefix root laid out: both get scans at once, neither learns of the other's
# files through the daemon, and neither can touch the definitions.
accounts=()
remove_accounts() {
    local name
    for name in "${accounts[@]}"; do
        userdel "$name" 2>/dev/null
        getent group "$name" > /dev/null && groupdel "$name" 2>/dev/null
    done
    accounts=()
}
trap 'remove_accounts; cleanup' EXIT
make_account() { # name home
    useradd --no-create-home --home-dir "$2" --shell /usr/sbin/nologin --user-group "$1" > /dev/null 2>&1 || return 1
    accounts+=("$1")
    install -d -m 700 -o "$1" -g "$1" "$2"
}
as() { # name command...
    local name=$1; shift
    (cd / && setpriv --reuid="$name" --regid="$name" --init-groups "$@")
}

user_a=kvtest-a-$$ user_b=kvtest-b-$$
if (( EUID != 0 )) || ! command -v useradd > /dev/null; then
    echo "skip several users: only root can make throw-away accounts here"
elif ! make_account "$user_a" "$tmp/home a" || ! make_account "$user_b" "$tmp/home b"; then
    echo "skip several users: useradd could not make throw-away accounts"
else
    cp "$db/daily.cud" "$tmp/before-users.cud"
    # Root's settings for the helper, short so that waiting for a daemon that
    # does not answer takes seconds here.
    printf 'PingTimeout 1\nHungPings 3\nHungPingInterval 3\nLockWait 5\n' > "$prefix/etc/engine-helper.conf"
    for who in a b; do
        name=user_$who
        printf 'private to %s %s\n' "${!name}" "$marker" > "$tmp/home $who/marker.txt"
        printf 'clean\n' > "$tmp/home $who/clean.txt"
        chown "${!name}:${!name}" "$tmp/home $who/"*
        chmod 600 "$tmp/home $who/"*
    done

    # A's agent finds no daemon and starts one; it must not run as A.
    if out=$(as "$user_a" timeout 60 "$prefix/sbin/clamd" 2>&1); then pass "an ordinary user starts the shared daemon"
    else fail "an ordinary user starts the shared daemon" "$out"; fi
    pid=$(cat "$prefix/run/clamd.pid" 2>/dev/null)
    [[ -n $pid ]] && daemon_pids+=("$pid")
    expect_eq "the daemon runs as clamav, not as the user who started it" "clamav clamav" \
        "$(ps -o ruser=,euser= -p "${pid:-0}" | xargs)"
    expect_eq "it keeps none of that user's groups" "" \
        "$(awk '/^Groups:/ { for (i = 2; i <= NF; i++) if ($i == g) print $i }' g="$(id -g "$user_a")" "/proc/${pid:-0}/status" 2>/dev/null)"

    # Both scan at once through the one daemon, each its own files.
    for who in a b; do
        name=user_$who
        as "${!name}" "$prefix/bin/clamdscan" --no-summary "$tmp/home $who/marker.txt" "$tmp/home $who/clean.txt" \
            > "$tmp/scan-$who" 2>&1 &
    done
    wait
    for who in a b; do
        expect_eq "user $who's scan runs alongside the other's" \
            "$tmp/home $who/marker.txt: Korvane.Test.Marker.UNOFFICIAL FOUND"$'\n'"$tmp/home $who/clean.txt: OK" \
            "$(<"$tmp/scan-$who")"
    done

    # B asks about A's file: through the prefix's client, by path straight to
    # the daemon, and streamed. None may say what the file holds.
    tells_b_nothing() { # how client...
        local how=$1 out; shift
        out=$(as "$user_b" "$@" --no-summary "$tmp/home a/marker.txt" 2>&1)
        if [[ $out == *FOUND* || $out == *": OK"* ]]; then fail "the daemon tells B nothing of A's file $how" "$out"
        else pass "the daemon tells B nothing of A's file $how"; fi
    }
    tells_b_nothing "through the prefix's client" "$prefix/bin/clamdscan"
    tells_b_nothing "named by path" /usr/bin/clamdscan --config-file="$prefix/etc/clamd.conf"
    tells_b_nothing "streamed" /usr/bin/clamdscan --stream --config-file="$prefix/etc/clamd.conf"

    # Nobody but the engine account may change definitions or the socket.
    cannot() { # what command...
        local what=$1; shift
        if as "$user_a" "$@" 2> /dev/null; then fail "an ordinary user cannot $what"
        else pass "an ordinary user cannot $what"; fi
    }
    cannot "add a signature file" touch "$db/planted.ndb"
    cannot "empty the definitions" cp /dev/null "$db/daily.cud"
    cannot "remove the definitions" rm "$db/daily.cud"
    cannot "remove the daemon's socket" rm "$prefix/run/clamd.sock"
    cannot "put anything where the socket lives" touch "$prefix/run/clamd.sock.new"
    check "the definitions are still in place" cmp -s "$db/daily.cud" "$tmp/before-users.cud"

    # Updates go through the helper, as clamav; what it will not pass on is
    # refused with a reason.
    out=$(as "$user_b" "$prefix/bin/RunFreshclam" --datadir="$tmp/home b" 2>&1)
    expect_eq "RunFreshclam refuses another definitions folder" 2 "$?"
    expect_match "and says why" 'not allowed.*--datadir' "$out"
    log="$db/freshclam.log"
    before=$(wc -l < "$log")
    as "$user_b" timeout 120 "$prefix/bin/RunFreshclam" --stdout --log="$log" > "$tmp/update" 2>&1
    expect_match "RunFreshclam runs for an ordinary user" '^ClamAV update process started' "$(head -n1 "$tmp/update")"
    check "and writes the log only clamav may write" test "$(wc -l < "$log")" -gt "$before"
    expect_eq "which stays clamav's" "clamav 644" "$(stat -c '%U %a' "$log")"
    # What holds the update others wait on is out of the starting user's reach,
    # and one that root stopped is not waited on for ever.
    descendants() { local c; for c in $(pgrep -P "$1"); do echo "$c"; descendants "$c"; done; }
    as "$user_a" "$prefix/bin/RunFreshclam" --stdout > /dev/null 2>&1 &
    first=$!
    sleep 1
    tree=$(descendants "$first" | xargs)
    as "$user_a" kill -STOP $tree 2> /dev/null
    # The user may suspend their own helper process, not freshclam or what
    # holds the lock.
    holder=$(cat "$prefix/run/freshclam.lock" 2>/dev/null)
    stopped=$(for p in $tree; do
        [[ $(ps -o comm= -p "$p") == freshclam || $p == "$holder" ]] || continue
        [[ $(awk '{ print $3 }' "/proc/$p/stat" 2>/dev/null) == T ]] && echo "$p"
    done)
    expect_eq "the user who starts an update cannot suspend what holds it" "" "$stopped"
    kill -STOP $tree 2> /dev/null
    start=$SECONDS
    out=$(as "$user_b" timeout 60 "$prefix/bin/RunFreshclam" --stdout 2>&1)
    expect_match "another user's update does not wait for a stopped one" 'held by a stopped process' "$out"
    check "and says so at once" test $((SECONDS - start)) -lt 10
    kill -CONT $tree 2> /dev/null
    kill -TERM "$first" $tree 2> /dev/null
    wait "$first" 2> /dev/null
    # The agent stops an update that hangs: the user who ran it may end it,
    # and freshclam goes with it.
    out=$(as "$user_b" bash -c '"$0" --stdout > /dev/null 2>&1 & p=$!; sleep 1
        child=$(ps -o pid= --ppid "$p" | xargs); kill -TERM "$p"; wait "$p"; echo "$? ${child:-none}"' \
        "$prefix/bin/RunFreshclam")
    expect_eq "the user who runs an update may stop it" 143 "${out% *}"
    check "and freshclam ends with it" test -n "${out#* }" -a "${out#* }" != none -a ! -e "/proc/${out#* }"

    # A second start while the daemon runs finds it and leaves it be.
    as "$user_b" timeout 60 "$prefix/sbin/clamd" > /dev/null 2>&1
    expect_eq "a second start finds the daemon listening" 0 "$?"
    expect_eq "and leaves it running under its pid" "$pid" "$(cat "$prefix/run/clamd.pid" 2>/dev/null)"
    expect_eq "which still answers" "$tmp/home b/clean.txt: OK" \
        "$(as "$user_b" "$prefix/bin/clamdscan" --no-summary "$tmp/home b/clean.txt" 2>&1)"

    # A daemon that misses a PING under load is no hung daemon.
    kill -STOP "$pid"
    (sleep 5; kill -CONT "$pid") &
    as "$user_a" timeout 60 "$prefix/sbin/clamd" > /dev/null 2>&1
    wait $!
    check "a daemon slow to answer for a moment is not restarted" kill -0 "$pid"
    expect_eq "and keeps its pid file" "$pid" "$(cat "$prefix/run/clamd.pid" 2>/dev/null)"

    # A stopped daemon still holds the socket (connections queue) but answers
    # nothing; no user may signal it, yet a start through the helper ends it.
    kill -STOP "$pid"
    out=$(as "$user_a" timeout 60 "$prefix/sbin/clamd" 2>&1)
    expect_eq "a start with a daemon that hangs succeeds" 0 "$?"
    expect_match "and says it ended the hung one" "\(pid $pid\) does not answer: ending it" "$out"
    state=$(awk '{ print $3 }' "/proc/$pid/stat" 2>/dev/null)
    check "the hung daemon is gone" test "${state:-gone}" = gone -o "$state" = Z
    new=$(cat "$prefix/run/clamd.pid" 2>/dev/null)
    [[ -n $new ]] && daemon_pids+=("$new")
    check "a new daemon took its place" test -n "$new" -a "$new" != "$pid"
    expect_eq "which runs as clamav" "clamav clamav" "$(ps -o ruser=,euser= -p "${new:-0}" | xargs)"
    expect_eq "and answers" "$tmp/home a/clean.txt: OK" \
        "$(as "$user_a" "$prefix/bin/clamdscan" --no-summary "$tmp/home a/clean.txt" 2>&1)"
    # However often users ask, the shared daemon is restarted once a minute at most.
    kill -STOP "$new"
    out=$(as "$user_b" timeout 60 "$prefix/sbin/clamd" 2>&1)
    check "a second restart within the minute is refused" test $? -ne 0
    expect_match "and says why" 'restarted [0-9]+ s ago' "$out"
    check "and the daemon is left as it was" kill -0 "$new"
    kill -CONT "$new"
    stop_daemon "$prefix/run/clamd.pid"

    # Starts at the same moment leave the pid of the daemon that runs.
    for who in a b a b; do
        name=user_$who
        as "${!name}" timeout 60 "$prefix/sbin/clamd" > /dev/null 2>&1 &
    done
    wait
    pid=$(cat "$prefix/run/clamd.pid" 2>/dev/null)
    [[ -n $pid ]] && daemon_pids+=("$pid")
    expect_eq "after starts at once the pid file names the daemon" "clamd" "$(ps -o comm= -p "${pid:-0}")"
    running=$(pgrep -d ' ' -f "^/usr/sbin/clamd --config-file=$prefix/etc/clamd.conf")
    expect_eq "which is the only one" "$pid" "$running"
    for pid in $running; do kill "$pid"; done
    sleep 1

    # A user who starts the daemon crippled (no file size, few descriptors, an
    # open file of theirs, low priority) cripples nobody's scans.
    cp /usr/share/clamav-testfiles/clam.zip "$tmp/home a/clam.zip"
    chown "$user_a" "$tmp/home a/clam.zip"
    out=$(as "$user_a" timeout 60 bash -c 'ulimit -S -f 0; ulimit -S -n 8; exec 7< "$0"; exec nice -n 15 "$1"' \
        "$tmp/home a/clean.txt" "$prefix/sbin/clamd" 2>&1)
    expect_eq "a start under the caller's limits succeeds" "0 " "$? $out"
    pid=$(cat "$prefix/run/clamd.pid" 2>/dev/null)
    [[ -n $pid ]] && daemon_pids+=("$pid")
    expect_match "the daemon scans an archive" "clam.zip: Korvane\.Test\.File-clam\.[a-z.]+\.UNOFFICIAL FOUND$" \
        "$(as "$user_a" "$prefix/bin/clamdscan" --no-summary "$tmp/home a/clam.zip" 2>&1)"
    expect_eq "and holds no descriptor of the caller" "" \
        "$(find "/proc/${pid:-0}/fd" -lname "$tmp/home a/*" 2>/dev/null)"
    expect_eq "nor its nice value" 0 "$(ps -o ni= -p "${pid:-0}" | xargs)"
    stop_daemon "$prefix/run/clamd.pid"

    # A configuration others could change would let them steer the helper.
    chmod 666 "$prefix/etc/clamd.conf"
    out=$(as "$user_a" timeout 60 "$prefix/sbin/clamd" 2>&1)
    check "the helper refuses a configuration others may change" test $? -ne 0
    expect_match "and says so" 'only root can change' "$out"
    chmod 644 "$prefix/etc/clamd.conf"
    stop_daemon "$prefix/run/clamd.pid"

    # The engine account owns share/clamav; the installer, as root, must not
    # follow what it plants there.
    printf 'root only\n' > "$tmp/root-only"
    chmod 600 "$tmp/root-only"
    setpriv --reuid=clamav --regid=clamav --init-groups ln -sfn "$tmp/root-only" "$db/freshclam.log"
    "$installer" "$prefix" > /dev/null 2>&1
    expect_eq "reinstalling follows no link the engine account planted" "root 600 root only" \
        "$(stat -c '%U %a' "$tmp/root-only") $(cat "$tmp/root-only")"
    check "and puts a plain log in its place" test -f "$db/freshclam.log" -a ! -L "$db/freshclam.log"

    # A set-ID event logger in the prefix is surface for an attacker that the
    # agent never runs: it takes the logger from its own folder.
    mkdir -p "$tmp/build/bin"
    printf '#!/bin/sh\n' | tee "$tmp/build/bin/gfslogger" > "$tmp/build/bin/gfslogger-repair"
    chmod 755 "$tmp/build/bin/gfslogger" "$tmp/build/bin/gfslogger-repair"
    KORVANE_BUILD_DIR="$tmp/build" "$installer" "$prefix" > /dev/null 2>&1
    expect_eq "no set-ID file in the prefix but the engine helper" "$prefix/libexec/engine-helper" \
        "$(find "$prefix" -type f -perm /6000)"

    # What a user left in the world-writable folder of the earlier layout goes.
    install -o "$user_a" -m 644 /dev/null "$db/planted.ndb"
    chown "$user_a" "$db/freshclam.log"
    "$installer" "$prefix" > /dev/null 2>&1
    check "reinstalling removes definitions an ordinary user wrote" test ! -e "$db/planted.ndb"
    check "and keeps ours" test -s "$db/daily.cud"
    expect_eq "with a fresh log of clamav's" "clamav 644" "$(stat -c '%U %a' "$db/freshclam.log")"
fi
remove_accounts
finish
