// One QApplication on the offscreen platform, on a session bus of the tests' own.

#include <gtest/gtest.h>

#include <QApplication>
#include <cstdlib>

#include "PrivateSessionBus.h"

int main(int argc, char** argv) {
    setenv("QT_QPA_PLATFORM", "offscreen", 0);
    // The desktop's theme setting must never decide a test's outcome.
    unsetenv("VELMOR_THEME");
    QApplication application(argc, argv);
    QApplication::setQuitOnLastWindowClosed(false);

    // Set before the first use of the session bus, which reads the address once.
    vlm::test::PrivateSessionBus bus;
    if (bus.address().isEmpty())
        unsetenv("DBUS_SESSION_BUS_ADDRESS");
    else
        setenv("DBUS_SESSION_BUS_ADDRESS", bus.address().toUtf8().constData(), 1);

    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
