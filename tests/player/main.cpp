// The follower needs an event loop and a bus: a QCoreApplication, and a private session bus (started on
// first use) so that no desktop's players take part.
#include <gtest/gtest.h>

#include <QCoreApplication>

int main(int argc, char** argv) {
    QCoreApplication app(argc, argv);
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
