#include <gtest/gtest.h>

#include "scan/ScanOptions.h"

namespace velquin::scan {
namespace {

TEST(ScanOptions, ParsesOrNamesTheUsageError) {
    const auto ok = parseOptions({"--jobs=3", "--range", "fast", "--format", "json", "--write-tags",
                                  "--key-notation", "camelot", "--analysis=precise", "--", "--odd-name.mp3"},
                                 2, true);
    ASSERT_TRUE(ok.options) << ok.error;
    EXPECT_EQ(ok.options->jobs, 3);
    EXPECT_EQ(ok.options->range, TempoRange::fast);
    EXPECT_EQ(ok.options->format, OutputFormat::json);
    EXPECT_TRUE(ok.options->writeTags && ok.options->camelotTags);
    EXPECT_EQ(ok.options->analysis, fileAnalysis::Analysis::precise);
    EXPECT_EQ(parseOptions({"x"}, 2, false).options->analysis, fileAnalysis::Analysis::specified);
    EXPECT_EQ(ok.options->paths, std::vector<std::string>{"--odd-name.mp3"});
    EXPECT_EQ(parseOptions({"x"}, 2, false).options->format, OutputFormat::csv);
    EXPECT_TRUE(parseOptions({"--version"}, 2, false).options->version) << "needs no path";
    for (const auto& bad : std::vector<std::vector<std::string>>{{},
                                                                 {"--jobs", "0", "x"},
                                                                 {"--jobs"},
                                                                 {"--range", "Fast", "x"},
                                                                 {"--format", "xml", "x"},
                                                                 {"--analysis", "Precise", "x"},
                                                                 {"--key-notation", "open", "x"},
                                                                 {"--frobnicate", "x"},
                                                                 {"--force=1", "x"}})
        EXPECT_FALSE(parseOptions(bad, 2, true).options) << (bad.empty() ? "" : bad[0]);
}

}  // namespace
}  // namespace velquin::scan
