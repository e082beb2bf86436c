#pragma once
// One plug-in row of the manager window.

#include <QString>
#include <QWidget>
#include <memory>
#include <vector>

#include "plugins/Catalogue.h"
#include "plugins/Downloads.h"

class QLabel;
class QPushButton;

namespace vlm {

/// Cell style: black 1 px lines where the flags say, black text, then extra (may be empty).
QString cellStyle(bool top, bool bottom, bool left, bool right, const QString& extra = {});

/// \brief Name, description, stability, status or download button, and device pictures.
class RowDisplay : public QWidget {
    Q_OBJECT
public:
    static constexpr int kHeight = 50;

    /// y is the row's top in its parent; lastRow draws the table's bottom line.
    RowDisplay(const CatalogueEntry& entry, int y, bool lastRow, bool downloaded,
               std::shared_ptr<PluginFolders> folders, QWidget* parent);

    const CatalogueEntry& entry() const { return entry_; }
    bool isDownloaded() const { return downloaded_; }
    const std::vector<devImage*>& images() const { return images_; }

signals:
    /// The row's file arrived; the window keeps that until it is closed.
    void signalDownloaded(const QString& name);

public slots:
    void download();
    void slotUpdateText(QString Q);
    void slotDownloadEnd();

private:
    void showStatus();

    CatalogueEntry entry_;
    int y_;
    bool lastRow_;
    int height_ = kHeight;
    bool downloaded_;
    bool downloadStarted_ = false;
    bool textReported_ = false;
    bool fileWritten_ = false;
    std::shared_ptr<PluginFolders> folders_;
    QLabel* name_;
    QLabel* description_;
    QLabel* stability_;
    QLabel* status_;
    QPushButton* downloadButton_;
    QLabel* progress_;
    std::vector<devImage*> images_;
};

}  // namespace vlm
