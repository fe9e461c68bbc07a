#!/usr/bin/env bash
# Fuzzes with libFuzzer, each target for half the time: the audio-file decoder (and the analyzers
# behind it), and the tag path of velquin-scan (container check, tag read and write, proof, write back).
#   scripts/fuzz.sh [SECONDS]   (default 60, for both together)
# Builds in build-fuzz with clang, seeds build-fuzz/corpus and build-fuzz/tag-corpus with tiny valid
# files, and exits non-zero when a fuzzer finds a crash, a leak, undefined behaviour, a timeout or
# runaway memory; the input that did it is left in build-fuzz/artifacts.
set -euo pipefail

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
seconds=${1:-60}
build=$root/build-fuzz
corpus=$build/corpus
artifacts=$build/artifacts

if [ ! -f "$build/build.ninja" ]; then
    CC=clang CXX=clang++ cmake -S "$root" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
        -DVELQUIN_FUZZ=ON -DVELQUIN_TESTS=OFF -DVELQUIN_WERROR=ON >/dev/null
fi
cmake --build "$build" --target velquin_file_fuzz velquin_tag_fuzz

mkdir -p "$corpus" "$artifacts"
seed() {  # seed NAME ENCODER-ARGUMENTS…
    local out=$corpus/seed-$1
    [ -s "$out" ] && return 0
    ffmpeg -nostdin -v error -y -f lavfi -i "sine=frequency=440:sample_rate=44100:duration=0.2" \
        -f lavfi -i "sine=frequency=660:sample_rate=44100:duration=0.2" \
        -filter_complex "[0][1]amerge=inputs=2" "${@:2}" "$out" ||
        echo "fuzz: no $1 seed (encoder missing?)" >&2
}
seed wav.wav -c:a pcm_s16le
seed f32.wav -c:a pcm_f32le
seed mp3.mp3 -c:a libmp3lame
seed flac.flac -c:a flac
seed ogg.ogg -c:a libvorbis
seed m4a.m4a -c:a aac
seed opus.opus -c:a libopus
seed s24-6ch.wav -c:a pcm_s24le -ac 6

# The tag fuzzer's input is a name byte (an index into its list of names) and the file; a few seeds
# carry a name that belies the content.
tags=$build/tag-corpus
mkdir -p "$tags"
seed aiff.aiff -c:a pcm_s16be -write_id3v2 1 -metadata title=T
for pair in mp3.mp3:0 flac.flac:1 ogg.ogg:2 opus.opus:3 m4a.m4a:4 wav.wav:5 aiff.aiff:6 m4a.m4a:0 wav.wav:0 flac.flac:4; do
    source=$corpus/seed-${pair%:*} out=$tags/seed-${pair/:/-}
    if [ -s "$source" ] && [ ! -s "$out" ]; then
        { printf "\\$(printf %03o "${pair#*:}")"; cat "$source"; } >"$out"
    fi
done

export ASAN_OPTIONS=${ASAN_OPTIONS:-detect_leaks=1:abort_on_error=1}
export UBSAN_OPTIONS=${UBSAN_OPTIONS:-halt_on_error=1:print_stacktrace=1}
half=$(((seconds + 1) / 2))
"$build/fuzz/velquin_file_fuzz" -max_total_time="$half" -rss_limit_mb=2048 -timeout=10 \
    -artifact_prefix="$artifacts/" -print_final_stats=1 "$corpus"
"$build/fuzz/velquin_tag_fuzz" -max_total_time="$half" -rss_limit_mb=2048 -timeout=10 \
    -artifact_prefix="$artifacts/tag-" -print_final_stats=1 "$tags"
