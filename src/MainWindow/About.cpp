#include "MainWindow/About.h"

#include <QPainter>
#include <QPixmap>

#include "Roles.h"

namespace vlm {

namespace {
constexpr int kWidth = 600;
constexpr int kHeight = 250;
constexpr int kMargin = 7;
constexpr int kTextTop = 38;
const QColor kTextColour(240, 240, 240, 255);

int scaled(int size, float scale) {
    return static_cast<int>(size * scale);
}
}  // namespace

MainWindow::About::About(const QPixmap* picture, const QString& versionText, QWidget* parent)
    : QDialog(parent), picture_(picture), versionText_(versionText) {
    setWindowTitle("About");
    setWindowFlags(windowFlags() & ~Qt::WindowContextHelpButtonHint);
    resize(scaled(kWidth, dpiScale), scaled(kHeight, dpiScale));
}

QRect MainWindow::About::textRect(const QSize& size, float scale) {
    return QRect(scaled(kMargin, scale), size.height() - scaled(kTextTop, scale),
                 size.width() - scaled(2 * kMargin, scale), size.height());
}

void MainWindow::About::paintEvent(QPaintEvent*) {
    QPainter painter(this);
    if (picture_ && !picture_->isNull())
        painter.drawPixmap(rect(), *picture_);
    painter.setPen(kTextColour);
    painter.drawText(textRect(size(), dpiScale), Qt::AlignRight, text());
}

}  // namespace vlm
