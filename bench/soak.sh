#!/usr/bin/env bash
# A long day of listening, compressed: `velquin --live system` listens while the default output is
# replaced (unplugged, a new one plugged in and made the default, every other one at 44.1 kHz) and the
# sound server is killed and restarted. After each change it waits for the readings to hear audio again
# and notes how long that took; the process's threads, open descriptors and memory are printed at the
# start and the end. Not part of the test suite (a few minutes).
#   bench/soak.sh PATH/TO/velquin [REPLACEMENTS [RESTARTS [pipewire|pulse]]]     (100, 20, pipewire)
# Exit code 1 when a change was not followed by audio within 5 s, or the figures grew.
set -uo pipefail

velquin=${1:?usage: bench/soak.sh PATH/TO/velquin [REPLACEMENTS [RESTARTS [pipewire|pulse]]]}
replacements=${2:-100}
restarts=${3:-20}
server=${4:-pipewire}
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
case $server in
pulse) . "$root/tests/e2e/pulse-env.sh" ;;
pipewire) . "$root/tests/e2e/pipewire-env.sh" ;;
*) echo "unknown server $server" >&2; exit 2 ;;
esac

work=$(mktemp -d)
python3 "$root/tests/e2e/make_fixture.py" "$work/fixture.wav" 30 48000 || exit 1
pulse_start || exit 1
finish() {
    [ -n "${live:-}" ] && kill -INT "$live" 2>/dev/null
    pulse_stop
    rm -rf "$work"
}
trap finish EXIT

now() { python3 -c 'import time; print("%.3f" % time.monotonic())'; }

"$velquin" --live system 1e9 2>"$work/live.err" | python3 -u -c '
import sys, time
for line in sys.stdin:
    sys.stdout.write("%.3f %s" % (time.monotonic(), line))
    sys.stdout.flush()' >"$work/live.out" &
sleep 0.5
live=$(pgrep -n -f -- "--live system 1e9") || { echo "velquin did not start: $(cat "$work/live.err")"; exit 1; }

# Seconds from T until a reading hears audio (level above 0.001); "none" after 5 s.
heard_after() {  # T
    local i
    for i in $(seq 100); do
        awk -v t="$1" '/ BPM \(/ && $1 >= t && $NF + 0 > 0.001 { printf "%.2f\n", $1 - t; found = 1; exit }
                       END { exit !found }' "$work/live.out" && return
        sleep 0.05
    done
    echo none
}

figures() {  # LABEL
    local threads fds rss streams
    threads=$(awk '/^Threads:/ { print $2 }' "/proc/$live/status")
    fds=$(find "/proc/$live/fd" -mindepth 1 | wc -l)
    rss=$(awk '/^VmRSS:/ { print $2 }' "/proc/$live/status")
    # Record streams the server holds for us: one, unless a replaced one was left behind there.
    streams=$(pactl list short source-outputs | wc -l)
    echo "$1: threads $threads, descriptors $fds, resident memory $rss kB, record streams in the server $streams"
    echo "$threads $fds $rss $streams" >"$work/figures.$1"
}

pulse_play "$work/fixture.wav"
[ "$(heard_after 0)" != none ] || { echo "no audio at the start"; exit 1; }
sleep 5  # past the first readings' allocations
figures start

failed=0
: >"$work/delays"
current=speakers
for i in $(seq "$replacements"); do
    kill "$PULSE_PLAY_PID" 2>/dev/null  # one player at a time, as on a desktop
    pulse_remove_sink "$current"
    current=out$i
    pulse_add_sink "$current" "$([ $((i % 2)) -eq 0 ] && echo 48000 || echo 44100)" 2
    pulse_play "$work/fixture.wav" "$current"
    t=$(now)
    pulse_set_default_sink "$current"
    delay=$(heard_after "$t")
    [ "$delay" = none ] && { echo "replacement $i: no audio"; failed=$((failed + 1)); }
    # A slow one: was it the server that took its time to make the new sink the default?
    if [ "$delay" = none ] || awk -v d="$delay" 'BEGIN { exit !(d > 0.5) }'; then
        echo "replacement $i: audio after $delay s; the default sink is now $(pactl get-default-sink)"
    fi
    echo "replace $delay" >>"$work/delays"
done
for i in $(seq "$restarts"); do
    pulse_kill_server KILL
    sleep 0.2
    t=$(now)
    kill "$PULSE_PLAY_PID" 2>/dev/null
    pulse_restart_server || { echo "restart $i: the server did not come back"; failed=$((failed + 1)); }
    pulse_play "$work/fixture.wav" "$current"
    delay=$(heard_after "$t")
    [ "$delay" = none ] && { echo "restart $i: no audio"; failed=$((failed + 1)); }
    echo "restart $delay" >>"$work/delays"
done
sleep 5
figures end

awk '$2 != "none" { n[$1]++; s[$1] += $2; if ($2 > m[$1]) m[$1] = $2 }
     END { for (k in n) printf "%s: %d times, audio back after %.2f s on average, %.2f s at most\n", k, n[k], s[k] / n[k], m[k] }' \
    "$work/delays"
grep -v '^Waiting\|^No audio' "$work/live.err" | head -n 5
read -r t0 f0 m0 s0 <"$work/figures.start"
read -r t1 f1 m1 s1 <"$work/figures.end"
# Memory may move a little with the allocator; a leak of one stream or thread per change would not.
if [ "$t1" -gt "$t0" ] || [ "$f1" -gt "$f0" ] || [ "$m1" -gt $((m0 + 4096)) ] || [ "$s1" -gt "$s0" ]; then
    echo "the figures grew"
    failed=$((failed + 1))
fi
[ "$failed" -eq 0 ] && echo "soak ($server): every change was followed" || exit 1
