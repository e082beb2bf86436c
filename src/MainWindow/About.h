#pragma once
// The about box of the tray menu: the product picture and the program's version.

#include <QDialog>
#include <QRect>
#include <QString>

#include "MainWindow/MainWindow.h"

class QPixmap;

namespace vlm {

/// \brief The modal about box: the picture fills it, the version sits in its lower right
/// corner. It has no controls; the window's close button ends it.
class MainWindow::About : public QDialog {
    Q_OBJECT
public:
    /// picture may be null (the box then shows only the version); it must outlive the box.
    About(const QPixmap* picture, const QString& versionText, QWidget* parent = nullptr);

    /// "Version " followed by the version text.
    QString text() const { return "Version " + versionText_; }

    /// Where the version is drawn, right-aligned, in a box of that size at that scale.
    static QRect textRect(const QSize& size, float scale);

protected:
    void paintEvent(QPaintEvent* event) override;

private:
    const QPixmap* picture_;
    QString versionText_;
};

}  // namespace vlm
