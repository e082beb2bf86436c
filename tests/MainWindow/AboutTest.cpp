#include "MainWindow/About.h"

#include <QApplication>
#include <QIcon>
#include <QPixmap>
#include <QPointer>
#include <QTimer>

#include "Agent/AgentFixture.h"
#include "MainWindow/Tray.h"
#include "MainWindow/UiTestSupport.h"
#include "Roles.h"
#include "platform/Platform.h"

namespace {

using About = vlm::MainWindow::About;

bool bright(QRgb pixel) {
    return qRed(pixel) > 128 && qGreen(pixel) > 128 && qBlue(pixel) > 128;
}

// The smallest rectangle holding every bright pixel of the image.
QRect brightArea(const QImage& image) {
    QRect area;
    for (int y = 0; y < image.height(); ++y)
        for (int x = 0; x < image.width(); ++x)
            if (bright(image.pixel(x, y)))
                area |= QRect(x, y, 1, 1);
    return area;
}

QPixmap filled(const QColor& colour) {
    QPixmap pixmap(60, 25);
    pixmap.fill(colour);
    return pixmap;
}

class AboutTest : public ::testing::Test {
protected:
    void TearDown() override { vlm::dpiScale = 1.0f; }
};

TEST_F(AboutTest, TextRectangleScalesWithTruncation) {
    EXPECT_EQ(About::textRect(QSize(600, 250), 1.0f), QRect(7, 212, 586, 250));
    // At 1.5: 10 from the left, 57 above the bottom, 21 narrower than the box.
    EXPECT_EQ(About::textRect(QSize(900, 375), 1.5f), QRect(10, 318, 879, 375));
    EXPECT_EQ(About::textRect(QSize(750, 312), 1.25f), QRect(8, 265, 733, 312));
}

TEST_F(AboutTest, BoxIsSizedTitledAndBare) {
    for (float scale : {1.0f, 1.5f, 1.25f}) {
        vlm::dpiScale = scale;
        About about(nullptr, "2.0.3 b118");
        EXPECT_EQ(about.size(), QSize(int(600 * scale), int(250 * scale))) << scale;
        EXPECT_EQ(about.windowTitle(), "About");
        EXPECT_FALSE(about.windowFlags() & Qt::WindowContextHelpButtonHint);
        EXPECT_TRUE(about.findChildren<QWidget*>().isEmpty());
        EXPECT_EQ(about.text(), "Version 2.0.3 b118");
    }
    EXPECT_EQ(About(nullptr, "None").text(), "Version None");
}

TEST_F(AboutTest, PictureFillsTheBoxAndTheVersionSitsLowerRight) {
    const QPixmap black = filled(Qt::black);
    for (float scale : {1.0f, 1.5f}) {
        vlm::dpiScale = scale;
        About about(&black, "2.0.3 b118");
        const QImage image = about.grab().toImage();
        const int w = image.width();
        const int h = image.height();
        for (QPoint corner :
             {QPoint(0, 0), QPoint(w - 1, 0), QPoint(0, h - 1), QPoint(w - 1, h - 1)})
            EXPECT_EQ(image.pixel(corner), qRgb(0, 0, 0)) << scale;
        const QRect text = brightArea(image);
        ASSERT_FALSE(text.isEmpty()) << scale;
        const QRect expected = About::textRect(QSize(w, h), scale);
        EXPECT_TRUE(expected.contains(text)) << scale;
        // Right-aligned against the rectangle's right edge, at its top.
        EXPECT_LE(expected.right() - text.right(), 2) << scale;
        EXPECT_LE(text.top() - expected.top(), 6) << scale;
        EXPECT_GT(text.width(), 40) << scale;
    }
}

TEST_F(AboutTest, WithoutAPictureOnlyTheVersionIsPainted) {
    About about(nullptr, "None");
    QPalette palette = about.palette();
    palette.setColor(QPalette::Window, QColor(0, 0, 128));
    about.setPalette(palette);
    const QImage image = about.grab().toImage();
    EXPECT_EQ(image.pixel(0, 0), qRgb(0, 0, 128));
    EXPECT_EQ(image.pixel(image.width() - 1, image.height() - 1), qRgb(0, 0, 128));
    const QRect text = brightArea(image);
    ASSERT_FALSE(text.isEmpty());
    EXPECT_TRUE(About::textRect(image.size(), 1.0f).contains(text));
}

class TrayAboutTest : public vlm::test::AgentFixture {};

TEST_F(TrayAboutTest, AboutEntryRunsTheBoxWithTheAgentsPicture) {
    auto agent = makeAgent();
    agent->splashPixmap = std::make_unique<QPixmap>(filled(Qt::black));
    vlm::MainWindow window(*agent, false);
    QPointer<About> seen;
    QString text;
    QImage image;
    QTimer::singleShot(0, [&] {
        seen = qobject_cast<About*>(QApplication::activeModalWidget());
        if (!seen)
            return;
        text = seen->text();
        image = seen->grab().toImage();
        seen->close();
    });
    window.tray()->aboutAction->trigger();
    EXPECT_TRUE(seen.isNull());  // destroyed when the slot returned
    EXPECT_EQ(text, "Version " + QString::fromStdString(vlm::platform::versionText()));
    EXPECT_EQ(text, "Version 1.0.0 b1");
    ASSERT_EQ(image.size(), QSize(600, 250));
    EXPECT_EQ(image.pixel(0, 0), qRgb(0, 0, 0));
}

TEST_F(AboutTest, RendersTheProductPictureInLightAndDarkThemes) {
    vlm::initThemeResources();
    const QPixmap picture =
        QIcon(":/splash_screen").pixmap(QSize(600, 250), QIcon::Normal, QIcon::On);
    ASSERT_FALSE(picture.isNull());
    vlm::test::ThemeSwitch theme;
    for (bool dark : {false, true}) {
        theme.apply(dark);
        About about(&picture, QString::fromStdString(vlm::platform::versionText()));
        const QImage image = about.grab().toImage();
        EXPECT_EQ(image.size(), QSize(600, 250));
        vlm::test::saveScreenshot(image,
                                  dark ? "offscreen-about-dark.png" : "offscreen-about-light.png");
    }
}

}  // namespace
