#include "app/FileModes.h"

#include <cerrno>
#include <cmath>
#include <cstring>
#include <exception>
#include <filesystem>
#include <stdexcept>

#include "analysis/Confidence.h"
#include "analysis/Format.h"
#include "analysis/TempoRange.h"
#include "fileanalysis/FileAnalysis.h"
#include "fileanalysis/ResultLine.h"
#include "system/OutputFile.h"

namespace velquin::fileModes {

namespace {

std::string lastPathComponent(const std::string& path) {
    std::filesystem::path p(path);
    while (!p.empty() && p.filename().empty() && p.has_parent_path() && p != p.parent_path())
        p = p.parent_path();  // "dir/" names "dir"
    const std::string name = p.filename().string();
    return name.empty() ? path : name;
}

void put(std::FILE* stream, const std::string& line) {
    std::fwrite(line.data(), 1, line.size(), stream);
    std::fputc('\n', stream);
}

// The result is the whole point of the run: a full disk or a closed stream must not pass for success.
void putResult(std::FILE* stream, const std::string& text) {
    errno = 0;
    const bool written = std::fwrite(text.data(), 1, text.size(), stream) == text.size();
    if (std::fflush(stream) == 0 && written) return;
    const int error = errno != 0 ? errno : EIO;
    std::clearerr(stream);
    throw std::runtime_error(std::string("could not write the result: ") + std::strerror(error));
}

// Runs one mode; a failure becomes the "Error:" line and exit code 1, with nothing on `out`.
template <typename Body>
int guarded(std::FILE* err, Body body) {
    try {
        body();
        return 0;
    } catch (const std::exception& error) {
        put(err, std::string("Error: ") + error.what());
        return 1;
    }
}

std::string shortKeyText(const KeyEstimate& key) {
    return key.shortText(false, KeyEstimate::RelativePreference::both).value_or("--");
}

}  // namespace

int analyze(const std::vector<std::string>& arguments, std::FILE* out, std::FILE* err, bool precise) {
    return guarded(err, [&] {
        const std::string& path = arguments.at(0);
        TempoRange range = TempoRange::Auto;
        if (arguments.size() > 1) range = tempoRangeFromTextName(arguments[1]).value_or(TempoRange::Auto);
        fileAnalysis::FileAnalysisOptions options;
        if (precise) options.analysis = fileAnalysis::Analysis::precise;
        const auto result = fileAnalysis::analyzeFile(path, range, options);
        putResult(out, resultLine(result.tempo, result.key) + "  " + lastPathComponent(path) + "\n");
    });
}

int timeline(const std::vector<std::string>& arguments, std::FILE* out, std::FILE* err) {
    return guarded(err, [&] {
        const std::string& path = arguments.at(0);
        const auto result = fileAnalysis::keyTimeline(path, 1.0);
        // Built whole before printing, so that a failure leaves standard output empty.
        std::string text;
        for (const auto& tick : result.ticks) {
            const std::string keyText = shortKeyText(tick.key);
            const std::string shown = tick.key.key && tick.key.confidence >= weakConfidence ? keyText : "-";
            const std::string bpm = tick.tempo.bpm > 0 ? format("%.1f", tick.tempo.bpm) : "-";
            text += format("%4.0f  %-5s %3.0f%%  shown:%s  bpm:%s %3.0f%%", tick.seconds, keyText,
                           tick.key.confidence * 100, shown, bpm, tick.tempo.confidence * 100);
            text += '\n';
        }
        const double confidence = std::trunc(result.final.confidence * 100);
        text += "FINAL " + shortKeyText(result.final) + " " +
                std::to_string(static_cast<long long>(confidence)) +
                "%  bpm:" + format("%.1f", result.finalTempo.bpm) +
                "  restarts:" + std::to_string(result.restarts) + "  " + lastPathComponent(path) + "\n";
        putResult(out, text);
    });
}

int chroma(const std::vector<std::string>& arguments, std::FILE* /*out*/, std::FILE* err) {
    return guarded(err, [&] {
        const std::string& input = arguments.at(0);
        const std::string& output = arguments.at(1);
        if (OutputFile::sameFile(input, output))
            throw OutputFileError(output, "it is the audio file being analysed");
        fileAnalysis::dumpChroma(input, output);
    });
}

}  // namespace velquin::fileModes
