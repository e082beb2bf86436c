#pragma once
// Helpers for the tray's dialog tests: the real theme in either mode, and screenshots.

#include <QApplication>
#include <QImage>
#include <QPalette>
#include <cstdlib>
#include <memory>
#include <string>

#include "theme/QCVTheme.h"

namespace vlm::test {

/// \brief Applies the program's light or dark theme to the application, and puts the
/// application's own look back at the end of scope.
class ThemeSwitch {
public:
    ThemeSwitch() : palette_(QApplication::palette()), styleSheet_(qApp->styleSheet()) {}
    ~ThemeSwitch() {
        QApplication::setPalette(palette_);
        qApp->setStyleSheet(styleSheet_);
    }

    void apply(bool dark) {
        theme_ = std::make_unique<QCVTheme>(std::make_unique<Appearance>(dark));
        theme_->applyTheme();
    }

private:
    class Appearance : public SystemAppearance {
    public:
        explicit Appearance(bool dark) : dark_(dark) {}
        bool isDark() override { return dark_; }
        void setDarkTitleBar(QWidget*, bool) override {}
        void watch(std::function<void()>) override {}

    private:
        bool dark_;
    };

    QPalette palette_;
    QString styleSheet_;
    std::unique_ptr<QCVTheme> theme_;
};

/// Saves the image under VELMOR_SCREENSHOT_DIR when that is set, for a look by eye.
inline void saveScreenshot(const QImage& image, const std::string& name) {
    if (const char* folder = std::getenv("VELMOR_SCREENSHOT_DIR"))
        image.save(QString::fromLocal8Bit(folder) + "/" + QString::fromStdString(name));
}

}  // namespace vlm::test
