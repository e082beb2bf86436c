#pragma once
// Helpers for the tray's dialog tests: the real theme in either mode, and screenshots.

#include <QApplication>
#include <QImage>
#include <QPalette>
#include <QStandardItemModel>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

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

/// The texts of a list model's rows.
inline std::vector<std::string> rowTexts(const QStandardItemModel* model) {
    std::vector<std::string> texts;
    for (int row = 0; row < model->rowCount(); ++row)
        texts.push_back(model->item(row)->text().toStdString());
    return texts;
}

/// A list model's check boxes, one letter a row: "x" checked, "-" unchecked, "." unchecked
/// and disabled; upper case ("X") when checked and enabled.
inline std::string rowStates(const QStandardItemModel* model) {
    std::string states;
    for (int row = 0; row < model->rowCount(); ++row) {
        const QStandardItem* item = model->item(row);
        const bool checked = item->checkState() == Qt::Checked;
        states += item->isEnabled() ? (checked ? 'X' : '-') : (checked ? 'x' : '.');
    }
    return states;
}

/// Saves the image under VELMOR_SCREENSHOT_DIR when that is set, for a look by eye.
inline void saveScreenshot(const QImage& image, const std::string& name) {
    if (const char* folder = std::getenv("VELMOR_SCREENSHOT_DIR"))
        image.save(QString::fromLocal8Bit(folder) + "/" + QString::fromStdString(name));
}

}  // namespace vlm::test
