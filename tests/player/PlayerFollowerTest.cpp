#include <gtest/gtest.h>

#include <QCoreApplication>
#include <QDBusConnection>
#include <QElapsedTimer>
#include <QFile>
#include <QTimer>
#include <QUrl>
#include <atomic>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <thread>
#include <vector>

#include "ScriptedPlayer.h"
#include "player/PlayerFollower.h"
#include "support/TestSupport.h"

using namespace velquin;
using test::ScriptedPlayer;

namespace {

// Long enough for a Debug build under ThreadSanitizer on a busy machine.
bool waitFor(const std::function<bool()>& done, int ms = 60000) {
    QElapsedTimer clock;
    clock.start();
    while (!done()) {
        if (clock.elapsed() > ms) return false;
        QCoreApplication::processEvents(QEventLoop::AllEvents, 5);
    }
    return true;
}

// Generated once: an A-minor song at 128 BPM and a C-major one at 96, as WAV files.
const test::TempDir& files() {
    static test::TempDir dir;
    static bool made = false;
    if (!made) {
        made = true;
        auto a = test::clickTrain(128, 44100, 16);
        test::mixInto(
            a, test::progression({{57, 60, 64}, {62, 65, 69}, {57, 60, 64}, {64, 68, 71}}, 44100, 16), 0.5f);
        test::writeWav(dir / "a minor.wav", {a}, 44100);
        auto b = test::clickTrain(96, 44100, 16);
        test::mixInto(
            b, test::progression({{60, 64, 67}, {65, 69, 72}, {67, 71, 74}, {60, 64, 67}}, 44100, 16), 0.5f);
        test::writeWav(dir / "b.wav", {b}, 44100);
        std::filesystem::copy_file(dir / "a minor.wav", dir / "c.wav");
        std::ofstream(dir / "empty.wav").flush();
        std::ofstream(dir / "notes.txt") << "not audio\n";
        std::filesystem::create_directory(dir / "folder");
    }
    return dir;
}

QString url(const std::string& name) {
    return QUrl::fromLocalFile(QString::fromStdString((files() / name).string()))
        .toString(QUrl::FullyEncoded);
}

// Counts whole-file analyses and how many ran at once.
struct Rig {
    std::atomic<int> analyses{0}, running{0}, mostAtOnce{0}, onInterfaceThread{0};
    QStringList log;
    std::unique_ptr<PlayerFollower> follower;

    const std::thread::id interfaceThread = std::this_thread::get_id();

    explicit Rig(std::shared_ptr<TrackCache> cache = std::make_shared<MemoryTrackCache>()) {
        static int serial = 0;
        auto bus =
            QDBusConnection::connectToBus(test::privateBusAddress(), QString("follower-%1").arg(++serial));
        follower = std::make_unique<PlayerFollower>(
            bus, cache,
            [this](auto& path, TempoRange range, const fileAnalysis::FileAnalysisOptions& options) {
                ++analyses;
                if (std::this_thread::get_id() == interfaceThread) ++onInterfaceThread;
                const int now = ++running;
                for (int seen = mostAtOnce; now > seen && !mostAtOnce.compare_exchange_weak(seen, now);) {
                }
                // Counted down also when the analysis stops early on request, by throwing.
                struct Done {
                    std::atomic<int>& running;
                    ~Done() { --running; }
                } done{running};
                return fileAnalysis::analyzeFile(path, range, options);
            });
        follower->onLog = [this](const QString& line) { log << line; };
        follower->start();
    }
    // "Am 128", or "live" when the live reading shows.
    QString text() const {
        const auto& r = follower->reading();
        if (!r) return "live";
        return QString::fromStdString(
                   r->key.shortText(false, KeyEstimate::RelativePreference::both).value_or("-")) +
               " " + QString::number(r->tempo.bpm, 'f', 0);
    }
    bool shows(const QString& expected) {
        return waitFor([&] { return text() == expected; });
    }
    bool sees(size_t players) {
        return waitFor([&] { return follower->watcher().players().size() == players; });
    }
};

}  // namespace

TEST(PlayerFollow, ShowsThePlayingFileUntilThePlayerStops) {
    const auto cache = std::make_shared<MemoryTrackCache>();
    ScriptedPlayer player(test::privateBusAddress(), "one");
    Rig rig(cache);
    ASSERT_TRUE(rig.sees(1));
    const auto set = [&](const QVariantMap& changed) { return [&player, changed] { player.set(changed); }; };
    struct Step {
        const char* what;
        std::function<void()> act;
        QString text, line;
        int analyses;
    } steps[] = {
        {"track A", [&] { player.play(url("a minor.wav"), "Song A", "Artist"); }, "Am 128",
         "Playing: Artist \u2014 Song A", 1},
        {"track B", [&] { player.play(url("b.wav"), "Song B"); }, "C 96", "Playing: Song B", 2},
        {"A again, cached", [&] { player.play(url("a minor.wav")); }, "Am 128", "Playing: a minor.wav", 2},
        {"rate", set({{"Rate", 1.05}}), "Am 134", "Playing: a minor.wav", 2},
        {"rate 0 ignored", set({{"Rate", 0.0}}), "Am 134", "Playing: a minor.wav", 2},
        {"pause", set({{"PlaybackStatus", "Paused"}}), "live", "", 2},
        {"resume", set({{"PlaybackStatus", "Playing"}}), "Am 134", "Playing: a minor.wav", 2},
        {"http", [&] { player.play("http://example.org/a.mp3"); }, "live", "", 2},
        {"file again", [&] { player.play(url("a minor.wav")); }, "Am 134", "Playing: a minor.wav", 2},
        {"follow off", [&] { rig.follower->setEnabled(false); }, "live", "", 2},
        {"follow on", [&] { rig.follower->setEnabled(true); }, "Am 134", "Playing: a minor.wav", 2},
        {"player gone", [&] { player.crash(); }, "live", "", 2},
    };
    for (const auto& step : steps) {
        SCOPED_TRACE(step.what);
        step.act();
        ASSERT_TRUE(rig.shows(step.text)) << rig.text().toStdString();
        EXPECT_EQ(rig.follower->reading() ? rig.follower->reading()->line : "", step.line);
        EXPECT_EQ(rig.analyses, step.analyses);
    }
    // A later session with the same cache reads nothing again.
    ScriptedPlayer again(test::privateBusAddress(), "again");
    Rig next(cache);
    again.play(url("b.wav"));
    EXPECT_TRUE(next.shows("C 96"));
    EXPECT_EQ(next.analyses, 0);
    EXPECT_TRUE(rig.log.isEmpty() && next.log.isEmpty());
}

TEST(PlayerFollow, FollowsThePlayerThatStartedLast) {
    ScriptedPlayer first(test::privateBusAddress(), "first"), second(test::privateBusAddress(), "second");
    Rig rig;
    ASSERT_TRUE(rig.sees(2));
    first.play(url("a minor.wav"));
    EXPECT_TRUE(rig.shows("Am 128"));
    second.play(url("b.wav"));
    EXPECT_TRUE(rig.shows("C 96"));
    second.set({{"PlaybackStatus", "Stopped"}});
    EXPECT_TRUE(rig.shows("Am 128"));
    first.set({{"PlaybackStatus", "Paused"}});
    EXPECT_TRUE(rig.shows("live"));
}

// Each bad track replaces a good one: the live reading returns, and a file that cannot be read is
// logged once however often the player repeats it.
TEST(PlayerFollow, MalformedTracksLeaveTheLiveReading) {
    ScriptedPlayer player(test::privateBusAddress(), "odd");
    Rig rig;
    ASSERT_TRUE(rig.sees(1));
    const struct {
        const char* what;
        QVariant metadata;
        int logLines;
    } cases[] = {
        {"metadata not a map", "oops", 0},
        {"url not a string", QVariantMap{{"xesam:url", 42}}, 0},
        {"no url", QVariantMap{{"xesam:title", "x"}}, 0},
        {"folder", ScriptedPlayer::metadata(url("folder")), 1},
        {"device", ScriptedPlayer::metadata("file:///dev/zero"), 1},
        {"null device", ScriptedPlayer::metadata("file:///dev/null"), 1},
        {"empty file", ScriptedPlayer::metadata(url("empty.wav")), 1},
        {"missing file", ScriptedPlayer::metadata(url("absent.wav")), 1},
        {"not audio", ScriptedPlayer::metadata(url("notes.txt")), 1},
        // Not on this machine, though the same path is.
        {"another host's file",
         ScriptedPlayer::metadata("file://elsewhere" + QUrl(url("a minor.wav")).path(QUrl::FullyEncoded)), 0},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        player.play(url("a minor.wav"));
        ASSERT_TRUE(rig.shows("Am 128"));
        const qsizetype logged = rig.log.size();
        for (int i = 0; i < 5; ++i) player.set({{"Metadata", c.metadata}, {"PlaybackStatus", "Playing"}});
        EXPECT_TRUE(rig.shows("live"));
        waitFor([&] { return rig.log.size() > logged; }, c.logLines ? 60000 : 100);
        EXPECT_EQ(rig.log.size() - logged, c.logLines) << rig.log.join('\n').toStdString();
    }
    EXPECT_TRUE(rig.log.filter("empty.wav: empty file").size() == 1) << rig.log.join('\n').toStdString();
    // Wrong types for the words: the file is still read, named by its file name.
    QVariantMap odd = ScriptedPlayer::metadata(url("b.wav"));
    odd["xesam:title"] = QStringList{"list"};
    odd["xesam:artist"] = 7;
    player.set({{"Metadata", odd}});
    ASSERT_TRUE(rig.shows("C 96"));
    EXPECT_EQ(rig.follower->reading()->line, "Playing: b.wav");
}

// A read deaf to its cancellation (one long decoder call, say) finishes after its track was replaced: its
// result must not pass for the new track's.
TEST(PlayerFollow, AReadFinishingAfterItsTrackChangedIsNeverShown) {
    ScriptedPlayer player(test::privateBusAddress(), "late");
    std::atomic<bool> started{false}, release{false};
    PlayerFollower follower(
        QDBusConnection::connectToBus(test::privateBusAddress(), "follower-late"), nullptr,
        [&](const std::string& path, TempoRange, const fileAnalysis::FileAnalysisOptions&) {
            FileResult result;
            result.tempo = {96, 0.9, 0.1};
            if (path.ends_with("a minor.wav")) {
                started = true;
                while (!release) std::this_thread::sleep_for(std::chrono::milliseconds(2));
                result.tempo.bpm = 128;
            } else {
                // Long enough for the old read's outcome to be taken before this one replaces it.
                std::this_thread::sleep_for(std::chrono::milliseconds(300));
            }
            return result;
        });
    std::vector<double> shown;
    follower.onReading = [&](const std::optional<PlayerReading>& reading) {
        if (reading) shown.push_back(reading->tempo.bpm);
    };
    follower.start();
    ASSERT_TRUE(waitFor([&] { return follower.watcher().players().size() == 1; }));
    player.play(url("a minor.wav"));
    ASSERT_TRUE(waitFor([&] { return started.load(); }));
    player.play(url("b.wav"));
    waitFor([] { return false; }, 300);
    EXPECT_FALSE(follower.reading()) << "the new track is read after the old one's read returns";
    release = true;
    ASSERT_TRUE(waitFor([&] { return !shown.empty(); }));
    waitFor([] { return false; }, 200);  // anything late would show by now
    EXPECT_EQ(shown, std::vector<double>{96});
}

// 100 changes a second for a second, then a crash in the middle of an uncached read: the interface
// thread keeps its pace, one analysis at most runs at a time, and the worker is gone with the follower.
TEST(PlayerFollow, FloodAndCrashNeitherBlockNorLeaveWorkBehind) {
    auto player = std::make_unique<ScriptedPlayer>(test::privateBusAddress(), "flood");
    auto rig = std::make_unique<Rig>();
    ASSERT_TRUE(rig->sees(1));
    const QString tracks[] = {url("a minor.wav"), url("b.wav"), "http://example.org/x", url("folder")};
    int sent = 0;
    qint64 longestGap = 0;
    QElapsedTimer gap;
    gap.start();
    QTimer flood;
    QObject::connect(&flood, &QTimer::timeout, [&] {
        longestGap = std::max(longestGap, gap.restart());
        if (sent % 7 == 3) {
            player->set({{"PlaybackStatus", "Paused"}});
        } else {
            player->play(tracks[sent % 4]);
        }
        ++sent;
    });
    flood.start(10);
    waitFor([&] { return sent >= 100; });
    flood.stop();
    // No analysis ran on this thread; the pace is only a check for a hang (a call waiting on the bus,
    // say): under the race detector on a loaded two-core machine, the analysis threads can hold both
    // cores for most of a second.
    EXPECT_EQ(rig->onInterfaceThread, 0);
    EXPECT_LT(longestGap, 1500);
    player->play(url("c.wav"));
    ASSERT_TRUE(waitFor([&] { return rig->running > 0; }));
    player->crash();
    EXPECT_TRUE(rig->shows("live"));
    EXPECT_EQ(rig->mostAtOnce, 1);
    rig->follower.reset();  // joins the worker, mid-analysis or not
    EXPECT_EQ(rig->running, 0);
}
