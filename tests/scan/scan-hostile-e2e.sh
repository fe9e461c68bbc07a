#!/usr/bin/env bash
# velquin-scan where the setting is against it: standard output closed or full, SIGTERM, random bytes,
# names with control characters, links into system file systems, folders it may not read, a path too
# long, a file swapped under the cache, a damaged or read-only cache.
#   scan-hostile-e2e.sh VELQUIN_SCAN VELQUIN VERSION
set -euo pipefail
SCAN=$(realpath "$1") VELQUIN=$(realpath "$2") VERSION=$3
WORK=$(mktemp -d)
trap 'chmod -R u+rwx "$WORK" 2>/dev/null; rm -rf "$WORK"' EXIT
chmod 755 "$WORK"  # an unprivileged user reads part of it below
export XDG_CACHE_HOME=$WORK/cache
cd "$WORK"
fail() { echo "FAIL: $*" >&2; exit 1; }
run() { set +e; "$@"; status=$?; set -e; }  # for commands expected to fail: their exit status in $status
# Root reads every folder whatever its mode: the permission cases run as nobody then.
as_user() {
    if [ "$(id -u)" = 0 ]; then setpriv --reuid=65534 --regid=65534 --clear-groups -- "$@"; else "$@"; fi
}
tone() {  # tone OUT SECONDS FREQUENCY: a sine, whose key is the note's
    ffmpeg -nostdin -v error -y -f lavfi -i "sine=frequency=$3:duration=$2" -c:a pcm_s16le "$1"
}
mkdir lib
tone lib/a.wav 4 440
tone lib/b.wav 4 311

# Output that cannot be written is an error, for results, help and version alike; --version is the project's.
[ "$("$SCAN" --version)" = "velquin-scan $VERSION" ] || fail "--version: $("$SCAN" --version 2>&1)"
for args in "lib" "--format table lib" "--help" "--version"; do
    # shellcheck disable=SC2086
    run "$SCAN" $args >/dev/full 2>err.txt
    [ $status -eq 1 ] || fail "$args >/dev/full: exit $status"
    grep -qx "Error: could not write the results: No space left on device" err.txt || fail "$args: $(cat err.txt)"
done

# A closed standard output stays closed: no file opened later (the audio file being read, a tagged
# copy) takes its number and gets the results.
run "$SCAN" --write-tags lib >&- 2>err.txt
[ $status -eq 1 ] || fail "closed output: exit $status"
grep -qx "Error: could not write the results: Bad file descriptor" err.txt || fail "closed output: $(cat err.txt)"
! grep -l "path,bpm," lib/* || fail "results written into a file"

# Random bytes with an audio name say what they are, in both programs.
python3 -c 'import random, sys; random.seed(22); sys.stdout.buffer.write(random.randbytes(500))' >lib/junk.mp3
run "$SCAN" --format table lib >table.txt 2>/dev/null
[ $status -eq 1 ] || fail "junk: exit $status"
grep -qx "Error: junk.mp3: not an audio file FFmpeg can read  lib/junk.mp3" table.txt || fail "junk: $(cat table.txt)"
run "$VELQUIN" --analyze lib/junk.mp3 2>err.txt
grep -qx "Error: junk.mp3: not an audio file FFmpeg can read" err.txt || fail "--analyze junk: $(cat err.txt)"
rm lib/junk.mp3

# SIGTERM finishes the files in hand, prints what is done and exits 128 + 15.
mkdir slow
ffmpeg -nostdin -v error -f lavfi -i "sine=frequency=440:duration=60" slow/t01.flac
for i in $(seq -w 2 64); do ln slow/t01.flac "slow/t$i.flac"; done  # a few seconds of work
"$SCAN" --jobs 2 --force slow >rows.csv 2>err.txt &
for _ in $(seq 300); do [ "$(wc -l <rows.csv 2>/dev/null || echo 0)" -ge 2 ] && break; sleep 0.05; done
kill -TERM $!
start=$(date +%s%N)
run wait $!
elapsed=$((($(date +%s%N) - start) / 1000000))
[ $status -eq 143 ] || fail "SIGTERM: exit $status"
[ $elapsed -lt 1000 ] || fail "SIGTERM took $elapsed ms"
done=$(sed -n 's/^Interrupted: \([0-9]*\) of 64 files done$/\1/p' err.txt)
[ -n "$done" ] && [ "$((done + 1))" -eq "$(wc -l <rows.csv)" ] || fail "SIGTERM: $(cat err.txt) with $(wc -l <rows.csv) lines"

# What takes a closed output's number, seen from outside: /dev/null, not the file being analysed (with
# --write-tags, its tagged copy) as before. Files the loader and the libraries open before the program
# starts pass by.
XDG_CACHE_HOME=/proc/none "$SCAN" --format table --jobs 1 slow >&- 2>/dev/null &
target=
for _ in $(seq 1000); do
    target=$(readlink "/proc/$!/fd/1" 2>/dev/null) || true
    [[ $target == /dev/null || $target == "$WORK"/* ]] && break
    sleep 0.002
done
wait $! || true
[ "$target" = /dev/null ] || fail "closed output became ${target:-nothing}"

# Control characters in names: escaped in the table, the progress line and the messages; exact in CSV.
mkdir names
odd=$(printf 'names/esc\033[31mred\nline.wav')
cp lib/a.wav "$odd"
printf 'junk' >"$(printf 'names/bad\tname\001.mp3')"
ln -s nowhere "$(printf 'names/gone\033].mp3')"
run "$SCAN" --format table names >table.txt 2>err.txt
! grep -q $'\033\|\001' table.txt err.txt || fail "raw control characters: $(cat -v table.txt err.txt)"
grep -qF ' names/esc\x1b[31mred\nline.wav' table.txt || fail "escaped name: $(cat table.txt)"
grep -qF 'Error: bad\tname\x01.mp3: the file is empty' table.txt ||
    grep -qF 'Error: bad\tname\x01.mp3: not an audio file' table.txt || fail "escaped error: $(cat table.txt)"
grep -qF 'skipped names/gone\x1b].mp3: a symbolic link to nothing' err.txt || fail "escaped warning: $(cat err.txt)"
"$SCAN" --format csv names 2>/dev/null >rows.csv || true
python3 - rows.csv "$odd" <<'PY' || fail "csv names"
import csv, sys
paths = [row[0] for row in csv.reader(open(sys.argv[1], newline=""))]
assert sys.argv[2] in paths, paths
PY
mkdir progress  # long enough for the progress line to show them
for i in $(seq 8); do ln slow/t01.flac "$(printf 'progress/slow%d\033[31m.flac' "$i")"; done
python3 - "$SCAN" <<'PY' || fail "progress line"
import os, pty, subprocess, sys
master, slave = pty.openpty()
scan = subprocess.Popen([sys.argv[1], "--force", "--jobs", "1", "progress"], stdout=subprocess.DEVNULL, stderr=slave)
os.close(slave)
seen = b""
while True:
    try:
        chunk = os.read(master, 4096)
    except OSError:
        break
    if not chunk:
        break
    seen += chunk
scan.wait()
assert b"\\x1b[31m.flac" in seen, seen
assert b"\x1b[31m" not in seen, seen
PY

# The walk stays out of system file systems, also through links, and says what it skipped.
run "$SCAN" /proc >rows.csv 2>err.txt
[ $status -eq 1 ] || fail "/proc: exit $status"
[ "$(wc -l <rows.csv)" -eq 1 ] || fail "/proc: files listed: $(head rows.csv)"
grep -qx "velquin-scan: skipped /proc: a proc file system, which holds no files to analyse" err.txt ||
    fail "/proc: $(cat err.txt)"
if grep -q " /dev [^-]* - devtmpfs " /proc/self/mountinfo; then
    run "$SCAN" /dev >/dev/null 2>err.txt
    grep -q "skipped /dev: a devtmpfs file system" err.txt || fail "/dev: $(cat err.txt)"
fi
mkdir -p walk/music
cp lib/a.wav walk/music/
ln -s /proc/self walk/music/self
ln -s ../music walk/music/again  # reached twice: entered once, not an error
[ "$(stat -f -c %T /sys)" = sysfs ] && ln -s /sys walk/sys
run "$SCAN" walk >rows.csv 2>err.txt
[ "$(tail -n +2 rows.csv | cut -d, -f1)" = walk/music/a.wav ] || fail "walk: $(cat rows.csv)"
grep -q "skipped walk/music/self: a proc file system" err.txt || fail "link to /proc: $(cat err.txt)"
[ ! -L walk/sys ] || grep -q "skipped walk/sys: a sysfs file system" err.txt || fail "link to /sys: $(cat err.txt)"
[ $status -eq 1 ] || fail "walk: exit $status"

# Folders it may not search and names it cannot examine: each named, and exit 1.
mkdir -p perm/ok perm/noexec perm/noread perm/long usercache
cp lib/a.wav perm/ok/
cp lib/a.wav perm/noexec/x.wav
cp lib/b.wav perm/noread/y.wav
ln -s nowhere.wav perm/ok/gone.wav
echo notes >perm/ok/readme.txt
chmod 644 perm/noexec  # names can be read, entries not examined
chmod 300 perm/noread
chmod 777 usercache
python3 - perm/long <<'PY'  # folders nested past PATH_MAX (4096 bytes), made one level at a time
import os, sys
fd = os.open(sys.argv[1], os.O_RDONLY)
for _ in range(20):
    os.mkdir("d" * 250, dir_fd=fd)
    fd = os.open("d" * 250, os.O_RDONLY, dir_fd=fd)
PY
run as_user env XDG_CACHE_HOME="$WORK/usercache" "$SCAN" perm >rows.csv 2>err.txt
[ $status -eq 1 ] || fail "unsearchable: exit $status"
[ "$(tail -n +2 rows.csv | cut -d, -f1)" = perm/ok/a.wav ] || fail "unsearchable: $(cat rows.csv)"
grep -q "skipped perm/noexec/x.wav: Permission denied" err.txt || fail "r without x: $(cat err.txt)"
grep -q "skipped perm/noread: Permission denied" err.txt || fail "no r: $(cat err.txt)"
grep -q "skipped perm/ok/gone.wav: a symbolic link to nothing" err.txt || fail "dangling: $(cat err.txt)"
grep -q "skipped perm/long/d.*: the path is longer than the system allows" err.txt || fail "long: $(cat err.txt)"
grep -qx "4 folders or files could not be searched" err.txt || fail "count: $(cat err.txt)"

# The cache: a file replaced by another of the same size and modification time is analysed again, in
# place (same inode) or renamed over it.
mkdir swap
tone swap/t.wav 4 440
tone other.wav 4 311
"$SCAN" swap 2>/dev/null >first.csv
for how in copy rename; do
    cp other.wav new.wav
    touch -r swap/t.wav new.wav
    if [ $how = copy ]; then cp -p new.wav swap/t.wav; else mv new.wav swap/t.wav; fi
    "$SCAN" swap 2>err.txt >again.csv
    ! cmp -s first.csv again.csv || fail "$how: the old file's result: $(cat again.csv)"
    grep -q "(0 from the cache)" err.txt || fail "$how: $(cat err.txt)"
    tone swap/t.wav 4 440  # back to the first, for the next round
    "$SCAN" swap >/dev/null 2>&1
done

# A cache of the earlier layout (no inode, no change time) is started afresh, not refused.
rm cache/Velquin/scan.sqlite*
python3 - cache/Velquin/scan.sqlite <<'PY'
import sqlite3, sys
sqlite3.connect(sys.argv[1]).execute(
    "CREATE TABLE analyses (path TEXT NOT NULL, range TEXT NOT NULL, size INTEGER NOT NULL,"
    " mtime_ns INTEGER NOT NULL, version INTEGER NOT NULL, bpm REAL NOT NULL, bpm_confidence REAL NOT NULL,"
    " level REAL NOT NULL, key INTEGER, alternative INTEGER, key_confidence REAL NOT NULL,"
    " tuning_cents REAL NOT NULL, chroma BLOB, duration REAL NOT NULL, PRIMARY KEY (path, range))")
PY
"$SCAN" lib >/dev/null 2>err.txt
"$SCAN" lib >/dev/null 2>>err.txt
grep -q "(2 from the cache)" err.txt && ! grep -q "without the cache" err.txt || fail "old layout: $(cat err.txt)"

# A damaged cache is moved aside and rebuilt, with one warning; the next run uses the new one.
python3 -c 'import sys; f = open(sys.argv[1], "r+b"); f.write(b"x" * 100)' cache/Velquin/scan.sqlite
"$SCAN" lib >/dev/null 2>err.txt
[ "$(grep -c "was damaged" err.txt)" = 1 ] || fail "damaged: $(cat err.txt)"
ls cache/Velquin/scan.sqlite.corrupt-* >/dev/null || fail "damaged file not kept"
"$SCAN" lib >/dev/null 2>err.txt
grep -q "(2 from the cache)" err.txt && ! grep -q damaged err.txt || fail "rebuilt cache: $(cat err.txt)"

# A cache that may not be written says so, once.
chmod 555 cache/Velquin
chmod 444 cache/Velquin/scan.sqlite
run as_user "$SCAN" --force lib >rows.csv 2>err.txt
[ $status -eq 0 ] || fail "read-only cache: exit $status"
[ "$(grep -c "results are not being remembered" err.txt)" = 1 ] || fail "read-only cache: $(cat err.txt)"
[ "$(wc -l <rows.csv)" -eq 3 ] || fail "read-only cache: $(cat rows.csv)"
echo "scan hostile e2e: ok"
