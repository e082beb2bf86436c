#include "MainWindow/About.h"

#include <QApplication>
#include <QPixmap>
#include <QPointer>
#include <QTimer>

#include "Agent/AgentFixture.h"
#include "MainWindow/Tray.h"
#include "Roles.h"

namespace {

using About = vlm::MainWindow::About;

// The smallest rectangle holding every bright pixel: the version text on a dark picture.
QRect brightArea(const QImage& image) {
    QRect area;
    for (int y = 0; y < image.height(); ++y)
        for (int x = 0; x < image.width(); ++x)
            if (qGray(image.pixel(x, y)) > 128)
                area |= QRect(x, y, 1, 1);
    return area;
}

// Sizes and the text rectangle follow the scale, truncated; the picture fills the box and the
// version sits right-aligned in its lower right corner; without a picture only the text.
TEST(AboutTest, ScaledBoxPictureAndVersion) {
    QPixmap black(60, 25);
    black.fill(Qt::black);
    for (float scale : {1.0f, 1.5f, 1.25f}) {
        vlm::dpiScale = scale;
        About about(scale == 1.25f ? nullptr : &black, "2.0.3 b118");
        const QSize size(int(600 * scale), int(250 * scale));
        EXPECT_EQ(about.size(), size);
        EXPECT_EQ(about.windowTitle() + " | " + about.text(), "About | Version 2.0.3 b118");
        EXPECT_FALSE(about.windowFlags() & Qt::WindowContextHelpButtonHint);
        EXPECT_TRUE(about.findChildren<QWidget*>().isEmpty());
        QPalette palette = about.palette();
        palette.setColor(QPalette::Window, QColor(0, 0, 128));
        about.setPalette(palette);
        const QImage image = about.grab().toImage();
        EXPECT_EQ(image.pixel(0, 0), scale == 1.25f ? qRgb(0, 0, 128) : qRgb(0, 0, 0)) << scale;
        EXPECT_EQ(image.pixel(size.width() - 1, 0), image.pixel(0, 0));
        const QRect text = brightArea(image);
        const QRect expected = About::textRect(size, scale);
        EXPECT_TRUE(expected.contains(text) && text.width() > 40) << scale;
        EXPECT_LE(expected.right() - text.right(), 2) << scale;
        EXPECT_LE(text.top() - expected.top(), 6) << scale;
    }
    vlm::dpiScale = 1.0f;
    // At 1.5: 10 from the left, 57 above the bottom, 21 narrower than the box.
    EXPECT_EQ(About::textRect(QSize(900, 375), 1.5f), QRect(10, 318, 879, 375));
    EXPECT_EQ(About::textRect(QSize(750, 312), 1.25f), QRect(8, 265, 733, 312));
}

class TrayAboutTest : public vlm::test::AgentFixture {};

// "&About" runs the box modally with the agent's picture and the program's version, and the
// box is gone when it closes.
TEST_F(TrayAboutTest, TheMenuEntryRunsTheBox) {
    auto agent = makeAgent();
    agent->splashPixmap = std::make_unique<QPixmap>(60, 25);
    agent->splashPixmap->fill(Qt::black);
    vlm::MainWindow window(*agent, false, true);
    QPointer<About> seen;
    QString text;
    QImage image;
    QTimer::singleShot(0, [&] {
        if ((seen = qobject_cast<About*>(QApplication::activeModalWidget()))) {
            text = seen->text();
            image = seen->grab().toImage();
            seen->close();
        }
    });
    window.tray()->aboutAction->trigger();
    EXPECT_TRUE(seen.isNull());
    EXPECT_EQ(text, "Version 1.0.0 b1");
    EXPECT_EQ(image.size(), QSize(600, 250));
    EXPECT_EQ(image.pixel(0, 0), qRgb(0, 0, 0));
}

}  // namespace
