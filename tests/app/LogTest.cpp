// The diagnostic log: where it lives, what a line looks like, and that lines survive threads and a
// deleted file.
#include <gtest/gtest.h>

#include <sys/stat.h>

#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <optional>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "app/Log.h"
#include "support/TestSupport.h"
#include "system/XdgPaths.h"

namespace velquin {
namespace {

const std::string timeStamp = R"(\d{4}-\d{2}-\d{2} \d{2}:\d{2}:\d{2}\.\d{3})";

std::vector<std::string> lines(const std::filesystem::path& file) {
    return test::lines(test::readText(file));
}

TEST(Log, FolderIsInTheUsersStateFolderEvenWithoutHome) {
    std::optional<test::ScopedEnv> state(std::in_place, "XDG_STATE_HOME", "/x/state");
    EXPECT_EQ(diagnosticLog::folder(), std::filesystem::path("/x/state/Velquin"));
    // No HOME: the passwd entry's home, never a folder under "/".
    state.emplace("XDG_STATE_HOME", std::nullopt);
    const test::ScopedEnv home("HOME", std::nullopt);
    const std::filesystem::path folder = diagnosticLog::folder();
    EXPECT_EQ(folder, xdg::userHome() / ".local/state/Velquin");
    EXPECT_NE(folder.string().rfind("/.local", 0), 0u) << folder;
}

TEST(Log, LinesAppendInCallOrderAndSurviveADeletedFile) {
    test::TempDir dir;
    const auto file = dir / "Velquin.log";
    LogWriter log(file);

    log.write("shelf: show");
    log.flush();
    EXPECT_TRUE(std::regex_match(test::readText(file), std::regex(timeStamp + " shelf: show\n")));

    log.write("two\nlines");
    // Two writers at once: every line whole, each writer's lines in its own order.
    constexpr int perThread = 200;
    std::vector<std::thread> writers;
    for (char name : {'a', 'b'})
        writers.emplace_back([&log, name] {
            for (int i = 0; i < perThread; ++i) log.write(std::string(1, name) + std::to_string(i));
        });
    for (auto& t : writers) t.join();
    log.flush();
    const auto got = lines(file);
    ASSERT_EQ(got.size(), 3u + 2 * perThread);
    EXPECT_TRUE(std::regex_match(got[1], std::regex(timeStamp + " two")));
    EXPECT_EQ(got[2], "lines") << "a line feed in a message is not escaped";
    int next[2] = {0, 0};
    for (size_t i = 3; i < got.size(); ++i) {
        std::smatch m;
        ASSERT_TRUE(std::regex_match(got[i], m, std::regex(timeStamp + " ([ab])(\\d+)"))) << got[i];
        const int who = m[1] == "a" ? 0 : 1;
        EXPECT_EQ(std::stoi(m[2]), next[who]++);
    }

    std::filesystem::remove(file);
    log.write("shelf: hide");
    log.flush();
    EXPECT_TRUE(std::regex_match(test::readText(file), std::regex(timeStamp + " shelf: hide\n")));
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(dir.path()), {}), 1) << "no temporary left";
}

TEST(Log, FailuresAreIgnored) {
    test::TempDir dir;
    for (const auto& file : {dir / "gone" / "Velquin.log", std::filesystem::path()}) {
        LogWriter log(file);  // a missing folder, or logging switched off
        log.write("nowhere to go");
        log.flush();
    }
    EXPECT_FALSE(std::filesystem::exists(dir / "gone"));
}

// The process-wide log picks its folder once, on first use, so it is checked in a fresh process.
TEST(LogDeathTest, ProcessLogCreatesItsPrivateFolderUnderXdgStateHome) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    test::TempDir dir;
    const auto state = dir / "state";
    EXPECT_EXIT(
        {
            setenv("XDG_STATE_HOME", state.c_str(), 1);
            diagnosticLog::write("launch");
            diagnosticLog::flush();
            const auto file = state / "Velquin" / "Velquin.log";
            struct stat info {};
            const bool ok = diagnosticLog::file() == file &&
                            ::stat((state / "Velquin").c_str(), &info) == 0 &&
                            (info.st_mode & 0777) == 0700 &&
                            std::regex_match(test::readText(file), std::regex(timeStamp + " launch\n"));
            std::exit(ok ? 0 : 1);
        },
        ::testing::ExitedWithCode(0), "");
}

}  // namespace
}  // namespace velquin
