#!/usr/bin/env python3
"""Writes a 16-bit stereo WAV: a 120 BPM kick under a I-IV-V-I cadence in G major (harmonic tones).

make_fixture.py OUT.wav [SECONDS] [RATE]
"""
import math
import struct
import sys
import wave

out = sys.argv[1]
seconds = float(sys.argv[2]) if len(sys.argv) > 2 else 30.0
rate = int(sys.argv[3]) if len(sys.argv) > 3 else 48000
bpm = 120.0
chords = [[55, 59, 62], [60, 64, 67], [62, 66, 69], [55, 59, 62]]  # G C D G
frames = int(seconds * rate)
mix = [0.0] * frames


def freq(midi):
    return 440.0 * 2 ** ((midi - 69) / 12)


chord_seconds = 2.0
t0 = 0.0
index = 0
while t0 < seconds:
    notes = chords[index % len(chords)]
    start, end = int(t0 * rate), min(frames, int((t0 + chord_seconds) * rate))
    for midi in notes + [notes[0] - 12]:
        f = freq(midi)
        for partial in range(1, 5):
            step = 2 * math.pi * f * partial / rate
            amp = 0.06 / partial
            for i in range(start, end):
                mix[i] += amp * math.sin(step * (i - start))
    t0 += chord_seconds
    index += 1

beat = 60.0 / bpm
t = 0.0
while t < seconds:
    start = int(t * rate)
    for i in range(start, min(frames, start + int(0.08 * rate))):
        k = (i - start) / rate
        mix[i] += 0.6 * math.exp(-k * 40) * math.sin(2 * math.pi * 60 * k)
    t += beat

with wave.open(out, "wb") as w:
    w.setnchannels(2)
    w.setsampwidth(2)
    w.setframerate(rate)
    data = bytearray()
    for v in mix:
        s = max(-32767, min(32767, int(v * 32767)))
        data += struct.pack("<hh", s, s)
    w.writeframes(bytes(data))
