#include "LiveMode.h"

#include <sndfile.h>

#include <QCoreApplication>
#include <QEventLoop>
#include <QTimer>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <memory>
#include <mutex>
#include <string_view>

#include "Environment.h"
#include "Format.h"
#include "TempoService.h"

namespace velquin::LiveMode {

namespace {

int containerFor(std::string_view path) {
    const auto dot = path.rfind('.');
    std::string extension = dot == std::string_view::npos ? "" : std::string(path.substr(dot + 1));
    for (char& c : extension) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    if (extension == "caf") return SF_FORMAT_CAF;
    if (extension == "aiff" || extension == "aif") return SF_FORMAT_AIFF;
    return SF_FORMAT_WAV;
}

// The recording: opened on the first batch (at the rate capture really runs at), written on the
// analysis thread, closed on the main thread once the service has stopped. The mutex keeps the
// close from overlapping a write all the same.
class Recorder {
public:
    explicit Recorder(std::string path) : path_(std::move(path)) {}
    ~Recorder() { close(); }

    void write(const std::vector<float>& samples, double sampleRate) {
        std::lock_guard guard(mutex_);
        if (closed_) return;
        if (file_ == nullptr) {
            SF_INFO info{};
            info.samplerate = static_cast<int>(std::lround(sampleRate));
            info.channels = 1;
            info.format = containerFor(path_) | SF_FORMAT_FLOAT;
            file_ = sf_open(path_.c_str(), SFM_WRITE, &info);  // on failure the next batch tries again
            if (file_ == nullptr) return;
        }
        // A failed write does not stop the run.
        (void)sf_writef_float(file_, samples.data(), static_cast<sf_count_t>(samples.size()));
    }

    void close() {
        std::lock_guard guard(mutex_);
        closed_ = true;
        if (file_ != nullptr) sf_close(file_);
        file_ = nullptr;
    }

private:
    std::string path_;
    std::mutex mutex_;
    SNDFILE* file_ = nullptr;
    bool closed_ = false;
};

}  // namespace

std::string readingLine(const TempoEstimate& tempo, const KeyEstimate& key) {
    const std::string tempoText = tempo.bpm > 0 ? format("%6.2f", tempo.bpm) : "  ----";
    const std::string keyText = key.key ? key.key->shortName() + " " + key.key->camelot() : "--";
    return format("%@ BPM (%3.0f%%)   key %-8@ (%3.0f%%)   level %.4f", tempoText, tempo.confidence * 100, keyText,
                  key.confidence * 100, tempo.level);
}

int run(int argc, char** argv, const std::vector<std::string>& arguments) {
    const AudioSourceKind kind =
        !arguments.empty() && arguments[0] == "mic" ? AudioSourceKind::microphone : AudioSourceKind::systemAudio;
    double duration = 15.0;
    if (arguments.size() > 1) {
        if (auto parsed = Environment::parseNumber(arguments[1].c_str())) duration = *parsed;
    }
    // Printed as an integer and added to a clock: anything else cannot be honoured.
    if (!std::isfinite(duration) || std::fabs(duration) >= 9.2e18) {
        std::fprintf(stderr, "Error: the duration must be a finite number of seconds, not %s\n", arguments[1].c_str());
        return 1;
    }

    QCoreApplication application(argc, argv);
    TempoService service;
    bool failed = false;
    std::unique_ptr<Recorder> recorder;
    if (arguments.size() > 2) {
        recorder = std::make_unique<Recorder>(arguments[2]);
        Recorder* r = recorder.get();
        TempoService* s = &service;
        service.onCapturedSamples = [r, s](const std::vector<float>& samples) {
            r->write(samples, s->captureSampleRate());
        };
    }
    service.onError = [&failed](const std::string& message) {
        std::fprintf(stderr, "FAILED: %s\n", message.c_str());
        failed = true;
    };
    service.onUpdate = [](const TempoEstimate& tempo, const KeyEstimate& key) {
        const std::string line = readingLine(tempo, key) + "\n";
        std::fwrite(line.data(), 1, line.size(), stdout);
        std::fflush(stdout);
    };

    std::printf("Listening to %s for %lld%s\n", std::string(displayName(kind)).c_str(),
                static_cast<long long>(duration), "s…");
    std::fflush(stdout);
    service.start(kind);
    if (failed) return 1;

    using Clock = std::chrono::steady_clock;
    const auto deadline = Clock::now() + std::chrono::duration_cast<Clock::duration>(
                                             std::chrono::duration<double>(std::max(duration, 0.0)));
    while (!failed && Clock::now() < deadline) {
        QEventLoop loop;
        QTimer::singleShot(250, Qt::PreciseTimer, &loop, &QEventLoop::quit);
        loop.exec();
    }
    service.stop();
    if (recorder) recorder->close();
    if (recorder && !failed) std::printf("Recorded to %s\n", arguments[2].c_str());
    std::fflush(stdout);
    return failed ? 1 : 0;
}

}  // namespace velquin::LiveMode
