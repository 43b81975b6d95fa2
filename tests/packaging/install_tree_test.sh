#!/bin/bash
# `cmake --install` into a prefix with a space under DESTDIR: every file the
# desktop needs is there, valid, and nothing lands outside DESTDIR.
#   install_tree_test.sh BUILD_DIR
set -uo pipefail
build=$1
source "$(dirname "${BASH_SOURCE[0]}")/../engine/checks.sh"

tmp=$(mktemp -d "${TMPDIR:-/tmp}/kv install.XXXXXX")
trap 'rm -rf "$tmp"' EXIT
prefix="/opt/korvane test"
dest="$tmp/dest"
if ! out=$(DESTDIR="$dest" cmake --install "$build" --prefix "$prefix" 2>&1); then
    fail "cmake --install" "$out"
    exit 1
fi
check "nothing is installed outside DESTDIR" test ! -e "$prefix"
root="$dest$prefix"

for f in bin/KorvaneVarden bin/Korvane lib/korvane/relaunch lib/korvane/scripts/install-engine; do
    check "$f is an executable program" test -x "$root/$f" -a -f "$root/$f"
done
for f in lib/korvane/Info.plist lib/korvane/resources/signatures/korvane.ndb lib/korvane/resources/signatures/version \
         lib/korvane/scripts/deps.d/engine-packages share/metainfo/org.korvane.Korvane.metainfo.xml \
         share/man/man1/Korvane.1.gz share/man/man1/KorvaneVarden.1.gz share/doc/korvane/copyright; do
    check "$f is there" test -s "$root/$f"
done

for id in org.korvane.KorvaneVarden org.korvane.Korvane; do
    entry="$root/share/applications/$id.desktop"
    check "$id.desktop is there" test -f "$entry"
    icon=$(sed -n 's/^Icon=//p' "$entry")
    check "$id.desktop names its own icon" test "$icon" = "$id"
    check "$id icon is a scalable hicolor icon" test -s "$root/share/icons/hicolor/scalable/apps/$icon.svg"
    program=$(sed -n '/^\[Desktop Entry\]/,/^\[/ s/^Exec=\([^ ]*\).*/\1/p' "$entry")
    check "$id.desktop starts a program of the package ($program)" test -x "$root/bin/$program"
    if command -v desktop-file-validate >/dev/null; then
        if msg=$(desktop-file-validate "$entry" 2>&1) && [[ -z $msg ]]; then pass "$id.desktop is valid"; else fail "$id.desktop is valid" "$msg"; fi
    fi
done
companion="$root/share/applications/org.korvane.Korvane.desktop"
check "Korvane handles korvane: URLs, folders and any file" \
    grep -qx 'MimeType=x-scheme-handler/korvane;inode/directory;application/octet-stream;text/plain;' "$companion"
check "its action scans the chosen files" grep -qx 'Exec=Korvane --show-scan %F' "$companion"
check "the action is named as the menus show it" grep -qx 'Name=Scan with Korvane' "$companion"

menu="$root/share/kio/servicemenus/korvane-scan.desktop"
check "the Dolphin service menu is executable, as KDE requires" test -f "$menu" -a -x "$menu"
check "it offers the scan for folders and any file" grep -qx 'MimeType=inode/directory;application/octet-stream;' "$menu"
check "it scans the chosen files" grep -qx 'Exec=Korvane --show-scan %F' "$menu"
if command -v desktop-file-validate >/dev/null; then
    # Service menus are KDE's own type; only what follows from that type may be reported.
    msg=$(desktop-file-validate "$menu" 2>&1 | grep -v 'but the type is "Service" while this key is only valid for type "Application"')
    if [[ -z $msg ]]; then pass "the service menu is valid"; else fail "the service menu is valid" "$msg"; fi
fi
script="$root/share/korvane/nautilus/Scan with Korvane"
check "the Files script is executable" test -f "$script" -a -x "$script"
# Run as Files runs it, through a link in the user's home, in the shown folder
# with names relative to it: a copy in a prefix whose Korvane prints its arguments.
fake="$tmp/fake"
mkdir -p "$fake/share/korvane/nautilus" "$fake/bin" "$tmp/scripts" "$tmp/shown"
cp "$script" "$fake/share/korvane/nautilus/"
printf '#!/bin/sh\nfor a do echo "$a"; done\n' >"$fake/bin/Korvane"
chmod +x "$fake/bin/Korvane"
ln -s "$fake/share/korvane/nautilus/Scan with Korvane" "$tmp/scripts/Scan with Korvane"
expect_eq "the script hands its prefix's Korvane absolute paths" "--show-scan
$tmp/shown/-odd name
$tmp/elsewhere" "$(cd "$tmp/shown" && "$tmp/scripts/Scan with Korvane" "-odd name" "$tmp/elsewhere")"
expect_eq "with nothing selected it scans the shown folder" "--show-scan
$tmp/shown" "$(cd "$tmp/shown" && "$tmp/scripts/Scan with Korvane")"
check "the companion's entry takes the URL" grep -q '^Exec=Korvane %u$' "$root/share/applications/org.korvane.Korvane.desktop"
if command -v appstreamcli >/dev/null; then
    if msg=$(appstreamcli validate --no-net "$root/share/metainfo/org.korvane.Korvane.metainfo.xml" 2>&1); then
        pass "the metainfo is valid"
    else
        fail "the metainfo is valid" "$msg"
    fi
fi

finish
