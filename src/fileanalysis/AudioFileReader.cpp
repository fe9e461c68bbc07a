// Decoding over FFmpeg: demux, decode the first audio stream, convert whatever sample format the
// decoder gives to planar float (same rate, same channels), and queue it so each read returns full chunks.

#include "fileanalysis/AudioFileReader.h"

#include "fileanalysis/FFmpegSupport.h"

#include <sys/stat.h>
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <mutex>
#include <optional>
#include <utility>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/audio_fifo.h>
#include <libavutil/channel_layout.h>
#include <libavutil/error.h>
#include <libavutil/mem.h>
#include <libswresample/swresample.h>
}

namespace velquin {

namespace {

using namespace ffmpeg;

// swresample handles at most this many channels; a file claiming more is damaged or not for listening.
constexpr int maximumChannels = 64;

// Steps (packets read, frames asked for) without a decoded frame or a consumed packet before we give up on a
// decoder that keeps answering "try again".
constexpr int maximumStalls = 1000;

// Failed demuxer reads or decoder calls in a row, with no audio between them, that make a stretch of damage
// rather than an isolated bad packet (which is skipped, as players do). A file cut short fails once or twice.
constexpr int maximumFailuresInARow = 16;
// Audio the timestamps say is missing, in seconds, before the gap counts as damage: a parser that resyncs
// past garbage silently drops what was there.
constexpr double maximumMissingSeconds = 1.0;

constexpr int ioBufferSize = 64 * 1024;

// With nothing it recognises, FFmpeg tries the demuxer the name suggests, and that one gives up on
// foreign bytes with EINVAL ("Invalid argument"), which says nothing about the file.
int unreadable(int code) {
    return code == AVERROR(EINVAL) ? AVERROR_INVALIDDATA : code;
}

}  // namespace

struct AudioFileReader::State {
    std::string name;  // starts every message; empty for bytes in memory

    // Declared in this order so the format context closes before the I/O it reads from goes away.
    MemorySource memory;
    std::unique_ptr<AVIOContext, IOFreer> io;
    std::unique_ptr<AVFormatContext, FormatCloser> format;
    std::unique_ptr<AVCodecContext, CodecFreer> decoder;
    std::unique_ptr<AVPacket, PacketFreer> packet;
    std::unique_ptr<AVFrame, FrameFreer> frame;
    std::unique_ptr<SwrContext, SwrFreer> converter;
    std::unique_ptr<AVAudioFifo, FifoFreer> fifo;
    int streamIndex = -1;

    int rate = 0;
    int channels = 0;
    bool configured = false;  // rate and channels fixed by the first decoded frame (or the container)

    // The input the converter was set up for; a change mid-stream rebuilds it.
    int converterFormat = AV_SAMPLE_FMT_NONE;
    int converterChannels = 0;

    bool havePacket = false;  // `packet` holds data the decoder has not yet taken
    bool flushed = false;
    bool finished = false;
    int64_t skipped = 0;  // packets or frames dropped as undecodable
    int failuresInARow = 0;
    int64_t framesQueued = 0;
    std::optional<double> timestampOffset;  // first frame's timestamp minus its position, seconds

    [[noreturn]] void fail(int code) const { fail(errorText(code)); }
    [[noreturn]] void fail(const std::string& reason) const {
        throw AudioFileError(name.empty() ? reason : name + ": " + reason);
    }

    // One more bad packet or frame; a stretch of them is damage, not noise.
    void skip() {
        ++skipped;
        if (++failuresInARow >= maximumFailuresInARow) failDamaged();
    }
    [[noreturn]] void failDamaged() const {
        fail("damaged audio data at " + clockText(double(framesQueued) / (rate > 0 ? rate : 1)));
    }

    std::vector<float> scratch;  // converter output, planar
    std::vector<uint8_t*> scratchPlanes;
    std::vector<float> output;  // chunkFrames per channel, planar
    std::vector<void*> outputPlanes;

    void openPath(const std::string& path) {
        const std::string last = std::filesystem::path(path).filename().string();
        name = last.empty() ? path : last;
        struct stat info {};
        if (::stat(path.c_str(), &info) != 0) fail(AVERROR(errno));
        if (S_ISDIR(info.st_mode)) fail(AVERROR(EISDIR));
        // A pipe or a device could block forever or never end.
        if (!S_ISREG(info.st_mode)) fail("not a regular file");
        if (info.st_size == 0) fail("the file is empty");
        AVDictionary* options = nullptr;
        av_dict_set(&options, "protocol_whitelist", "file", 0);
        AVFormatContext* raw = nullptr;
        // The "file:" prefix keeps a name with a colon in it from being read as a protocol.
        const int r = avformat_open_input(&raw, ("file:" + path).c_str(), nullptr, &options);
        av_dict_free(&options);
        if (r < 0) fail(unreadable(r));
        format.reset(raw);
    }

    void openMemory(std::span<const std::uint8_t> bytes) {
        memory.bytes = bytes;
        auto* buffer = static_cast<unsigned char*>(av_malloc(ioBufferSize));
        if (buffer == nullptr) fail(AVERROR(ENOMEM));
        AVIOContext* ctx = avio_alloc_context(buffer, ioBufferSize, 0, &memory, &MemorySource::read, nullptr,
                                              &MemorySource::seek);
        if (ctx == nullptr) {
            av_free(buffer);
            fail(AVERROR(ENOMEM));
        }
        io.reset(ctx);
        AVFormatContext* raw = avformat_alloc_context();
        if (raw == nullptr) fail(AVERROR(ENOMEM));
        raw->pb = io.get();
        raw->flags |= AVFMT_FLAG_CUSTOM_IO;
        raw->io_open = &refuseNestedOpen;
        const int r = avformat_open_input(&raw, nullptr, nullptr, nullptr);  // frees `raw` on failure
        if (r < 0) fail(unreadable(r));
        format.reset(raw);
    }

    void openDecoder() {
        int r = avformat_find_stream_info(format.get(), nullptr);
        if (r < 0) fail(unreadable(r));

        // The first audio stream, as a player would pick it in a movie with several.
        const AVCodec* codec = nullptr;
        bool sawAudio = false;
        for (unsigned i = 0; i < format->nb_streams && streamIndex < 0; ++i) {
            const AVCodecParameters* par = format->streams[i]->codecpar;
            if (par->codec_type != AVMEDIA_TYPE_AUDIO) continue;
            sawAudio = true;
            codec = avcodec_find_decoder(par->codec_id);
            if (codec != nullptr) streamIndex = static_cast<int>(i);
        }
        if (!sawAudio) fail(AVERROR_STREAM_NOT_FOUND);
        if (streamIndex < 0) fail("FFmpeg has no decoder for the file's audio");
        for (unsigned i = 0; i < format->nb_streams; ++i)
            if (static_cast<int>(i) != streamIndex) format->streams[i]->discard = AVDISCARD_ALL;

        AVStream* stream = format->streams[streamIndex];
        decoder.reset(avcodec_alloc_context3(codec));
        if (!decoder) fail(AVERROR(ENOMEM));
        r = avcodec_parameters_to_context(decoder.get(), stream->codecpar);
        if (r < 0) fail(r);
        decoder->pkt_timebase = stream->time_base;
        // Planar float is what the analyzers read: a decoder that can give it directly spares the converter.
        decoder->request_sample_fmt = AV_SAMPLE_FMT_FLTP;
        // Codecs that can decode on several threads do (the same samples, sooner); the rest ignore it.
        if ((codec->capabilities & (AV_CODEC_CAP_FRAME_THREADS | AV_CODEC_CAP_SLICE_THREADS)) != 0) {
            decoder->thread_count = 0;  // one per core
            decoder->thread_type = FF_THREAD_FRAME | FF_THREAD_SLICE;
        }
        r = avcodec_open2(decoder.get(), codec, nullptr);
        if (r < 0) fail(r);

        packet.reset(av_packet_alloc());
        frame.reset(av_frame_alloc());
        if (!packet || !frame) fail(AVERROR(ENOMEM));

        // The first decoded frame is authoritative for rate and channels; the container's numbers are
        // only a fallback for a stream that yields no audio at all.
        pump();
        if (!configured) configure(stream->codecpar->sample_rate, stream->codecpar->ch_layout.nb_channels);
    }

    void configure(int sampleRate, int channelCount) {
        if (sampleRate <= 0) fail("the file has no valid sample rate");
        if (sampleRate > maximumSampleRate)
            fail("unsupported sample rate (" + std::to_string(sampleRate) + " Hz)");
        if (channelCount <= 0) fail("the file has no audio channels");
        if (channelCount > maximumChannels)
            fail("unsupported channel count (" + std::to_string(channelCount) + ")");
        rate = sampleRate;
        channels = channelCount;
        configured = true;
        fifo.reset(av_audio_fifo_alloc(AV_SAMPLE_FMT_FLTP, channels, static_cast<int>(2 * chunkFrames)));
        if (!fifo) fail(AVERROR(ENOMEM));
        output.assign(static_cast<size_t>(channels * chunkFrames), 0.0f);
        outputPlanes.resize(static_cast<size_t>(channels));
        for (int k = 0; k < channels; ++k) outputPlanes[size_t(k)] = output.data() + k * chunkFrames;
        scratchPlanes.resize(static_cast<size_t>(channels));
    }

    // Decodes until one frame has been queued; false once the stream is exhausted.
    bool pump() {
        int stalls = 0;
        while (!finished) {
            if (++stalls > maximumStalls) fail("the decoder stopped making progress");
            int r = avcodec_receive_frame(decoder.get(), frame.get());
            if (r == 0) {
                const bool queued = queue();
                av_frame_unref(frame.get());
                if (queued) return true;
                stalls = 0;
                continue;
            }
            if (r == AVERROR_EOF) {
                finished = true;
                break;
            }
            if (r != AVERROR(EAGAIN)) {
                // A frame that would not decode is skipped, as players do.
                if (isHardFailure(r)) fail(r);
                skip();
            }
            if (flushed) {
                // Drained after the flush but no end reported: nothing more can come.
                finished = true;
                break;
            }
            if (!havePacket && !readPacket()) {
                r = avcodec_send_packet(decoder.get(), nullptr);
                if (r < 0 && isHardFailure(r)) fail(r);
                flushed = true;
                continue;
            }
            r = avcodec_send_packet(decoder.get(), packet.get());
            if (r == AVERROR(EAGAIN)) continue;  // it has frames to give first; the packet stays
            av_packet_unref(packet.get());
            havePacket = false;
            stalls = 0;
            if (r < 0) {
                if (isHardFailure(r)) fail(r);
                skip();
            }
        }
        return false;
    }

    // Reads the next packet of our stream into `packet`; false at the end of the input.
    bool readPacket() {
        for (;;) {
            const int r = av_read_frame(format.get(), packet.get());
            if (r == AVERROR_EOF) return false;
            if (r == AVERROR_INVALIDDATA || r == AVERROR(EAGAIN)) {
                skip();
                continue;
            }
            if (r < 0) fail("could not read the file (" + errorText(r) + ")");
            if (packet->stream_index == streamIndex) {
                havePacket = true;
                return true;
            }
            av_packet_unref(packet.get());
        }
    }

    // Converts the decoded frame to planar float and appends it to the FIFO; false if it was dropped.
    bool queue() {
        const AVFrame* f = frame.get();
        const int n = f->nb_samples;
        const int frameChannels = f->ch_layout.nb_channels;
        if (n <= 0 || f->extended_data == nullptr || f->sample_rate <= 0 || frameChannels <= 0) return false;
        if (!configured) {
            if (frameChannels > maximumChannels) {
                ++skipped;
                return false;
            }
            configure(f->sample_rate, frameChannels);
        }
        // Never resampled or remixed: audio in another shape than the start's is dropped like a bad packet.
        if (f->sample_rate != rate || frameChannels != channels) {
            ++skipped;
            return false;
        }

        void* const* planes = reinterpret_cast<void* const*>(f->extended_data);
        int frames = n;
        if (f->format != AV_SAMPLE_FMT_FLTP) {
            frames = convert(*f);
            if (frames <= 0) return false;
            planes = reinterpret_cast<void* const*>(scratchPlanes.data());
        }
        checkTimestamp(*f);
        if (av_audio_fifo_write(fifo.get(), const_cast<void**>(planes), frames) < frames)
            fail(AVERROR(ENOMEM));
        framesQueued += frames;
        failuresInARow = 0;
        return true;
    }

    // Audio after a jump in the timestamps: the stretch before it was lost to damage.
    void checkTimestamp(const AVFrame& f) {
        if (f.best_effort_timestamp == AV_NOPTS_VALUE) return;
        const double at = double(f.best_effort_timestamp) * av_q2d(format->streams[streamIndex]->time_base);
        const double offset = at - double(framesQueued) / rate;
        if (!timestampOffset) timestampOffset = offset;
        if (offset - *timestampOffset > maximumMissingSeconds) failDamaged();
    }

    int convert(const AVFrame& f) {
        if (!converter || converterFormat != f.format || converterChannels != channels) {
            converter.reset();
            // Same default layout on both sides: swresample then only converts the sample format and
            // leaves every channel where it was, whatever order the file declared.
            Layout layout;
            av_channel_layout_default(&layout.value, channels);
            SwrContext* raw = nullptr;
            int r = swr_alloc_set_opts2(&raw, &layout.value, AV_SAMPLE_FMT_FLTP, rate, &layout.value,
                                        static_cast<AVSampleFormat>(f.format), rate, 0, nullptr);
            if (r < 0) {
                swr_free(&raw);
                ++skipped;
                return 0;
            }
            converter.reset(raw);
            r = swr_init(converter.get());
            if (r < 0) {
                converter.reset();
                ++skipped;
                return 0;
            }
            converterFormat = f.format;
            converterChannels = channels;
        }
        const int capacity = swr_get_out_samples(converter.get(), f.nb_samples);
        if (capacity <= 0) return 0;
        const auto needed = static_cast<size_t>(capacity) * static_cast<size_t>(channels);
        if (scratch.size() < needed) scratch.resize(needed);  // grows to the largest frame, then stays
        for (int k = 0; k < channels; ++k)
            scratchPlanes[size_t(k)] =
                reinterpret_cast<uint8_t*>(scratch.data() + size_t(k) * size_t(capacity));
        const int r = swr_convert(converter.get(), scratchPlanes.data(), capacity,
                                  const_cast<const uint8_t**>(f.extended_data), f.nb_samples);
        if (r < 0) {
            ++skipped;
            return 0;
        }
        return r;
    }
};

AudioFileReader::AudioFileReader(const std::string& path) : state_(std::make_unique<State>()) {
    quietLibrary();
    state_->openPath(path);
    state_->openDecoder();
}

AudioFileReader::AudioFileReader(std::unique_ptr<State> state) : state_(std::move(state)) {}

AudioFileReader AudioFileReader::fromMemory(std::span<const std::uint8_t> bytes) {
    quietLibrary();
    auto state = std::make_unique<State>();
    state->openMemory(bytes);
    state->openDecoder();
    return AudioFileReader(std::move(state));
}

AudioFileReader::~AudioFileReader() = default;

double AudioFileReader::sampleRate() const {
    return state_->rate;
}

int AudioFileReader::channelCount() const {
    return state_->channels;
}

double AudioFileReader::durationSeconds() const {
    const AVFormatContext* f = state_->format.get();
    if (f->duration == AV_NOPTS_VALUE || f->duration <= 0) return 0;
    return static_cast<double>(f->duration) / AV_TIME_BASE;
}

int64_t AudioFileReader::read(int64_t maxFrames) {
    State& s = *state_;
    const int want = static_cast<int>(std::clamp<int64_t>(maxFrames, 0, chunkFrames));
    while (av_audio_fifo_size(s.fifo.get()) < want && s.pump()) {
    }
    const int n = std::min(want, av_audio_fifo_size(s.fifo.get()));
    if (n <= 0) return 0;
    if (av_audio_fifo_read(s.fifo.get(), s.outputPlanes.data(), n) != n)
        s.fail("could not read decoded audio");
    // A broken float file can hold NaN or infinities; the analyzers would carry them forever, so they
    // leave here as silence.
    for (int k = 0; k < s.channels; ++k) {
        float* samples = s.output.data() + k * chunkFrames;
        for (int i = 0; i < n; ++i)
            if (!std::isfinite(samples[i])) samples[i] = 0.0f;
    }
    return n;
}

void AudioFileReader::mixToMono(int64_t frames, float* mono) const {
    const auto n = static_cast<size_t>(frames);
    std::fill_n(mono, n, 0.0f);
    const int count = channelCount();
    for (int k = 0; k < count; ++k) {
        const float* samples = channel(k);
        for (size_t i = 0; i < n; ++i) mono[i] += samples[i];
    }
    if (count > 1) {
        const float scale = 1.0f / static_cast<float>(count);
        for (size_t i = 0; i < n; ++i) mono[i] *= scale;
    }
}

const float* AudioFileReader::channel(int k) const {
    if (k < 0 || k >= state_->channels) return nullptr;
    return state_->output.data() + k * chunkFrames;
}

}  // namespace velquin
