#include "theme/QCVSplashWindow.h"

#include <gtest/gtest.h>

#include <QApplication>
#include <QImage>
#include <QKeyEvent>
#include <QMetaMethod>
#include <QPainter>
#include <QPointer>
#include <QThread>
#include <algorithm>
#include <climits>
#include <functional>
#include <future>

#include "ThemeTestSupport.h"

namespace {

using vlm::QCVSplashWindow;
using Instance = QCVSplashWindow::Instance;
using IWindow = QCVSplashWindow::IWindow;

// Runs call on the GUI thread and waits for it; everything queued before it has run by then.
void onGuiThread(const std::function<void()>& call) {
    QMetaObject::invokeMethod(qApp, call, Qt::BlockingQueuedConnection);
}

Instance* instanceOf(IWindow* window) {
    return dynamic_cast<Instance*>(window);
}

// After run() the window and the thread are released by deferred deletion.
void releaseDeferred() {
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
}

TEST(SplashRunner, RunsTheRoutineOnAnotherThreadAndReturnsItsResult) {
    QThread* workerThread = nullptr;
    QPointer<Instance> window;
    const int result = QCVSplashWindow::run(
        nullptr, QSize(600, 250), nullptr, "Version 1.0.0 b1",
        [&](IWindow* splash) {
            workerThread = QThread::currentThread();
            onGuiThread([&] { window = instanceOf(splash); });
            return 42;
        },
        1.0f);
    EXPECT_EQ(result, 42);
    EXPECT_NE(workerThread, nullptr);
    EXPECT_NE(workerThread, qApp->thread());
    ASSERT_FALSE(window.isNull());
    EXPECT_FALSE(window->isVisible());
    releaseDeferred();
    EXPECT_TRUE(window.isNull());
}

TEST(SplashRunner, ShowsTheWindowFramelessModalAndScaled) {
    struct Seen {
        bool visible = false;
        bool modal = false;
        bool frameless = false;
        QSize size;
        QString secondLine;
        QString firstLine;
        float scale = 0;
    } seen;
    QPixmap picture(20, 10);
    picture.fill(Qt::darkBlue);
    QCVSplashWindow::run(
        nullptr, QSize(601, 250), &picture, "Version 2",
        [&](IWindow* splash) {
            onGuiThread([&] {
                Instance* window = instanceOf(splash);
                seen = {window->isVisible(),
                        window->isModal(),
                        window->windowFlags().testFlag(Qt::FramelessWindowHint),
                        window->size(),
                        window->secondLine(),
                        window->firstLine(),
                        window->scale()};
                EXPECT_EQ(window->picture().size(), QSize(20, 10));
            });
            return 0;
        },
        1.25f);
    releaseDeferred();
    EXPECT_TRUE(seen.visible);
    EXPECT_TRUE(seen.modal);
    EXPECT_TRUE(seen.frameless);
    // 601 x 1.25 = 751.25 and 250 x 1.25 = 312.5, truncated.
    EXPECT_EQ(seen.size, QSize(751, 312));
    EXPECT_EQ(seen.secondLine, "Version 2");
    EXPECT_TRUE(seen.firstLine.isEmpty());
    EXPECT_FLOAT_EQ(seen.scale, 1.25f);
}

TEST(SplashRunner, ShowsEachProgressTextOnTheGuiThread) {
    std::vector<QString> shown;
    QCVSplashWindow::run(
        nullptr, QSize(600, 250), nullptr, "title",
        [&](IWindow* splash) {
            for (const char* text : {"Hybrid: Looking for VELMOR Server in the network...",
                                     "Connected to VELMOR server. Please wait..."}) {
                splash->showMessage(text);
                onGuiThread([&] { shown.push_back(instanceOf(splash)->firstLine()); });
            }
            return 0;
        },
        1.0f);
    releaseDeferred();
    EXPECT_EQ(shown, (std::vector<QString>{"Hybrid: Looking for VELMOR Server in the network...",
                                           "Connected to VELMOR server. Please wait..."}));
}

TEST(SplashRunner, ProgressTextIsQueuedNotSetOnTheWorker) {
    QString rightAfterSending;
    QString onceDelivered;
    QCVSplashWindow::run(
        nullptr, QSize(600, 250), nullptr, "title",
        [&](IWindow* splash) {
            // Hold the GUI thread so that a queued text cannot arrive before the check.
            std::promise<void> checked;
            std::shared_future<void> release = checked.get_future().share();
            QMetaObject::invokeMethod(
                qApp, [release] { release.wait(); }, Qt::QueuedConnection);
            splash->showMessage("text");
            rightAfterSending = instanceOf(splash)->firstLine();
            checked.set_value();
            onGuiThread([&] { onceDelivered = instanceOf(splash)->firstLine(); });
            return 0;
        },
        1.0f);
    releaseDeferred();
    EXPECT_TRUE(rightAfterSending.isEmpty());
    EXPECT_EQ(onceDelivered, "text");
}

TEST(SplashRunner, EscapeAndCloseWaitForTheRoutine) {
    bool stillVisible = false;
    QCVSplashWindow::run(
        nullptr, QSize(600, 250), nullptr, "title",
        [&](IWindow* splash) {
            onGuiThread([&] {
                Instance* window = instanceOf(splash);
                QKeyEvent escape(QEvent::KeyPress, Qt::Key_Escape, Qt::NoModifier);
                QCoreApplication::sendEvent(window, &escape);
                window->close();
                window->reject();
                stillVisible = window->isVisible();
            });
            return 7;
        },
        1.0f);
    releaseDeferred();
    EXPECT_TRUE(stillVisible);
}

TEST(SplashRunner, WindowWithAParentStaysItsChild) {
    QWidget parent;
    QPointer<Instance> window;
    EXPECT_EQ(QCVSplashWindow::run(
                  &parent, QSize(600, 250), nullptr, "title",
                  [&](IWindow* splash) {
                      onGuiThread([&] { window = instanceOf(splash); });
                      return -3;
                  },
                  1.0f),
              -3);
    releaseDeferred();
    ASSERT_FALSE(window.isNull());
    EXPECT_EQ(window->parentWidget(), &parent);
    EXPECT_FALSE(window->isVisible());
}

TEST(SplashRunner, ARoutineThatReturnsAtOnceStillEndsTheLoop) {
    for (int i = 0; i < 20; ++i)
        EXPECT_EQ(
            QCVSplashWindow::run(
                nullptr, QSize(10, 10), nullptr, QString(), [i](IWindow*) { return i; }, 1.0f),
            i);
    releaseDeferred();
}

std::vector<std::pair<QByteArray, QList<QByteArray>>> ownMethods(const QMetaObject& meta) {
    std::vector<std::pair<QByteArray, QList<QByteArray>>> methods;
    for (int i = meta.methodOffset(); i < meta.methodCount(); ++i)
        methods.emplace_back(meta.method(i).methodSignature(), meta.method(i).parameterNames());
    return methods;
}

TEST(SplashMetaObjects, HaveExactlyTheirSignalsAndSlots) {
    using Methods = std::vector<std::pair<QByteArray, QList<QByteArray>>>;
    EXPECT_EQ(ownMethods(Instance::staticMetaObject),
              (Methods{{"signalMessage(QString)", {"text"}}, {"slotMessage(QString)", {"text"}}}));
    EXPECT_EQ(ownMethods(QCVSplashWindow::WorkerThread::staticMetaObject),
              (Methods{{"finished()", {}}}));
}

// Where the bright text pixels of a rendered splash lie.
struct Ink {
    int left = INT_MAX;
    int right = -1;
    int top = INT_MAX;
    int bottom = -1;
    int brightest = 0;
    bool any() const { return right >= 0; }
    int width() const { return right - left + 1; }
};

Ink inkOf(const QImage& image) {
    Ink ink;
    for (int y = 0; y < image.height(); ++y) {
        for (int x = 0; x < image.width(); ++x) {
            const QColor pixel = image.pixelColor(x, y);
            ink.brightest = std::max(ink.brightest, pixel.red());
            // The picture below is pure black; text is the only thing drawn in grey.
            if (pixel.red() < 100)
                continue;
            ink.left = std::min(ink.left, x);
            ink.right = std::max(ink.right, x);
            ink.top = std::min(ink.top, y);
            ink.bottom = std::max(ink.bottom, y);
        }
    }
    return ink;
}

QImage render(float scale, const QSize& size, const QString& first, const QString& second,
              const QPixmap& picture) {
    Instance window(nullptr, Qt::FramelessWindowHint, scale);
    window.resize(size);
    window.setPicture(picture);
    window.setFirstLine(first);
    window.setSecondLine(second);
    QImage image(size, QImage::Format_RGB32);
    image.fill(Qt::black);
    window.render(&image);
    return image;
}

QPixmap black(const QSize& size) {
    QPixmap pixmap(size);
    pixmap.fill(Qt::black);
    return pixmap;
}

class SplashPaint : public ::testing::TestWithParam<float> {};

TEST_P(SplashPaint, FirstLineBottomLeftSecondLineAboveItOnTheRight) {
    const float s = GetParam();
    const QSize size(static_cast<int>(600 * s), static_cast<int>(250 * s));
    const int w = size.width();
    const int h = size.height();
    const QPixmap picture = black(size);

    const Ink first = inkOf(render(s, size, "Connected", QString(), picture));
    ASSERT_TRUE(first.any());
    EXPECT_GE(first.left, static_cast<int>(7 * s));
    EXPECT_LE(first.left, static_cast<int>(7 * s) + 3);
    EXPECT_GE(first.top, h - static_cast<int>(17 * s));
    EXPECT_EQ(first.brightest, 240);

    // Right-aligned in a box from 7s that is 14s narrower than the window, each product
    // truncated on its own (at s = 1.5 the box ends at 889, not 890).
    const int boxEnd = static_cast<int>(7 * s) + w - static_cast<int>(14 * s);
    const Ink second = inkOf(render(s, size, QString(), "Version 1.0.0 b1", picture));
    ASSERT_TRUE(second.any());
    EXPECT_LT(second.right, boxEnd);
    EXPECT_GE(second.right, boxEnd - 3);
    EXPECT_GE(second.top, h - static_cast<int>(38 * s));
    EXPECT_LT(second.top, h - static_cast<int>(17 * s));
    EXPECT_EQ(second.brightest, 240);
}

INSTANTIATE_TEST_SUITE_P(Scales, SplashPaint, ::testing::Values(1.0f, 1.5f, 2.0f));

TEST(SplashPaintWeight, FirstLineIsBoldSecondNormal) {
    const QSize size(600, 250);
    const QString text = "Mmmmmmmmmm";
    const Ink bold = inkOf(render(1.0f, size, text, QString(), black(size)));
    const Ink normal = inkOf(render(1.0f, size, QString(), text, black(size)));
    ASSERT_TRUE(bold.any());
    ASSERT_TRUE(normal.any());
    EXPECT_GT(bold.width(), normal.width());
}

TEST(SplashPaintPicture, IsScaledOverTheWholeWindow) {
    QImage half(2, 1, QImage::Format_RGB32);
    half.setPixelColor(0, 0, Qt::red);
    half.setPixelColor(1, 0, Qt::green);
    const QImage image =
        render(1.0f, QSize(200, 100), QString(), QString(), QPixmap::fromImage(half));
    EXPECT_EQ(image.pixelColor(10, 10), QColor(Qt::red));
    EXPECT_EQ(image.pixelColor(190, 90), QColor(Qt::green));
}

TEST(SplashPaintPicture, WithoutAPictureOnlyTheTextsAreDrawn) {
    const QSize size(200, 100);
    Instance window(nullptr, Qt::FramelessWindowHint, 1.0f);
    window.resize(size);
    window.setAttribute(Qt::WA_NoSystemBackground);
    window.setAutoFillBackground(false);
    window.setFirstLine("text");
    QImage image(size, QImage::Format_RGB32);
    image.fill(Qt::black);
    window.render(&image, QPoint(), QRegion(), QWidget::DrawChildren);
    const Ink ink = inkOf(image);
    ASSERT_TRUE(ink.any());
    EXPECT_GE(ink.top, 100 - 17);
}

}  // namespace
