#!/usr/bin/env bash
# Fuzzes the audio-file decoder (and the analyzers behind it) with libFuzzer.
#   scripts/fuzz.sh [SECONDS]   (default 60)
# Builds in build-fuzz with clang, seeds build-fuzz/corpus with tiny valid files, and exits non-zero
# when the fuzzer finds a crash, a leak, undefined behaviour, a timeout or runaway memory; the input that
# did it is left in build-fuzz/artifacts.
set -euo pipefail

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
seconds=${1:-60}
build=$root/build-fuzz
corpus=$build/corpus
artifacts=$build/artifacts

if [ ! -f "$build/build.ninja" ]; then
    CC=clang CXX=clang++ cmake -S "$root" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
        -DVELQUIN_FUZZ=ON -DVELQUIN_TESTS=OFF >/dev/null
fi
cmake --build "$build" --target velquin_file_fuzz

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

export ASAN_OPTIONS=${ASAN_OPTIONS:-detect_leaks=1:abort_on_error=1}
export UBSAN_OPTIONS=${UBSAN_OPTIONS:-halt_on_error=1:print_stacktrace=1}
"$build/fuzz/velquin_file_fuzz" -max_total_time="$seconds" -rss_limit_mb=2048 -timeout=10 \
    -artifact_prefix="$artifacts/" -print_final_stats=1 "$corpus"
