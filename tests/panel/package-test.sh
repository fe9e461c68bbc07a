#!/usr/bin/env bash
# The Debian package as a user gets it: built from this build tree, its dependencies computed, the
# desktop entry and AppStream data valid, and the program unpacked into a bare folder analysing a file.
#   package-test.sh BUILD_DIR
set -euo pipefail
build=$(cd "$1" && pwd)
here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
for tool in cpack dpkg-deb dpkg-shlibdeps desktop-file-validate appstreamcli python3; do
    command -v "$tool" >/dev/null || { echo "SKIP: $tool is missing"; exit 77; }
done
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT

# cpack installs what is built and builds nothing itself; a no-op after the suite's own build.
cmake --build "$build" >"$tmp/build.log" 2>&1 || { tail -20 "$tmp/build.log"; exit 1; }
(cd "$build" && cpack -G DEB -B "$tmp/out" >"$tmp/cpack.log" 2>&1) || { cat "$tmp/cpack.log"; exit 1; }
deb=$(ls "$tmp"/out/velquin_*.deb)
depends=$(dpkg-deb -f "$deb" Depends)
echo "Depends: $depends"
for library in libqt6dbus6 libfftw3-single3 libpulse0 libsndfile1; do
    grep -q "$library" <<<"$depends" || { echo "FAIL: $library is not among the dependencies"; exit 1; }
done
recommends=$(dpkg-deb -f "$deb" Recommends)
echo "Recommends: $recommends"
for package in qt6-wayland gnome-shell-extension-appindicator; do
    grep -q "$package" <<<"$recommends" || { echo "FAIL: $package is not recommended"; exit 1; }
done

root="$tmp/root"
dpkg-deb -x "$deb" "$root"
for file in usr/bin/velquin usr/share/applications/org.orvane.Velquin.desktop \
    usr/share/icons/hicolor/scalable/apps/org.orvane.Velquin.svg usr/share/doc/velquin/install.html \
    usr/share/metainfo/org.orvane.Velquin.metainfo.xml; do
    [ -f "$root/$file" ] || { echo "FAIL: the package lacks /$file"; exit 1; }
done
desktop-file-validate "$root/usr/share/applications/org.orvane.Velquin.desktop"
appstreamcli validate --no-net "$root/usr/share/metainfo/org.orvane.Velquin.metainfo.xml" >"$tmp/as.log" ||
    { cat "$tmp/as.log"; exit 1; }

python3 "$here/../e2e/make_fixture.py" "$tmp/cadence.wav" 12 44100
line=$("$root/usr/bin/velquin" --analyze "$tmp/cadence.wav")
echo "$line"
grep -Eq '^ +(119\.9[0-9]|120\.[0-9]{2}) BPM .* G +9B' <<<"$line" || { echo "FAIL: unexpected reading"; exit 1; }
echo "package test passed"
