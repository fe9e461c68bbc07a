#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "app/Dispatch.h"

using velquin::Dispatch;

TEST(Dispatch, FixedOrderOfTests) {
    const auto mode = [](std::vector<std::string> args) {
        args.insert(args.begin(), "velquin");
        return Dispatch::from(args).mode;
    };
    // Every mode itself runs in the conformance and e2e suites; these are the edges.
    EXPECT_EQ(mode({"--analyze"}), Dispatch::Mode::menuBar);  // too few arguments falls through
    EXPECT_EQ(mode({"--chroma", "a.wav"}), Dispatch::Mode::menuBar);
    EXPECT_EQ(mode({"-h", "a.wav", "b"}), Dispatch::Mode::help);
    EXPECT_EQ(mode({"--Analyze", "a.wav"}), Dispatch::Mode::menuBar);  // switches are case-sensitive
    EXPECT_EQ(mode({"bogus", "a", "b"}), Dispatch::Mode::menuBar);
    EXPECT_EQ(Dispatch::from({"v", "--analyze", "a.wav", "slow"}).arguments,
              (std::vector<std::string>{"a.wav", "slow"}));
}
