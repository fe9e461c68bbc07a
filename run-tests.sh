#!/usr/bin/env bash
# The whole test suite: installs what is missing, checks the C++ formatting, then builds and tests a normal build and an
# AddressSanitizer + UndefinedBehaviorSanitizer build, then the threaded capture code and the player follower under ThreadSanitizer,
# then a minute of fuzzing the file decoder.
set -euo pipefail
source "$(dirname "${BASH_SOURCE[0]}")/scripts/setup.sh"
velquin_install_packages

# A decimal-comma locale, so that the tests can show the parsers ignore the process locale.
if ! locale -a 2>/dev/null | grep -qi '^de_DE\.utf-\?8$'; then
    sudo=()
    [ "$(id -u)" -eq 0 ] || sudo=(sudo)
    "${sudo[@]}" localedef -i de_DE -f UTF-8 de_DE.UTF-8 2>/dev/null || echo "no de_DE locale; its test is skipped" >&2
fi

jobs=$(nproc)
status=0

echo "== format"
"$VELQUIN_ROOT/scripts/check-format.sh" || status=1

run_ctest() {
    local dir=$1
    shift
    ctest --test-dir "$dir" --output-on-failure -j "$jobs" "$@" || status=1
}

echo "== normal build"
velquin_build "$VELQUIN_ROOT/build" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DVELQUIN_BENCH=ON
run_ctest "$VELQUIN_ROOT/build"

echo "== AddressSanitizer + UndefinedBehaviorSanitizer build"
export ASAN_OPTIONS=${ASAN_OPTIONS:-detect_leaks=1:abort_on_error=0}
export UBSAN_OPTIONS=${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}
velquin_build "$VELQUIN_ROOT/build-asan" -DCMAKE_BUILD_TYPE=Debug -DVELQUIN_SANITIZE=ON
run_ctest "$VELQUIN_ROOT/build-asan"

echo "== ThreadSanitizer build (sample ring, service, capture sources, file analysis, player follower)"
# The longest history: Qt's threads hand over through locks the detector cannot see, and the suppressions
# can only match the access of a finished Qt thread while its stack can still be restored.
export TSAN_OPTIONS=${TSAN_OPTIONS:-halt_on_error=1:second_deadlock_stack=1:history_size=7:suppressions=$VELQUIN_ROOT/tests/sanitizers/tsan.supp}
tsan="$VELQUIN_ROOT/build-tsan"
[ -f "$tsan/build.ninja" ] ||
    cmake -S "$VELQUIN_ROOT" -B "$tsan" -G Ninja -DCMAKE_BUILD_TYPE=Debug -DVELQUIN_TSAN=ON >/dev/null
cmake --build "$tsan" -j "$jobs" --target capture_tests fileanalysis_tests player_tests pulse_capture_test
run_ctest "$tsan" -R '^(SampleRing|TempoService|PulseSources|PulseMix|FileAnalysis|PlayerFollow)\.'
# The sources' own thread against a real server while its sinks come and go (PipeWire, as on desktops).
VELQUIN_E2E_SERVER=pipewire bash "$VELQUIN_ROOT/tests/e2e/run-capture-e2e.sh" "$tsan/tests/pulse_capture_test" ||
    { rc=$?; [ "$rc" -eq 77 ] || status=1; }

echo "== decoder fuzzing (one minute)"
"$VELQUIN_ROOT/scripts/fuzz.sh" 60 || status=1

exit $status
