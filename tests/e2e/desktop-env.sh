# shellcheck shell=bash
# What the desktop tests on Wayland compositors share. Source it, then call desktop_env_start NAME:
#
#   . tests/e2e/desktop-env.sh
#   desktop_env_start sway          # NAME labels the messages
#
# It makes $WORK (removed at exit), starts a private PulseAudio (tests/e2e/pulse-env.sh), and kills at
# exit every pid the test appends to `pids` (last first) and a session bus whose pid is in
# $WORK/bus.pid. It defines skip (exit 77), fail (remembered in $status), ok, and play_fixture, which
# plays an A minor chord with a click every half second (120 BPM) into the default sink and leaves the
# file at $WORK/fixture.wav.

desktop_env_start() {
    DESKTOP_NAME=$1
    WORK=$(mktemp -d -t "velquin-$DESKTOP_NAME.XXXXXX")
    pids=()
    status=0
    trap desktop_env_cleanup EXIT
    # shellcheck source=pulse-env.sh
    . "$(dirname "${BASH_SOURCE[0]}")/pulse-env.sh"
    pulse_available || skip "PulseAudio is missing"
    pulse_start
    trap desktop_env_cleanup EXIT  # pulse_start sets its own; ours stops everything, pulse_stop included
}

desktop_env_cleanup() {
    local i
    for ((i = ${#pids[@]} - 1; i >= 0; i--)); do
        kill "${pids[i]}" 2>/dev/null || true
        wait "${pids[i]}" 2>/dev/null || true
    done
    [ -f "$WORK/bus.pid" ] && kill "$(cat "$WORK/bus.pid")" 2>/dev/null
    if declare -F pulse_stop >/dev/null; then pulse_stop || true; fi
    rm -rf "$WORK"
}

skip() { echo "${DESKTOP_NAME:-desktop}-e2e: $*" >&2; exit 77; }
fail() { echo "FAIL ($DESKTOP_NAME): $*" >&2; status=1; }
ok() { echo "ok: $*"; }

play_fixture() {
    local chord="0.12*sin(2*PI*110*t)+0.1*sin(2*PI*220*t)+0.08*sin(2*PI*261.63*t)+0.08*sin(2*PI*329.63*t)"
    local click="0.6*exp(-200*mod(t,0.5))*sin(2*PI*1800*t)"
    ffmpeg -v error -y -f lavfi -i "aevalsrc='$chord+$click':s=44100:d=40" -ac 2 "$WORK/fixture.wav" &&
        pulse_play "$WORK/fixture.wav"
}
