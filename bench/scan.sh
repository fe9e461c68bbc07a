#!/usr/bin/env bash
# velquin-scan throughput: files per minute over a folder of 60 generated one-minute tracks (192 kb/s
# stereo MP3), with one job and with one job per core, in one run.
#   bench/scan.sh [FOLDER]   (the tracks are generated there once; default /tmp/velquin-scan-bench)
# The program is $VELQUIN_SCAN_BIN, or build/velquin-scan under the project root.
set -euo pipefail

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
bin=${VELQUIN_SCAN_BIN:-$root/build/velquin-scan}
folder=${1:-/tmp/velquin-scan-bench}
tracks=60
[ -x "$bin" ] || { echo "no program at $bin (set VELQUIN_SCAN_BIN)" >&2; exit 2; }
command -v ffmpeg >/dev/null || { echo "ffmpeg is not installed" >&2; exit 2; }

# Each track a different triad over a 100-160 BPM kick, so no two analyses are the same work.
make_track() {
    local i=$1 f=$((150 + $1 * 3)) beat
    beat=$(awk -v i="$1" 'BEGIN { printf "%.4f", 60 / (100 + i) }')
    ffmpeg -nostdin -v error -y -f lavfi \
        -i "aevalsrc=0.15*sin(2*PI*$f*t)+0.15*sin(2*PI*$f*1.26*t)+0.15*sin(2*PI*$f*1.5*t)+0.6*sin(2*PI*55*t)*exp(-25*mod(t\,$beat)):s=44100:d=60" \
        -ac 2 -c:a libmp3lame -b:a 192k "$folder/track$(printf %02d "$1").mp3"
}
mkdir -p "$folder"
if [ "$(find "$folder" -name 'track*.mp3' | wc -l)" -ne $tracks ]; then
    echo "generating $tracks tracks in $folder…" >&2
    export -f make_track
    export folder
    seq 1 $tracks | xargs -P "$(nproc)" -I{} bash -c 'make_track {}'
fi

cache=$(mktemp -d)
trap 'rm -rf "$cache"' EXIT
export XDG_CACHE_HOME=$cache

# run JOBS: a full analysis of the folder (--force: the cache is written, never read). Prints files per
# minute, wall seconds and CPU seconds (the CPU time tells what an idle machine would do when others share it).
run() {
    local times
    times=$(mktemp)
    /usr/bin/time -f '%e %U %S' -o "$times" "$bin" --force --jobs "$1" --format csv "$folder" >/dev/null 2>&1 ||
        { echo "velquin-scan failed" >&2; exit 1; }
    awk -v n=$tracks '{ printf "%.0f %.2f %.2f\n", n * 60 / $1, $1, $2 + $3 }' "$times"
    rm -f "$times"
}

cores=$(nproc)
load=$(cut -d' ' -f1-3 /proc/loadavg)
read -r one one_s one_cpu < <(run 1)
read -r all all_s all_cpu < <(run "$cores")
printf 'tracks:         %d x 60 s MP3 in %s\n' $tracks "$folder"
printf 'load average:   %s (before the runs; %d cores)\n' "$load" "$cores"
printf -- '--jobs 1:       %s files/min (%s s wall, %s s CPU)\n' "$one" "$one_s" "$one_cpu"
printf -- '--jobs %d:       %s files/min (%s s wall, %s s CPU)\n' "$cores" "$all" "$all_s" "$all_cpu"
awk -v a="$all" -v o="$one" 'BEGIN { printf "speed-up:       %.2f x\n", a / o }'
awk -v c="$all_cpu" -v n=$tracks -v k="$cores" 'BEGIN { printf "CPU-bound rate: %.0f files/min on %d idle cores\n", n * 60 / c * k, k }'
