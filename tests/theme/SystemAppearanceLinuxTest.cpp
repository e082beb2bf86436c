#include "theme/linux/SystemAppearanceLinux.h"

#include <gtest/gtest.h>

#include <QApplication>
#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QDBusMessage>
#include <QDBusVariant>
#include <QThread>
#include <atomic>
#include <memory>

#include "ThemeTestSupport.h"
#include "theme/QCVTheme.h"

namespace {

using vlm::isDarkForeground;
using vlm::isDarkPalette;
using vlm::makeLinuxAppearance;
using vlm::test::ScopedEnv;
using vlm::test::waitUntil;

QPalette paletteWithForeground(const QColor& colour) {
    QPalette palette;
    palette.setColor(QPalette::WindowText, colour);
    return palette;
}

const QPalette kLightDesktop = paletteWithForeground(Qt::black);
const QPalette kDarkDesktop = paletteWithForeground(Qt::white);

TEST(DarkRule, LightForegroundMeansADarkDesktop) {
    EXPECT_TRUE(isDarkForeground(QColor(255, 255, 255)));
    EXPECT_FALSE(isDarkForeground(QColor(0, 0, 0)));
    // 5G + 2R + B: 1024 is still light, 1025 dark.
    EXPECT_FALSE(isDarkForeground(QColor(2, 204, 0)));
    EXPECT_TRUE(isDarkForeground(QColor(2, 204, 1)));
    // Green weighs most: full green alone is dark, full red and blue together are not.
    EXPECT_TRUE(isDarkForeground(QColor(0, 255, 0)));
    EXPECT_FALSE(isDarkForeground(QColor(255, 0, 255)));
}

TEST(DarkRule, AppliesToThePalettesWindowText) {
    EXPECT_TRUE(isDarkPalette(kDarkDesktop));
    EXPECT_FALSE(isDarkPalette(kLightDesktop));
    QPalette textOnly = kLightDesktop;
    textOnly.setColor(QPalette::Text, Qt::white);
    EXPECT_FALSE(isDarkPalette(textOnly));
}

TEST(LinuxAppearance, VelmorThemePicksTheMode) {
    {
        ScopedEnv env("VELMOR_THEME", "dark");
        EXPECT_TRUE(makeLinuxAppearance(kLightDesktop)->isDark());
    }
    {
        ScopedEnv env("VELMOR_THEME", "light");
        EXPECT_FALSE(makeLinuxAppearance(kDarkDesktop)->isDark());
    }
}

TEST(LinuxAppearance, WithoutSettingOrPortalFollowsThePlatformPalette) {
    ScopedEnv env("VELMOR_THEME", nullptr);
    EXPECT_TRUE(makeLinuxAppearance(kDarkDesktop)->isDark());
    EXPECT_FALSE(makeLinuxAppearance(kLightDesktop)->isDark());
    ScopedEnv other("VELMOR_THEME", "purple");
    EXPECT_TRUE(makeLinuxAppearance(kDarkDesktop)->isDark());
}

TEST(LinuxAppearance, TitleBarIsLeftAlone) {
    QWidget window;
    makeLinuxAppearance(kLightDesktop)->setDarkTitleBar(&window, true);
    EXPECT_FALSE(window.testAttribute(Qt::WA_WState_Created));
}

const char* const kPortalService = "org.freedesktop.portal.Desktop";
const char* const kPortalPath = "/org/freedesktop/portal/desktop";
const char* const kSettingsInterface = "org.freedesktop.portal.Settings";

/// \brief The portal's Settings interface, answering a colour scheme the test sets.
class FakeSettings : public QObject {
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.freedesktop.portal.Settings")
public:
    std::atomic<uint> scheme{0};

public slots:
    QDBusVariant Read(const QString& group, const QString& key) {
        ++reads;
        if (group == "org.freedesktop.appearance" && key == "color-scheme")
            return QDBusVariant(QVariant::fromValue(QDBusVariant(scheme.load())));
        return QDBusVariant(QString());
    }

public:
    std::atomic<int> reads{0};
};

/// \brief The desktop portal on the tests' private bus, served from its own thread so that
/// the GUI thread can call it blocking.
class FakePortal {
public:
    FakePortal()
        : connection_(QDBusConnection::connectToBus(
              QString::fromUtf8(qgetenv("DBUS_SESSION_BUS_ADDRESS")), "fake-portal")) {
        thread_.start();
        settings_.moveToThread(&thread_);
        if (!connection_.isConnected())
            return;
        connection_.registerObject(kPortalPath, &settings_, QDBusConnection::ExportAllSlots);
        registered_ = connection_.registerService(kPortalService);
    }
    ~FakePortal() {
        connection_.unregisterService(kPortalService);
        connection_.unregisterObject(kPortalPath);
        QDBusConnection::disconnectFromBus("fake-portal");
        thread_.quit();
        thread_.wait();
    }

    bool ready() const { return registered_; }
    FakeSettings& settings() { return settings_; }

    void announce(const QString& group, const QString& key, uint value) {
        QDBusMessage signal =
            QDBusMessage::createSignal(kPortalPath, kSettingsInterface, "SettingChanged");
        signal << group << key << QVariant::fromValue(QDBusVariant(value));
        connection_.send(signal);
    }

private:
    QDBusConnection connection_;
    QThread thread_;
    FakeSettings settings_;
    bool registered_ = false;
};

class Portal : public ::testing::Test {
protected:
    void SetUp() override {
        if (!QDBusConnection::sessionBus().isConnected())
            GTEST_SKIP() << "no private session bus (dbus-daemon missing)";
        ASSERT_TRUE(portal.ready());
    }
    ScopedEnv noSetting{"VELMOR_THEME", nullptr};
    FakePortal portal;
};

TEST_F(Portal, ColourSchemeDecidesBeforeThePalette) {
    portal.settings().scheme = 1;
    EXPECT_TRUE(makeLinuxAppearance(kLightDesktop)->isDark());
    portal.settings().scheme = 2;
    EXPECT_FALSE(makeLinuxAppearance(kDarkDesktop)->isDark());
    // No preference: the palette decides.
    portal.settings().scheme = 0;
    EXPECT_TRUE(makeLinuxAppearance(kDarkDesktop)->isDark());
    EXPECT_FALSE(makeLinuxAppearance(kLightDesktop)->isDark());
}

TEST_F(Portal, VelmorThemeOverridesThePortal) {
    portal.settings().scheme = 1;
    ScopedEnv env("VELMOR_THEME", "light");
    EXPECT_FALSE(makeLinuxAppearance(kLightDesktop)->isDark());
    EXPECT_EQ(portal.settings().reads, 0);
}

class Recorder : public vlm::QCVTheme::Listener {
public:
    void onThemeApplied(bool dark) override { modes.push_back(dark); }
    std::vector<bool> modes;
};

TEST_F(Portal, SettingChangedAppliesTheThemeAgain) {
    vlm::QCVTheme theme(makeLinuxAppearance(kLightDesktop));
    Recorder recorder;
    theme.addListener(&recorder);

    portal.announce("org.freedesktop.appearance", "accent-color", 0);
    portal.settings().scheme = 1;
    portal.announce("org.freedesktop.appearance", "color-scheme", 1);
    ASSERT_TRUE(waitUntil([&] { return !recorder.modes.empty(); }));
    EXPECT_EQ(recorder.modes, std::vector<bool>{true});
    EXPECT_EQ(QApplication::palette().color(QPalette::Window), QColor(0, 0, 0));

    portal.settings().scheme = 2;
    portal.announce("org.freedesktop.appearance", "color-scheme", 2);
    ASSERT_TRUE(waitUntil([&] { return recorder.modes.size() == 2; }));
    EXPECT_EQ(recorder.modes, (std::vector<bool>{true, false}));
}

TEST(PortalAbsent, FallsBackToThePaletteQuickly) {
    ScopedEnv env("VELMOR_THEME", nullptr);
    auto appearance = makeLinuxAppearance(kDarkDesktop);
    QElapsedTimer timer;
    timer.start();
    EXPECT_TRUE(appearance->isDark());
    EXPECT_TRUE(appearance->isDark());
    EXPECT_LT(timer.elapsed(), 1000);
}

}  // namespace

#include "SystemAppearanceLinuxTest.moc"
