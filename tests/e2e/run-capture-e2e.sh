#!/usr/bin/env bash
# Runs the capture end-to-end test against a private PulseAudio server, or a private PipeWire session
# with VELQUIN_E2E_SERVER=pipewire.
#   run-capture-e2e.sh PATH/TO/pulse_capture_test [gtest arguments…]
# Exit code 77 (skip) when that server is not installed.
set -euo pipefail

probe=${1:?usage: run-capture-e2e.sh PATH/TO/pulse_capture_test [gtest arguments…]}
shift

server=${VELQUIN_E2E_SERVER:-pulse}
case $server in
pulse) . "$(dirname "${BASH_SOURCE[0]}")/pulse-env.sh" ;;
pipewire) . "$(dirname "${BASH_SOURCE[0]}")/pipewire-env.sh" ;;
*) echo "run-capture-e2e: unknown VELQUIN_E2E_SERVER $server" >&2; exit 2 ;;
esac
if ! pulse_available; then
    echo "SKIP: the $server sound server is needed for the capture end-to-end test"
    exit 77
fi
pulse_start
status=0
"$probe" "$@" || status=$?
if [ "$status" -ne 0 ]; then
    echo "--- tail of the server's log ---"
    tail -n 30 "$PULSE_TEST_DIR"/p*.log 2>/dev/null || true
fi
exit "$status"
