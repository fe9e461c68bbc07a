#!/usr/bin/env bash
# Shows Velquin in a real desktop panel and takes its picture: GNOME Shell (X11, software rendering) with
# the AppIndicator extension under Xvfb, a private session bus and a private PulseAudio playing an
# A minor, 120 BPM fixture as "system audio".
#
#   scripts/panel-screenshot.sh OUT.png
#
# OUT.png is the right end of the top bar: the panel item (ring and "Am 120") with its menu open. Checks
# (exit 1): the item registered with the panel's watcher and its label reads "Am 120". Needs
# gnome-shell and gnome-shell-extension-appindicator (not part of scripts/setup.sh); exit 77 without
# them. Environment: VELQUIN_BIN (default build/velquin).
set -euo pipefail

ROOT=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
OUT=${1:?usage: scripts/panel-screenshot.sh OUT.png}
VELQUIN=${VELQUIN_BIN:-$ROOT/build/velquin}
EXTENSION=ubuntu-appindicators@ubuntu.com
for tool in Xvfb gnome-shell dbus-daemon gdbus xdotool import python3; do
    command -v "$tool" >/dev/null || { echo "panel-screenshot: $tool is missing" >&2; exit 77; }
done
[ -d "/usr/share/gnome-shell/extensions/$EXTENSION" ] || { echo "panel-screenshot: no AppIndicator extension" >&2; exit 77; }

WORK=$(mktemp -d -t velquin-panel.XXXXXX)
pids=()
cleanup() {
    local i
    for ((i = ${#pids[@]} - 1; i >= 0; i--)); do kill "${pids[i]}" 2>/dev/null || true; done
    [ -f "$WORK/bus.pid" ] && kill "$(cat "$WORK/bus.pid")" 2>/dev/null || true
    if declare -F pulse_stop >/dev/null; then pulse_stop || true; fi
    rm -rf "$WORK"
}
trap cleanup EXIT

. "$ROOT/tests/e2e/pulse-env.sh"
pulse_available || { echo "panel-screenshot: PulseAudio is missing" >&2; exit 77; }
pulse_start
trap cleanup EXIT

export HOME=$WORK/home XDG_CONFIG_HOME=$WORK/home/.config XDG_CACHE_HOME=$WORK/home/.cache
export XDG_DATA_HOME=$WORK/home/.local/share XDG_STATE_HOME=$WORK/home/.local/state
export XDG_SESSION_TYPE=x11 GSETTINGS_BACKEND=keyfile LIBGL_ALWAYS_SOFTWARE=1
mkdir -p "$HOME"
unset WAYLAND_DISPLAY QT_QPA_PLATFORM

exec {dfd}<> <(:)
Xvfb -displayfd "$dfd" -screen 0 1024x860x24 +extension GLX -nolisten tcp >"$WORK/xvfb.log" 2>&1 &
pids+=($!)
read -r -t 10 -u "$dfd" dnum
export DISPLAY=:$dnum

# One bus serves as both: the shell asks the system bus for logind, which it can do without.
dbus-daemon --session --fork --print-address=3 --print-pid=4 3>"$WORK/bus.addr" 4>"$WORK/bus.pid"
DBUS_SESSION_BUS_ADDRESS=$(cat "$WORK/bus.addr")
export DBUS_SESSION_BUS_ADDRESS DBUS_SYSTEM_BUS_ADDRESS=$DBUS_SESSION_BUS_ADDRESS
gsettings set org.gnome.shell disable-user-extensions false
gsettings set org.gnome.shell enabled-extensions "['$EXTENSION']"
gsettings set org.gnome.shell welcome-dialog-last-shown-version '999'
gnome-shell --x11 --replace >"$WORK/shell.log" 2>&1 &
pids+=($!)
for _ in $(seq 60); do
    gdbus introspect --session --dest org.kde.StatusNotifierWatcher --object-path /StatusNotifierWatcher \
        >/dev/null 2>&1 && break
    sleep 0.5
done

python3 - "$WORK/fixture.wav" <<'PY'
import array, math, sys, wave
rate, n = 44100, 44100 * 30
mix = array.array('d', bytes(8 * n))
for midi, gain in ((45, 0.10), (57, 0.08), (60, 0.08), (64, 0.08), (69, 0.05)):  # A2 A3 C4 E4 A4
    w = 2 * math.pi * 440.0 * 2 ** ((midi - 69) / 12) / rate
    for i in range(n):
        mix[i] += gain * (math.sin(w * i) + 0.4 * math.sin(2 * w * i) + 0.2 * math.sin(3 * w * i))
beat, click = rate // 2, int(rate * 0.03)  # 120 BPM
for start in range(0, n, beat):
    for k in range(min(click, n - start)):
        env = math.exp(-k / (rate * 0.006))
        mix[start + k] += 0.6 * env * math.sin(2 * math.pi * 1800 * k / rate) + 0.5 * env * math.sin(2 * math.pi * 60 * k / rate)
peak = max(abs(v) for v in mix) or 1.0
with wave.open(sys.argv[1], 'wb') as f:
    f.setnchannels(2); f.setsampwidth(2); f.setframerate(rate)
    f.writeframes(array.array('h', (int(32000 * v / peak) for v in mix for _ in range(2))).tobytes())
PY
pulse_play "$WORK/fixture.wav"

"$VELQUIN" >"$WORK/velquin.out" 2>&1 &
pids+=($!)
item="org.kde.StatusNotifierItem-$!-1"
label=
for _ in $(seq 40); do
    label=$(gdbus call --session --dest "$item" --object-path /StatusNotifierItem \
        --method org.freedesktop.DBus.Properties.Get org.kde.StatusNotifierItem XAyatanaLabel 2>/dev/null || true)
    [[ $label == *"Am 120"* ]] && break
    sleep 0.5
done
registered=$(gdbus call --session --dest org.kde.StatusNotifierWatcher --object-path /StatusNotifierWatcher \
    --method org.freedesktop.DBus.Properties.Get org.kde.StatusNotifierWatcher RegisteredStatusNotifierItems)
echo "watcher: $registered"
echo "label: $label"
status=0
[[ $registered == *"$item"* ]] || { echo "FAIL: the item did not register with the panel" >&2; status=1; }
[[ $label == *"Am 120"* ]] || { echo "FAIL: the label is not Am 120" >&2; status=1; }

# Open the menu with a click on the item: it sits left of the system menu at the right end of the panel.
sleep 2
xdotool mousemove 930 14 click 1
sleep 1.5
import -window root "$WORK/screen.png"
convert "$WORK/screen.png" -crop 446x760+578+0 +repage "$OUT"
echo "panel-screenshot: $OUT"
exit $status
