#!/usr/bin/env bash
# CPU cost of live listening: plays a fixture into a private PulseAudio null sink while
# `velquin --live system SECONDS` listens, and prints Velquin's CPU time over wall time.
#   bench/live_cpu.sh [SECONDS]          (default 60; VELQUIN_BIN picks the program, default build/velquin)
set -euo pipefail

seconds=${1:-60}
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
velquin=${VELQUIN_BIN:-$root/build/velquin}
. "$root/tests/e2e/pulse-env.sh"
pulse_available || { echo "pulseaudio and pulseaudio-utils are needed" >&2; exit 1; }

work=$(mktemp -d)
trap 'pulse_stop; rm -rf "$work"' EXIT
python3 "$root/tests/e2e/make_fixture.py" "$work/fixture.wav" "$((seconds + 5))" 48000
pulse_start
pulse_play "$work/fixture.wav"

TIMEFORMAT='%R %U %S'
{ time "$velquin" --live system "$seconds" >"$work/live.out" 2>&1; } 2>"$work/time.txt"
read -r wall user sys <"$work/time.txt"
tail -n 1 "$work/live.out"
awk -v w="$wall" -v u="$user" -v s="$sys" 'BEGIN {
    printf "wall %.2f s, cpu %.2f s (user %.2f, sys %.2f): %.2f %% of one core\n", w, u + s, u, s, 100 * (u + s) / w }'
