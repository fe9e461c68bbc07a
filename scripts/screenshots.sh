#!/usr/bin/env bash
# Runs the desktop application for real under a private X server and sound server, plays a fixture into
# "system audio", and captures what a user would see:
#
#   scripts/screenshots.sh OUTDIR
#
#   OUTDIR/screen.png   the whole 1280x800 screen (bar at the top right, tray icon in the tray at the left)
#   OUTDIR/bar.png      the bar, once it shows the fixture's key and tempo (4x)
#   OUTDIR/tray.png     the tray icon in trayer (4x)
#   OUTDIR/menu.png     the menu opened by a left click on the bar
#   OUTDIR/shelf-idle.png   the drop shelf, opened by a real drag from another program heading for the bar
#   OUTDIR/shelf.png    the shelf with the dropped file's result
#   OUTDIR/bar-file.png the bar showing the dropped file's result (accent colour)
#   OUTDIR/velquin.log  the program's diagnostic log; velquin.out and drag.out: what the programs printed
#   OUTDIR/first-launch.png  the menu a first launch opens, with its hint
#   OUTDIR/openbox.png  under openbox: a maximized window, its title bar clear of the bar
#   OUTDIR/workspace2.png   the same on workspace 2, the bar still there
#   OUTDIR/late-tray.png    a tray started 5 s after Velquin, with Velquin's icon (4x)
#
# Checks (exit 1 when one fails): the bar's window title, which carries the menu's status line, names the
# fixture's key (A minor) and a tempo of 120 BPM; the drag opened the shelf and the drop reached it.
# Then, under openbox with a maximized window: the bar leaves the window's title bar as it was, openbox
# keeps it sticky, above and out of task bars and pagers (_NET_WM_STATE), it shows on workspace 2, moves when dragged and comes back there after a restart; a second launch leaves exactly
# one bar; a tray started 5 s after Velquin shows its icon. Skipped when openbox or wmctrl is missing.
# Environment: VELQUIN_BIN (default build/velquin), DRAG_SOURCE_BIN (default build/tests/ui_drag_source).
# Needs Xvfb, pulseaudio, xdotool, imagemagick and trayer (scripts/setup.sh installs them). Exit 77 when
# something needed is missing.
set -euo pipefail

ROOT=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
OUT=${1:?usage: scripts/screenshots.sh OUTDIR}
mkdir -p "$OUT"
OUT=$(cd "$OUT" && pwd)
VELQUIN=${VELQUIN_BIN:-$ROOT/build/velquin}
DRAG_SOURCE=${DRAG_SOURCE_BIN:-$(dirname "$VELQUIN")/tests/ui_drag_source}

for tool in Xvfb xdotool import convert python3; do
    command -v "$tool" >/dev/null || { echo "screenshots: $tool is missing" >&2; exit 77; }
done
[ -x "$VELQUIN" ] || { echo "screenshots: no program at $VELQUIN" >&2; exit 77; }

WORK=$(mktemp -d -t velquin-shots.XXXXXX)
chmod 700 "$WORK"
pids=()
cleanup() {
    local i
    for ((i = ${#pids[@]} - 1; i >= 0; i--)); do
        kill "${pids[i]}" 2>/dev/null || true
        wait "${pids[i]}" 2>/dev/null || true
    done
    if declare -F pulse_stop >/dev/null; then pulse_stop || true; fi
    rm -rf "$WORK"
}
trap cleanup EXIT

# --- sound: a private PulseAudio with a null "speakers" sink as the default output -------------------
if [ -f "$ROOT/tests/e2e/pulse-env.sh" ]; then
    # shellcheck source=../tests/e2e/pulse-env.sh
    . "$ROOT/tests/e2e/pulse-env.sh"
    pulse_available || { echo "screenshots: PulseAudio is missing" >&2; exit 77; }
    pulse_start
    trap cleanup EXIT  # pulse_start installs its own; ours stops everything, pulse_stop included
else
    command -v pulseaudio >/dev/null || { echo "screenshots: PulseAudio is missing" >&2; exit 77; }
    export XDG_RUNTIME_DIR=$WORK/xdg-runtime PULSE_RUNTIME_PATH=$WORK/pulse
    mkdir -m 700 -p "$XDG_RUNTIME_DIR" "$PULSE_RUNTIME_PATH"
    export PULSE_SERVER=unix:$PULSE_RUNTIME_PATH/native
    HOME=$WORK pulseaudio --daemonize=no -n --exit-idle-time=-1 --use-pid-file=no --realtime=no \
        --high-priority=no --log-target="file:$WORK/pulse.log" \
        --load="module-native-protocol-unix auth-anonymous=1 socket=$PULSE_RUNTIME_PATH/native" \
        --load="module-null-sink sink_name=speakers rate=48000 channels=2" \
        --load="module-null-sink sink_name=mic rate=44100 channels=1" &
    pids+=($!)
    for _ in $(seq 100); do pactl info >/dev/null 2>&1 && break; sleep 0.05; done
    pactl set-default-sink speakers
    pactl set-default-source mic.monitor
    parec --latency-msec=20 -d speakers.monitor >/dev/null & pids+=($!)
    parec --latency-msec=20 -d mic.monitor >/dev/null & pids+=($!)
    sleep 2.1
fi

# --- display: Xvfb picks a free display number ------------------------------------------------------
exec {dfd}<> <(:)
Xvfb -displayfd "$dfd" -screen 0 1280x800x24 -nolisten tcp >"$WORK/xvfb.log" 2>&1 &
pids+=($!)
read -r -t 10 -u "$dfd" dnum
export DISPLAY=:$dnum
unset WAYLAND_DISPLAY QT_QPA_PLATFORM
export XDG_SESSION_TYPE=x11
# No session bus, as on a bare X session, but one that fails at once: left unset, libdbus forks to
# autolaunch one, and under AddressSanitizer that fork of a threaded process can hang before its exec,
# leaving the program's start blocked for good.
export DBUS_SESSION_BUS_ADDRESS=unix:path=$WORK/no-session-bus
if [ -z "${XDG_RUNTIME_DIR:-}" ]; then export XDG_RUNTIME_DIR=$WORK/xdg-runtime; mkdir -m 700 -p "$XDG_RUNTIME_DIR"; fi
# Fresh settings and log, so the first-launch defaults apply.
export XDG_CONFIG_HOME=$WORK/config XDG_STATE_HOME=$WORK/state XDG_CACHE_HOME=$WORK/cache
mkdir -p "$XDG_CONFIG_HOME" "$XDG_STATE_HOME" "$XDG_CACHE_HOME"

if command -v trayer >/dev/null; then
    trayer --edge top --align left --widthtype pixel --width 120 --height 28 --SetDockType true \
        --transparent false --tint 0x303030 >/dev/null 2>&1 &
    pids+=($!)
    sleep 0.5
fi

# --- fixture: 120 BPM clicks over a sustained A minor chord ---------------------------------------------
python3 - "$WORK/fixture.wav" 40 <<'PY'
import array, math, sys, wave
out, seconds, rate = sys.argv[1], float(sys.argv[2]), 44100
n = int(seconds * rate)
mix = array.array('d', bytes(8 * n))
def tone(freq, gain):
    w = 2 * math.pi * freq / rate
    for i in range(n):
        s = math.sin(w * i) + 0.4 * math.sin(2 * w * i) + 0.2 * math.sin(3 * w * i)
        mix[i] += gain * s
for midi, gain in ((45, 0.10), (57, 0.08), (60, 0.08), (64, 0.08), (69, 0.05)):  # A2 A3 C4 E4 A4
    tone(440.0 * 2 ** ((midi - 69) / 12), gain)
beat = int(rate * 0.5)  # 120 BPM
click = int(rate * 0.03)
for start in range(0, n, beat):
    for k in range(min(click, n - start)):
        env = math.exp(-k / (rate * 0.006))
        mix[start + k] += 0.6 * env * math.sin(2 * math.pi * 1800 * k / rate) + 0.5 * env * math.sin(2 * math.pi * 60 * k / rate)
peak = max(abs(v) for v in mix) or 1.0
frames = array.array('h', (int(32000 * v / peak) for v in mix for _ in range(2)))
with wave.open(out, 'wb') as w:
    w.setnchannels(2); w.setsampwidth(2); w.setframerate(rate); w.writeframes(frames.tobytes())
PY
# A shorter copy to drop on the shelf.
ffmpeg -v error -y -i "$WORK/fixture.wav" -t 12 "$WORK/dropped take.wav" 2>/dev/null ||
    cp "$WORK/fixture.wav" "$WORK/dropped take.wav"

# --- the program ------------------------------------------------------------------------------------
"$VELQUIN" >"$WORK/velquin.out" 2>&1 &
vpid=$!
pids+=($vpid)

bar=""
for _ in $(seq 100); do
    bar=$(xdotool search --name ' — Velquin$' 2>/dev/null | head -1 || true)
    [ -n "$bar" ] && break
    sleep 0.1
done
[ -n "$bar" ] || { echo "screenshots: the bar did not appear" >&2; cat "$WORK/velquin.out" >&2; exit 1; }

paplay -d speakers "$WORK/fixture.wav" &
pids+=($!)

# The window title carries the menu's status line; wait for the key and the tempo to settle.
title=""
ok=0
for _ in $(seq 300); do
    title=$(xdotool getwindowname "$bar" 2>/dev/null || true)
    if [[ "$title" == *"A minor"* && "$title" =~ (119|120|121)\ BPM ]]; then ok=1; break; fi
    sleep 0.1
done
echo "bar title: $title"
sleep 2  # let the ring fill further

eval "$(xdotool getwindowgeometry --shell "$bar")"  # X Y WIDTH HEIGHT
BX=$X BY=$Y BW=$WIDTH BH=$HEIGHT
import -window root "$OUT/screen.png"
convert "$OUT/screen.png" -crop "$((BW + 16))x$((BH + 8))+$((BX - 8))+$((BY))" +repage -scale 400% "$OUT/bar.png"
if command -v trayer >/dev/null; then
    convert "$OUT/screen.png" -crop 120x28+0+0 +repage -scale 400% "$OUT/tray.png"
fi

# --- the first launch opened the menu with a hint; then the menu from a left click on the bar -----------
import -window root "$WORK/first-screen.png"
convert "$WORK/first-screen.png" -crop "680x$((560))+$((1280 - 680))+0" +repage "$OUT/first-launch.png"
xdotool key Escape
sleep 0.3
xdotool mousemove $((BX + BW / 2)) $((BY + BH / 2)) click 1
sleep 1
import -window root "$WORK/menu-screen.png"
convert "$WORK/menu-screen.png" -crop "520x$((560))+$((1280 - 520))+0" +repage "$OUT/menu.png"
xdotool key Escape
sleep 0.3
xdotool mousemove 640 500 click 1  # closes the menu should Escape not have
sleep 0.5

# --- a real drag from another program onto the shelf ---------------------------------------------------
shelf_ok=0
if [ -x "$DRAG_SOURCE" ]; then
    "$DRAG_SOURCE" "$WORK/dropped take.wav" 200 400 >"$WORK/drag.out" 2>&1 &
    pids+=($!)
    sleep 1
    xdotool mousemove 280 430 mousedown 1
    # Toward the bar in steps: the drag watcher sees the pointer near the bar and opens the shelf.
    tx=$((BX + BW / 2)) ty=$((BY + BH + 10))
    for i in $(seq 1 20); do
        xdotool mousemove $((280 + (tx - 280) * i / 20)) $((430 + (ty - 430) * i / 20))
        sleep 0.05
    done
    sleep 0.8
    import -window root "$WORK/shelf-idle-screen.png"
    # Down onto the middle of the shelf, then drop.
    # The shelf is centred under the bar but kept 8 px inside the screen.
    left=$((BX + BW / 2 - 150))
    [ "$left" -gt $((1280 - 8 - 300)) ] && left=$((1280 - 8 - 300))
    sx=$((left + 150)) sy=$((BY + BH + 6 + 75))
    for i in $(seq 1 10); do
        xdotool mousemove $((tx + (sx - tx) * i / 10)) $((ty + (sy - ty) * i / 10))
        sleep 0.05
    done
    sleep 0.3
    xdotool mouseup 1
    sleep 2.5  # the analysis of a 12 s file
    import -window root "$WORK/shelf-screen.png"
    crop="320x170+$((left - 10))+$((BY + BH))"
    convert "$WORK/shelf-idle-screen.png" -crop "$crop" +repage "$OUT/shelf-idle.png"
    convert "$WORK/shelf-screen.png" -crop "$crop" +repage "$OUT/shelf.png"
    convert "$WORK/shelf-screen.png" -crop "$((BW + 16))x$((BH + 8))+$((BX - 8))+$((BY))" +repage -scale 400% \
        "$OUT/bar-file.png"
    grep -q "drag result: 1" "$WORK/drag.out" && shelf_ok=1
else
    echo "screenshots: no drag source at $DRAG_SOURCE; skipping the shelf" >&2
fi

log=$XDG_STATE_HOME/Velquin/Velquin.log
[ -f "$log" ] && cp "$log" "$OUT/velquin.log"
cp "$WORK/velquin.out" "$OUT/velquin.out"
[ -f "$WORK/drag.out" ] && cp "$WORK/drag.out" "$OUT/drag.out"
kill "$vpid" 2>/dev/null || true
wait "$vpid" 2>/dev/null || true

# --- under a window manager ---------------------------------------------------------------------------
wm_status=skip
bar_windows() {  # the bars among the program's windows
    local w n=0
    for w in $(xdotool search --class velquin 2>/dev/null); do
        [[ "$(xdotool getwindowname "$w" 2>/dev/null)" == *" — Velquin" ]] && xwininfo -id "$w" | grep -q IsViewable && n=$((n + 1))
    done
    echo "$n"
}
find_bar() {
    local b=""
    for _ in $(seq 100); do
        b=$(xdotool search --name ' — Velquin$' 2>/dev/null | head -1 || true)
        [ -n "$b" ] && xwininfo -id "$b" | grep -q IsViewable && break
        b=""
        sleep 0.1
    done
    echo "$b"
}
if command -v openbox >/dev/null && command -v wmctrl >/dev/null && command -v xmessage >/dev/null; then
    wm_status=ok
    fail() { echo "FAIL (openbox): $*" >&2; wm_status=fail; }
    exec {wfd}<> <(:)
    Xvfb -displayfd "$wfd" -screen 0 1280x800x24 -nolisten tcp >"$WORK/xvfb-wm.log" 2>&1 &
    pids+=($!)
    read -r -t 10 -u "$wfd" wnum
    export DISPLAY=:$wnum
    export XDG_CONFIG_HOME=$WORK/config-wm
    mkdir -p "$XDG_CONFIG_HOME"
    openbox >"$WORK/openbox.log" 2>&1 &
    pids+=($!)
    sleep 1
    wmctrl -n 2
    xmessage -name maximized -geometry 500x300+100+100 "A maximized window" &
    pids+=($!)
    sleep 1
    wmctrl -r maximized -b add,maximized_vert,maximized_horz
    sleep 0.5
    win=$(xdotool search --classname maximized | head -1)
    top=$(xprop -id "$win" _NET_FRAME_EXTENTS 2>/dev/null |
        sed -n 's/.*= *[0-9]*, *[0-9]*, *\([0-9]*\),.*/\1/p')
    top=${top:-24}
    import -window root "$WORK/wm-before.png"
    convert "$WORK/wm-before.png" -crop "240x${top}+1040+0" +repage "$WORK/titlebar-before.png"

    "$VELQUIN" >"$WORK/velquin-wm.out" 2>&1 &
    wpid=$!
    pids+=($wpid)
    started=$(date +%s.%N)
    wbar=$(find_bar)
    [ -n "$wbar" ] || fail "the bar did not appear"
    sleep 1
    xdotool key Escape  # the first launch's menu
    sleep 0.5
    import -window root "$OUT/openbox.png"
    convert "$OUT/openbox.png" -crop "240x${top}+1040+0" +repage "$WORK/titlebar-after.png"
    changed=$(compare -metric AE "$WORK/titlebar-before.png" "$WORK/titlebar-after.png" null: 2>&1 || true)
    [ "${changed%% *}" = 0 ] && echo "ok: the title bar's buttons are clear of the bar" ||
        fail "the bar changes $changed pixels of the title bar"

    # The tray comes 5 s after Velquin.
    sleep "$(python3 -c "print(max(0.0, 5 - ($(date +%s.%N) - $started)))")"
    trayer --edge bottom --align left --widthtype pixel --width 120 --height 28 --SetDockType true \
        --transparent false --tint 0x303030 >/dev/null 2>&1 &
    pids+=($!)
    sleep 2
    import -window root "$WORK/tray-screen.png"
    convert "$WORK/tray-screen.png" -crop 120x28+0+772 +repage -scale 400% "$OUT/late-tray.png"
    colours=$(convert "$WORK/tray-screen.png" -crop 120x28+0+772 +repage -format %k info:)
    [ "$colours" -gt 4 ] && echo "ok: the late tray shows the icon" || fail "the late tray stays empty"

    # The state the window manager keeps is the one it applied: on every workspace, out of task bars.
    # openbox has no STICKY state (not in its _NET_SUPPORTED): all desktops is _NET_WM_DESKTOP 0xFFFFFFFF.
    state=$(xprop -id "$wbar" _NET_WM_STATE)
    wanted="ABOVE SKIP_TASKBAR SKIP_PAGER"
    xprop -root _NET_SUPPORTED | grep -q _NET_WM_STATE_STICKY && wanted+=" STICKY"
    missing=""
    for s in $wanted; do [[ $state == *"_NET_WM_STATE_$s"* ]] || missing+=" $s"; done
    [ -z "$missing" ] && echo "ok: openbox keeps the bar${state#*=}" || fail "openbox dropped$missing: $state"
    desktop=$(xprop -id "$wbar" _NET_WM_DESKTOP)
    [[ $desktop == *4294967295* ]] && echo "ok: the bar is on all desktops" || fail "bar desktop: $desktop"

    wmctrl -s 1
    sleep 0.7
    [ "$(bar_windows)" = 1 ] && echo "ok: the bar is on workspace 2" || fail "no bar on workspace 2"
    import -window root "$OUT/workspace2.png"
    wmctrl -s 0
    sleep 0.5

    # Drag the bar by its middle to the left half of the screen.
    eval "$(xdotool getwindowgeometry --shell "$wbar")"
    xdotool mousemove $((X + WIDTH / 2)) $((Y + HEIGHT / 2)) mousedown 1
    for i in $(seq 1 10); do xdotool mousemove $((X + WIDTH / 2 - 50 * i)) $((Y + HEIGHT / 2 + 20 * i)); sleep 0.05; done
    xdotool mouseup 1
    sleep 0.5
    eval "$(xdotool getwindowgeometry --shell "$wbar")"
    moved_x=$X moved_y=$Y
    if [ "$moved_x" -lt 900 ]; then echo "ok: the drag moved the bar to $moved_x,$moved_y"; else fail "the bar stayed at $moved_x,$moved_y"; fi
    kill "$wpid" 2>/dev/null || true; wait "$wpid" 2>/dev/null || true
    "$VELQUIN" >>"$WORK/velquin-wm.out" 2>&1 &
    wpid=$!
    pids+=($wpid)
    wbar=$(find_bar)
    sleep 0.5
    eval "$(xdotool getwindowgeometry --shell "$wbar")"
    if [ $((X - moved_x)) -ge -2 ] && [ $((X - moved_x)) -le 2 ] && [ $((Y - moved_y)) -ge -2 ] && [ $((Y - moved_y)) -le 2 ]; then
        echo "ok: the bar came back at $X,$Y"
    else
        fail "after a restart the bar is at $X,$Y, not $moved_x,$moved_y"
    fi

    # A second launch asks the first to show its menu and leaves.
    second=0
    timeout 10 "$VELQUIN" >"$WORK/velquin-second.out" 2>&1 || second=$?
    sleep 0.5
    n=$(bar_windows)
    if [ "$second" = 0 ] && [ "$n" = 1 ]; then echo "ok: a second launch leaves one bar"; else fail "second launch: exit $second, $n bars"; fi
    xdotool key Escape
    kill "$wpid" 2>/dev/null || true; wait "$wpid" 2>/dev/null || true
    cp "$WORK/velquin-wm.out" "$OUT/velquin-wm.out"
    [ -f "$XDG_STATE_HOME/Velquin/Velquin.log" ] && cp "$XDG_STATE_HOME/Velquin/Velquin.log" "$OUT/velquin-wm.log"
    if [ "$wm_status" = fail ]; then
        echo "--- what velquin printed under openbox:" >&2
        cat "$WORK/velquin-wm.out" "$WORK/velquin-second.out" >&2
        echo "--- its log:" >&2
        tail -n 40 "$OUT/velquin-wm.log" >&2 2>/dev/null || true
    fi
fi

status=0
[ "$wm_status" = fail ] && status=1
if [ "$ok" = 1 ]; then echo "ok: the bar shows A minor at 120 BPM"; else echo "FAIL: the bar shows: $title" >&2; status=1; fi
if [ -x "$DRAG_SOURCE" ]; then
    if [ "$shelf_ok" = 1 ]; then echo "ok: the drag was dropped with copy"; else echo "FAIL: the drop did not land" >&2; status=1; fi
fi
ls -1 "$OUT"
exit $status
