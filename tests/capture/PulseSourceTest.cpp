// The PulseAudio sources' mono mix and their failures when no sound server is reachable. Capture from
// a real server is covered by the e2e test (tests/e2e).
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "capture/MicrophoneSource.h"
#include "capture/PulseConnection.h"
#include "capture/SystemAudioSource.h"
#include "support/TestSupport.h"

namespace velquin {
namespace {

// The mix both sources put between their stream and onSamples.
TEST(PulseMix, AveragesFramesIntoOneReusedBufferAndFillsHolesWithSilence) {
    pulse::MonoMixer mixer;
    std::vector<std::vector<float>> blocks;
    std::vector<const float*> pointers;
    const pulse::MonoMixer::Deliver deliver = [&](const float* samples, int64_t count) {
        blocks.emplace_back(samples, samples + count);
        pointers.push_back(samples);
    };
    const auto mix = [&](const std::vector<float>& interleaved, unsigned channels) {
        mixer.mix(interleaved.data(), interleaved.size() / channels, channels, deliver);
    };
    // Mono passes unchanged; more channels are the plain average.
    mix({1.0f, 0.0f, 1.0f, 0.0f, 0.25f, 0.75f}, 2);
    mix({0.1f, -0.2f, 0.3f}, 1);
    mix({0.3f, 0.6f, 0.9f, -3.0f, 0.0f, 0.0f}, 3);
    ASSERT_EQ(blocks.size(), 3u);
    EXPECT_EQ(blocks[0], (std::vector<float>{0.5f, 0.5f, 0.5f}));
    EXPECT_EQ(blocks[1], (std::vector<float>{0.1f, -0.2f, 0.3f}));
    ASSERT_EQ(blocks[2].size(), 2u);
    EXPECT_FLOAT_EQ(blocks[2][0], 0.6f);
    EXPECT_FLOAT_EQ(blocks[2][1], -1.0f);

    // Empty blocks, null data and zero channels are skipped.
    mix({}, 2);
    mixer.mix(nullptr, 64, 2, deliver);
    mixer.mix(blocks[0].data(), 1, 0, deliver);
    EXPECT_EQ(blocks.size(), 3u);

    // The buffer grows for a larger block only; a later, shorter block or hole leaves nothing of it.
    mix(std::vector<float>(2 * 4096, 0.5f), 2);
    mix(std::vector<float>(2 * 1024, -1.0f), 2);
    mixer.silence(512, deliver);
    ASSERT_EQ(blocks.size(), 6u);
    EXPECT_EQ(blocks[3], std::vector<float>(4096, 0.5f));
    EXPECT_EQ(blocks[4], std::vector<float>(1024, -1.0f));
    EXPECT_EQ(blocks[5], std::vector<float>(512, 0.0f));
    EXPECT_EQ(pointers[3], pointers[4]) << "the buffer is reused";
    EXPECT_EQ(pointers[4], pointers[5]);
    mixer.mix(blocks[0].data(), 3, 1, nullptr);  // nobody listens: nothing happens
}

// The description of the error start() throws.
std::string startError(AudioSource& source) {
    try {
        source.start();
    } catch (const AudioSourceError& error) {
        return error.what();
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
