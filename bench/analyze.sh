#!/usr/bin/env bash
# Wall time of `velquin --analyze FILE` against FFmpeg's own decode of the same file, and the analysis's
# peak memory.
#   bench/analyze.sh FILE [RUNS]   (default 5 runs each; the medians are printed)
# The program is $VELQUIN_BIN, or build/velquin under the project root.
set -euo pipefail

if [ $# -lt 1 ] || [ ! -f "$1" ]; then
    echo "usage: $0 FILE [RUNS]" >&2
    exit 2
fi
file=$1
runs=${2:-5}
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
bin=${VELQUIN_BIN:-$root/build/velquin}
[ -x "$bin" ] || { echo "no program at $bin (set VELQUIN_BIN)" >&2; exit 2; }
command -v ffmpeg >/dev/null || { echo "ffmpeg is not installed" >&2; exit 2; }

now() { date +%s.%N; }

# seconds COMMAND… : wall time of one run; the command's output is dropped, a failure stops the script.
seconds() {
    local start end
    start=$(now)
    "$@" >/dev/null 2>&1 || { echo "failed: $*" >&2; exit 1; }
    end=$(now)
    awk -v s="$start" -v e="$end" 'BEGIN { printf "%.6f\n", e - s }'
}

median() { sort -g | awk '{ v[NR] = $1 } END { print (NR % 2) ? v[(NR + 1) / 2] : (v[NR / 2] + v[NR / 2 + 1]) / 2 }'; }

analyze_times=()
decode_times=()
for ((i = 0; i < runs; i++)); do
    t=$(seconds "$bin" --analyze "$file") || exit 1
    analyze_times+=("$t")
    t=$(seconds ffmpeg -nostdin -v error -i "$file" -f null -) || exit 1
    decode_times+=("$t")
done
analyze=$(printf '%s\n' "${analyze_times[@]}" | median)
decode=$(printf '%s\n' "${decode_times[@]}" | median)

printf 'file:            %s\n' "$file"
printf 'runs:            %d\n' "$runs"
printf 'velquin analyze: %.3f s (median)\n' "$analyze"
printf 'ffmpeg decode:   %.3f s (median)\n' "$decode"
awk -v a="$analyze" -v d="$decode" 'BEGIN { if (d > 0) printf "ratio:           %.2f x ffmpeg\n", a / d }'

if [ -x /usr/bin/time ]; then
    out=$(mktemp)
    /usr/bin/time -f %M -o "$out" "$bin" --analyze "$file" >/dev/null 2>&1 || true
    rss=$(tail -n 1 "$out")
    rm -f "$out"
else
    # Without GNU time: sample the process's VmHWM just before it exits.
    "$bin" --analyze "$file" >/dev/null 2>&1 &
    pid=$!
    rss=0
    while kill -0 "$pid" 2>/dev/null; do
        hwm=$(awk '/^VmHWM:/ { print $2 }' "/proc/$pid/status" 2>/dev/null || true)
        [ -n "$hwm" ] && rss=$hwm
        sleep 0.05
    done
    wait "$pid" || true
fi
awk -v k="$rss" 'BEGIN { printf "peak RSS:        %.1f MB (--analyze)\n", k / 1024 }'
