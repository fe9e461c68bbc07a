#!/usr/bin/env bash
# Runs the capture end-to-end test against a private PulseAudio server.
#   run-capture-e2e.sh PATH/TO/pulse_capture_test [gtest arguments…]
# Exit code 77 (skip) when PulseAudio is not installed.
set -euo pipefail

probe=${1:?usage: run-capture-e2e.sh PATH/TO/pulse_capture_test [gtest arguments…]}
shift

. "$(dirname "${BASH_SOURCE[0]}")/pulse-env.sh"
if ! pulse_available; then
    echo "SKIP: pulseaudio and pulseaudio-utils are needed for the capture end-to-end test"
    exit 77
fi
pulse_start
status=0
"$probe" "$@" || status=$?
if [ "$status" -ne 0 ]; then
    echo "--- tail of the PulseAudio log ($PULSE_TEST_DIR/pulse.log) ---"
    tail -n 30 "$PULSE_TEST_DIR/pulse.log" 2>/dev/null || true
fi
exit "$status"
