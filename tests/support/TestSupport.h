#pragma once
// Signal synthesis and small file helpers shared by the tests.

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

namespace velquin::test {

// Sine of `seconds` at `frequency` Hz and `amplitude`.
std::vector<float> sine(double frequency, double sampleRate, double seconds, double amplitude = 0.5);

// Short decaying 1 kHz bursts (10 ms) every 60/bpm seconds, first at time 0.
std::vector<float> clickTrain(double bpm, double sampleRate, double seconds, double amplitude = 0.8);

// A chord progression: each chord is a list of MIDI notes held for `chordSeconds`, with its root
// doubled an octave below as bass; repeated until `seconds` is filled.
std::vector<float> progression(const std::vector<std::vector<int>>& chords, double sampleRate, double seconds,
                               double chordSeconds = 2.0, double centsOffset = 0);

// Adds `b` into `a` (lengths may differ; `a` grows).
void mixInto(std::vector<float>& a, const std::vector<float>& b, float gain = 1.0f);

// 16-bit PCM or 32-bit float WAV writer; channels are interleaved from `channels`.
void writeWav(const std::filesystem::path& path, const std::vector<std::vector<float>>& channels,
              int sampleRate, bool asFloat = false);

// A fresh, empty folder under the system temp folder, removed when the object dies.
class TempDir {
  public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;
    const std::filesystem::path& path() const { return path_; }
    std::filesystem::path operator/(const std::string& name) const { return path_ / name; }

  private:
    std::filesystem::path path_;
};

std::string readText(const std::filesystem::path& path);
// Everything in an open file, read without moving its offset.
std::string readAll(int fd);
void writeText(const std::filesystem::path& path, const std::string& bytes);
std::vector<std::string> lines(const std::string& text);

// Sets (or, given nullopt, unsets) an environment variable for the object's lifetime.
class ScopedEnv {
  public:
    ScopedEnv(const char* name, std::optional<std::string> value);
    ~ScopedEnv();
    ScopedEnv(const ScopedEnv&) = delete;
    ScopedEnv& operator=(const ScopedEnv&) = delete;

  private:
    const char* name_;
    std::optional<std::string> saved_;
};

}  // namespace velquin::test
