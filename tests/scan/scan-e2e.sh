#!/usr/bin/env bash
# velquin-scan on a generated library (nested folders, a symbolic-link loop, a hidden folder, a broken
# file, a read-only file, every tag family): results equal `velquin --analyze`, tags land where players
# read them while other tags and the decoded audio stay as they were, the cache spares a second run,
# and neither Ctrl-C nor SIGKILL leaves a copy behind or a broken cache.
#   scan-e2e.sh VELQUIN_SCAN VELQUIN
set -euo pipefail
SCAN=$(realpath "$1") VELQUIN=$(realpath "$2")
WORK=$(mktemp -d)
trap 'chmod -R u+w "$WORK"; rm -rf "$WORK"' EXIT
export XDG_CACHE_HOME=$WORK/cache
cd "$WORK"
fail() { echo "FAIL: $*" >&2; exit 1; }
summary() { "$SCAN" "$@" 2>&1 >/dev/null || true; }  # the run's last lines on standard error

# A 120 BPM kick under a G major triad; each file a little different.
tone() {  # tone OUT SECONDS SHIFT [ffmpeg output options…]
    local out=$1 seconds=$2 f=$((196 + $3)) tags=(-metadata title=Kept -metadata artist=Someone); shift 3
    # FFmpeg reads a WAV file's ID3 tag only when it has no INFO list: this one gets none.
    [[ $out == *.wav ]] && tags=(-fflags +bitexact)
    ffmpeg -nostdin -v error -y -f lavfi -i "aevalsrc=0.15*sin(2*PI*$f*t)+0.15*sin(2*PI*$f*1.26*t)+0.15*sin(2*PI*$f*1.5*t)+0.6*sin(2*PI*55*t)*exp(-25*mod(t\,0.5)):s=44100:d=$seconds" \
        -ac 2 "${tags[@]}" "$@" "$out"
}
mkdir -p lib/a/b/c lib/.hidden lib/x
tone lib/a/one.mp3 6 0 -id3v2_version 3
tone lib/a/b/two.flac 6 2
tone lib/a/b/c/three.ogg 6 4 -c:a libvorbis
tone lib/a/b/c/four.opus 6 6 -c:a libopus
tone lib/x/five.m4a 6 8 -c:a aac
tone lib/x/six.wav 6 10
tone lib/x/seven.aiff 6 12 -write_id3v2 1
tone lib/x/eight.mka 6 14
tone lib/x/locked.mp3 6 16
tone lib/.hidden/nine.mp3 2 18
chmod 444 lib/x/locked.mp3
ln -s ../.. lib/a/b/up
echo "not audio" > lib/x/broken.mp3
echo "notes" > lib/x/readme.txt
tagged=(lib/a/one.mp3 lib/a/b/two.flac lib/a/b/c/three.ogg lib/a/b/c/four.opus lib/x/five.m4a lib/x/six.wav lib/x/seven.aiff)
all=$(printf '%s\n' "${tagged[@]}" lib/x/eight.mka lib/x/locked.mp3 lib/x/broken.mp3 | LC_ALL=C sort)

# Results in path order, each the `velquin --analyze` line with the path for the name.
set +e
"$SCAN" --format table --jobs 2 lib >table.txt 2>err.txt
status=$?
set -e
[ $status -eq 1 ] || fail "exit $status with a broken file"
grep -qx "1 file failed" err.txt || fail "no failure count: $(cat err.txt)"
grep -q "lib/a/b/up: already searched" err.txt || fail "loop not reported"
[ "$(awk '{print $NF}' table.txt)" = "$all" ] || fail "files or order: $(cat table.txt)"
while read -r file; do
    if expected=$("$VELQUIN" --analyze "$file" 2>expected-error.txt); then
        grep -qxF "${expected% *} $file" table.txt || fail "$file: not '$expected' in $(cat table.txt)"
    else
        grep -qxF "$(cat expected-error.txt)  $file" table.txt || fail "$file: error row"
    fi
done <<<"$all"

# CSV and JSON Lines carry the same files; JSON numbers are numbers and absent values null.
"$SCAN" --format csv lib >rows.csv 2>/dev/null || true
[ "$(head -1 rows.csv)" = "path,bpm,bpm_confidence,key,camelot,key_confidence,alternative,tuning_cents,duration_s,error,analysis" ] ||
    fail "csv header"
[ "$(tail -n +2 rows.csv | cut -d, -f1)" = "$all" ] || fail "csv rows"
"$SCAN" --format json lib 2>/dev/null >rows.json || true
python3 - rows.json <<'PY' || fail "json rows"
import json, sys
rows = [json.loads(line) for line in open(sys.argv[1])]
assert len(rows) == 10, rows
broken = next(r for r in rows if r["path"].endswith("broken.mp3"))
assert broken["bpm"] is None and broken["error"], broken
good = next(r for r in rows if r["path"].endswith("two.flac"))
assert isinstance(good["bpm"], float) and good["error"] is None and good["camelot"], good
assert abs(good["duration_s"] - 6) < 0.1, good
PY

# Tags: written where players look, and nothing else in the file changes.
snapshot() {  # other tags, decoded audio, time and mode of every file
    for f in "${tagged[@]}" lib/x/eight.mka lib/x/locked.mp3; do
        printf '%s %s %s\n' "$f" "$(stat -c '%Y %a' "$f")" "$(ffmpeg -nostdin -v error -i "$f" -map 0:a -f md5 -)"
        # TagLib rewrites Vorbis field names in capitals (they are case-blind) and MP4 items in its own order.
        ffprobe -v error -show_entries format_tags:stream_tags -of flat "$f" | { grep -Eiv 'tkey|tbpm|initialkey|camelot|bpm=' || true; } |
            sed -E 's/^([^=]*)=/\L\1=/' | LC_ALL=C sort
    done
}
snapshot >before.txt
locked=$(md5sum lib/x/locked.mp3 lib/x/eight.mka)
set +e
"$SCAN" --write-tags --format table lib >/dev/null 2>tag-err.txt
set -e
snapshot >after.txt
diff before.txt after.txt || fail "tagging changed more than the key and tempo"
[ "$(md5sum lib/x/locked.mp3 lib/x/eight.mka)" = "$locked" ] || fail "untaggable files changed"
grep -q "locked.mp3: not tagged: read-only file" tag-err.txt || fail "read-only not reported"
grep -q "eight.mka: not tagged: unsupported container" tag-err.txt || fail "mka not reported"
grep -qx "3 files failed" tag-err.txt || fail "$(cat tag-err.txt)"
python3 -c '
import json, sys
for line in open(sys.argv[1]):
    r = json.loads(line)
    if r["key"]: print(r["path"], r["key"].replace("\u266d", "b").replace("\u266f", "#"), r["camelot"], round(r["bpm"] or 0))
' rows.json >expected-tags.txt
for f in "${tagged[@]}"; do
    tags=$(ffprobe -v error -show_entries format_tags:stream_tags -of flat "$f")
    read -r _ key camelot bpm < <(grep -F "$f " expected-tags.txt)
    grep -Eqi "(tkey|initialkey)=\"$key\"" <<<"$tags" || fail "$f: key $key not in $tags"
    grep -Eqi "camelot=\"$camelot\"" <<<"$tags" || fail "$f: camelot $camelot not in $tags"
    # FFmpeg does not read back an MP4 tmpo atom (not even its own); the unit test reads it with TagLib.
    [[ $f == *.m4a ]] || grep -Eqi "bpm=\"$bpm\"" <<<"$tags" || fail "$f: bpm $bpm not in $tags"
done

# The cache: the second run analyses nothing; another range, or --force, analyses again.
summary lib | grep -q "10 files in .* (9 from the cache)" || fail "cache not used"
summary --range fast lib | grep -q "(0 from the cache)" || fail "range not in the key"
summary --force lib | grep -q "(0 from the cache)" || fail "--force used the cache"

# Interruptions, on a library slow enough to be caught in the middle.
mkdir long
tone long/t1.flac 60 0
for i in $(seq 2 64); do cp long/t1.flac long/t$i.flac; done  # enough work that a scan is still running a second in
entries() {
    python3 -c "import sqlite3,sys; print(sqlite3.connect(sys.argv[1]).execute('select count(*) from analyses').fetchone()[0])" \
        "$XDG_CACHE_HOME/Velquin/scan.sqlite" 2>/dev/null || echo 0
}
before=$(entries)
"$SCAN" --write-tags --jobs 2 --force long >/dev/null 2>&1 &
for _ in $(seq 600); do [ "$(entries)" -gt "$before" ] && break; sleep 0.1; done  # a file or two done
kill -KILL $!
wait $! 2>/dev/null || true
python3 -c "import sqlite3,sys; c=sqlite3.connect(sys.argv[1]); assert c.execute('pragma integrity_check').fetchone()[0]=='ok'" \
    "$XDG_CACHE_HOME/Velquin/scan.sqlite" || fail "cache damaged by SIGKILL"
"$SCAN" --write-tags --jobs 2 --force long >/dev/null 2>int-err.txt &
sleep 1
kill -INT $!
start=$(date +%s%N)
set +e
wait $!
status=$?
set -e
elapsed=$((($(date +%s%N) - start) / 1000000))
[ $status -eq 130 ] || fail "Ctrl-C: exit $status"
[ $elapsed -lt 1000 ] || fail "Ctrl-C took $elapsed ms"
grep -q "Interrupted: [0-9]* of 64 files done" int-err.txt || fail "$(cat int-err.txt)"
summary long | grep -Eq "\(([1-9][0-9]*) from the cache\)" || fail "nothing cached before the kill"
leftovers=$(find "$WORK" -name '*.velquin-*')
[ -z "$leftovers" ] || fail "copies left behind: $leftovers"

# Usage errors.
set +e
"$SCAN" >/dev/null 2>&1; [ $? -eq 2 ] || fail "no path: not exit 2"
"$SCAN" --jobs many lib >/dev/null 2>&1; [ $? -eq 2 ] || fail "bad --jobs: not exit 2"
set -e
"$SCAN" --help | grep -q -- "--write-tags" || fail "help"
echo "scan e2e: ok"
