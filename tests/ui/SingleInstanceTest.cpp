#include <gtest/gtest.h>

#include <QDir>
#include <QLocalServer>
#include <QTemporaryDir>

#include "UiTestSupport.h"
#include "ui/SingleInstance.h"

namespace velquin {
namespace {

TEST(SingleInstance, ASecondClaimAsksTheFirstToShowItself) {
    QTemporaryDir dir;
    const QString path = dir.filePath("velquin.socket");
    int shown = 0;
    SingleInstance first(path);
    first.onShowRequest = [&] { ++shown; };
    ASSERT_TRUE(first.claim());
    SingleInstance second(path);
    EXPECT_FALSE(second.claim());
    EXPECT_TRUE(test::waitUntil([&] { return shown == 1; }, 5000));

    // A socket file left by a program that is gone does not count.
    QTemporaryDir other;
    const QString stale = other.filePath("velquin.socket");
    {
        QLocalServer crashed;
        crashed.setSocketOptions(QLocalServer::UserAccessOption);
        ASSERT_TRUE(crashed.listen(stale));
        crashed.close();
    }
    SingleInstance third(stale);
    EXPECT_TRUE(third.claim());
}

}  // namespace
}  // namespace velquin
