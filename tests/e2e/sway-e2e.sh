#!/usr/bin/env bash
# The desktop application on a wlroots compositor without XWayland: sway on its headless back end
# (WLR_BACKENDS=headless, software rendering), a private PulseAudio, no X display at all:
#
#   tests/e2e/sway-e2e.sh OUTDIR
#
# Checks (exit 1 when one fails): the bar is a layer-shell surface (the log says so) drawn at the top
# right of the output, the margin stored for that output puts it where it was left, a click elsewhere
# closes the first-launch menu, the menu opens again from a click on the bar, a drag moves the bar along
# the top edge and its margin is stored for the output and kept over a restart, a click on the moved bar
# still opens the menu, a file dragged from a native Wayland program and dropped on the bar is analysed,
# and on an output at scale 2 the bar keeps its margin in surface units and a drag stops at the left edge.
#
#   OUTDIR/sway-bar.png    the top right of the output with the bar (2x)
#   OUTDIR/sway-menu.png   the menu opened from the bar
#   OUTDIR/sway-bar-scale2.png  the bar on an output at scale 2, at its left edge
#   OUTDIR/velquin-sway.log, velquin-sway.out
#
# sway refuses to run as root, so under root it runs as "nobody". Input comes from `swaymsg seat …
# cursor`, with a virtual pointer (ui_virtual_pointer) giving the headless seat a pointer at all; the
# bar is dragged by the virtual pointer itself, since while a button is down on a surface sway passes
# `seat … cursor` moves to no client.
# Environment: VELQUIN_BIN, VIRTUAL_POINTER_BIN, DRAG_SOURCE_BIN. Exit 77 when sway, grim or a tool is missing.
set -euo pipefail

ROOT=$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)
OUT=${1:?usage: tests/e2e/sway-e2e.sh OUTDIR}
mkdir -p "$OUT"
OUT=$(cd "$OUT" && pwd)
VELQUIN=${VELQUIN_BIN:-$ROOT/build/velquin}
POINTER=${VIRTUAL_POINTER_BIN:-$(dirname "$VELQUIN")/tests/ui_virtual_pointer}
DRAG_SOURCE=${DRAG_SOURCE_BIN:-$(dirname "$VELQUIN")/tests/ui_drag_source}

. "$ROOT/tests/e2e/desktop-env.sh"
DESKTOP_NAME=sway
for tool in sway swaymsg grim convert setpriv; do command -v "$tool" >/dev/null || skip "$tool is missing"; done
ls /usr/lib/*/qt6/plugins/platforms/libqwayland-generic.so >/dev/null 2>&1 || skip "no Qt Wayland plugin"
[ -x "$VELQUIN" ] || skip "no program at $VELQUIN"
[ -x "$POINTER" ] || skip "no virtual pointer at $POINTER"

desktop_env_start sway
chmod 755 "$WORK"

RUNTIME=$WORK/runtime
mkdir -m 700 "$RUNTIME"
printf 'output HEADLESS-1 resolution 1280x720 background #303030 solid_color\n' >"$WORK/sway.config"
as_user=()
if [ "$(id -u)" = 0 ]; then
    chown nobody "$RUNTIME"
    as_user=(setpriv --reuid=nobody --regid=nogroup --clear-groups)
fi
"${as_user[@]}" env -i PATH="$PATH" HOME="$WORK" XDG_RUNTIME_DIR="$RUNTIME" WLR_BACKENDS=headless \
    WLR_LIBINPUT_NO_DEVICES=1 WLR_RENDERER=pixman WAYLAND_DISPLAY=velquin-sway \
    sway -c "$WORK/sway.config" >"$WORK/sway.log" 2>&1 &
pids+=($!)
for _ in $(seq 50); do ls "$RUNTIME"/sway-ipc.*.sock >/dev/null 2>&1 && break; sleep 0.1; done
SWAYSOCK=$(ls "$RUNTIME"/sway-ipc.*.sock 2>/dev/null | head -1)
[ -n "$SWAYSOCK" ] || { cat "$WORK/sway.log" >&2; skip "sway did not start"; }
WL=$(basename "$(ls "$RUNTIME"/wayland-* | grep -v lock | head -1)")
export SWAYSOCK XDG_RUNTIME_DIR=$RUNTIME WAYLAND_DISPLAY=$WL
unset DISPLAY QT_QPA_PLATFORM
export XDG_SESSION_TYPE=wayland XDG_CURRENT_DESKTOP=sway
export HOME=$WORK/home XDG_CONFIG_HOME=$WORK/home/.config XDG_STATE_HOME=$WORK/home/.local/state
export XDG_CACHE_HOME=$WORK/home/.cache DBUS_SESSION_BUS_ADDRESS=unix:path=$WORK/no-session-bus
mkdir -p "$HOME"
cursor() { swaymsg "seat seat0 cursor $*" >/dev/null; sleep 0.15; }
pixel() { convert "$1" -format "%[hex:p{$2,$3}]" info: | cut -c1-6; }
# start_velquin: the program in the background, given three seconds to show its bar.
start_velquin() {
    "$VELQUIN" >>"$WORK/velquin.out" 2>&1 &
    vpid=$!
    pids+=($vpid)
    sleep 3
}
# bar_margin SHOT NOW WAS: in the screenshot, the bar ends NOW px from the right edge of the output and no
# longer WAS px from it (its right end, 15 px in, on the background's grey there).
bar_margin() {
    [ "$(pixel "$1" $((1280 - $2 - 15)) 59)" != 303030 ] && [ "$(pixel "$1" $((1280 - $3 - 15)) 59)" = 303030 ]
}

# Music for the screenshots.
play_fixture

# --- a first launch: the bar at the top right, the menu open --------------------------------------------
start_velquin
log=$XDG_STATE_HOME/Velquin/Velquin.log
grep -q "bar: a layer-shell surface on the overlay layer" "$log" && ok "the bar is a layer-shell surface" ||
    fail "no layer-shell bar in the log"
grep -q "neither placed nor kept above" "$WORK/velquin.out" && fail "a layer-shell desktop told it cannot place the bar"
grim "$WORK/first.png"
# The bar: 22 px high, its right edge 8 px from the output's, its top 48 px down. Outside it the
# background's grey.
[ "$(pixel "$WORK/first.png" 1265 59)" != 303030 ] && [ "$(pixel "$WORK/first.png" 1276 59)" = 303030 ] &&
    [ "$(pixel "$WORK/first.png" 1265 44)" = 303030 ] && ok "the bar is drawn at the top right" ||
    fail "no bar at the top right"

# A click away from the menu closes it; a click on the bar opens it again. A virtual pointer gives the
# headless seat a pointer for the clicks.
"$POINTER" 1280 720 wait 6000 &
ppid=$!
pids+=($ppid)
sleep 0.5
cursor set 60 650
cursor press button1
cursor release button1
sleep 0.5
grim "$WORK/closed.png"
cursor set 1230 59
cursor press button1
cursor release button1
sleep 1
grim "$WORK/menu.png"
convert "$WORK/menu.png" -crop 200x90+1080+0 +repage -scale 200% "$OUT/sway-bar.png"
convert "$WORK/menu.png" -crop 520x560+380+80 +repage "$OUT/sway-menu.png"
# The menu, wherever sway floats it, is light where the background was grey.
menu_pixels() { convert "$1" -crop 1280x600+0+100 +repage -fill black +opaque '#303030' -format '%[fx:mean*w*h]' info: | cut -d. -f1; }
grey_closed=$(menu_pixels "$WORK/closed.png")
grey_open=$(menu_pixels "$WORK/menu.png")
[ "$grey_open" -lt $((grey_closed - 1000)) ] && ok "a click on the bar opened the menu" ||
    fail "no menu after a click on the bar ($grey_closed / $grey_open)"
grey_first=$(menu_pixels "$WORK/first.png")
[ "$grey_closed" -gt $((grey_first + 1000)) ] && ok "a click elsewhere closed the first-launch menu" ||
    fail "the first-launch menu stayed open ($grey_first / $grey_closed)"
kill "$vpid" "$ppid"; wait "$vpid" "$ppid" 2>/dev/null || true

# --- the margin stored for this output puts the bar there ------------------------------------------------
output=$(swaymsg -t get_outputs | sed -n 's/.*"name": "\([^"]*\)".*/\1/p' | head -1)
printf 'barMargin/%s=300\n' "$output" >>"$XDG_CONFIG_HOME/Velquin/Velquin.conf"
start_velquin
grim "$WORK/moved.png"
bar_margin "$WORK/moved.png" 300 0 && ok "the bar sits 300 px from the right edge of $output" ||
    fail "the stored margin of $output was not applied"

# --- dragged 100 px left along the top edge: the margin follows, is stored, and a click still opens the menu
bar_x=$((1280 - 300 - 40))
# Each virtual pointer first clicks the empty desktop: sway 1.7 gives a new pointer no focus on the
# surface the last one left it over until it leaves it, and may still count a button of a pointer gone.
away=(move 640 300 wait 100 press release wait 100)
steps=("${away[@]}" move "$bar_x" 59 wait 100 press)
for i in $(seq 10); do steps+=(move $((bar_x - 10 * i)) 59 wait 30); done
"$POINTER" 1280 720 "${steps[@]}" release wait 300
grim "$WORK/dragged.png"
bar_margin "$WORK/dragged.png" 400 300 && ok "a drag moved the bar 100 px left" || fail "the bar did not follow the drag"
"$POINTER" 1280 720 "${away[@]}" move $((bar_x - 100)) 59 wait 100 press release wait 800
grim "$WORK/clicked.png"
[ "$(menu_pixels "$WORK/clicked.png")" -lt $(($(menu_pixels "$WORK/dragged.png") - 1000)) ] &&
    ok "a click on the moved bar opened the menu" || fail "no menu after a click on the moved bar"
grep -A9 '^\[barMargin\]' "$XDG_CONFIG_HOME/Velquin/Velquin.conf" | grep -qx "$output=400" &&
    ok "the margin 400 was stored for $output" || fail "the dragged margin was not stored for $output"
kill "$vpid"; wait "$vpid" 2>/dev/null || true
start_velquin
grim "$WORK/restarted.png"
bar_margin "$WORK/restarted.png" 400 300 && ok "after a restart the bar is where it was dragged" ||
    fail "the dragged place was lost over a restart"

# --- at scale 2 the margin is in surface units: the bar keeps its place and a drag stops at the left edge --
swaymsg output "$output" scale 2 >/dev/null  # 640 x 360 units on 1280 x 720 pixels
sleep 1
grim "$WORK/scaled.png"
[ "$(pixel "$WORK/scaled.png" $(((640 - 400 - 15) * 2)) 118)" != 303030 ] &&
    [ "$(pixel "$WORK/scaled.png" $(((640 - 400 + 5) * 2)) 118)" = 303030 ] &&
    ok "at scale 2 the bar keeps its margin" || fail "at scale 2 the bar moved"
# A drag of 300 units to the left stops with the bar at the left edge. sway 1.7 misplaces absolute
# virtual-pointer motion on a scaled output, so swaymsg puts the cursor on the bar and the virtual
# pointer adds the press and relative motion.
steps=(wait 1600 press)
for i in $(seq 10); do steps+=(by -30 0 wait 30); done
"$POINTER" 640 360 "${steps[@]}" release wait 300 &
dragger=$!
sleep 0.6
cursor set 320 150
cursor press button1
cursor release button1
cursor set $((640 - 400 - 30)) 59
wait "$dragger" || true
grim "$WORK/left.png"
[ "$(pixel "$WORK/left.png" 2 118)" != 303030 ] && [ "$(pixel "$WORK/left.png" $(((640 - 400 - 15) * 2)) 118)" = 303030 ] &&
    ok "at scale 2 a drag to the left stops with the bar at the left edge" ||
    fail "at scale 2 the bar left the output or did not follow the drag"
convert "$WORK/left.png" -crop 240x80+0+80 +repage "$OUT/sway-bar-scale2.png"
swaymsg output "$output" scale 1 >/dev/null
sleep 1
margin=$(sed -n "s/^$output=//p" "$XDG_CONFIG_HOME/Velquin/Velquin.conf")

# --- a file dragged from a Wayland program onto the bar is analysed -----------------------------------------
if [ -x "$DRAG_SOURCE" ]; then
    ffmpeg -v error -y -i "$WORK/fixture.wav" -t 12 "$WORK/take.wav"
    QT_QPA_PLATFORM=wayland "$DRAG_SOURCE" "$WORK/take.wav" 0 0 >"$WORK/drag.out" 2>&1 &  # sway tiles it
    dpid=$!
    pids+=($dpid)
    sleep 1.5
    "$POINTER" 1280 720 wait 5000 &
    pids+=($!)
    sleep 0.5
    cursor set 640 360
    cursor press button1
    for x in 700 800 $((1280 - margin - 40)) $((1280 - margin - 39)); do cursor set "$x" 59; done
    cursor release button1
    sleep 3
    grep -q "dropped: take.wav" "$log" && grep -q "drag result: 1" "$WORK/drag.out" &&
        ok "a file dragged from a Wayland program onto the bar was taken and analysed" ||
        fail "the drop on the bar did not arrive: $(cat "$WORK/drag.out")"
    kill "$dpid"; wait "$dpid" 2>/dev/null || true
fi

cp "$log" "$OUT/velquin-sway.log" 2>/dev/null || true
cp "$WORK/velquin.out" "$OUT/velquin-sway.out"
[ "$status" = 0 ] || { cat "$WORK/velquin.out" >&2; tail -n 20 "$log" >&2 || true; }
exit $status
