#!/usr/bin/env bash
# How fast the reading follows the player: a scripted MPRIS player on a private session bus changes track
# ten times, to ten copies of a 4-minute MP3 (so each is read), then to the same ten again (now cached, in
# the desktop's cache on disk, here in a fresh folder); the medians from its PropertiesChanged to the
# follower's new reading are printed.
#   bench/player.sh [MP3]   (default: a generated 4-minute stereo MP3)
# The program is $PLAYER_BENCH_BIN, or build/bench/player_bench under the project root
# (configured with -DVELQUIN_BENCH=ON).
set -euo pipefail

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
bin=${PLAYER_BENCH_BIN:-$root/build/bench/player_bench}
[ -x "$bin" ] || { echo "no program at $bin (cmake --build build --target player_bench)" >&2; exit 2; }
command -v dbus-daemon >/dev/null || { echo "dbus-daemon is not installed" >&2; exit 2; }

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
export XDG_CACHE_HOME=$work/cache
source=${1:-}
if [ -z "$source" ]; then
    command -v ffmpeg >/dev/null || { echo "ffmpeg is not installed" >&2; exit 2; }
    source=$work/song.mp3
    # A tone over a 128 BPM click, 4 minutes, stereo, 192 kbit/s.
    ffmpeg -nostdin -v error -f lavfi \
        -i "aevalsrc=0.3*sin(2*PI*220*t)+0.5*sin(2*PI*1000*t)*exp(-60*mod(t\,60/128)):s=44100:d=240" \
        -ac 2 -b:a 192k "$source"
fi
files=()
for i in $(seq 1 10); do
    cp "$source" "$work/track $i.mp3"
    files+=("$work/track $i.mp3")
done
"$bin" "${files[@]}"
