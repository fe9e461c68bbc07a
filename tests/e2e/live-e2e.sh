#!/usr/bin/env bash
# `velquin --live` against a private PulseAudio server, as a user runs it.
#   live-e2e.sh PATH/TO/velquin
# Exit code 77 (skip) when PulseAudio is not installed.
set -uo pipefail

velquin=${1:?usage: live-e2e.sh PATH/TO/velquin}
here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
. "$here/pulse-env.sh"
if ! pulse_available; then
    echo "SKIP: pulseaudio and pulseaudio-utils are needed for the live end-to-end test"
    exit 77
fi

failures=0
fail() {
    echo "FAIL: $*"
    failures=$((failures + 1))
}

work=$(mktemp -d)
finish() {
    pulse_stop
    rm -rf "$work"
}
trap finish EXIT  # pulse_start installs its own trap; ours goes back on after it

# Unplayed: a server that is not there must fail at once, with the tap message.
PULSE_SERVER=unix:$work/nobody-here timeout 20 "$velquin" --live system 3 >"$work/none.out" 2>"$work/none.err"
status=$?
[ "$status" -eq 1 ] || fail "no server: exit $status, expected 1"
grep -q '^FAILED: Could not tap system audio (error ' "$work/none.err" || fail "no server: stderr was: $(cat "$work/none.err")"

python3 "$here/make_fixture.py" "$work/fixture.wav" 90 48000 || exit 1
pulse_start || exit 1
trap finish EXIT

# Readings settle on the fixture's 120 BPM and G major, with rising confidence.
pulse_play "$work/fixture.wav"
timeout 40 "$velquin" --live system 12 >"$work/system.out" 2>"$work/system.err"
status=$?
[ "$status" -eq 0 ] || fail "--live system 12: exit $status: $(cat "$work/system.err")"
head -n 1 "$work/system.out" | grep -q '^Listening to System Audio for 12s…$' || fail "announcement: $(head -n 1 "$work/system.out")"
readings=$(grep -c ' BPM (' "$work/system.out")
[ "$readings" -ge 80 ] || fail "only $readings readings in 12 s (one per 0.12 s expected)"
tail -n 5 "$work/system.out" | awk '
    { bpm = $1 + 0; if (bpm < 119.5 || bpm > 120.5) bad = 1; if ($5 != "G" || $6 != "9B") bad = 1 }
    END { exit bad }' || fail "last readings are not 120 BPM in G: $(tail -n 3 "$work/system.out")"
awk '/ BPM \(/ { n++; c = substr($0, index($0, "key ") + 14, 4) + 0; if (n == 60) early = c; last = c }
     END { exit !(last > early) }' "$work/system.out" ||
    fail "key confidence did not rise: $(sed -n '61p' "$work/system.out") … $(tail -n 1 "$work/system.out")"

# A recording: mono 32-bit float WAV at the sink's rate, about as long as the run.
timeout 30 "$velquin" --live system 5 "$work/out.wav" >"$work/record.out" 2>&1 || fail "--live system 5 out.wav failed"
tail -n 1 "$work/record.out" | grep -qx "Recorded to $work/out.wav" || fail "no Recorded line: $(tail -n 1 "$work/record.out")"
python3 - "$work/out.wav" <<'PY' || fail "recording is not a 5 s mono float WAV at 48 kHz"
import struct, sys
data = open(sys.argv[1], "rb").read()
assert data[:4] == b"RIFF" and data[8:12] == b"WAVE"
pos, fmt, frames = 12, None, 0
while pos + 8 <= len(data):
    cid, size = data[pos:pos + 4], struct.unpack("<I", data[pos + 4:pos + 8])[0]
    if cid == b"fmt ":
        fmt = struct.unpack("<HHIIHH", data[pos + 8:pos + 24])
    if cid == b"data":
        frames = size // 4
    pos += 8 + size + (size & 1)
tag, channels, rate = fmt[0], fmt[1], fmt[2]
assert tag in (3, 0xFFFE) and channels == 1 and rate == 48000 and fmt[5] == 32, fmt
assert 4.0 * rate <= frames <= 5.5 * rate, frames
PY

# However the run ends, the recording is finished (sizes in its header right) and announced, in the
# container its extension names; the exit status is the signal's, or 0 for a reader that went away.
recording_ok() {  # FILE FORMAT: a mono FORMAT file (ffprobe's name) of at least 1.5 s
    ffprobe -v error -show_entries format=format_name,duration:stream=channels -of default=nw=1 "$1" \
        >"$work/probe.txt" 2>&1 && grep -qx "format_name=$2" "$work/probe.txt" &&
        grep -qx 'channels=1' "$work/probe.txt" &&
        awk -F= '$1 == "duration" && $2 >= 1.5 { ok = 1 } END { exit !ok }' "$work/probe.txt" || return 1
    [ "$2" != wav ] || python3 - "$1" <<'PY'
import struct, sys
data = open(sys.argv[1], "rb").read()
riff, pos = struct.unpack("<I", data[4:8])[0], data.find(b"data")
size = struct.unpack("<I", data[pos + 4:pos + 8])[0]
assert riff == len(data) - 8 and size == len(data) - pos - 8, (riff, size, len(data))
PY
}
for case in INT:130:wav TERM:143:caf HUP:129:flac; do
    IFS=: read -r signal expected ext <<<"$case"
    rec=$work/take-$signal.$ext
    timeout 40 "$velquin" --live system 30 "$rec" >"$work/sig.out" 2>"$work/sig.err" &
    live=$!
    sleep 3
    kill -"$signal" "$live"
    wait "$live"
    status=$?
    [ "$status" -eq "$expected" ] || fail "SIG$signal: exit $status, expected $expected: $(cat "$work/sig.err")"
    tail -n 1 "$work/sig.out" | grep -qx "Recorded to $rec" || fail "SIG$signal: no Recorded line"
    recording_ok "$rec" "$ext" || fail "SIG$signal: $rec is not a finished mono $ext: $(cat "$work/probe.txt")"
done
timeout 40 "$velquin" --live system 30 "$work/piped.wav" 2>"$work/pipe.err" | head -n 25 >/dev/null
status=${PIPESTATUS[0]}
[ "$status" -eq 0 ] || fail "closed pipe: exit $status: $(cat "$work/pipe.err")"
recording_ok "$work/piped.wav" wav || fail "closed pipe: the recording is not finished: $(cat "$work/probe.txt")"

# A duration of years listens (no overflow); a recording that cannot be made is one warning, at once,
# and the run goes on without claiming it.
timeout 20 "$velquin" --live system 1e10 "$work/no/such/folder.wav" >"$work/long.out" 2>"$work/long.err" &
live=$!
sleep 3
kill -INT "$live"
wait "$live"
status=$?
[ "$status" -eq 130 ] || fail "--live system 1e10: exit $status"
[ "$(grep -c ' BPM (' "$work/long.out")" -ge 10 ] || fail "--live system 1e10 did not listen: $(cat "$work/long.out")"
[ "$(cat "$work/long.err")" = "Warning: could not record to $work/no/such/folder.wav: No such file or directory" ] ||
    fail "missing folder: stderr was: $(cat "$work/long.err")"
grep -q '^Recorded to' "$work/long.out" && fail "missing folder: claims a recording"

# The microphone is the default source: point it at a monitor that plays the fixture.
pulse_set_default_source speakers.monitor
timeout 30 "$velquin" --live mic 6 >"$work/mic.out" 2>"$work/mic.err" || fail "--live mic 6: $(cat "$work/mic.err")"
head -n 1 "$work/mic.out" | grep -q '^Listening to Microphone for 6s…$' || fail "mic announcement"
tail -n 3 "$work/mic.out" | awk '{ if ($NF + 0 <= 0.001) bad = 1 } END { exit bad }' ||
    fail "microphone readings carry no level: $(tail -n 2 "$work/mic.out")"

# The server goes away during a run and comes back: no crash, no hang; while it is away both sources
# read nothing (no stale values), and both resume once it is back.
zeros='  ---- BPM (  0%)   key --       (  0%)   level 0.0000'
for source in system mic; do
    timeout 40 "$velquin" --live "$source" 16 >"$work/restart-$source.out" 2>"$work/restart-$source.err" &
    eval "live_$source=\$!"
done
sleep 4
pulse_kill_server KILL
sleep 0.5
for source in system mic; do wc -l <"$work/restart-$source.out" >"$work/lost-$source.n"; done
sleep 1.5
pulse_restart_server
pulse_play "$work/fixture.wav"
for source in system mic; do
    eval "wait \$live_$source"
    status=$?
    out=$work/restart-$source.out
    [ "$status" -eq 0 ] || fail "$source, server restart: exit $status (124 = hang): $(tail -n 3 "$out")"
    sed -n "$(($(cat "$work/lost-$source.n") + 1)),+8p" "$out" | grep -vxF "$zeros" | grep -q . &&
        fail "$source: stale readings while the server was away: $(sed -n "$(cat "$work/lost-$source.n"),+2p" "$out")"
    tail -n 5 "$out" | awk '{ if ($NF + 0 <= 0.001) bad = 1 } END { exit bad }' ||
        fail "$source: no audio after the server came back: $(tail -n 2 "$out")"
done

# A new default sink during a run: capture follows it. Only the new sink plays from the switch on.
speakers_player=$PULSE_PLAY_PID
pulse_add_sink headphones 44100 2
timeout 40 "$velquin" --live system 12 >"$work/switch.out" 2>"$work/switch.err" &
live=$!
sleep 3
kill "$speakers_player" 2>/dev/null
pulse_play "$work/fixture.wav" headphones
pulse_set_default_sink headphones
wait "$live" || fail "sink switch run failed: $(tail -n 3 "$work/switch.err")"
tail -n 5 "$work/switch.out" | awk '{ if ($NF + 0 <= 0.001) bad = 1 } END { exit bad }' ||
    fail "capture did not follow the new default sink: $(tail -n 2 "$work/switch.out")"

if [ "$failures" -ne 0 ]; then
    echo "--- tail of the PulseAudio log ---"
    tail -n 20 "$PULSE_TEST_DIR/pulse.log" 2>/dev/null
    exit 1
fi
echo "live end-to-end: all checks passed"
