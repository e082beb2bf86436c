#pragma once
// Helpers shared by the theme tests: an environment setting for one test, a desktop
// appearance the test controls, and waiting on the event loop.

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QThread>
#include <QWidget>
#include <atomic>
#include <cstdlib>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "theme/SystemAppearance.h"

namespace vlm::test {

/// \brief Sets (or unsets, with no value) one environment variable until the end of scope.
class ScopedEnv {
public:
    ScopedEnv(const char* name, const char* value) : name_(name) {
        if (const char* old = std::getenv(name))
            old_ = old;
        if (value)
            setenv(name, value, 1);
        else
            unsetenv(name);
    }
    ~ScopedEnv() {
        if (old_)
            setenv(name_.c_str(), old_->c_str(), 1);
        else
            unsetenv(name_.c_str());
    }

private:
    std::string name_;
    std::optional<std::string> old_;
};

/// \brief A desktop whose mode the test sets, recording title-bar calls.
class FakeAppearance : public SystemAppearance {
public:
    bool isDark() override { return dark; }
    void setDarkTitleBar(QWidget* window, bool isDark) override {
        std::lock_guard<std::mutex> lock(mutex);
        titleBars.emplace_back(window, isDark);
    }
    void watch(std::function<void()> callback) override { changed = std::move(callback); }

    std::atomic<bool> dark{false};
    std::mutex mutex;
    std::vector<std::pair<QWidget*, bool>> titleBars;
    std::function<void()> changed;
};

/// Runs the event loop until done() holds or the time is up; the result of done().
inline bool waitUntil(const std::function<bool()>& done, int timeoutMs = 5000) {
    QElapsedTimer timer;
    timer.start();
    while (!done()) {
        if (timer.elapsed() > timeoutMs)
            return false;
        QCoreApplication::processEvents(QEventLoop::AllEvents, 10);
        QThread::msleep(1);
    }
    return true;
}

}  // namespace vlm::test
