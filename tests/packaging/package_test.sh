#!/bin/bash
# Builds the Debian package from the build tree, checks its metadata and
# contents, reports lintian's findings, and runs the agent and Korvane from
# the package's files unpacked into a throw-away root. Runs on a session bus.
#   package_test.sh BUILD_DIR
set -uo pipefail
build=$1
repo=$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)
source "$repo/tests/engine/checks.sh"
wait_for() { # tenths-of-seconds command...
    local limit=$1; shift
    for _ in $(seq "$limit"); do "$@" && return 0; sleep 0.1; done
    return 1
}
has_owner() { # bus name
    dbus-send --session --print-reply --dest=org.freedesktop.DBus / org.freedesktop.DBus.NameHasOwner "string:$1" 2>/dev/null | grep -q 'boolean true'
}
owner_pid() {
    dbus-send --session --print-reply --dest=org.freedesktop.DBus / org.freedesktop.DBus.GetConnectionUnixProcessID "string:$1" 2>/dev/null | awk '/uint32/ {print $2}'
}
post() { # notification
    dbus-send --session --type=signal /org/korvane/DistributedNotifications1 "org.korvane.DistributedNotifications1.$1" string:Korvane
}

tmp=$(mktemp -d "${TMPDIR:-/tmp}/kv package.XXXXXX")
pids=()
cleanup() {
    for p in "${pids[@]}"; do kill "$p" 2>/dev/null; done
    [[ -n ${agent_pid-} ]] && kill "$agent_pid" 2>/dev/null
    rm -rf "$tmp"
}
trap cleanup EXIT

if ! deb=$(KORVANE_BUILD_DIR="$build" KORVANE_PACKAGE_NO_BUILD=1 "$repo/scripts/package" "$tmp/out"); then
    fail "scripts/package builds the package" "$deb"
    exit 1
fi
pass "scripts/package builds $(basename "$deb")"

field() { dpkg-deb -f "$deb" "$1"; }
check "the package is korvane" test "$(field Package)" = korvane
depends=$(field Depends)
for dep in libqt6core6 libqt6widgets6 libqt6dbus6 libqt6svg6 libplist3 clamav clamav-daemon clamdscan clamav-freshclam; do
    check "it depends on $dep" grep -Eq "(^|, )$dep( |,|$)" <<<"$depends"
done
contents=$(dpkg-deb -c "$deb" | awk '{print $6}')
for f in ./usr/bin/KorvaneVarden ./usr/bin/Korvane ./usr/lib/korvane/relaunch ./usr/lib/korvane/scripts/install-engine \
         ./usr/share/applications/org.korvane.KorvaneVarden.desktop ./usr/share/applications/org.korvane.Korvane.desktop \
         ./usr/share/icons/hicolor/scalable/apps/org.korvane.KorvaneVarden.svg \
         ./usr/share/icons/hicolor/scalable/apps/org.korvane.Korvane.svg \
         ./usr/share/metainfo/org.korvane.Korvane.metainfo.xml ./usr/share/doc/korvane/copyright; do
    check "it holds $f" grep -qx -- "$f" <<<"$contents"
done
listing=$(dpkg-deb -c "$deb")
for f in "./usr/share/kio/servicemenus/korvane-scan.desktop" "./usr/share/korvane/nautilus/Scan with Korvane"; do
    check "it holds $f, executable" bash -c 'grep -F -- "$1" <<<"$2" | grep -q "^-rwxr-xr-x"' _ "$f" "$listing"
done
check "nothing in it lies under /usr/local" bash -c '! grep -q "^./usr/local" <<<"$1"' _ "$contents"
mkdir -p "$tmp/control"
dpkg-deb -e "$deb" "$tmp/control"
check "postinst lays out the engine" grep -q 'install-engine /usr/local/korvane' "$tmp/control/postinst"
check "postrm leaves the users' files alone" bash -c '! grep -Eq "HOME|/home|\.config" "$1"' _ "$tmp/control/postrm"

if command -v lintian >/dev/null; then
    findings=$(lintian "$deb" 2>&1 | grep -v '^running with root')
    echo "lintian findings:"; echo "${findings:-  none}" | sed 's/^/  /'
    check "lintian finds no errors" bash -c '! grep -q "^E:" <<<"$1"' _ "$findings"
    check "lintian takes the executable service menu as wanted" bash -c '! grep -q "servicemenus" <<<"$1"' _ "$findings"
else
    echo "lintian is not installed: not run"
fi

# The package's own files, run as a new user of a desktop session would.
root="$tmp/root"
dpkg-deb -x "$deb" "$root"
export HOME="$tmp/home" XDG_CONFIG_HOME="$tmp/home/.config" XDG_STATE_HOME="$tmp/home/.local/state"
export XDG_DATA_HOME="$tmp/home/.local/share" XDG_DATA_DIRS="$root/usr/share" TMPDIR="$tmp" QT_QPA_PLATFORM=offscreen
mkdir -p "$HOME"
out=$("$root/usr/bin/Korvane" --first-run 2>&1)
check "the installed Korvane writes a first run's settings" grep -q '~/Downloads' <<<"$out"
# Quoted, since the throw-away root's path holds a blank.
check "its login entry starts the installed agent" \
    grep -qFx "Exec=\"$root/usr/bin/KorvaneVarden\"" "$XDG_CONFIG_HOME/autostart/org.korvane.KorvaneVarden.desktop"

"$root/usr/bin/Korvane" >"$tmp/korvane.log" 2>&1 &
pids+=($!)
check "Korvane owns its name on the session bus" wait_for 100 has_owner org.korvane.Korvane
check "Korvane starts the installed agent" wait_for 150 has_owner org.korvane.KorvaneVarden
first=$(owner_pid org.korvane.KorvaneVarden)
agent_pid=$first
check "the agent runs from the package's files" test "$(readlink "/proc/$first/exe")" = "$root/usr/bin/KorvaneVarden"

# Restarting runs the relaunch helper from the package's helper folder.
post KorvaneVardenShouldRestart
restarted() { local p; p=$(owner_pid org.korvane.KorvaneVarden); [[ -n $p && $p != "$first" ]]; }
check "the installed agent restarts through its relaunch helper" wait_for 200 restarted
agent_pid=$(owner_pid org.korvane.KorvaneVarden)
post KorvaneVardenShouldQuit
gone() { ! has_owner org.korvane.KorvaneVarden; }
check "and quits when asked" wait_for 100 gone

# The installed agent finds its information file, and so the feed it checks.
"$root/usr/bin/KorvaneVarden" >"$tmp/agent.log" 2>&1 &
agent_pid=$!
check "the installed agent starts on its own" wait_for 150 has_owner org.korvane.KorvaneVarden
check "it knows its update feed" bash -c '! grep -q "no feed address" "$1"' _ "$tmp/agent.log"
post KorvaneVardenShouldQuit
wait_for 100 gone

if ((failed)); then
    echo "--- Korvane's log"; cat "$tmp/korvane.log"
    [[ -f $tmp/agent.log ]] && { echo "--- the agent's log"; cat "$tmp/agent.log"; }
fi
finish
