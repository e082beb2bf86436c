#pragma once
// The frameless splash picture shown while the agent starts, with a worker routine running
// beside it on its own thread.

#include <QDialog>
#include <QPixmap>
#include <QSize>
#include <QString>
#include <QThread>
#include <atomic>
#include <functional>

namespace vlm {

/// \brief Runs a start-up routine on a worker thread while a modal splash window shows its
/// progress texts; the window closes when the routine returns.
class QCVSplashWindow {
public:
    /// \brief What start-up code sees of the splash.
    class IWindow {
    public:
        /// Shows text as the first line; callable from any thread (queued to the window).
        virtual void showMessage(const QString& text) = 0;
        /// Calls the stored worker routine with this interface and returns its result.
        virtual int runWorker() = 0;
        virtual ~IWindow() = default;
    };

    using Worker = std::function<int(IWindow*)>;

    class Instance;
    class WorkerThread;

    /// Shows the splash modally under parent (none: a top-level window released afterwards)
    /// at baseSize times scale, with picture (may be null) and title as the second line, runs
    /// worker on a worker thread and returns its result once the window has closed.
    static int run(QWidget* parent, const QSize& baseSize, const QPixmap* picture,
                   const QString& title, Worker worker, float scale);
};

/// \brief The splash widget: a picture with a bold progress line and a title line.
class QCVSplashWindow::Instance : public QDialog, public QCVSplashWindow::IWindow {
    Q_OBJECT
public:
    /// scale: the display scale factor the drawing sizes are multiplied by.
    Instance(QWidget* parent, Qt::WindowFlags flags, float scale);

    void setPicture(const QPixmap& picture) { picture_ = picture; }
    void setFirstLine(const QString& text) { firstLine_ = text; }
    void setSecondLine(const QString& text) { secondLine_ = text; }
    void setWorker(Worker worker) { worker_ = std::move(worker); }

    const QPixmap& picture() const { return picture_; }
    const QString& firstLine() const { return firstLine_; }
    const QString& secondLine() const { return secondLine_; }
    float scale() const { return scale_; }

    void showMessage(const QString& text) override;
    int runWorker() override;

    /// Set by the worker thread before it reports that it has finished.
    void setWorkerResult(int result);
    int workerResult() const { return workerResult_; }
    bool workerDone() const { return workerDone_; }

    /// Escape or a window-manager close would end the modal loop under the running worker;
    /// only the worker's end closes the splash.
    void reject() override;

signals:
    void signalMessage(const QString& text);

public slots:
    void slotMessage(const QString& text);

protected:
    void paintEvent(QPaintEvent* event) override;

private:
    QPixmap picture_;
    QString firstLine_;
    QString secondLine_;
    Worker worker_;
    float scale_;
    std::atomic<int> workerResult_{0};
    std::atomic<bool> workerDone_{false};
};

/// \brief Runs the window's worker routine, then reports finished.
class QCVSplashWindow::WorkerThread : public QThread {
    Q_OBJECT
public:
    explicit WorkerThread(Instance* window);
    /// finished is sent from inside run(), so a deletion it triggers waits for run to end.
    ~WorkerThread() override;

signals:
    void finished();

protected:
    void run() override;

private:
    Instance* window_;
};

}  // namespace vlm
