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
    EXPECT_EQ(mode({"--analyze"}), Dispatch::Mode::panel);  // too few arguments falls through
    EXPECT_EQ(mode({"--chroma", "a.wav"}), Dispatch::Mode::panel);
    EXPECT_EQ(mode({"-h", "a.wav", "b"}), Dispatch::Mode::help);
    EXPECT_EQ(mode({"--Analyze", "a.wav"}), Dispatch::Mode::panel);  // switches are case-sensitive
    EXPECT_EQ(mode({"bogus", "a", "b"}), Dispatch::Mode::panel);
    EXPECT_EQ(Dispatch::from({"v", "--analyze", "a.wav", "slow"}).arguments,
              (std::vector<std::string>{"a.wav", "slow"}));
}
