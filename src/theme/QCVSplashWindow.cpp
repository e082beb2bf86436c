#include "theme/QCVSplashWindow.h"

#include <QCoreApplication>
#include <QFont>
#include <QPainter>
#include <QRect>

#include "theme/QCVTheme.h"

namespace vlm {

namespace {
const QColor kTextColour(240, 240, 240);
constexpr int kBold = 75;
constexpr int kNormal = 50;

// Fractional products are truncated toward zero, as everywhere in the tray's sizes.
int scaled(int size, float scale) {
    return static_cast<int>(static_cast<float>(size) * scale);
}
}  // namespace

QCVSplashWindow::Instance::Instance(QWidget* parent, Qt::WindowFlags flags, float scale)
    : QDialog(parent, flags), scale_(scale) {}

void QCVSplashWindow::Instance::showMessage(const QString& text) {
    emit signalMessage(text);
}

int QCVSplashWindow::Instance::runWorker() {
    // An empty routine throws std::bad_function_call: a splash without work is a bug.
    return worker_(this);
}

void QCVSplashWindow::Instance::setWorkerResult(int result) {
    workerResult_ = result;
    workerDone_ = true;
}

void QCVSplashWindow::Instance::reject() {
    if (workerDone_)
        QDialog::reject();
}

void QCVSplashWindow::Instance::slotMessage(const QString& text) {
    firstLine_ = text;
    repaint();
}

void QCVSplashWindow::Instance::paintEvent(QPaintEvent*) {
    const int w = width();
    const int h = height();
    QPainter painter(this);
    if (!picture_.isNull())
        painter.drawPixmap(QRect(0, 0, w, h), picture_);

    QFont font = painter.font();
    painter.setPen(kTextColour);
    font.setWeight(kBold);
    painter.setFont(font);
    painter.drawText(QRect(scaled(7, scale_), h - scaled(17, scale_), w, h), Qt::AlignLeft,
                     firstLine_);

    painter.setPen(kTextColour);
    font.setWeight(kNormal);
    painter.setFont(font);
    painter.drawText(QRect(scaled(7, scale_), h - scaled(38, scale_), w - scaled(14, scale_), h),
                     Qt::AlignRight, secondLine_);
}

QCVSplashWindow::WorkerThread::WorkerThread(Instance* window) : window_(window) {}

QCVSplashWindow::WorkerThread::~WorkerThread() {
    wait();
}

void QCVSplashWindow::WorkerThread::run() {
    window_->setWorkerResult(window_->runWorker());
    emit finished();
}

int QCVSplashWindow::run(QWidget* parent, const QSize& baseSize, const QPixmap* picture,
                         const QString& title, Worker worker, float scale) {
    initThemeResources();
    auto* window = new Instance(parent, Qt::FramelessWindowHint, scale);
    window->resize(scaled(baseSize.width(), scale), scaled(baseSize.height(), scale));
    // By signature and automatic: a message sent from the worker thread is queued to ours.
    QObject::connect(window, SIGNAL(signalMessage(const QString&)), window,
                     SLOT(slotMessage(const QString&)));
    if (picture)
        window->setPicture(*picture);
    window->setSecondLine(title);
    window->setWorker(std::move(worker));

    auto* thread = new WorkerThread(window);
    QObject::connect(thread, &WorkerThread::finished, window, &QWidget::close);
    QObject::connect(thread, &WorkerThread::finished, thread, &QObject::deleteLater);
    thread->start();
    window->exec();
    // The modal loop ends early only when the application was told to quit ("&Quit" in the
    // tray meanwhile). The window stays until the routine is done, since the routine still
    // reports to it, and the quit is carried out once the application's own loop runs.
    if (!window->workerDone()) {
        while (!window->workerDone())
            QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents);
        QMetaObject::invokeMethod(QCoreApplication::instance(), &QCoreApplication::quit,
                                  Qt::QueuedConnection);
    }

    const int result = window->workerResult();
    if (!parent)
        window->deleteLater();
    return result;
}

}  // namespace vlm
