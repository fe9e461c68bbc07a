#include "support/TestSupport.h"

#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <numbers>
#include <sstream>
#include <stdexcept>

namespace velquin::test {

std::vector<float> sine(double frequency, double sampleRate, double seconds, double amplitude) {
    const auto n = static_cast<size_t>(seconds * sampleRate);
    std::vector<float> out(n);
    for (size_t i = 0; i < n; ++i)
        out[i] = static_cast<float>(amplitude *
                                    std::sin(2 * std::numbers::pi * frequency * double(i) / sampleRate));
    return out;
}

std::vector<float> clickTrain(double bpm, double sampleRate, double seconds, double amplitude) {
    const auto n = static_cast<size_t>(seconds * sampleRate);
    std::vector<float> out(n, 0.0f);
    const double period = 60.0 / bpm;
    const auto clickLength = static_cast<size_t>(0.01 * sampleRate);
    for (double t = 0; t < seconds; t += period) {
        const auto start = static_cast<size_t>(std::llround(t * sampleRate));
        for (size_t i = 0; i < clickLength && start + i < n; ++i) {
            const double decay = std::exp(-double(i) / (0.002 * sampleRate));
            out[start + i] += static_cast<float>(
                amplitude * decay * std::sin(2 * std::numbers::pi * 1000.0 * double(i) / sampleRate));
        }
    }
    return out;
}

namespace {
// Harmonic tone (fundamental plus decaying partials) of one MIDI note.
void addNote(std::vector<float>& into, double sampleRate, int midiNote, double start, double duration,
             double amplitude, int partials, double centsOffset) {
    const double f0 = 440.0 * std::pow(2.0, (midiNote - 69 + centsOffset / 100.0) / 12.0);
    const auto first = static_cast<size_t>(start * sampleRate);
    const auto count = static_cast<size_t>(duration * sampleRate);
    if (into.size() < first + count) into.resize(first + count, 0.0f);
    const double fade = 0.01 * sampleRate;
    for (size_t i = 0; i < count; ++i) {
        const double t = double(i) / sampleRate;
        double env = std::min(1.0, std::min(double(i), double(count - i)) / fade);
        double v = 0;
        for (int h = 1; h <= partials; ++h) {
            const double f = f0 * h;
            if (f >= sampleRate / 2) break;
            v += std::sin(2 * std::numbers::pi * f * t) / h;
        }
        into[first + i] += static_cast<float>(amplitude * env * v);
    }
}
}  // namespace

std::vector<float> progression(const std::vector<std::vector<int>>& chords, double sampleRate, double seconds,
                               double chordSeconds, double centsOffset) {
    std::vector<float> out(static_cast<size_t>(seconds * sampleRate), 0.0f);
    size_t index = 0;
    for (double t = 0; t + 1e-9 < seconds; t += chordSeconds, ++index) {
        const auto& chord = chords[index % chords.size()];
        const double d = std::min(chordSeconds, seconds - t);
        for (int note : chord) addNote(out, sampleRate, note, t, d, 0.12, 4, centsOffset);
        addNote(out, sampleRate, chord.front() - 12, t, d, 0.15, 3, centsOffset);
    }
    out.resize(static_cast<size_t>(seconds * sampleRate));
    return out;
}

void mixInto(std::vector<float>& a, const std::vector<float>& b, float gain) {
    if (a.size() < b.size()) a.resize(b.size(), 0.0f);
    for (size_t i = 0; i < b.size(); ++i) a[i] += gain * b[i];
}

namespace {
void put16(std::ostream& o, uint16_t v) {
    o.put(char(v & 0xff)).put(char(v >> 8));
}
void put32(std::ostream& o, uint32_t v) {
    for (int i = 0; i < 4; ++i) o.put(char((v >> (8 * i)) & 0xff));
}
}  // namespace

void writeWav(const std::filesystem::path& path, const std::vector<std::vector<float>>& channels,
              int sampleRate, bool asFloat) {
    const auto nch = static_cast<uint16_t>(channels.size());
    size_t frames = 0;
    for (const auto& c : channels) frames = std::max(frames, c.size());
    const uint16_t bytesPer = asFloat ? 4 : 2;
    const auto dataBytes = static_cast<uint32_t>(frames * nch * bytesPer);
    std::ofstream o(path, std::ios::binary);
    if (!o) throw std::runtime_error("cannot write " + path.string());
    o.write("RIFF", 4);
    put32(o, 36 + dataBytes);
    o.write("WAVEfmt ", 8);
    put32(o, 16);
    put16(o, asFloat ? 3 : 1);
    put16(o, nch);
    put32(o, static_cast<uint32_t>(sampleRate));
    put32(o, static_cast<uint32_t>(sampleRate) * nch * bytesPer);
    put16(o, static_cast<uint16_t>(nch * bytesPer));
    put16(o, static_cast<uint16_t>(8 * bytesPer));
    o.write("data", 4);
    put32(o, dataBytes);
    for (size_t i = 0; i < frames; ++i) {
        for (const auto& c : channels) {
            const float v = i < c.size() ? c[i] : 0.0f;
            if (asFloat) {
                o.write(reinterpret_cast<const char*>(&v), 4);
            } else {
                const double clamped = std::clamp(double(v), -1.0, 1.0);
                put16(o, static_cast<uint16_t>(static_cast<int16_t>(std::lround(clamped * 32767.0))));
            }
        }
    }
}

TempDir::TempDir() {
    std::string pattern = (std::filesystem::temp_directory_path() / "velquin-test-XXXXXX").string();
    if (mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
    path_ = pattern;
}

TempDir::~TempDir() {
    std::error_code ec;
    std::filesystem::remove_all(path_, ec);
}

std::string readText(const std::filesystem::path& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream s;
    s << in.rdbuf();
    return s.str();
}

std::string readAll(int fd) {
    std::string data(static_cast<size_t>(::lseek(fd, 0, SEEK_END)), '\0');
    if (::pread(fd, data.data(), data.size(), 0) != static_cast<ssize_t>(data.size())) data.clear();
    return data;
}

void writeText(const std::filesystem::path& path, const std::string& bytes) {
    std::ofstream(path, std::ios::binary).write(bytes.data(), std::streamsize(bytes.size()));
}

std::vector<std::string> lines(const std::string& text) {
    std::vector<std::string> result;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);) result.push_back(line);
    return result;
}

ScopedEnv::ScopedEnv(const char* name, std::optional<std::string> value) : name_(name) {
    if (const char* old = std::getenv(name)) saved_ = old;
    if (value)
        ::setenv(name, value->c_str(), 1);
    else
        ::unsetenv(name);
}

ScopedEnv::~ScopedEnv() {
    if (saved_)
        ::setenv(name_, saved_->c_str(), 1);
    else
        ::unsetenv(name_);
}

}  // namespace velquin::test
