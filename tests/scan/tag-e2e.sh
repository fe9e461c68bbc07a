#!/usr/bin/env bash
# velquin-scan --write-tags where a tag writer can damage a file: a container that its name belies, a
# disk that fills up, a failed flush, another program editing the file, hard links, extended
# attributes, ACLs and another user's file, a kill during the write back, weak readings, a change of
# key notation, ID3v2 versions, files already tagged, and a long name. Parts that need root (a tmpfs,
# another user) are skipped without it.
#   tag-e2e.sh VELQUIN_SCAN TAG_SHIM
set -euo pipefail
SCAN=$(realpath "$1") SHIM=$(realpath "$2")
WORK=$(mktemp -d)
cleanup() {
    mountpoint -q "$WORK/full" 2>/dev/null && umount "$WORK/full"
    rm -rf "$WORK"
}
trap cleanup EXIT
chmod 755 "$WORK"
export XDG_CACHE_HOME=$WORK/cache
# A sanitizer build wants its runtime loaded first; the shim comes before it.
export ASAN_OPTIONS=${ASAN_OPTIONS:+$ASAN_OPTIONS:}verify_asan_link_order=0
cd "$WORK"
fail() { echo "FAIL (line ${BASH_LINENO[0]}): $*" >&2; exit 1; }
root=false
[ "$(id -u)" -eq 0 ] && root=true

tone() {  # tone OUT [ffmpeg output options…]: 120 BPM under a G major triad, 4 s
    local out=$1; shift
    ffmpeg -nostdin -v error -y -f lavfi -i "aevalsrc=0.15*sin(2*PI*196*t)+0.15*sin(2*PI*247*t)+0.15*sin(2*PI*294*t)+0.6*sin(2*PI*55*t)*exp(-25*mod(t\,0.5)):s=44100:d=4" \
        -ac 2 -metadata title=Kept "$@" "$out"
}
audio() { ffmpeg -nostdin -v error -i "$1" -map 0:a -f md5 - 2>/dev/null || echo undecodable; }
tags() { ffprobe -v error -show_entries format_tags:stream_tags -of flat "$1"; }
scan() {  # scan OUT ERR ARGUMENTS…: sets $status
    local out=$1 err=$2; shift 2
    set +e
    "$SCAN" --format table "$@" >"$out" 2>"$err"
    status=$?

    set -e
}
check_no_copies() { [ -z "$(find "$WORK" -name '.velquin-*')" ] || fail "copies left: $(find "$WORK" -name '.velquin-*')"; }

# 1. The container comes from the content: tagged as what it is, or left alone with the reason.
mkdir c
tone c/src.m4a -c:a aac && mv c/src.m4a c/aac.mp3
tone c/src.wav && mv c/src.wav c/wav.mp3
tone c/src.opus -c:a libopus && mv c/src.opus c/opus.ogg
tone c/src.mka && mv c/src.mka c/matroska.mp3
declare -A before
for f in c/*; do before[$f]=$(audio "$f"); done
matroska=$(md5sum c/matroska.mp3)
scan table.txt err.txt --write-tags c
[ $status -eq 1 ] || fail "containers: exit $status"
grep -qx "velquin-scan: c/matroska.mp3: not tagged: it is a Matroska file with an .mp3 name" err.txt || fail "$(cat err.txt)"
grep -q "BPM .* c/matroska.mp3$" table.txt || fail "no analysis row for the untagged file: $(cat table.txt)"
[ "$(md5sum c/matroska.mp3)" = "$matroska" ] || fail "matroska.mp3 changed"
for f in c/aac.mp3 c/wav.mp3 c/opus.ogg; do
    [ "$(audio "$f")" = "${before[$f]}" ] || fail "$f: audio changed"
    grep -q "$f: not tagged" err.txt && fail "$f not tagged: $(cat err.txt)"
done
[ "$(head -c 4 c/wav.mp3)" = RIFF ] || fail "wav.mp3 no longer starts with its RIFF header"
[ "$(tail -c +5 c/aac.mp3 | head -c 4)" = ftyp ] || fail "aac.mp3 no longer starts with its ftyp box"
tags c/opus.ogg | grep -q 'INITIALKEY="G"' || fail "opus.ogg: $(tags c/opus.ogg)"

# 2. Nothing replaces the file until the copy is proven whole: a disk that fills as the tag grows, a
# flush that fails.
mkdir full d2
python3 - d2/unpadded.flac <<'PY'
import subprocess, sys
data = subprocess.run(["ffmpeg", "-nostdin", "-v", "error", "-f", "lavfi", "-i", "sine=f=220:d=4", "-f", "flac", "-"],
                      check=True, capture_output=True).stdout
out, at, blocks = bytearray(b"fLaC"), 4, []
while True:
    kind, last, size = data[at] & 0x7F, data[at] & 0x80, int.from_bytes(data[at + 1:at + 4], "big")
    if kind != 1:  # all but the padding
        blocks.append(bytearray(data[at:at + 4 + size]))
    at += 4 + size
    if last:
        break
for i, block in enumerate(blocks):
    block[0] = (block[0] & 0x7F) | (0x80 if i == len(blocks) - 1 else 0)
    out += block
open(sys.argv[1], "wb").write(out + data[at:])
PY
if $root && mount -t tmpfs -o size=2m tmpfs full 2>/dev/null; then
    cp d2/unpadded.flac full/x.flac
    size=$(stat -c %s full/x.flac)
    free=$(($(stat -f -c '%a * %S' full)))
    head -c $((free - (size + 4095) / 4096 * 4096)) /dev/zero >full/filler  # room for the copy, no more
    scan out.txt err.txt --write-tags full/x.flac
    [ $status -eq 1 ] || fail "full disk: exit $status: $(cat err.txt)"
    grep -q "x.flac: not tagged: could not write the copy: No space left on device" err.txt || fail "$(cat err.txt)"
    cmp -s full/x.flac d2/unpadded.flac || fail "full disk: the file changed"
    check_no_copies
    umount full
else
    echo "tag-e2e: full-disk case skipped (mounting a tmpfs needs root)"
fi
cp d2/unpadded.flac d2/x.flac
SHIM_FSYNC_EIO=1 LD_PRELOAD=$SHIM scan out.txt err.txt --write-tags d2/x.flac
[ $status -eq 1 ] || fail "failed flush: exit $status"
grep -q "x.flac: not tagged: could not flush the copy: Input/output error" err.txt || fail "$(cat err.txt)"
cmp -s d2/x.flac d2/unpadded.flac || fail "failed flush: the file changed"
check_no_copies

# 3. An edit by another program between the copy and the write back is kept, and the file not tagged.
mkdir e
tone e/x.mp3
SHIM_EDIT_FILE=$WORK/e/x.mp3 LD_PRELOAD=$SHIM scan out.txt err.txt --write-tags e
[ $status -eq 1 ] || fail "edited file: exit $status"
grep -qx "velquin-scan: e/x.mp3: not tagged: it changed while being tagged" err.txt || fail "$(cat err.txt)"
[ "$(tail -c 25 e/x.mp3)" = "edited by another program" ] || fail "the other program's edit was lost"
check_no_copies

# Three tagging runs at once on one library: each file is tagged once, and no run fails over the others.
mkdir three
for i in 1 2 3 4 5 6; do tone three/t$i.mp3; tone three/t$i.flac; done
pids=()
for r in 1 2 3; do
    "$SCAN" --force --jobs 2 --write-tags --format table three >/dev/null 2>three-$r.txt &
    pids+=($!)
done
for r in 0 1 2; do wait "${pids[$r]}" || fail "run $((r + 1)) of three at once: $(cat three-$((r + 1)).txt)"; done
for f in three/*; do tags "$f" | grep -Eq '(TKEY|INITIALKEY)="G"' || fail "$f not tagged by three runs at once"; done
check_no_copies

# 5. The file keeps its identity: every hard link, extended attributes, ACL, owner.
mkdir -p id/a id/b
tone id/a/x.flac
ln id/a/x.flac id/b/y.flac
setfattr -n user.velquin.test -v kept id/a/x.flac
setfacl -m u:nobody:r id/a/x.flac
inode=$(stat -c %i id/a/x.flac)
scan out.txt err.txt --write-tags id/a
[ $status -eq 0 ] || fail "identity: exit $status: $(cat err.txt)"
[ "$(stat -c %i id/a/x.flac) $(stat -c %i id/b/y.flac)" = "$inode $inode" ] || fail "the hard link was split"
tags id/b/y.flac | grep -q 'INITIALKEY="G"' || fail "the other name does not show the tags"
[ "$(getfattr --only-values -n user.velquin.test id/a/x.flac)" = kept ] || fail "extended attribute lost"
getfacl -p id/a/x.flac 2>/dev/null | grep -q "^user:nobody:r--" || fail "ACL lost"
if $root && command -v setpriv >/dev/null; then
    # A group-writable file of root's, tagged by someone else: it stays root's. Only its owner could
    # keep its modification time, so without --touch it is left alone.
    mkdir -m 777 shared "$WORK/nobody-cache"
    tone shared/x.mp3
    chgrp nogroup shared/x.mp3
    chmod 664 shared/x.mp3
    as_nobody() {
        set +e
        XDG_CACHE_HOME=$WORK/nobody-cache setpriv --reuid=nobody --regid=nogroup --clear-groups \
            "$SCAN" --format table --write-tags "$@" shared >out.txt 2>err.txt
        status=$?
        set -e
    }
    as_nobody
    [ $status -eq 1 ] || fail "another user's file without --touch: exit $status"
    grep -q "x.mp3: not tagged: it belongs to another user, so its modification time cannot be kept" err.txt ||
        fail "$(cat err.txt)"
    as_nobody --touch
    [ $status -eq 0 ] || fail "another user's file: exit $status: $(cat err.txt)"
    [ "$(stat -c '%U:%G' shared/x.mp3)" = root:nogroup ] || fail "owner became $(stat -c '%U:%G' shared/x.mp3)"
    tags shared/x.mp3 | grep -q 'TKEY="G"' || fail "another user's file not tagged"
else
    echo "tag-e2e: other-owner case skipped (needs root)"
fi

# A kill in the middle of the write back: the next scan of the folder finishes it from the proven copy.
mkdir k
tone k/x.flac
audio_before=$(audio k/x.flac)
SHIM_KILL_MIDWRITE=1 LD_PRELOAD=$SHIM scan out.txt err.txt --write-tags k
[ $status -eq 137 ] || fail "not killed mid-write: exit $status $(cat err.txt)"
ls -a k | grep -q '^\.velquin-ready-' || fail "no proven copy kept: $(ls -a k)"
scan out.txt err.txt k
[ $status -eq 0 ] || fail "rescan: exit $status"
check_no_copies
[ "$(audio k/x.flac)" = "$audio_before" ] || fail "audio not restored after the kill"
tags k/x.flac | grep -q 'INITIALKEY="G"' || fail "tags not finished after the kill: $(tags k/x.flac)"

# 6. Weak readings are not written, and the fields they would have replaced stay.
mkdir w
ffmpeg -nostdin -v error -f lavfi -i "anoisesrc=a=0.001:d=6" -id3v2_version 3 -metadata TKEY=Dm -metadata TBPM=99 w/noise.mp3
scan out.txt err.txt --write-tags w
[ $status -eq 0 ] || fail "weak readings: exit $status"
grep -Eq "^velquin-scan: w/noise.mp3: key not written: confidence [0-9]+ %$" err.txt || fail "$(cat err.txt)"
grep -qx "velquin-scan: w/noise.mp3: BPM not written: no tempo" err.txt || fail "$(cat err.txt)"
t=$(tags w/noise.mp3)
grep -q 'TKEY="Dm"' <<<"$t" && grep -q 'TBPM="99"' <<<"$t" || fail "earlier fields changed: $t"

# 7. Tags agree: both notations follow a switch; ID3v2 versions; files already tagged not opened to write.
mkdir v
tone v/v3.mp3 -id3v2_version 3
tone v/v4.mp3
tone v/x.flac
tone v/x.m4a -c:a aac
tone v/bare.mp3 -write_id3v2 0
python3 - v/bare.mp3 v/v2.mp3 <<'PY'
import sys
frame = b"TT2" + (10).to_bytes(3, "big") + b"\x00Old title"
header = b"ID3\x02\x00\x00" + bytes([0, 0, 0, len(frame)])
open(sys.argv[2], "wb").write(header + frame + open(sys.argv[1], "rb").read())
PY
rm v/bare.mp3
scan out.txt err.txt --write-tags v
scan out.txt err.txt --write-tags --key-notation camelot v
[ $status -eq 0 ] || fail "camelot run: exit $status $(cat err.txt)"
for f in v/*; do
    t=$(tags "$f")
    grep -Eiq '(tkey|initialkey)="9B"' <<<"$t" || fail "$f: no Camelot key: $t"
    grep -Eq '\.KEY="G"' <<<"$t" || fail "$f: no key name: $t"
    grep -Eiq 'camelot=' <<<"$t" && fail "$f: stale CAMELOT field: $t"
done
scan out.txt err.txt --write-tags v
for f in v/*; do
    t=$(tags "$f")
    grep -Eq '\.KEY=' <<<"$t" && fail "$f: stale KEY field: $t"
    grep -Eiq 'camelot="9B"' <<<"$t" || fail "$f: no CAMELOT field: $t"
done
version() { od -An -tu1 -j3 -N1 "$1" | tr -d ' '; }
[ "$(version v/v2.mp3) $(version v/v3.mp3) $(version v/v4.mp3)" = "3 3 4" ] || fail "ID3v2 versions: $(version v/v2.mp3) $(version v/v3.mp3) $(version v/v4.mp3)"
tags v/v2.mp3 | grep -q 'title="Old title"' || fail "v2.2 title lost: $(tags v/v2.mp3)"
inotifywait -q -m -r -e close_write --format '%w%f' v >events.txt &
watcher=$!
sleep 1  # the watches are in place
scan out.txt err.txt --write-tags v
sleep 0.5
kill $watcher
wait $watcher 2>/dev/null || true
[ ! -s events.txt ] || fail "files already tagged were opened for writing: $(cat events.txt)"

# 8. A name as long as a name can be.
mkdir n
long=$(python3 -c 'print("音" * 80)')
tone "n/$long.mp3"
scan out.txt err.txt --write-tags n
[ $status -eq 0 ] || fail "long name: exit $status: $(cat err.txt)"
tags "n/$long.mp3" | grep -q 'TKEY="G"' || fail "long name not tagged"
check_no_copies
echo "tag e2e: ok"
