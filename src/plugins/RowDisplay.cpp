#include "plugins/RowDisplay.h"

#include <QLabel>
#include <QPushButton>

namespace vlm {

namespace {

const char* const kRed = "QLabel { background-color: red; }";
const char* const kLightGreen = "QLabel { background-color: lightgreen; }";

const char* stabilityColour(int stability) {
    switch (stability) {
        case 0:
            return "red";
        case 1:
            return "orange";
        case 2:
            return "lightgreen";
        default:
            return "gray";
    }
}

QLabel* cell(QWidget* parent, const char* objectName, const QString& text, QRect geometry,
             const QString& style, bool centred) {
    auto* label = new QLabel(text, parent);
    label->setObjectName(objectName);
    label->setGeometry(geometry);
    label->setStyleSheet(style);
    label->setWordWrap(true);
    label->setAlignment(centred ? Qt::AlignCenter : Qt::AlignLeft | Qt::AlignVCenter);
    return label;
}

}  // namespace

QString cellStyle(bool top, bool bottom, bool left, bool right, const QString& extra) {
    auto width = [](bool on) { return on ? "1px" : "0px"; };
    QString style = QString(
                        "QLabel { border-color: #000000; border-style: outset; border-radius: 0px; "
                        "border-top-width: %1; border-bottom-width: %2; border-left-width: %3; "
                        "border-right-width: %4; color: black;")
                        .arg(width(top), width(bottom), width(left), width(right));
    if (!extra.isEmpty())
        style += " " + extra;
    return style + " }";
}

RowDisplay::RowDisplay(const CatalogueEntry& entry, int y, bool lastRow, bool downloaded,
                       std::shared_ptr<PluginFolders> folders, QWidget* parent)
    : QWidget(parent),
      entry_(entry),
      y_(y),
      lastRow_(lastRow),
      downloaded_(downloaded),
      folders_(std::move(folders)) {
    setObjectName(QString::fromStdString(entry_.name));
    setGeometry(0, y_, 800, height_);
    const int h = height_;
    name_ = cell(this, "name", QString::fromStdString(entry_.name), {30, 0, 120, h},
                 cellStyle(false, lastRow, true, true), false);
    description_ = cell(this, "description", QString::fromStdString(entry_.description),
                        {150, 0, 200, h}, cellStyle(false, lastRow, false, true), false);
    stability_ = cell(this, "stability", stabilityWord(entry_.stability), {350, 0, 90, h},
                      cellStyle(false, lastRow, true, true,
                                QString("text-align: center; background-color: %1;")
                                    .arg(stabilityColour(entry_.stability))),
                      true);
    status_ = cell(this, "status", {}, {440, 0, 120, h}, {}, true);
    progress_ = cell(this, "progress", {}, {440, 0, 120, h},
                     cellStyle(false, lastRow, false, true, "text-align: center;"), true);
    progress_->hide();
    downloadButton_ = new QPushButton("DOWNLOAD\nNOW", this);
    downloadButton_->setObjectName("downloadButton");
    downloadButton_->setGeometry(440, 0, 120, h);
    connect(downloadButton_, &QPushButton::released, this, &RowDisplay::download);

    const int pictureX[] = {560, 680};
    const int pictureWidth[] = {120, 100};
    for (std::size_t i = 0; i < entry_.images.size() && i < 2; ++i) {
        const QRect geometry(pictureX[i], 0, pictureWidth[i], 50);
        auto* picture = cell(this, i == 0 ? "picture0" : "picture1", {}, geometry,
                             cellStyle(false, lastRow, false, i == 1), true);
        auto* fetch = new QPushButton("GET\nPICTURE", this);
        fetch->setObjectName(i == 0 ? "fetch0" : "fetch1");
        fetch->setGeometry(geometry);
        fetch->setToolTip(
            QString::fromStdString(entry_.images[i].vendor + " " + entry_.images[i].product));
        auto* image = new devImage(entry_.images[i], y_, static_cast<int>(i), pictureX[i], folders_,
                                   picture, fetch, this);
        images_.push_back(image);
        image->getImage();
    }
    showStatus();
}

void RowDisplay::showStatus() {
    const RowStatus status = rowStatus(entry_, downloaded_);
    downloadButton_->setVisible(status == RowStatus::Download && !downloadStarted_);
    status_->setVisible(status != RowStatus::Download);
    switch (status) {
        case RowStatus::Outdated:
            status_->setText("OUTDATED");
            status_->setStyleSheet(kRed);
            break;
        case RowStatus::UpToDate:
            status_->setText("UP TO DATE");
            status_->setStyleSheet(kLightGreen);
            break;
        case RowStatus::RestartNeeded:
            status_->setText("RESTART VELMOR");
            status_->setStyleSheet(kRed);
            break;
        case RowStatus::Download:
            break;
        case RowStatus::NotAvailable:
            status_->setText("N/A FOR YOUR\nSYSTEM");
            status_->setStyleSheet(cellStyle(false, lastRow_, false, true, "text-align: center;"));
            break;
    }
}

void RowDisplay::download() {
    if (downloadStarted_)
        return;
    downloadStarted_ = true;
    downloadButton_->hide();
    status_->hide();
    progress_->setText("DOWNLOADING...");
    progress_->show();
    auto* worker = new downloadWorker(entry_, folders_);
    connect(worker, &downloadWorker::signalUpdateText, this, &RowDisplay::slotUpdateText);
    connect(worker, &downloadWorker::signalFileWritten, this, [this] { fileWritten_ = true; });
    connect(worker, &downloadWorker::signalDownloadEnd, this, &RowDisplay::slotDownloadEnd);
    downloadWorker::start(worker);
}

void RowDisplay::slotUpdateText(QString Q) {
    textReported_ = true;
    progress_->setText(Q);
    progress_->show();
}

void RowDisplay::slotDownloadEnd() {
    // Without a file in place there is nothing to restart for: the row offers the download
    // again, a reported failure staying readable.
    if (!fileWritten_) {
        downloadStarted_ = false;
        if (textReported_)
            return;
        progress_->hide();
        showStatus();
        return;
    }
    downloaded_ = true;
    emit signalDownloaded(QString::fromStdString(entry_.name));
    progress_->hide();
    showStatus();
}

}  // namespace vlm
