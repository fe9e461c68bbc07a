# shellcheck shell=bash
# A private PulseAudio sound server for end-to-end tests. Source it, then call pulse_start.
#
#   . tests/e2e/pulse-env.sh
#   pulse_start || exit 77          # 77 = skip, when pulseaudio is not installed (see pulse_available)
#   pulse_play tone.wav             # into the default sink ("speakers"), in the background
#   "$VELQUIN" --live ...           # children reach the server through the exported variables
#
# What pulse_start sets up (works as root; nothing touches the real user's audio or home):
#   - a temp folder $PULSE_TEST_DIR holding everything: runtime dir, XDG_RUNTIME_DIR, HOME of the daemon,
#     its log (pulse.log), and the bookkeeping of what was started;
#   - a daemon without default.pa (-n), anonymous auth on its own socket, no realtime/nice, no autospawn;
#   - null sinks "speakers" (48000 Hz, 2 ch; the default sink) and "mic" (44100 Hz, 1 ch; its monitor
#     "mic.monitor" is the default source, the stand-in for a microphone);
#   - exported PULSE_SERVER, PULSE_RUNTIME_PATH, XDG_RUNTIME_DIR, PULSE_TEST_DIR and PULSE_ENV_SH (this
#     file, so that child processes can run the functions below with `bash -c '. "$PULSE_ENV_SH"; ...'`).
#
# The null-sink gap: a null sink nobody reads renders up to 2 s ahead, so a new capture on its monitor
# gets no data for up to 2 s. Every monitor in use gets a low-latency keepalive reader (parec) for the
# whole session, and the first start (and each pulse_add_sink) waits 2.1 s once for them to drain it.
#
# Cleanup: the shell that called pulse_start stops everything on EXIT, INT and TERM (a trap; if you
# need your own EXIT trap, call pulse_stop from it). Processes started from child shells through
# PULSE_ENV_SH are recorded in the same place and stopped too.
#
# Functions (each returns non-zero on failure):
#   pulse_available                      pulseaudio, pactl, parec and paplay are installed
#   pulse_start                          start the daemon as above (no-op when already running)
#   pulse_stop                           stop every process started here, remove $PULSE_TEST_DIR
#   pulse_play FILE [SINK]               paplay FILE into SINK (default sink) in the background;
#                                        its PID is in $PULSE_PLAY_PID
#   pulse_add_sink NAME [RATE] [CH]      another null sink (default 44100 Hz, 2 ch) with a keepalive
#   pulse_remove_sink NAME               unplug a sink: unload its module (speakers and mic come back
#                                        with a restart, the others do not)
#   pulse_set_default_sink NAME
#   pulse_set_default_source NAME        e.g. speakers.monitor
#   pulse_kill_server [SIGNAL]           kill the daemon (default TERM) and wait until it is gone
#   pulse_restart_server                 start the daemon again with the same sinks and defaults
#                                        (does not wait for the null-sink gap: call pulse_settle)
#   pulse_settle                         wait the 2.1 s the keepalives need to drain the null sinks
#   pulse_server_pid                     the daemon's PID (for SIGSTOP/SIGCONT)
#
# tests/e2e/pipewire-env.sh offers the same functions on a private PipeWire session.

PULSE_ENV_SH=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)/$(basename "${BASH_SOURCE[0]}")
export PULSE_ENV_SH
_PULSE_VARIABLES=
. "$(dirname "${BASH_SOURCE[0]}")/sound-common.sh"

pulse_available() {
    command -v pulseaudio >/dev/null 2>&1 && command -v pactl >/dev/null 2>&1 &&
        command -v parec >/dev/null 2>&1 && command -v paplay >/dev/null 2>&1
}

_pulse_keepalive() {
    parec --latency-msec=20 -d "$1" >/dev/null 2>&1 &
    _pulse_track $!
}

_pulse_daemon_up() {
    HOME=$PULSE_TEST_DIR pulseaudio --daemonize=no -n --exit-idle-time=-1 --use-pid-file=no \
        --realtime=no --high-priority=no --log-target="file:$PULSE_TEST_DIR/pulse.log" \
        --load="module-native-protocol-unix auth-anonymous=1 socket=$PULSE_RUNTIME_PATH/native" \
        --load="module-null-sink sink_name=speakers rate=48000 channels=2" \
        --load="module-null-sink sink_name=mic rate=44100 channels=1" \
        </dev/null >>"$PULSE_TEST_DIR/pulse.out" 2>&1 &
    local pid=$! i
    echo "$pid" >"$PULSE_TEST_DIR/daemon.pid"
    _pulse_track "$pid"
    for i in $(seq 100); do  # ready in about 75 ms
        pactl info >/dev/null 2>&1 && break
        _pulse_alive "$pid" || break
        sleep 0.05
    done
    if ! pactl info >/dev/null 2>&1; then
        echo "pulse-env: the PulseAudio daemon did not start; see $PULSE_TEST_DIR/pulse.log" >&2
        return 1
    fi
    local name rate channels
    while read -r name rate channels; do
        case $name in speakers | mic) continue ;; esac  # loaded above, even when added back by hand
        pactl load-module module-null-sink "sink_name=$name" "rate=$rate" "channels=$channels" >/dev/null || return 1
    done < <(cat "$PULSE_TEST_DIR/sinks" 2>/dev/null)
    pactl set-default-sink "$(cat "$PULSE_TEST_DIR/default-sink")" &&
        pactl set-default-source "$(cat "$PULSE_TEST_DIR/default-source")" || return 1
    local monitor
    for monitor in speakers.monitor mic.monitor; do _pulse_keepalive "$monitor"; done
    while read -r name rate channels; do
        case $name in speakers | mic) continue ;; esac
        _pulse_keepalive "$name.monitor"
    done < <(cat "$PULSE_TEST_DIR/sinks" 2>/dev/null)
}

pulse_settle() { sleep 2.1; }

pulse_start() {
    if [ -n "${PULSE_TEST_DIR:-}" ] && [ -f "$PULSE_TEST_DIR/daemon.pid" ]; then return 0; fi
    if ! pulse_available; then
        echo "pulse-env: pulseaudio/pulseaudio-utils are not installed" >&2
        return 1
    fi
    PULSE_TEST_DIR=$(mktemp -d -t velquin-pulse.XXXXXX) || return 1
    chmod 700 "$PULSE_TEST_DIR"
    export PULSE_TEST_DIR
    export PULSE_RUNTIME_PATH=$PULSE_TEST_DIR/run
    export PULSE_SERVER=unix:$PULSE_RUNTIME_PATH/native
    export XDG_RUNTIME_DIR=$PULSE_TEST_DIR/xdg-runtime
    mkdir -m 700 -p "$PULSE_RUNTIME_PATH" "$XDG_RUNTIME_DIR"
    : >"$PULSE_TEST_DIR/pids"
    : >"$PULSE_TEST_DIR/sinks"
    echo speakers >"$PULSE_TEST_DIR/default-sink"
    echo mic.monitor >"$PULSE_TEST_DIR/default-source"
    _pulse_own_session
    if ! _pulse_daemon_up; then
        pulse_stop
        return 1
    fi
    pulse_settle
}

pulse_add_sink() {
    local name=$1 rate=${2:-44100} channels=${3:-2}
    pactl load-module module-null-sink "sink_name=$name" "rate=$rate" "channels=$channels" >/dev/null || return 1
    echo "$name $rate $channels" >>"$PULSE_TEST_DIR/sinks"
    _pulse_keepalive "$name.monitor"
    pulse_settle
}

pulse_remove_sink() {
    local module
    module=$(pactl list short modules |
        awk -v arg="sink_name=$1" '$2 == "module-null-sink" { for (i = 3; i <= NF; i++) if ($i == arg) print $1 }')
    [ -n "$module" ] && pactl unload-module "$module" || return 1
    sed -i "/^$1 /d" "$PULSE_TEST_DIR/sinks"
}

pulse_restart_server() {
    pulse_kill_server TERM || true
    _pulse_daemon_up
}
