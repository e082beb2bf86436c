#pragma once
// Background transfers of the plug-in manager: plug-in files into the engine's plug-in
// folders, device pictures into the picture folders.

#include <QObject>
#include <QString>
#include <QStringList>
#include <memory>
#include <shared_mutex>
#include <string>
#include <vector>

#include "plugins/Catalogue.h"

class QLabel;
class QPushButton;

namespace vlm {

/// \brief What the window shares with its download threads, which may outlive it.
struct PluginFolders {
    std::shared_mutex lock;
    std::vector<std::string> pluginFolders;  // written under the lock in exclusive mode
    QStringList pictureDirectories;          // set once at set-up, before any thread starts
};

/// \brief Fetches one plug-in file into every plug-in folder, on a thread of its own.
class downloadWorker : public QObject {
    Q_OBJECT
public:
    downloadWorker(const CatalogueEntry& entry, std::shared_ptr<PluginFolders> folders);

    /// Runs the transfers on the calling thread; reports through the two signals.
    void run();

    /// Runs worker on a detached thread that deletes it at the end.
    static void start(downloadWorker* worker);

signals:
    void signalUpdateText(QString Q);
    /// At least one plug-in folder holds the complete file; comes before signalDownloadEnd.
    void signalFileWritten();
    void signalDownloadEnd();

private:
    std::string url_;
    std::string fileName_;
    std::shared_ptr<PluginFolders> folders_;
};

/// \brief Fetches one picture into the first picture folder that takes it.
class pictureWorker : public QObject {
    Q_OBJECT
public:
    pictureWorker(std::string address, std::string fileName, QStringList folders);
    void run();

signals:
    void signalFetched();

private:
    std::string address_;
    std::string fileName_;
    QStringList folders_;
};

/// \brief One device picture of a row: shown when a picture folder holds it, else a button
/// that fetches it.
class devImage : public QObject {
    Q_OBJECT
public:
    devImage(ImageRecord record, int row, int column, int x, std::shared_ptr<PluginFolders> folders,
             QLabel* picture, QPushButton* fetch, QObject* parent);

    const ImageRecord& record() const { return record_; }
    /// The picture file shown; empty when none was found.
    const QString& shownFile() const { return shownFile_; }
    int row() const { return row_; }
    int column() const { return column_; }
    int x() const { return x_; }

public slots:
    void getImage();
    void fetchImage();

private:
    ImageRecord record_;
    std::string fileName_;  // without ending; empty when the record names no safe file
    int row_;
    int column_;
    int x_;
    std::shared_ptr<PluginFolders> folders_;
    QLabel* picture_;
    QPushButton* fetch_;
    QString shownFile_;
    bool fetching_ = false;
};

}  // namespace vlm
