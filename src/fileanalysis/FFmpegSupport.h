#pragma once
// Small FFmpeg helpers for the file reader: owners for its C objects, errors in words, and an in-memory
// input.

#include <cstdint>
#include <span>
#include <string>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/audio_fifo.h>
#include <libavutil/channel_layout.h>
#include <libavutil/mem.h>
#include <libswresample/swresample.h>
}

namespace velquin::ffmpeg {

// What went wrong, in words; FFmpeg's own text where there is nothing better to say.
std::string errorText(int code);

// "0:42", "61:05": where in the audio, as a player shows it.
std::string clockText(double seconds);

// Failures that mean the decoder itself is broken or out of memory, as opposed to bad input data.
bool isHardFailure(int code);

struct FormatCloser {
    void operator()(AVFormatContext* p) const { avformat_close_input(&p); }
};
struct CodecFreer {
    void operator()(AVCodecContext* p) const { avcodec_free_context(&p); }
};
struct FrameFreer {
    void operator()(AVFrame* p) const { av_frame_free(&p); }
};
struct PacketFreer {
    void operator()(AVPacket* p) const { av_packet_free(&p); }
};
struct SwrFreer {
    void operator()(SwrContext* p) const { swr_free(&p); }
};
struct FifoFreer {
    void operator()(AVAudioFifo* p) const { av_audio_fifo_free(p); }
};
struct IOFreer {
    void operator()(AVIOContext* p) const {
        av_freep(&p->buffer);
        avio_context_free(&p);
    }
};

// AVChannelLayout owns memory for custom orders; this frees it on every path.
struct Layout {
    AVChannelLayout value{};
    Layout() = default;
    Layout(const Layout&) = delete;
    Layout& operator=(const Layout&) = delete;
    ~Layout() { av_channel_layout_uninit(&value); }
};

// Bytes in memory as an AVIOContext's source.
struct MemorySource {
    std::span<const std::uint8_t> bytes;
    int64_t position = 0;

    static int read(void* opaque, uint8_t* buffer, int size);
    static int64_t seek(void* opaque, int64_t offset, int whence);
};

// An in-memory input must not reach out to other files or the network (playlists, references in
// containers): every nested open is refused.
int refuseNestedOpen(AVFormatContext*, AVIOContext**, const char*, int, AVDictionary**);

// FFmpeg's own log lines would land on the user's terminal; errors reach them in words instead.
void quietLibrary();

}  // namespace velquin::ffmpeg
