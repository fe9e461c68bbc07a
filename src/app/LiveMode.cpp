#include "app/LiveMode.h"

#include <sndfile.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <QCoreApplication>
#include <QEventLoop>
#include <QSocketNotifier>
#include <QTimer>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <memory>
#include <mutex>
#include <optional>
#include <string_view>

#include "analysis/Format.h"
#include "app/Environment.h"
#include "capture/TempoService.h"
#include "system/OutputFile.h"

namespace velquin::liveMode {

namespace {

// Durations from 9.2e18 seconds up are refused: the duration is printed as a 64-bit integer, which
// holds at most about 9.22e18.
constexpr double longestDuration = 9.2e18;

// The recording's container and sample format, from its extension. FLAC holds integers only.
std::optional<int> recordingFormat(std::string_view path) {
    const auto dot = path.rfind('.');
    std::string extension = dot == std::string_view::npos ? "" : std::string(path.substr(dot + 1));
    for (char& c : extension) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    if (extension == "wav") return SF_FORMAT_WAV | SF_FORMAT_FLOAT;
    if (extension == "caf") return SF_FORMAT_CAF | SF_FORMAT_FLOAT;
    if (extension == "flac") return SF_FORMAT_FLAC | SF_FORMAT_PCM_24;
    return std::nullopt;
}

void warn(const std::string& path, const std::string& reason) {
    std::fprintf(stderr, "Warning: could not record to %s: %s\n", path.c_str(), reason.c_str());
}

// The recording: opened once capture runs (at its rate), written on the analysis thread, finished on
// the main thread once the service has stopped. A failure is reported once, at once, and ends the
// recording but not the run. The mutex keeps the finish from overlapping a write all the same.
class Recorder {
  public:
    Recorder(std::string path, int format) : path_(std::move(path)), format_(format) {}
    ~Recorder() { abandon(); }

    void open(double sampleRate) {
        std::lock_guard guard(mutex_);
        try {
            output_.emplace(path_);
        } catch (const OutputFileError& error) {
            return fail(error.reason());
        }
        SF_INFO info{};
        info.samplerate = static_cast<int>(std::lround(sampleRate));
        info.channels = 1;
        info.format = format_;
        file_ = sf_open_fd(output_->descriptor(), SFM_WRITE, &info, SF_FALSE);
        if (file_ == nullptr) return fail(sf_strerror(nullptr));
        // Integer containers: a sample past full scale clips instead of wrapping round.
        sf_command(file_, SFC_SET_CLIPPING, nullptr, SF_TRUE);
    }

    void write(const std::vector<float>& samples) {
        std::lock_guard guard(mutex_);
        if (file_ == nullptr) return;
        const auto count = static_cast<sf_count_t>(samples.size());
        errno = 0;
        if (sf_writef_float(file_, samples.data(), count) != count)
            fail(errno != 0 ? std::strerror(errno) : sf_strerror(file_));
    }

    // True when the recording is complete under its name.
    bool finish() {
        std::lock_guard guard(mutex_);
        if (file_ == nullptr) return false;
        const int closed = sf_close(file_);
        file_ = nullptr;
        if (closed != 0) {
            fail(sf_error_number(closed));
            return false;
        }
        try {
            output_->commit();
        } catch (const OutputFileError& error) {
            fail(error.reason());
            return false;
        }
        output_.reset();
        return true;
    }

  private:
    void fail(const std::string& reason) {
        warn(path_, reason);
        abandon();
    }
    void abandon() {
        if (file_ != nullptr) sf_close(file_);
        file_ = nullptr;
        output_.reset();  // removes the temporary file
    }

    const std::string path_;
    const int format_;
    std::mutex mutex_;
    std::optional<OutputFile> output_;
    SNDFILE* file_ = nullptr;
};

// Ctrl-C, SIGTERM and SIGHUP end the run like its deadline does. They are blocked before any thread
// starts (threads inherit the mask) and read from a signalfd in the event loop, so no work ever runs in
// a signal handler. A reader that goes away (`| head`) shows up as EPIPE on the next write.
class StopSignals {
  public:
    StopSignals() {
        sigemptyset(&set_);
        for (int signal : {SIGINT, SIGTERM, SIGHUP}) sigaddset(&set_, signal);
        pthread_sigmask(SIG_BLOCK, &set_, nullptr);
        std::signal(SIGPIPE, SIG_IGN);
        std::signal(SIGXFSZ, SIG_IGN);  // a file-size limit is a failed write, not the end of the run
        fd_ = signalfd(-1, &set_, SFD_NONBLOCK | SFD_CLOEXEC);
    }
    ~StopSignals() {
        if (fd_ >= 0) ::close(fd_);
    }
    StopSignals(const StopSignals&) = delete;
    StopSignals& operator=(const StopSignals&) = delete;

    int descriptor() const { return fd_; }
    // The signal that arrived, 0 if none.
    int take() {
        signalfd_siginfo info{};
        if (::read(fd_, &info, sizeof info) == sizeof info) received_ = static_cast<int>(info.ssi_signo);
        return received_;
    }
    int received() const { return received_; }

  private:
    sigset_t set_{};
    int fd_ = -1;
    int received_ = 0;
};

// Writes and flushes one piece of output; the errno of a failure, 0 on success.
int writeOut(const std::string& text) {
    errno = 0;
    const bool written = std::fwrite(text.data(), 1, text.size(), stdout) == text.size();
    if (std::fflush(stdout) == 0 && written) return 0;
    const int error = errno != 0 ? errno : EIO;
    std::clearerr(stdout);
    return error;
}

std::optional<double> durationFrom(const std::vector<std::string>& arguments) {
    double duration = 15.0;
    if (arguments.size() > 1) {
        if (auto parsed = environment::parseNumber(arguments[1].c_str())) duration = *parsed;
    }
    if (!(duration > 0) || !(duration < longestDuration)) return std::nullopt;  // also NaN
    return duration;
}

double secondsNow() {
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

}  // namespace

std::string readingLine(const TempoEstimate& tempo, const KeyEstimate& key) {
    const std::string tempoText = tempo.bpm > 0 ? format("%6.2f", tempo.bpm) : "  ----";
    const std::string keyText = key.key ? key.key->shortName() + " " + key.key->camelot() : "--";
    return format("%s BPM (%3.0f%%)   key %-8s (%3.0f%%)   level %.4f", tempoText, tempo.confidence * 100,
                  keyText, key.confidence * 100, tempo.level);
}

int run(int argc, char** argv, const std::vector<std::string>& arguments) {
    const AudioSourceKind kind = !arguments.empty() && arguments[0] == "mic" ? AudioSourceKind::microphone
                                                                             : AudioSourceKind::systemAudio;
    const std::optional<double> duration = durationFrom(arguments);
    if (!duration) {
        std::fprintf(stderr,
                     "Error: the duration must be a number of seconds above 0 and below 9.2e18, not %s\n",
                     arguments[1].c_str());
        return 1;
    }
    std::unique_ptr<Recorder> recorder;
    if (arguments.size() > 2) {
        const std::optional<int> container = recordingFormat(arguments[2]);
        if (!container) {
            std::fprintf(stderr, "Error: cannot record to %s: the name must end in .wav, .caf or .flac\n",
                         arguments[2].c_str());
            return 1;
        }
        recorder = std::make_unique<Recorder>(arguments[2], *container);
    }

    StopSignals stopSignals;  // before any thread exists
    QCoreApplication application(argc, argv);
    TempoService service;
    bool failed = false;
    int outputError = 0;
    if (recorder) {
        Recorder* r = recorder.get();
        service.onCapturedSamples = [r](const std::vector<float>& samples) { r->write(samples); };
    }
    service.onError = [&failed](const std::string& message) {
        std::fprintf(stderr, "FAILED: %s\n", message.c_str());
        failed = true;
    };
    // A wait (no output device, the server away or silent) is not a failure: the readings say nothing
    // meanwhile and the run goes on to its end. Standard error says why.
    service.onNotice = [](const std::string& notice) {
        if (!notice.empty()) std::fprintf(stderr, "%s\n", notice.c_str());
    };
    service.onProblem = [](const std::string& message) {
        std::fprintf(stderr, "Warning: %s Still waiting.\n", message.c_str());
    };
    service.onUpdate = [&outputError](const TempoEstimate& tempo, const KeyEstimate& key) {
        if (outputError == 0) outputError = writeOut(readingLine(tempo, key) + "\n");
    };

    outputError = writeOut("Listening to " + std::string(displayName(kind)) + " for " +
                           std::to_string(static_cast<long long>(*duration)) + "s…\n");
    service.start(kind);
    if (failed) return 1;
    if (recorder) recorder->open(service.captureSampleRate());

    QEventLoop loop;
    QSocketNotifier notifier(stopSignals.descriptor(), QSocketNotifier::Read);
    QObject::connect(&notifier, &QSocketNotifier::activated, &loop, [&] {
        stopSignals.take();
        loop.quit();
    });
    // Compared in seconds: a deadline years away must not overflow a clock's integer ticks.
    const double deadline = secondsNow() + *duration;
    while (!failed && outputError == 0 && stopSignals.received() == 0 && secondsNow() < deadline) {
        QTimer::singleShot(250, Qt::PreciseTimer, &loop, &QEventLoop::quit);
        loop.exec();
    }
    service.stop();
    if (recorder && recorder->finish() && !failed) writeOut("Recorded to " + arguments[2] + "\n");
    if (outputError != 0 && outputError != EPIPE) {
        std::fprintf(stderr, "Error: could not write the readings: %s\n", std::strerror(outputError));
        return 1;
    }
    if (failed) return 1;
    return stopSignals.received() != 0 ? 128 + stopSignals.received() : 0;
}

}  // namespace velquin::liveMode
