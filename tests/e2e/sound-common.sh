# shellcheck shell=bash
# What pulse-env.sh and pipewire-env.sh share: process bookkeeping, teardown, playing, defaults and
# the server's PID. Sourced by them; they set _PULSE_VARIABLES (what pulse_stop unsets) and keep
# daemon.pid, pids, default-sink and default-source in $PULSE_TEST_DIR.

# Records a PID for pulse_stop, whichever process started it.
_pulse_track() { echo "$1" >>"$PULSE_TEST_DIR/pids"; }

# True while the process exists and is not a zombie (in a container nobody may reap orphans).
_pulse_alive() {
    local state
    [ -r "/proc/$1/stat" ] || return 1
    state=$(sed 's/^.*) //' "/proc/$1/stat" 2>/dev/null | cut -d' ' -f1)
    [ -n "$state" ] && [ "$state" != Z ]
}

# Sends SIGNAL to PID and waits up to 5 s for it to go, then kills it hard.
_pulse_end() {
    local pid=$1 signal=${2:-TERM} i
    kill -CONT "$pid" 2>/dev/null || true  # a stopped process would not act on the signal
    kill "-$signal" "$pid" 2>/dev/null || return 0
    for i in $(seq 100); do
        _pulse_alive "$pid" || break
        sleep 0.05
    done
    _pulse_alive "$pid" && kill -KILL "$pid" 2>/dev/null
    wait "$pid" 2>/dev/null || true  # reaps it when it is our child
}

_pulse_own_session() {
    _PULSE_OWNER=$BASHPID
    trap 'pulse_stop' EXIT
    trap 'pulse_stop; exit 130' INT
    trap 'pulse_stop; exit 143' TERM
}

pulse_stop() {
    [ -n "${PULSE_TEST_DIR:-}" ] && [ -d "$PULSE_TEST_DIR" ] || return 0
    # Only the shell that started the session tears it down; child shells share it.
    [ "${_PULSE_OWNER:-}" = "$BASHPID" ] || return 0
    local pids pid i
    mapfile -t pids <"$PULSE_TEST_DIR/pids"
    for ((i = ${#pids[@]} - 1; i >= 0; i--)); do
        pid=${pids[i]}
        [ -n "$pid" ] && _pulse_end "$pid"
    done
    rm -rf "$PULSE_TEST_DIR"
    # shellcheck disable=SC2086
    unset PULSE_TEST_DIR PULSE_SERVER PULSE_RUNTIME_PATH _PULSE_OWNER $_PULSE_VARIABLES
    trap - EXIT INT TERM
}

pulse_play() {
    local file=$1 sink=${2:-}
    [ -r "$file" ] || { echo "sound test session: cannot read $file" >&2; return 1; }
    if [ -n "$sink" ]; then
        paplay -d "$sink" "$file" >/dev/null 2>&1 &
    else
        paplay "$file" >/dev/null 2>&1 &
    fi
    PULSE_PLAY_PID=$!
    _pulse_track "$PULSE_PLAY_PID"
}

pulse_set_default_sink() {
    pactl set-default-sink "$1" && echo "$1" >"$PULSE_TEST_DIR/default-sink"
}

pulse_set_default_source() {
    pactl set-default-source "$1" && echo "$1" >"$PULSE_TEST_DIR/default-source"
}

pulse_server_pid() { cat "$PULSE_TEST_DIR/daemon.pid"; }

pulse_kill_server() {
    local pid
    pid=$(cat "$PULSE_TEST_DIR/daemon.pid" 2>/dev/null) || return 1
    _pulse_end "$pid" "${1:-TERM}"
}
