// The PulseAudio sources' mixing and their failures when no sound server is reachable. Capture from a
// real server is covered by the e2e test (tests/e2e).
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "MicrophoneSource.h"
#include "SystemAudioSource.h"
#include "TestSupport.h"

namespace velquin {
namespace {

struct Delivery {
    std::vector<std::vector<float>> blocks;
    std::vector<const float*> pointers;
    void attach(AudioSource& source) {
        source.onSamples = [this](const float* samples, int64_t count) {
            blocks.emplace_back(samples, samples + count);
            pointers.push_back(samples);
        };
    }
};

TEST(PulseMix, SystemAudioAveragesInterleavedFramesAndDropsPartialOnes) {
    SystemAudioSource source;
    Delivery got;
    got.attach(source);

    const std::vector<float> stereo{1.0f, 0.0f, 1.0f, 0.0f, 0.25f, 0.75f};
    source.handle(stereo.data(), stereo.size() * sizeof(float), 2);
    ASSERT_EQ(got.blocks.size(), 1u);
    EXPECT_EQ(got.blocks[0], (std::vector<float>{0.5f, 0.5f, 0.5f}));

    // 6 bytes with 2 channels is not one whole frame; a stray byte after whole frames is ignored.
    source.handle(stereo.data(), 6, 2);
    source.handle(stereo.data(), 0, 2);
    source.handle(nullptr, 64, 2);
    source.handle(stereo.data(), 64, 0);
    EXPECT_EQ(got.blocks.size(), 1u);
    source.handle(stereo.data(), 2 * 2 * sizeof(float) + 3, 2);
    ASSERT_EQ(got.blocks.size(), 2u);
    EXPECT_EQ(got.blocks[1].size(), 2u);

    // Mono passes unchanged; three channels are the plain average.
    const std::vector<float> mono{0.1f, -0.2f, 0.3f};
    source.handle(mono.data(), mono.size() * sizeof(float), 1);
    EXPECT_EQ(got.blocks[2], mono);
    const std::vector<float> three{0.3f, 0.6f, 0.9f, -3.0f, 0.0f, 0.0f};
    source.handle(three.data(), three.size() * sizeof(float), 3);
    ASSERT_EQ(got.blocks[3].size(), 2u);
    EXPECT_FLOAT_EQ(got.blocks[3][0], 0.6f);
    EXPECT_FLOAT_EQ(got.blocks[3][1], -1.0f);
}

TEST(PulseMix, MixBufferGrowsForLargerBlocksAndDeliversOnlyTheBlock) {
    for (const bool microphone : {false, true}) {
        SCOPED_TRACE(microphone ? "microphone" : "system audio");
        SystemAudioSource system;
        MicrophoneSource mic;
        AudioSource& source = microphone ? static_cast<AudioSource&>(mic) : system;
        const auto feed = [&](const std::vector<float>& interleaved, unsigned channels) {
            const size_t frames = interleaved.size() / channels;
            if (microphone)
                mic.handle(interleaved.data(), frames, channels);
            else
                system.handle(interleaved.data(), interleaved.size() * sizeof(float), channels);
        };
        Delivery got;
        got.attach(source);

        std::vector<float> small(2 * 2048), large(2 * 4096, 0.5f), tail(2 * 1024);
        for (size_t i = 0; i < small.size(); i += 2) small[i] = 1.0f;  // left 1, right 0
        for (size_t i = 0; i < tail.size(); ++i) tail[i] = -1.0f;
        feed(small, 2);
        feed(small, 2);
        feed(large, 2);
        feed(tail, 2);
        ASSERT_EQ(got.blocks.size(), 4u);
        EXPECT_EQ(got.blocks[0], std::vector<float>(2048, 0.5f));
        EXPECT_EQ(got.pointers[0], got.pointers[1]) << "the buffer is reused";
        EXPECT_EQ(got.blocks[2], std::vector<float>(4096, 0.5f));
        EXPECT_EQ(got.blocks[3], std::vector<float>(1024, -1.0f))
            << "nothing left over from the larger block";
        EXPECT_EQ(got.pointers[2], got.pointers[3]);

        // An empty block is skipped, and so is everything when nobody listens.
        feed({}, 2);
        EXPECT_EQ(got.blocks.size(), 4u);
        source.onSamples = nullptr;
        feed(small, 2);
    }
}

// The description of the error start() throws.
std::string startError(AudioSource& source) {
    try {
        source.start();
    } catch (const AudioSourceError& error) {
        EXPECT_EQ(error.errorCase(), AudioSourceError::Case::serverUnreachable);
        EXPECT_EQ(error.status(), PA_ERR_CONNECTIONREFUSED);
        return error.description();
    }
    ADD_FAILURE() << "start() succeeded without a server";
    return {};
}

TEST(PulseSources, StartWithoutServerFailsCleanlyWithTheUsersText) {
    const test::ScopedEnv noServer("PULSE_SERVER", "unix:/nonexistent/velquin-no-such-socket");
    SystemAudioSource system;
    MicrophoneSource mic;
    system.stop();  // before a start: harmless
    mic.stop();
    EXPECT_EQ(startError(system),
              "Could not tap system audio (error 6). Check that PulseAudio, or PipeWire's PulseAudio "
              "service, is running (pactl info) and that the default output has a monitor (pactl list "
              "short sources), then restart Velquin.");
    system.stop();
    // Nothing is left half-built: a second attempt fails the same way.
    EXPECT_THROW(system.start(), AudioSourceError);

    EXPECT_EQ(startError(mic),
              "Could not reach the sound server for the microphone (error 6). Check that PulseAudio, or "
              "PipeWire's PulseAudio service, is running (pactl info), then restart Velquin.");
    mic.stop();
}

}  // namespace
}  // namespace velquin
