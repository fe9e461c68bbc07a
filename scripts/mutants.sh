#!/usr/bin/env bash
# Mutation check of the tests: applies the one-line slips listed in scripts/mutants.txt to the code one
# at a time, rebuilds, runs the test programs of the library that holds the slip and of the libraries
# above it (the conformance goldens and the scan's end-to-end script among them), and counts which slips
# the tests catch (each line names the program that caught it). A tool to run by hand after trimming or
# rewriting tests, not part of the test run.
#   scripts/mutants.sh [LABEL-REGEX…]    (no argument: every mutant in the list)
#   scripts/mutants.sh --check           only says which snippets no longer match (after a refactor)
# Environment:
#   MUTANTS_BUILD    build folder (default build-mutants; configured on first use)
#   MUTANTS_LIST     the mutant list (default scripts/mutants.txt)
#   MUTANTS_TIMEOUT  seconds each test program may run under a mutant (default: 4x the clean run + 30);
#                    a program that runs longer counts as having caught the mutant
#   MUTANTS_JOBS     build jobs (default 2; builds run under nice)
# Prints one line per mutant, then "N killed, M survived" and the survivors. Mutants whose snippet is
# no longer in the code ("not applied") or that do not build are counted apart, never as killed.
# The source file is put back after every mutant, also on Ctrl-C; a copy survives in the build folder
# until then, and a run that was killed outright restores it first thing next time.
set -uo pipefail

check=0
if [ "${1:-}" = --check ]; then
    check=1
    shift
fi
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
build=${MUTANTS_BUILD:-$root/build-mutants}
[[ $build = /* ]] || build=$root/$build
list=${MUTANTS_LIST:-$root/scripts/mutants.txt}
jobs=${MUTANTS_JOBS:-2}
state=$build/mutants
log=$state/run.log
saved=$state/original   # the pristine file while a mutant is applied
savedPath=$state/original.path

die() {
    echo "mutants: $*" >&2
    exit 2
}

restore() {
    if [ -f "$savedPath" ]; then
        # A plain copy gives the file a new time, so the next build recompiles it (from ccache).
        cp "$saved" "$root/$(cat "$savedPath")" && rm -f "$saved" "$savedPath"
    fi
}
trap restore EXIT
trap 'restore; echo; echo "mutants: interrupted; the source is restored" >&2; exit 130' INT TERM

[ -f "$list" ] || die "no mutant list at $list"
restore  # left over from a run that was killed outright

# build TARGET… ; quiet, into the log
build() {
    nice -n 10 cmake --build "$build" -j "$jobs" --target "$@" >>"$log" 2>&1
}

# run_program NAME SECONDS: 0 passed, 1 failed, 124 timed out
run_program() {
    local status
    echo "--- $1" >>"$log"
    if [ "$1" = conformance ]; then
        timeout --kill-after=5 "$2" bash "$root/tests/conformance/check.sh" "$build/velquin" \
            "$state/conformance" >>"$log" 2>&1
    elif [ "$1" = scan_e2e ]; then
        timeout --kill-after=5 "$2" bash "$root/tests/scan/scan-e2e.sh" "$build/velquin-scan" "$build/velquin" \
            >>"$log" 2>&1
    else
        VELQUIN_BIN=$build/velquin timeout --kill-after=5 "$2" "$build/tests/$1" \
            --gtest_fail_fast --gtest_brief=1 >>"$log" 2>&1
    fi
    status=$?
    if [ $status -eq 0 ]; then return 0; fi
    if [ $status -eq 124 ] || [ $status -eq 137 ]; then return 124; fi
    return 1
}

# Only programs that link the mutated code can catch it; the cheapest to build and run go first. The
# golden outputs come last: they carry the output formats the unit tests leave to them.
programs_for() {
    case $1 in
        src/analysis/*) echo analysis_tests fileanalysis_tests capture_tests app_tests ui_tests conformance ;;
        src/fileanalysis/*) echo fileanalysis_tests app_tests conformance ;;
        src/capture/*) echo capture_tests app_tests conformance ;;
        src/system/*) echo system_tests app_tests scan_e2e ;;
        src/ui/*) echo ui_tests panel_tests ;;
        src/player/*) echo player_tests ;;
        src/cache/*) echo cache_tests player_tests scan_e2e ;;
        src/scan/*) echo scan_tests scan_e2e ;;
        *) echo app_tests conformance ;;
    esac
}

targets_for() {
    case $1 in
        app_tests) echo app_tests velquin ;;  # the app tests run the program itself
        conformance) echo velquin ;;
        scan_e2e) echo velquin-scan velquin ;;
        *) echo "$1" ;;
    esac
}

# Mutant lines: LABEL PATH `SNIPPET` `REPLACEMENT` (see the list's header).
# shellcheck disable=SC2016
pattern='^([^[:space:]]+)[[:space:]]+([^[:space:]]+)[[:space:]]+`([^`]*)`[[:space:]]+`([^`]*)`[[:space:]]*$'
labels=()
paths=()
snippets=()
replacements=()
while IFS= read -r line || [ -n "$line" ]; do
    [[ $line =~ ^[[:space:]]*(#|$) ]] && continue
    [[ $line =~ $pattern ]] || die "cannot read this line of $list: $line"
    fields=("${BASH_REMATCH[@]}")
    if [ $# -gt 0 ]; then
        wanted=0
        for re in "$@"; do [[ ${fields[1]} =~ $re ]] && wanted=1; done
        [ $wanted -eq 1 ] || continue
    fi
    labels+=("${fields[1]}")
    paths+=("${fields[2]}")
    snippets+=("${fields[3]}")
    replacements+=("${fields[4]}")
done <"$list"
total=${#labels[@]}
[ "$total" -gt 0 ] || die "no mutant selected"

# apply PATH SNIPPET REPLACEMENT [dry]: 0 applied (or would apply); 3 the snippet is missing or not unique
apply() {
    python3 - "$root/$1" "$2" "$3" "${4:-}" <<'EOF'
import sys
path, snippet, replacement, dry = sys.argv[1:]
try:
    text = open(path, encoding="utf-8").read()
except OSError:
    sys.exit(3)
if text.count(snippet) != 1:
    sys.exit(3)
if not dry:
    open(path, "w", encoding="utf-8").write(text.replace(snippet, replacement))
EOF
}

if [ $check -eq 1 ]; then
    stale=0
    for ((i = 0; i < total; ++i)); do
        if ! apply "${paths[i]}" "${snippets[i]}" "${replacements[i]}" dry; then
            echo "not applied: ${labels[i]} (${paths[i]}: \`${snippets[i]}\`)"
            stale=$((stale + 1))
        fi
    done
    echo "$((total - stale)) of $total mutants apply"
    exit 0
fi

mkdir -p "$state"
: >"$log"

if [ ! -f "$build/build.ninja" ]; then
    cmake -S "$root" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
        -DCMAKE_CXX_COMPILER_LAUNCHER=ccache >>"$log" 2>&1 || die "configure failed (see $log)"
fi

# The clean run: every program must pass before a failure can mean anything; its times set the timeout.
echo "mutants: building and running the unmodified tests in $build"
declare -A timeLimit
# Every program some selected mutant needs, each once.
needed=$(for path in "${paths[@]}"; do programs_for "$path"; done | tr ' ' '\n' | awk 'NF && !seen[$0]++')
for p in $needed; do
    # shellcheck disable=SC2046
    build $(targets_for $p) || die "the unmodified code does not build (see $log)"
    start=$(date +%s)
    run_program $p 3600 || die "$p fails without any mutant (see $log)"
    elapsed=$(($(date +%s) - start))
    timeLimit[$p]=${MUTANTS_TIMEOUT:-$((4 * elapsed + 30))}
    echo "mutants: $p passes in ${elapsed}s; limit under a mutant ${timeLimit[$p]}s"
done

killed=()
survived=()
notApplied=()
notBuilt=()
started=$(date +%s)
for ((i = 0; i < total; ++i)); do
    label=${labels[i]}
    path=${paths[i]}
    printf '[%d/%d] %-34s ' $((i + 1)) "$total" "$label"
    echo "=== $label ($path)" >>"$log"
    if [ ! -f "$root/$path" ]; then
        echo "not applied (no $path)"
        notApplied+=("$label")
        continue
    fi
    cp "$root/$path" "$saved" && echo "$path" >"$savedPath"
    if ! apply "$path" "${snippets[i]}" "${replacements[i]}"; then
        restore
        echo "not applied (snippet not found exactly once)"
        notApplied+=("$label")
        continue
    fi
    verdict=survived
    for p in $(programs_for "$path"); do
        # shellcheck disable=SC2046
        if ! build $(targets_for "$p"); then
            verdict="did not build"
            break
        fi
        run_program "$p" "${timeLimit[$p]}"
        case $? in
            0) ;;
            124) verdict="killed (timeout in $p)"; break ;;
            *) verdict="killed by $p"; break ;;
        esac
    done
    restore
    echo "$verdict"
    case $verdict in
        killed*) killed+=("$label") ;;
        survived) survived+=("$label  ($path: \`${snippets[i]}\` -> \`${replacements[i]}\`)") ;;
        *) notBuilt+=("$label") ;;
    esac
done

minutes=$((($(date +%s) - started + 30) / 60))
echo
echo "${#killed[@]} killed, ${#survived[@]} survived"
[ ${#notApplied[@]} -eq 0 ] || echo "${#notApplied[@]} not applied: ${notApplied[*]}"
[ ${#notBuilt[@]} -eq 0 ] || echo "${#notBuilt[@]} did not build: ${notBuilt[*]}"
echo "($total mutants in about $minutes min; log: $log)"
if [ ${#survived[@]} -gt 0 ]; then
    echo "survivors:"
    printf '  %s\n' "${survived[@]}"
fi
exit 0
