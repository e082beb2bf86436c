// The light/dark theme and the splash runner on real widgets, offscreen.

#include <gtest/gtest.h>

#include <QApplication>
#include <QElapsedTimer>
#include <QFile>
#include <QLabel>
#include <QMenuBar>
#include <QPointer>
#include <QStyle>
#include <QTimer>
#include <thread>

#include "theme/QCVSplashWindow.h"
#include "theme/QCVTheme.h"
#include "theme/linux/SystemAppearanceLinux.h"

namespace {

using vlm::QCVSplashWindow;
using vlm::QCVTheme;

/// \brief A desktop whose mode the test sets; it records title-bar calls and what it is told.
struct FakeAppearance : vlm::SystemAppearance, QCVTheme::Listener {
    bool isDark() override { return dark; }
    void setDarkTitleBar(QWidget* w, bool d) override { titleBars.emplace_back(w, d); }
    void watch(std::function<void()> callback) override { changed = std::move(callback); }
    void onThemeApplied(bool isDark) override { told.push_back(isDark); }
    std::atomic<bool> dark{false};
    std::vector<std::pair<QWidget*, bool>> titleBars;
    std::function<void()> changed;
    std::vector<bool> told;
};

// Faults: the mode decided wrongly (VELMOR_THEME, the 5G + 2R + B > 1024 rule on the desktop
// palette's text); a palette, style sheet, title bar or link colour of the other mode; a
// registered window's descendants left out; a destroyed window touched; a desktop change
// applied on its own thread instead of the GUI thread; a disabled menu bar item that looks
// enabled in the dark.
struct Mode {
    const char *name, *setting;  // setting: VELMOR_THEME, or none
    QColor foreground;
    bool dark;
};
class LightDark : public ::testing::TestWithParam<Mode> {};

TEST_P(LightDark, DecidedThenAppliedThroughout) {
    const Mode& m = GetParam();
    // No desktop portal answers: the setting or the palette decides.
    setenv("DBUS_SESSION_BUS_ADDRESS", "unix:path=/nonexistent", 1);
    if (m.setting)
        setenv("VELMOR_THEME", m.setting, 1);
    QPalette desktop;
    desktop.setColor(QPalette::WindowText, m.foreground);
    EXPECT_EQ(vlm::makeLinuxAppearance(desktop)->isDark(), m.dark);
    unsetenv("VELMOR_THEME");
    auto* appearance = new FakeAppearance;
    QCVTheme theme{std::unique_ptr<FakeAppearance>(appearance)};
    theme.addListener(appearance);
    QWidget window;
    auto* label = new QLabel("<a href=\"x\">A</a>", new QWidget(&window));
    theme.registerWindow(&window);
    theme.registerWindow(new QWidget);
    delete theme.registeredWindows().back();
    appearance->dark = m.dark;
    std::thread([&] { appearance->changed(); }).join();
    EXPECT_TRUE(appearance->told.empty());
    QCoreApplication::processEvents();
    EXPECT_EQ(appearance->told, std::vector<bool>{m.dark});
    // clang-format off
    const std::pair<QPalette::ColorRole, QColor> darkTable[] = {
        {QPalette::Window, Qt::black}, {QPalette::WindowText, Qt::white}, {QPalette::Base, QColor(25, 25, 25)},
        {QPalette::AlternateBase, QColor(50, 50, 50)}, {QPalette::ToolTipBase, Qt::black},
        {QPalette::ToolTipText, Qt::white}, {QPalette::Text, Qt::white}, {QPalette::Button, QColor(50, 50, 50)},
        {QPalette::ButtonText, Qt::white}, {QPalette::BrightText, Qt::red}, {QPalette::Link, QColor(42, 130, 218)},
        {QPalette::Highlight, QColor(42, 130, 218)}, {QPalette::HighlightedText, Qt::black}};
    // clang-format on
    const QPalette standard = QApplication::style()->standardPalette();
    for (const QPalette& palette : {QApplication::palette(), label->palette()})
        for (auto group : {QPalette::Active, QPalette::Disabled})
            for (const auto& [role, colour] : darkTable)
                EXPECT_EQ(palette.color(group, role), m.dark ? colour : standard.color(group, role))
                    << group << " " << role;
    QFile sheet(":/cv_dark_theme");
    ASSERT_TRUE(sheet.open(QIODevice::ReadOnly));
    EXPECT_EQ(qApp->styleSheet(), m.dark ? QString::fromUtf8(sheet.readAll())
                                         : QString("QPushButton QLineEdit QToolButton QComboBox "
                                                   "QScrollBar QToolTip QMenu QMenuBar"));
    EXPECT_EQ(appearance->titleBars, (std::vector<std::pair<QWidget*, bool>>{{&window, m.dark}}));
    EXPECT_EQ(label->text(), QString("<a href=\"x\" style=\"color: rgb(%1);\">A</a>")
                                 .arg(m.dark ? "42, 130, 218" : "0, 0, 255"));
    // A disabled menu bar item is grey in the dark, not white as an enabled one.
    QMenuBar bar;
    bar.addAction("Off")->setEnabled(false);
    bar.addAction("On");
    const QImage shot = bar.grab().toImage();
    int white[2] = {0, 0};
    for (int i : {0, 1})
        for (int y = 0; y < shot.height(); ++y)
            for (int x = 0; x < shot.width(); ++x)
                white[i] += bar.actionGeometry(bar.actions()[i]).contains(x, y) &&
                            qGray(shot.pixel(x, y)) > 200;
    EXPECT_EQ(white[0] == 0 && white[1] > 0, m.dark);
}

INSTANTIATE_TEST_SUITE_P(Modes, LightDark,
                         ::testing::Values(Mode{"SettingDark", "dark", Qt::black, true},
                                           Mode{"SettingLight", "light", Qt::white, false},
                                           Mode{"UnknownSettingFollowsDesktop", "purple", Qt::white,
                                                true},
                                           Mode{"At1024Light", nullptr, QColor(2, 204, 0), false},
                                           Mode{"At1025Dark", nullptr, QColor(2, 204, 1), true}),
                         [](const auto& info) { return std::string(info.param.name); });

// Fault: a link coloured other than by the rule: only the last link of a label gets the
// style, each application adds another, text without a complete link stays as it is.
TEST(LinkRecolouring, Table) {
    const QString a = "<a href=\"a\">A</a> and <a href=\"b\"",
                  dark = " style=\"color: rgb(42, 130, 218);\"";
    const std::pair<QString, QString> table[] = {{a + ">B</a>", a + dark + ">B</a>"},
                                                 {a + dark + ">B</a>", a + dark + dark + ">B</a>"},
                                                 {"plain text", "plain text"},
                                                 {"open <a href=x", "open <a href=x"}};
    auto* appearance = new FakeAppearance;
    appearance->dark = true;
    QCVTheme theme{std::unique_ptr<FakeAppearance>(appearance)};
    for (const auto& [text, expected] : table) {
        QLabel label(text);
        theme.resetQLabelLink(&label);
        EXPECT_EQ(label.text(), expected);
    }
    theme.resetQLabelLink(nullptr);
}

// Faults: the routine run on the GUI thread; texts set from the worker thread; the window not
// frameless, modal, scaled, titled; the result lost; the window closed by Escape under the
// running routine, or never released.
TEST(SplashRunner, RunsTheRoutineBesideAModalSplash) {
    QPointer<QCVSplashWindow::Instance> window;
    QStringList seen;
    auto routine = [&](QCVSplashWindow::IWindow* splash) {
        splash->showMessage("first");
        seen << QString::number(QThread::currentThread() != qApp->thread());
        QMetaObject::invokeMethod(
            qApp,
            [&] {
                window = dynamic_cast<QCVSplashWindow::Instance*>(splash);
                window->reject();
                seen << window->firstLine() << window->secondLine()
                     << QString("%1x%2").arg(window->width()).arg(window->height())
                     << QString::number(window->isModal() && window->isVisible() &&
                                        window->windowFlags().testFlag(Qt::FramelessWindowHint));
            },
            Qt::BlockingQueuedConnection);
        return 42;
    };
    seen << QString::number(
        QCVSplashWindow::run(nullptr, QSize(601, 250), nullptr, "Version 2", routine, 1.25f));
    // 601 x 1.25 = 751.25 and 250 x 1.25 = 312.5, truncated.
    EXPECT_EQ(seen, QStringList({"1", "first", "Version 2", "751x312", "1", "42"}));
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
    EXPECT_TRUE(window.isNull());
}

// Faults: "&Quit" during start-up lost (the application then runs on), or carried out while
// the routine still reports to a window already released.
TEST(SplashRunner, QuitDuringStartupEndsTheApplicationOnceStartupHasEnded) {
    std::atomic<bool> done{false};
    QTimer::singleShot(20, qApp, &QCoreApplication::quit);
    QCVSplashWindow::run(
        nullptr, QSize(600, 250), nullptr, "title",
        [&](QCVSplashWindow::IWindow* splash) {
            QThread::msleep(300);
            splash->showMessage("still starting");
            QThread::msleep(50);
            done = true;
            return 0;
        },
        1.0f);
    EXPECT_TRUE(done);
    QElapsedTimer ended;
    ended.start();
    QTimer stuck;
    QObject::connect(&stuck, &QTimer::timeout, [] { QCoreApplication::exit(1); });
    stuck.start(5000);
    EXPECT_EQ(QCoreApplication::exec(), 0);
    EXPECT_LT(ended.elapsed(), 1000);
}

}  // namespace
