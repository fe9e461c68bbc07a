// Time from a player's PropertiesChanged to the follower's new reading, over a private session bus.
//   player_bench FILE…   (each file once uncached, then each again from the cache; medians in ms)
//   player_bench --serve URL SECONDS   (a player on the session bus playing URL, nothing measured)
#include <QCoreApplication>
#include <QDBusConnection>
#include <QElapsedTimer>
#include <QTimer>
#include <QUrl>
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <string>
#include <vector>

#include "ScriptedPlayer.h"
#include "player/LibraryTrackCache.h"
#include "player/PlayerFollower.h"

using namespace velquin;

namespace {

// Of the whole process, in ms: on a busy machine the wall time says more about the neighbours.
double cpuMs() {
    timespec t{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &t);
    return t.tv_sec * 1e3 + t.tv_nsec / 1e6;
}

double median(std::vector<double> v) {
    std::sort(v.begin(), v.end());
    const size_t n = v.size();
    return n % 2 ? v[n / 2] : (v[n / 2 - 1] + v[n / 2]) / 2;
}

}  // namespace

int main(int argc, char** argv) {
    QCoreApplication app(argc, argv);
    // --serve URL SECONDS: a player on the session bus that plays URL, for driving the desktop by hand.
    if (argc == 4 && std::string(argv[1]) == "--serve") {
        test::ScriptedPlayer player(qEnvironmentVariable("DBUS_SESSION_BUS_ADDRESS"), "scripted");
        player.play(QString::fromLocal8Bit(argv[2]), "Song A", "Scripted Artist");
        QTimer::singleShot(std::atoi(argv[3]) * 1000, &app, &QCoreApplication::quit);
        return app.exec();
    }
    if (argc < 2) {
        std::fprintf(stderr, "usage: %s FILE…\n", argv[0]);
        return 2;
    }
    const QString address = test::privateBusAddress();
    test::ScriptedPlayer player(address, "bench");
    // The desktop's cache on disk (bench/player.sh points XDG_CACHE_HOME at an empty folder).
    PlayerFollower follower(QDBusConnection::connectToBus(address, "follower"),
                            std::make_shared<LibraryTrackCache>());
    QElapsedTimer clock;
    qint64 sentAt = 0;
    double took = -1, cpuAtSend = 0, cpu = 0;
    std::string waitingFor;
    follower.onReading = [&](const std::optional<PlayerReading>& reading) {
        if (reading && reading->path == waitingFor) {
            took = (clock.nsecsElapsed() - sentAt) / 1e6;
            cpu = cpuMs() - cpuAtSend;
        }
    };
    follower.start();
    clock.start();
    while (follower.watcher().players().empty()) QCoreApplication::processEvents(QEventLoop::AllEvents, 5);

    for (const char* pass : {"uncached", "cached"}) {
        std::vector<double> times, cpuTimes;
        for (int i = 1; i < argc; ++i) {
            waitingFor = argv[i];
            took = -1;
            cpuAtSend = cpuMs();
            sentAt = clock.nsecsElapsed();
            player.play(QUrl::fromLocalFile(QString::fromLocal8Bit(argv[i])).toString(QUrl::FullyEncoded));
            while (took < 0 && clock.nsecsElapsed() - sentAt < 30'000'000'000) {
                QCoreApplication::processEvents(QEventLoop::AllEvents, 1);
            }
            if (took < 0) {
                std::fprintf(stderr, "no reading for %s\n", argv[i]);
                return 1;
            }
            times.push_back(took);
            cpuTimes.push_back(cpu);
        }
        std::printf("%s: median %.1f ms over %zu track changes (min %.1f, max %.1f); CPU median %.1f ms\n",
                    pass, median(times), times.size(), *std::min_element(times.begin(), times.end()),
                    *std::max_element(times.begin(), times.end()), median(cpuTimes));
    }
    return 0;
}
