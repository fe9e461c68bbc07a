# shellcheck shell=bash
# A private PipeWire session (pipewire, WirePlumber, pipewire-pulse) for end-to-end tests: the desktop
# sound server of today, reached through its PulseAudio service. The same functions as pulse-env.sh,
# so a test sources one or the other (VELQUIN_E2E_SERVER=pipewire chooses this one) and runs unchanged:
#
#   . tests/e2e/pipewire-env.sh
#   pulse_start || exit 77
#
# What pulse_start sets up (works as root, without systemd; nothing touches the real user's audio):
#   - a temp folder $PULSE_TEST_DIR with its own XDG_RUNTIME_DIR, HOME and XDG config/state/cache, and a
#     session bus of its own (dbus-daemon) for WirePlumber;
#   - WirePlumber with every hardware monitor off (ALSA, Bluetooth, V4L2, libcamera): only our sinks;
#   - pipewire-pulse as shipped, with module-always-sink: when the last sink goes, a dummy "auto_null"
#     takes its place, as on a desktop;
#   - null sinks "speakers" (48000 Hz, 2 ch; the default sink) and "mic" (44100 Hz, 1 ch; its monitor
#     "mic.monitor" is the default source), loaded through pipewire-pulse like pulse-env.sh's;
#   - exported PULSE_SERVER, PULSE_RUNTIME_PATH, XDG_RUNTIME_DIR, DBUS_SESSION_BUS_ADDRESS,
#     PULSE_TEST_DIR, PULSE_ENV_SH and SOUND_SERVER=pipewire.
#
# PipeWire's null sinks run on a timer as soon as someone reads them: no 2-second gap to wait out.
#
# Functions: those of pulse-env.sh (pulse_available, pulse_start, pulse_stop, pulse_play,
# pulse_add_sink, pulse_remove_sink, pulse_set_default_sink, pulse_set_default_source,
# pulse_kill_server, pulse_restart_server, pulse_settle, pulse_server_pid); "the server" is
# pipewire-pulse, the process clients talk to.

PULSE_ENV_SH=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)/$(basename "${BASH_SOURCE[0]}")
export PULSE_ENV_SH SOUND_SERVER=pipewire
_PULSE_VARIABLES=DBUS_SESSION_BUS_ADDRESS
. "$(dirname "${BASH_SOURCE[0]}")/sound-common.sh"

pulse_available() {
    local tool
    for tool in pipewire wireplumber pipewire-pulse dbus-daemon pactl paplay; do
        command -v "$tool" >/dev/null 2>&1 || return 1
    done
}

# Waits up to 5 s for a command to succeed.
_pulse_wait_for() {
    local i
    for i in $(seq 100); do
        "$@" >/dev/null 2>&1 && return 0
        sleep 0.05
    done
    return 1
}

_pulse_server_up() {
    pipewire-pulse </dev/null >>"$PULSE_TEST_DIR/pipewire-pulse.log" 2>&1 &
    local pid=$!
    echo "$pid" >"$PULSE_TEST_DIR/daemon.pid"
    _pulse_track "$pid"
    if ! _pulse_wait_for pactl info; then
        echo "pipewire-env: pipewire-pulse did not start; see $PULSE_TEST_DIR/pipewire-pulse.log" >&2
        return 1
    fi
    local name rate channels
    while read -r name rate channels; do
        pactl load-module module-null-sink "sink_name=$name" "rate=$rate" "channels=$channels" \
            >"$PULSE_TEST_DIR/module.$name" || return 1
    done <"$PULSE_TEST_DIR/sinks"
    _pulse_wait_for pactl set-default-sink "$(cat "$PULSE_TEST_DIR/default-sink")" &&
        _pulse_wait_for pactl set-default-source "$(cat "$PULSE_TEST_DIR/default-source")"
}

pulse_settle() { sleep 0.3; }

pulse_start() {
    if [ -n "${PULSE_TEST_DIR:-}" ] && [ -f "$PULSE_TEST_DIR/daemon.pid" ]; then return 0; fi
    if ! pulse_available; then
        echo "pipewire-env: pipewire, pipewire-pulse, wireplumber, dbus-daemon or pulseaudio-utils is missing" >&2
        return 1
    fi
    PULSE_TEST_DIR=$(mktemp -d -t velquin-pipewire.XXXXXX) || return 1
    chmod 700 "$PULSE_TEST_DIR"
    export PULSE_TEST_DIR
    export XDG_RUNTIME_DIR=$PULSE_TEST_DIR/xdg-runtime HOME=$PULSE_TEST_DIR/home
    export XDG_CONFIG_HOME=$PULSE_TEST_DIR/config XDG_STATE_HOME=$PULSE_TEST_DIR/state
    export XDG_CACHE_HOME=$PULSE_TEST_DIR/cache
    export PULSE_RUNTIME_PATH=$XDG_RUNTIME_DIR/pulse
    export PULSE_SERVER=unix:$PULSE_RUNTIME_PATH/native
    export DBUS_SESSION_BUS_ADDRESS=unix:path=$XDG_RUNTIME_DIR/bus
    unset PIPEWIRE_REMOTE PIPEWIRE_RUNTIME_DIR
    mkdir -m 700 -p "$XDG_RUNTIME_DIR" "$HOME" "$XDG_STATE_HOME" "$XDG_CACHE_HOME" \
        "$XDG_CONFIG_HOME/wireplumber/main.lua.d" "$XDG_CONFIG_HOME/wireplumber/bluetooth.lua.d"
    cat >"$XDG_CONFIG_HOME/wireplumber/main.lua.d/51-velquin-tests.lua" <<'LUA'
alsa_monitor.enabled = false
v4l2_monitor.enabled = false
libcamera_monitor.enabled = false
LUA
    echo 'bluez_monitor.enabled = false' >"$XDG_CONFIG_HOME/wireplumber/bluetooth.lua.d/51-velquin-tests.lua"
    : >"$PULSE_TEST_DIR/pids"
    printf 'speakers 48000 2\nmic 44100 1\n' >"$PULSE_TEST_DIR/sinks"
    echo speakers >"$PULSE_TEST_DIR/default-sink"
    echo mic.monitor >"$PULSE_TEST_DIR/default-source"
    _pulse_own_session

    dbus-daemon --session --address="$DBUS_SESSION_BUS_ADDRESS" --nofork --nopidfile \
        </dev/null >>"$PULSE_TEST_DIR/dbus.log" 2>&1 &
    _pulse_track $!
    _pulse_wait_for test -S "$XDG_RUNTIME_DIR/bus"
    pipewire </dev/null >>"$PULSE_TEST_DIR/pipewire.log" 2>&1 &
    _pulse_track $!
    if ! _pulse_wait_for test -S "$XDG_RUNTIME_DIR/pipewire-0"; then
        echo "pipewire-env: pipewire did not start; see $PULSE_TEST_DIR/pipewire.log" >&2
        pulse_stop
        return 1
    fi
    wireplumber </dev/null >>"$PULSE_TEST_DIR/wireplumber.log" 2>&1 &
    _pulse_track $!
    if ! _pulse_server_up; then
        pulse_stop
        return 1
    fi
    pulse_settle
}

pulse_add_sink() {
    local name=$1 rate=${2:-44100} channels=${3:-2}
    pactl load-module module-null-sink "sink_name=$name" "rate=$rate" "channels=$channels" \
        >"$PULSE_TEST_DIR/module.$name" || return 1
    echo "$name $rate $channels" >>"$PULSE_TEST_DIR/sinks"
    _pulse_wait_for pactl list short sinks
}

# Unplugs a sink: its module is unloaded and it is not brought back by a restart.
pulse_remove_sink() {
    local name=$1
    pactl unload-module "$(cat "$PULSE_TEST_DIR/module.$name")" || return 1
    sed -i "/^$name /d" "$PULSE_TEST_DIR/sinks"
}

pulse_restart_server() {
    pulse_kill_server TERM || true
    _pulse_server_up
}
