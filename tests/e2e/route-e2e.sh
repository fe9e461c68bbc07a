#!/usr/bin/env bash
# `velquin --live` while the sound setup changes under it, as on a desktop: the only output unplugged
# and plugged back, the default sink replaced again and again, the server killed and restarted quickly,
# the server stalled. Listening never gives up: it waits (nothing-yet readings, the reason on standard
# error), picks up again by itself, and runs to its end with exit 0.
#   route-e2e.sh PATH/TO/velquin [pulse|pipewire]
# Exit code 77 (skip) when that sound server is not installed. Prints the measured delays.
set -uo pipefail

velquin=${1:?usage: route-e2e.sh PATH/TO/velquin [pulse|pipewire]}
server=${2:-pulse}
here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
case $server in
pulse) . "$here/pulse-env.sh" ;;
pipewire) . "$here/pipewire-env.sh" ;;
*) echo "usage: route-e2e.sh PATH/TO/velquin [pulse|pipewire]" >&2; exit 2 ;;
esac
if ! pulse_available; then
    echo "SKIP: the $server sound server is needed for the route end-to-end test"
    exit 77
fi

failures=0
fail() {
    echo "FAIL ($server): $*"
    failures=$((failures + 1))
}

work=$(mktemp -d)
finish() {
    pulse_stop
    [ -n "${VELQUIN_E2E_KEEP:-}" ] && echo "kept: $work" || rm -rf "$work"
}
python3 "$here/make_fixture.py" "$work/fixture.wav" 90 48000 || exit 1
pulse_start || exit 1
trap finish EXIT

now() { python3 -c 'import time; print("%.3f" % time.monotonic())'; }

# `--live SOURCE SECONDS` in the background, every line stamped with the monotonic clock; the exit
# status lands in NAME.status.
listen() {  # NAME SOURCE SECONDS
    (
        timeout 60 "$velquin" --live "$2" "$3" 2>"$work/$1.err" | python3 -u -c '
import sys, time
for line in sys.stdin:
    sys.stdout.write("%.3f %s" % (time.monotonic(), line))
    sys.stdout.flush()' >"$work/$1.out"
        echo "${PIPESTATUS[0]}" >"$work/$1.status"
    ) &
    listeners+=($!)
}

# Waits for the runs started by listen (not for the players and servers, which run on).
wait_listeners() {
    wait "${listeners[@]}"
    listeners=()
}
listeners=()

# The run ended by itself (not killed by timeout), with exit 0.
ended_well() {  # NAME
    local status
    status=$(cat "$work/$1.status" 2>/dev/null)
    [ "$status" = 0 ] || fail "$1: exit ${status:-none}: $(tail -n 3 "$work/$1.err")"
}

# Seconds from T to the first reading that hears audio (level above 0.001), or "none".
heard_after() {  # NAME T
    awk -v t="$2" '/ BPM \(/ && $1 >= t && $NF + 0 > 0.001 { printf "%.2f\n", $1 - t; found = 1; exit }
                   END { if (!found) print "none" }' "$work/$1.out"
}

# Seconds from T to the first reading with a tempo, or "none".
bpm_after() {  # NAME T
    awk -v t="$2" '/ BPM \(/ && $1 >= t && $2 != "----" { printf "%.2f\n", $1 - t; found = 1; exit }
                   END { if (!found) print "none" }' "$work/$1.out"
}

# Every reading between T1 and T2 is the nothing-yet one; at least one reading came.
nothing_between() {  # NAME T1 T2
    awk -v a="$2" -v b="$3" '/ BPM \(/ && $1 >= a && $1 <= b {
            n++; if ($2 != "----" || $NF + 0 != 0 || index($0, "key --") == 0) bad = 1 }
        END { exit bad || n == 0 }' "$work/$1.out"
}

# Seconds from T to the first reading with a key, or "none".
key_after() {  # NAME T
    awk -v t="$2" '/ BPM \(/ && $1 >= t && index($0, "key --") == 0 { printf "%.2f\n", $1 - t; found = 1; exit }
                   END { if (!found) print "none" }' "$work/$1.out"
}

within() {  # VALUE LIMIT
    [ "$1" != none ] && awk -v v="$1" -v l="$2" 'BEGIN { exit !(v <= l) }'
}

pulse_set_default_source speakers.monitor
pulse_play "$work/fixture.wav"

# --- The server stalls (stopped) for 4 s: after 1.5 s without samples the reading is nothing-yet and
# standard error says why; when it goes on, so do the readings.
listen stall system 12
sleep 4
t_stop=$(now)
kill -STOP "$(pulse_server_pid)"
sleep 4
t_cont=$(now)
kill -CONT "$(pulse_server_pid)"
wait_listeners
ended_well stall
nothing_between stall "$(awk -v t="$t_stop" 'BEGIN { print t + 1.9 }')" "$t_cont" ||
    fail "stall: readings went on while the server was stopped: $(awk -v t="$t_stop" '$1 >= t + 2' "$work/stall.out" | head -n 2)"
grep -qx 'No audio from the sound server' "$work/stall.err" || fail "stall: stderr was: $(cat "$work/stall.err")"
stall_back=$(heard_after stall "$t_cont")
within "$stall_back" 2.5 || fail "stall: no audio after the server went on ($stall_back)"

# --- The server is killed and restarted four times in quick succession, then stays: capture is back
# at once (PipeWire: within half a second; the PulseAudio harness's null sinks need 2 s first).
listen restarts system 14
listen restarts-mic mic 14
sleep 3
for i in 1 2 3 4; do
    pulse_kill_server KILL
    sleep 0.3
    t_back=$(now)  # the last one counts: from the restart command on
    pulse_restart_server || fail "restarts: the server did not come back ($i)"
    [ "$i" -eq 4 ] || sleep 0.3
done
pulse_play "$work/fixture.wav"
wait_listeners
for name in restarts restarts-mic; do
    ended_well "$name"
    back=$(heard_after "$name" "$t_back")
    bpm=$(bpm_after "$name" "$t_back")
    echo "$server, $name: audio +$back s, BPM +$bpm s, key +$(key_after "$name" "$t_back") s after the server's return"
    if [ "$server" = pipewire ]; then
        within "$back" 0.75 || fail "$name: capture took $back s to come back"
    else
        within "$back" 3 || fail "$name: capture took $back s to come back"
    fi
    [ "$bpm" != none ] || fail "$name: no tempo after the server came back"
done

# --- The default sink replaced three times (unplugged, a new one plugged in and made the default, as a
# headset or a profile switch does); "mic" stays, so there is always some sink.
pulse_set_default_source mic.monitor
listen replace system 14
sleep 2
current=speakers
for i in 1 2 3; do
    pulse_remove_sink "$current"
    current=headset$i
    pulse_add_sink "$current" 48000 2
    pulse_play "$work/fixture.wav" "$current"
    t_new=$(now)
    pulse_set_default_sink "$current"
    sleep 1
done
wait_listeners
ended_well replace
back=$(heard_after replace "$t_new")
echo "$server, replaced sink: audio +$back s after the new default"
within "$back" 1.5 || fail "replace: capture did not follow the new default sink ($back)"

# --- Every output unplugged (PipeWire puts its dummy auto_null in their place), then one plugged back:
# both sources wait, say why, read nothing meanwhile, and hear the new output.
pulse_set_default_source "$current.monitor"
listen gone system 16
listen gone-mic mic 16
sleep 3
pulse_remove_sink "$current"
pulse_remove_sink mic
t_gone=$(now)
sleep 3.5
t_back=$(now)
pulse_add_sink speakers 48000 2
pulse_play "$work/fixture.wav" speakers
pulse_set_default_sink speakers
pulse_set_default_source speakers.monitor
pactl info >"$work/gone.server"
wait_listeners
for name in gone gone-mic; do
    ended_well "$name"
    nothing_between "$name" "$(awk -v t="$t_gone" 'BEGIN { print t + 0.5 }')" "$t_back" ||
        fail "$name: readings while no output existed: $(awk -v a="$t_gone" -v b="$t_back" '$1 >= a + 0.5 && $1 <= b && $NF + 0 != 0' "$work/$name.out" | head -n 2)"
    back=$(heard_after "$name" "$t_back")
    bpm=$(bpm_after "$name" "$t_back")
    echo "$server, $name: audio +$back s, BPM +$bpm s, key +$(key_after "$name" "$t_back") s after an output came back"
    # The PulseAudio harness's new null sink needs its 2 s first (pulse_add_sink waits them out).
    within "$back" "$([ "$server" = pipewire ] && echo 1.5 || echo 4)" || fail "$name: capture did not come back ($back)"
    [ "$bpm" != none ] || fail "$name: no tempo after the output came back"
done
grep -qx 'Waiting for an output device…' "$work/gone.err" || fail "gone: stderr was: $(cat "$work/gone.err")"
grep -qx 'Waiting for an input device…' "$work/gone-mic.err" || fail "gone-mic: stderr was: $(cat "$work/gone-mic.err")"
tail -n 3 "$work/gone.out" | awk '{ if ($2 + 0 < 119.5 || $2 + 0 > 120.5) bad = 1 } END { exit bad }' ||
    fail "gone: the last readings are not 120 BPM: $(tail -n 2 "$work/gone.out")"

# --- The output suspended for 3 s and resumed while it plays (a power-saving or profile step): capture
# hears it again. PipeWire never feeds the monitor stream it had again; a new one hears it at once.
listen suspend system 11
sleep 3
pactl suspend-sink speakers 1
sleep 3
t_resume=$(now)
pactl suspend-sink speakers 0
wait_listeners
ended_well suspend
# The level meter decays slowly after sound stops, so "heard again" means loud again.
back=$(awk -v t="$t_resume" '/ BPM \(/ && $1 >= t && $NF + 0 > 0.05 { printf "%.2f\n", $1 - t; found = 1; exit }
                              END { if (!found) print "none" }' "$work/suspend.out")
echo "$server, suspend: audio +$back s after the resume"
within "$back" 3 || fail "suspend: no audio after the output resumed ($back)"
tail -n 3 "$work/suspend.out" | awk '{ if ($2 + 0 < 119.5 || $2 + 0 > 120.5 || $NF + 0 < 0.05) bad = 1 } END { exit bad }' ||
    fail "suspend: the last readings are not 120 BPM at full level: $(tail -n 2 "$work/suspend.out")"

if [ "$failures" -ne 0 ]; then
    echo "--- tail of the server's log ---"
    tail -n 20 "$PULSE_TEST_DIR"/p*.log 2>/dev/null
    exit 1
fi
echo "route end-to-end ($server): all checks passed"
