#!/usr/bin/env bash
# The desktop application on a Wayland desktop: mutter (GNOME's compositor) nested in Xvfb, with
# XWayland, a private session bus and a private PulseAudio, started as a GNOME user whose session sets
# QT_QPA_PLATFORM=wayland for every program:
#
#   tests/e2e/wayland-e2e.sh OUTDIR
#
# Checks (exit 1 when one fails): the bar runs through XWayland and the log says why; it sits at the
# top right, is kept above (and stays visible over a maximized native Wayland window) on every
# workspace and out of task bars; the first launch tells, once, how to get the panel item on GNOME;
# the bar's menu closes on Escape and on a click on a native Wayland window; the panel item leaves its
# menu to the panel (ItemIsMenu) and the exported menu has its entries, opens, closes and acts on a
# click. Then on native Wayland alone (no layer shell on mutter): one line tells what the desktop
# allows, and the first-launch hint offers no drag. All input goes through the compositor (xdotool on the outer X server), as a user's would.
#
#   OUTDIR/mutter-bar.png   the top right of the screen: the bar over the Wayland window (2x)
#   OUTDIR/mutter-menu.png  the bar's menu open over the Wayland window
#   OUTDIR/velquin-wayland.log, velquin-wayland.out   the program's log and what it printed
#
# Environment: VELQUIN_BIN, PLAIN_WINDOW_BIN (default: build/tests/ui_plain_window). Exit 77 when
# mutter, XWayland, Qt's Wayland plugin or another tool is missing.
set -euo pipefail

ROOT=$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)
OUT=${1:?usage: tests/e2e/wayland-e2e.sh OUTDIR}
mkdir -p "$OUT"
OUT=$(cd "$OUT" && pwd)
VELQUIN=${VELQUIN_BIN:-$ROOT/build/velquin}
PLAIN=${PLAIN_WINDOW_BIN:-$(dirname "$VELQUIN")/tests/ui_plain_window}

. "$ROOT/tests/e2e/desktop-env.sh"
DESKTOP_NAME=mutter
for tool in Xvfb mutter Xwayland dbus-daemon gdbus xdotool xprop xwininfo import convert; do
    command -v "$tool" >/dev/null || skip "$tool is missing"
done
ls /usr/lib/*/qt6/plugins/platforms/libqwayland-generic.so >/dev/null 2>&1 || skip "no Qt Wayland plugin"
[ -x "$VELQUIN" ] || skip "no program at $VELQUIN"
[ -x "$PLAIN" ] || skip "no test window at $PLAIN"

desktop_env_start mutter
chmod 700 "$WORK"

export HOME=$WORK/home XDG_CONFIG_HOME=$WORK/home/.config XDG_CACHE_HOME=$WORK/home/.cache
export XDG_STATE_HOME=$WORK/home/.local/state XDG_DATA_HOME=$WORK/home/.local/share
export LIBGL_ALWAYS_SOFTWARE=1 GSETTINGS_BACKEND=memory MUTTER_DEBUG_DUMMY_MODE_SPECS=1280x800
mkdir -p "$HOME"
unset QT_QPA_PLATFORM WAYLAND_DISPLAY

exec {dfd}<> <(:)
Xvfb -displayfd "$dfd" -screen 0 1280x800x24 +extension GLX -nolisten tcp >"$WORK/xvfb.log" 2>&1 &
pids+=($!)
read -r -t 10 -u "$dfd" dnum
OUTER=:$dnum
export DISPLAY=$OUTER

dbus-daemon --session --fork --print-address=3 --print-pid=4 3>"$WORK/bus.addr" 4>"$WORK/bus.pid"
DBUS_SESSION_BUS_ADDRESS=$(cat "$WORK/bus.addr")
export DBUS_SESSION_BUS_ADDRESS

# mutter hands its children the XWayland display and its authority file; one child writes them down.
mutter --nested --wayland --wayland-display="velquin-wl-$$" -- \
    sh -c 'env | grep -E "^(DISPLAY|XAUTHORITY|WAYLAND_DISPLAY)=" >"$0.tmp" && mv "$0.tmp" "$0"; exec sleep 3600' \
    "$WORK/session.env" >"$WORK/mutter.log" 2>&1 &
pids+=($!)
for _ in $(seq 100); do [ -s "$WORK/session.env" ] && break; sleep 0.1; done
[ -s "$WORK/session.env" ] || { cat "$WORK/mutter.log" >&2; skip "mutter did not start"; }
XW=$(sed -n 's/^DISPLAY=//p' "$WORK/session.env")
XAUTH=$(sed -n 's/^XAUTHORITY=//p' "$WORK/session.env")
WL=$(sed -n 's/^WAYLAND_DISPLAY=//p' "$WORK/session.env")
inside() { DISPLAY=$XW XAUTHORITY=$XAUTH "$@"; }  # X11 tools on XWayland
press() { DISPLAY=$OUTER xdotool "$@"; }           # input through the compositor
press mousemove 640 400                           # without a window manager the pointer holds the focus

# A maximized native Wayland window, as a user's browser or terminal would be.
WAYLAND_DISPLAY=$WL QT_QPA_PLATFORM=wayland DISPLAY= "$PLAIN" >"$WORK/plain.out" 2>&1 &
pids+=($!)
for _ in $(seq 50); do grep -q platform "$WORK/plain.out" && break; sleep 0.1; done
grep -q "platform wayland" "$WORK/plain.out" || fail "the test window is not a Wayland client: $(cat "$WORK/plain.out")"
sleep 1

# Music for the screenshots.
play_fixture

# The GNOME session of Debian 12, with QT_QPA_PLATFORM=wayland set for all programs.
env DISPLAY="$XW" XAUTHORITY="$XAUTH" WAYLAND_DISPLAY="$WL" XDG_SESSION_TYPE=wayland \
    XDG_CURRENT_DESKTOP=GNOME QT_QPA_PLATFORM=wayland "$VELQUIN" >"$WORK/velquin.out" 2>&1 &
vpid=$!
pids+=($vpid)
bar=""
for _ in $(seq 100); do
    bar=$(inside xdotool search --name ' — Velquin$' 2>/dev/null | head -1 || true)
    [ -n "$bar" ] && inside xwininfo -id "$bar" | grep -q IsViewable && break
    bar=""
    sleep 0.1
done
[ -n "$bar" ] || { cat "$WORK/velquin.out" "$WORK/mutter.log" >&2; fail "the bar did not appear on XWayland"; exit 1; }
sleep 1.5

log=$XDG_STATE_HOME/Velquin/Velquin.log
grep -q "platform: xcb through XWayland although QT_QPA_PLATFORM=wayland" "$log" &&
    ok "XWayland chosen over QT_QPA_PLATFORM=wayland, and the log says why" || fail "no platform line in the log"
eval "$(inside xdotool getwindowgeometry --shell "$bar")"  # X Y WIDTH HEIGHT
BX=$X BY=$Y BW=$WIDTH BH=$HEIGHT
right=$((1280 - BX - BW))
if [ "$right" -ge 0 ] && [ "$right" -le 16 ] && [ "$BY" -le 60 ]; then
    ok "the bar is at the top right ($BX,$BY ${BW}x$BH)"
else
    fail "the bar is at $BX,$BY ${BW}x$BH"
fi
state=$(inside xprop -id "$bar" _NET_WM_STATE)
for s in ABOVE STICKY SKIP_TASKBAR SKIP_PAGER; do
    [[ $state == *"_NET_WM_STATE_$s"* ]] || fail "no $s in $state"
done
[[ $state == *ABOVE*STICKY* || $state == *STICKY*ABOVE* ]] && ok "window state: ${state#*= }"
grep -q "AppIndicator extension" "$WORK/velquin.out" && ok "the first launch names the AppIndicator extension" ||
    fail "nothing said about the AppIndicator extension"

menu_open() {  # a viewable window of the program other than the bar, taller than the bar
    local w info
    for w in $(inside xdotool search --class velquin 2>/dev/null); do
        [ "$w" = "$bar" ] && continue
        info=$(inside xwininfo -id "$w" 2>/dev/null) || continue  # gone since the search
        grep -q IsViewable <<<"$info" || continue
        [ "$(sed -n 's/ *Height: //p' <<<"$info")" -gt 100 ] && return 0
    done
    return 1
}
wait_menu() {  # wait_menu open|closed
    for _ in $(seq 30); do
        if menu_open; then [ "$1" = open ] && return 0; else [ "$1" = closed ] && return 0; fi
        sleep 0.1
    done
    return 1
}

# The first launch opened the menu; Escape closes it.
wait_menu open && ok "the first launch opened the menu" || fail "no menu at the first launch"
press key Escape
wait_menu closed && ok "Escape closed the first-launch menu" || fail "Escape left the menu open"

# A click on the bar opens the menu; Escape closes it.
press mousemove $((BX + BW / 2)) $((BY + BH / 2))
sleep 0.3  # the compositor moves the pointer focus onto the bar first
press click 1
wait_menu open && ok "a click on the bar opened the menu" || fail "a click on the bar opened no menu"
sleep 0.5
press key Escape
wait_menu closed && ok "Escape closed the menu" || fail "Escape left the menu open"

# Again, then a click on the Wayland window closes it; the window gets the click.
press mousemove $((BX + BW / 2)) $((BY + BH / 2))
sleep 0.3
press click 1
wait_menu open || fail "the second click on the bar opened no menu"
sleep 0.8
import -window root "$WORK/menu-screen.png"
convert "$WORK/menu-screen.png" -crop "520x560+760+0" +repage "$OUT/mutter-menu.png"
: >"$WORK/plain.out"
press mousemove 300 600
sleep 0.3
press click 1
wait_menu closed && ok "a click on a Wayland window closed the menu" || fail "a click on a Wayland window left the menu open"
sleep 0.3
grep -q pressed "$WORK/plain.out" && ok "the Wayland window got the click" || fail "the Wayland window saw no click"

# Kept above the focused Wayland window: the middle of the bar is not the window's green.
sleep 0.5
import -window root "$WORK/bar-screen.png"
convert "$WORK/bar-screen.png" -crop "$((BW + 16))x$((BH + 12))+$((BX - 8))+$((BY - 6))" +repage -scale 200% \
    "$OUT/mutter-bar.png"
pixel=$(convert "$WORK/bar-screen.png" -format "%[hex:p{$((BX + BW / 2)),$((BY + BH / 2))}]" info:)
[[ ${pixel^^} != 2E7D32* ]] && ok "the bar stays above the focused Wayland window" ||
    fail "the Wayland window covers the bar"

# The panel item over D-Bus, as GNOME's AppIndicator extension, KDE Plasma or waybar read it.
item="org.kde.StatusNotifierItem-$vpid-1"
is_menu=$(gdbus call --session --dest "$item" --object-path /StatusNotifierItem \
    --method org.freedesktop.DBus.Properties.Get org.kde.StatusNotifierItem ItemIsMenu 2>&1 || true)
[[ $is_menu == *true* ]] && ok "the panel item leaves its menu to the panel" || fail "ItemIsMenu: $is_menu"
layout=$(gdbus call --session --dest "$item" --object-path /MenuBar --method com.canonical.dbusmenu.GetLayout -- 0 -1 '[]' 2>&1 || true)
echo "$layout" >"$OUT/panel-menu-layout.txt"
for label in "System Audio" "Show BPM Decimals" "Quit Velquin"; do
    [[ $layout == *"$label"* ]] || fail "the exported menu lacks \"$label\""
done
decimals=$(grep -oP "\(\K[0-9]+(?=, \{[^}]*'label': <'Show BPM Decimals)" <<<"$layout" | head -1 || true)
if [ -n "$decimals" ]; then
    gdbus call --session --dest "$item" --object-path /MenuBar --method com.canonical.dbusmenu.AboutToShow 0 >/dev/null
    gdbus call --session --dest "$item" --object-path /MenuBar --method com.canonical.dbusmenu.Event 0 opened '<0>' 0 >/dev/null
    gdbus call --session --dest "$item" --object-path /MenuBar --method com.canonical.dbusmenu.Event \
        "$decimals" clicked '<0>' 0 >/dev/null
    gdbus call --session --dest "$item" --object-path /MenuBar --method com.canonical.dbusmenu.Event 0 closed '<0>' 0 >/dev/null
    sleep 0.5
    eval "$(inside xdotool getwindowgeometry --shell "$bar")"
    [ "$WIDTH" -gt "$BW" ] && ok "a click on the panel menu's \"Show BPM Decimals\" widened the bar ($BW → $WIDTH)" ||
        fail "the panel menu's click changed nothing (bar width $WIDTH)"
    grep -q '^showDecimals=true' "$XDG_CONFIG_HOME/Velquin/Velquin.conf" || fail "the setting was not stored"
    menu_open && fail "the panel menu opened a menu of the program's own"
else
    fail "no \"Show BPM Decimals\" entry id in the layout"
fi

# Native Wayland only, on a compositor without the layer shell: one line says what this desktop allows,
# and the first-launch hint offers no drag.
kill "$vpid"; wait "$vpid" 2>/dev/null || true
cp "$log" "$OUT/velquin-wayland.log" 2>/dev/null || true
rm -rf "$XDG_CONFIG_HOME/Velquin"
env -u DISPLAY WAYLAND_DISPLAY="$WL" XDG_SESSION_TYPE=wayland XDG_CURRENT_DESKTOP=GNOME \
    "$VELQUIN" >"$WORK/native.out" 2>&1 &
npid=$!
pids+=($npid)
sleep 3
grep -q "this Wayland desktop lets the bar be neither placed nor kept above; the reading is in the panel item" \
    "$WORK/native.out" && ok "native Wayland on mutter: the one line on standard error" ||
    fail "native Wayland: no line on standard error: $(cat "$WORK/native.out")"
[ "$(grep -c "neither placed nor kept above" "$log")" -ge 1 ] || fail "native Wayland: no line in the log"
layout=$(gdbus call --session --dest "org.kde.StatusNotifierItem-$npid-1" --object-path /MenuBar \
    --method com.canonical.dbusmenu.GetLayout -- 0 -1 '[]' 2>&1 || true)
[[ $layout == *"Click the bar or the panel item any time for this menu"* && $layout != *"drag it to move it"* ]] &&
    ok "native Wayland: the first-launch hint offers no drag" || fail "native Wayland hint: $layout"

cp "$WORK/velquin.out" "$OUT/velquin-wayland.out"
if [ "$status" != 0 ]; then
    echo "--- what velquin printed:" >&2
    cat "$WORK/velquin.out" >&2
    tail -n 30 "$log" >&2 2>/dev/null || true
fi
exit $status
