#pragma once
// Capture for the application tests (tests/ui, tests/panel): starts, or fails with `failure`, and never
// delivers a sample, so every reading comes from the test.

#include <optional>
#include <string>

#include "capture/AudioSource.h"

namespace velquin::test {

class SilentSource : public AudioSource {
  public:
    explicit SilentSource(std::optional<std::string> failure = std::nullopt) : failure_(std::move(failure)) {}
    double sampleRate() const override { return 48000; }
    void start() override {
        if (failure_) throw AudioSourceError::engineFailed(*failure_);
    }
    void stop() override {}

  private:
    std::optional<std::string> failure_;
};

}  // namespace velquin::test
