#include "theme/QCVTheme.h"

#include <gtest/gtest.h>

#include <QApplication>
#include <QFile>
#include <QLabel>
#include <QMetaMethod>
#include <QPushButton>
#include <QStyle>
#include <QThread>
#include <QVBoxLayout>
#include <memory>
#include <thread>

#include "ThemeTestSupport.h"

namespace {

using vlm::QCVTheme;
using vlm::test::FakeAppearance;
using vlm::test::waitUntil;

class Recorder : public QCVTheme::Listener {
public:
    void onThemeApplied(bool dark) override {
        modes.push_back(dark);
        threads.push_back(QThread::currentThread());
        applicationWindowColour = QApplication::palette().color(QPalette::Window);
    }
    std::vector<bool> modes;
    std::vector<QThread*> threads;
    QColor applicationWindowColour;
};

class Theme : public ::testing::Test {
protected:
    Theme() {
        auto fake = std::make_unique<FakeAppearance>();
        appearance = fake.get();
        theme = std::make_unique<QCVTheme>(std::move(fake));
    }
    void apply(bool dark) {
        appearance->dark = dark;
        theme->applyTheme();
    }
    static QString darkStyleSheet() {
        QFile file(":/cv_dark_theme");
        return file.open(QIODevice::ReadOnly) ? QString::fromUtf8(file.readAll()) : QString();
    }

    FakeAppearance* appearance = nullptr;
    std::unique_ptr<QCVTheme> theme;
};

const QString kLink = "<a href=\"http://a\">A</a>";
const QString kTwoLinks = "See <a href=\"http://a\">A</a> and <a href=\"http://b\">B</a>.";
const char* const kDarkStyle = " style=\"color: rgb(42, 130, 218);\"";
const char* const kLightStyle = " style=\"color: rgb(0, 0, 255);\"";

TEST_F(Theme, DarkPaletteSetsEveryTableRoleInEveryGroup) {
    const std::pair<QPalette::ColorRole, QColor> table[] = {
        {QPalette::Window, QColor(0, 0, 0)},
        {QPalette::WindowText, QColor(255, 255, 255)},
        {QPalette::Base, QColor(25, 25, 25)},
        {QPalette::AlternateBase, QColor(50, 50, 50)},
        {QPalette::ToolTipBase, QColor(0, 0, 0)},
        {QPalette::ToolTipText, QColor(255, 255, 255)},
        {QPalette::Text, QColor(255, 255, 255)},
        {QPalette::Button, QColor(50, 50, 50)},
        {QPalette::ButtonText, QColor(255, 255, 255)},
        {QPalette::BrightText, QColor(255, 0, 0)},
        {QPalette::Link, QColor(42, 130, 218)},
        {QPalette::Highlight, QColor(42, 130, 218)},
        {QPalette::HighlightedText, QColor(0, 0, 0)},
    };
    const QPalette& dark = theme->darkPalette();
    for (QPalette::ColorGroup group : {QPalette::Active, QPalette::Inactive, QPalette::Disabled}) {
        for (const auto& [role, colour] : table) {
            SCOPED_TRACE(testing::Message() << "group " << group << " role " << role);
            EXPECT_EQ(dark.brush(group, role).color(), colour);
            EXPECT_EQ(dark.brush(group, role).style(), Qt::SolidPattern);
        }
    }
}

TEST_F(Theme, LightPaletteIsTheStylesStandardPalette) {
    EXPECT_EQ(theme->lightPalette(), QApplication::style()->standardPalette());
}

TEST_F(Theme, DarkModeSetsTheDarkPaletteAndStyleSheet) {
    apply(true);
    EXPECT_EQ(QApplication::palette().color(QPalette::Window), QColor(0, 0, 0));
    EXPECT_EQ(QApplication::palette().color(QPalette::Link), QColor(42, 130, 218));
    const QString sheet = darkStyleSheet();
    ASSERT_FALSE(sheet.isEmpty());
    EXPECT_EQ(qApp->styleSheet(), sheet);
}

TEST_F(Theme, LightModeSetsTheLightPaletteAndResetsTheStyleSheet) {
    apply(true);
    apply(false);
    EXPECT_EQ(QApplication::palette().color(QPalette::Window),
              theme->lightPalette().color(QPalette::Window));
    EXPECT_EQ(qApp->styleSheet(),
              "QPushButton QLineEdit QToolButton QComboBox QScrollBar QToolTip QMenu QMenuBar");
}

TEST_F(Theme, RegisteredWindowIsThemedAtTheNextApplicationThroughout) {
    QWidget window;
    auto* layout = new QVBoxLayout(&window);
    auto* frame = new QWidget;
    auto* inner = new QVBoxLayout(frame);
    auto* label = new QLabel(kLink);
    inner->addWidget(label);
    auto* button = new QPushButton("OK");
    layout->addWidget(frame);
    layout->addWidget(button);

    theme->registerWindow(&window);
    EXPECT_FALSE(window.testAttribute(Qt::WA_SetPalette));
    EXPECT_EQ(label->text(), kLink);

    apply(true);
    for (QWidget* widget :
         {&window, frame, static_cast<QWidget*>(label), static_cast<QWidget*>(button)}) {
        EXPECT_TRUE(widget->testAttribute(Qt::WA_SetPalette));
        EXPECT_EQ(widget->palette().color(QPalette::Window), QColor(0, 0, 0));
        EXPECT_EQ(widget->palette().color(QPalette::Button), QColor(50, 50, 50));
    }
    EXPECT_EQ(label->text(), "<a href=\"http://a\"" + QString(kDarkStyle) + ">A</a>");
    ASSERT_EQ(appearance->titleBars.size(), 1u);
    EXPECT_EQ(appearance->titleBars[0], std::make_pair(&window, true));

    apply(false);
    EXPECT_EQ(button->palette().color(QPalette::Window),
              theme->lightPalette().color(QPalette::Window));
    EXPECT_EQ(appearance->titleBars.back(), std::make_pair(&window, false));
}

TEST_F(Theme, DestroyedWindowIsForgottenAndNotTouched) {
    QWidget kept;
    auto gone = std::make_unique<QWidget>();
    QWidget* goneAddress = gone.get();
    theme->registerWindow(&kept);
    theme->registerWindow(gone.get());
    theme->registerWindow(&kept);  // once is enough
    EXPECT_EQ(theme->registeredWindows(), (std::vector<QWidget*>{&kept, goneAddress}));

    gone.reset();
    EXPECT_EQ(theme->registeredWindows(), std::vector<QWidget*>{&kept});
    apply(true);
    ASSERT_EQ(appearance->titleBars.size(), 1u);
    EXPECT_EQ(appearance->titleBars[0].first, &kept);
}

TEST_F(Theme, ListenersHearTheModeAfterEachApplication) {
    Recorder first;
    Recorder second;
    theme->addListener(&first);
    theme->addListener(&second);
    apply(true);
    EXPECT_EQ(first.applicationWindowColour, QColor(0, 0, 0));
    apply(false);
    apply(false);
    EXPECT_EQ(first.modes, (std::vector<bool>{true, false, false}));
    EXPECT_EQ(second.modes, first.modes);
    EXPECT_EQ(first.applicationWindowColour, theme->lightPalette().color(QPalette::Window));
}

TEST_F(Theme, DesktopChangeFromAnyThreadReappliesOnTheGuiThread) {
    Recorder recorder;
    theme->addListener(&recorder);
    ASSERT_TRUE(appearance->changed);
    appearance->dark = true;
    std::thread desktop([this] { appearance->changed(); });
    desktop.join();
    // Queued: nothing happens until the GUI thread runs its events.
    EXPECT_TRUE(recorder.modes.empty());
    ASSERT_TRUE(waitUntil([&] { return !recorder.modes.empty(); }));
    EXPECT_EQ(recorder.modes, std::vector<bool>{true});
    EXPECT_EQ(recorder.threads[0], qApp->thread());
}

TEST_F(Theme, OnlyTheLastLinkOfALabelGetsTheStyle) {
    appearance->dark = true;
    EXPECT_EQ(theme->recolourLinks(kTwoLinks),
              "See <a href=\"http://a\">A</a> and <a href=\"http://b\"" + QString(kDarkStyle) +
                  ">B</a>.");
    appearance->dark = false;
    EXPECT_EQ(theme->recolourLinks(kTwoLinks),
              "See <a href=\"http://a\">A</a> and <a href=\"http://b\"" + QString(kLightStyle) +
                  ">B</a>.");
}

TEST_F(Theme, TextWithoutACompleteLinkIsKept) {
    EXPECT_EQ(theme->recolourLinks("plain text"), "plain text");
    EXPECT_EQ(theme->recolourLinks(""), "");
    EXPECT_EQ(theme->recolourLinks("open <a href=x"), "open <a href=x");
}

TEST_F(Theme, LabelSlotRecoloursAndEachApplicationAddsAnotherStyle) {
    QLabel plain("no link here");
    theme->resetQLabelLink(&plain);
    EXPECT_EQ(plain.text(), "no link here");
    theme->resetQLabelLink(nullptr);

    QWidget window;
    auto* label = new QLabel(kLink, &window);
    theme->registerWindow(&window);
    apply(false);
    apply(true);
    EXPECT_EQ(label->text(),
              "<a href=\"http://a\"" + QString(kLightStyle) + QString(kDarkStyle) + ">A</a>");
}

std::vector<std::pair<QByteArray, QList<QByteArray>>> ownMethods(const QMetaObject& meta) {
    std::vector<std::pair<QByteArray, QList<QByteArray>>> methods;
    for (int i = meta.methodOffset(); i < meta.methodCount(); ++i)
        methods.emplace_back(meta.method(i).methodSignature(), meta.method(i).parameterNames());
    return methods;
}

TEST(ThemeMetaObject, HasTheChangeSignalAndTheTwoSlots) {
    using Methods = std::vector<std::pair<QByteArray, QList<QByteArray>>>;
    EXPECT_EQ(ownMethods(QCVTheme::staticMetaObject),
              (Methods{{"signalThemeChanged()", {}},
                       {"slotObjectDestroyed(QObject*)", {"object"}},
                       {"resetQLabelLink(QLabel*)", {"pLabel"}}}));
}

TEST(ThemeResources, AreAllThere) {
    vlm::initThemeResources();
    for (const char* name : {":/splash_screen", ":/corvane_logo", ":/corvane_logo_dark"}) {
        SCOPED_TRACE(name);
        EXPECT_FALSE(QPixmap(name).isNull());
    }
    EXPECT_TRUE(QFile::exists(":/cv_dark_theme"));
}

}  // namespace
