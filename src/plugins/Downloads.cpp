#include "plugins/Downloads.h"

#include <QFileInfo>
#include <QLabel>
#include <QPixmap>
#include <QPushButton>
#include <QSaveFile>
#include <cstdio>
#include <mutex>
#include <ostream>
#include <thread>

#include "Log.h"
#include "plugins/HttpGet.h"

namespace vlm {

namespace {

std::string inFolder(std::string folder, const std::string& fileName) {
    if (folder.empty() || (folder.back() != '/' && folder.back() != '\\'))
        folder += '/';
    return folder + fileName;
}

/// The body's bytes into a file that appears under its name only when complete: a cut-off
/// transfer never leaves a truncated plug-in or picture.
class CompleteFile : private std::streambuf, public std::ostream {
public:
    explicit CompleteFile(const std::string& path)
        : std::ostream(this), file_(QString::fromStdString(path)) {
        if (!file_.open(QIODevice::WriteOnly))
            setstate(std::ios::badbit);
    }
    bool isOpen() const { return file_.isOpen(); }
    /// True when the file is in place under its name.
    bool commit() { return good() && file_.commit(); }

private:
    std::streamsize xsputn(const char* data, std::streamsize size) override {
        return file_.write(data, size) == size ? size : 0;
    }
    std::streambuf::int_type overflow(std::streambuf::int_type c) override {
        using traits = std::streambuf::traits_type;
        if (traits::eq_int_type(c, traits::eof()))
            return traits::not_eof(c);
        const char byte = traits::to_char_type(c);
        return file_.write(&byte, 1) == 1 ? c : traits::eof();
    }

    QSaveFile file_;
};

/// Runs worker on a detached thread that owns it. The worker leaves the GUI thread first, so
/// that deleting it there is legitimate; its queued signals still reach the GUI thread.
template <typename Worker>
void runDetached(Worker* worker) {
    worker->moveToThread(nullptr);
    std::thread([worker] {
        std::unique_ptr<Worker> owned(worker);
        owned->run();
    }).detach();
}

}  // namespace

downloadWorker::downloadWorker(const CatalogueEntry& entry, std::shared_ptr<PluginFolders> folders)
    : url_(entry.url), fileName_(entry.windowsFile), folders_(std::move(folders)) {}

void downloadWorker::start(downloadWorker* worker) {
    runDetached(worker);
}

void downloadWorker::run() {
    std::vector<std::string> folders;
    {
        std::shared_lock<std::shared_mutex> lock(folders_->lock);
        folders = folders_->pluginFolders;
    }
    auto [host, path] = splitAddress(url_ + fileName_);
    bool opened = false;
    bool written = false;
    // The catalogue reader refuses such names already; a worker never writes outside.
    if (isPlainFileName(fileName_)) {
        for (const std::string& folder : folders) {
            const std::string target = inFolder(folder, fileName_);
            std::printf("%s\nGetting %s --%s\n", target.c_str(), host.c_str(), path.c_str());
            std::fflush(stdout);
            CompleteFile file(target);
            if (!file.isOpen()) {
                VLM_LOG(4, "Cannot write plug-in file %s\n", target.c_str());
                continue;
            }
            opened = true;
            if (httpGet(host, path, file) && file.commit())
                written = true;
            else
                VLM_LOG(4, "Download of %s%s into %s failed\n", host.c_str(), path.c_str(),
                        target.c_str());
        }
    }
    if (!opened)
        emit signalUpdateText("File Open\nError");
    if (written)
        emit signalFileWritten();
    emit signalDownloadEnd();
}

pictureWorker::pictureWorker(std::string address, std::string fileName, QStringList folders)
    : address_(std::move(address)), fileName_(std::move(fileName)), folders_(std::move(folders)) {}

void pictureWorker::run() {
    auto [host, path] = splitAddress(address_);
    for (const QString& folder : folders_) {
        const std::string target = inFolder(folder.toStdString(), fileName_);
        CompleteFile file(target);
        if (!file.isOpen())
            continue;
        if (!httpGet(host, path, file) || !file.commit())
            VLM_LOG(4, "Picture %s%s not fetched\n", host.c_str(), path.c_str());
        break;
    }
    emit signalFetched();
}

devImage::devImage(ImageRecord record, int row, int column, int x,
                   std::shared_ptr<PluginFolders> folders, QLabel* picture, QPushButton* fetch,
                   QObject* parent)
    : QObject(parent),
      record_(std::move(record)),
      fileName_(pictureName(record_)),
      row_(row),
      column_(column),
      x_(x),
      folders_(std::move(folders)),
      picture_(picture),
      fetch_(fetch) {
    connect(fetch_, &QPushButton::released, this, &devImage::fetchImage);
}

void devImage::getImage() {
    shownFile_.clear();
    if (!fileName_.empty()) {
        for (const QString& folder : folders_->pictureDirectories) {
            for (const char* ending : {".png", ".icns"}) {
                const QString file =
                    QString::fromStdString(inFolder(folder.toStdString(), fileName_)) + ending;
                QPixmap pixmap;
                if (!QFileInfo(file).isFile() || !pixmap.load(file))
                    continue;
                picture_->setPixmap(
                    pixmap.scaled(picture_->size(), Qt::KeepAspectRatio, Qt::SmoothTransformation));
                picture_->setToolTip(
                    QString::fromStdString(record_.vendor + " " + record_.product));
                shownFile_ = file;
                break;
            }
            if (!shownFile_.isEmpty())
                break;
        }
    }
    picture_->setVisible(!shownFile_.isEmpty());
    fetch_->setVisible(shownFile_.isEmpty());
    fetch_->setEnabled(!fileName_.empty() && !fetching_);
}

void devImage::fetchImage() {
    if (fetching_ || fileName_.empty())
        return;
    fetching_ = true;
    fetch_->setEnabled(false);
    auto* worker =
        new pictureWorker(record_.pngUrl, fileName_ + ".png", folders_->pictureDirectories);
    connect(worker, &pictureWorker::signalFetched, this, [this] {
        fetching_ = false;
        getImage();
    });
    runDetached(worker);
}

}  // namespace vlm
