#include "plugins/PluginWindow.h"

#include <QCoreApplication>
#include <QFileInfo>
#include <QLabel>
#include <QPushButton>
#include <QScrollArea>
#include <mutex>
#include <sstream>

#include "Agent/Agent.h"
#include "AppConfig.h"
#include "plugins/HttpGet.h"
#include "plugins/RowDisplay.h"

namespace vlm {

namespace {

const char* const kCouldNotConnect = "COULD NOT CONNECT TO WEBSITE";
const char* const kRedLabel = "QLabel { background-color: red; }";
const char* const kOrangeLabel = "QLabel { background-color: orange; }";
const char* const kGreenLabel = "QLabel { background-color: lightgreen; }";

QLabel* headerCell(QWidget* parent, const QString& text, int x, int y, int w, int h, bool left) {
    auto* label = new QLabel(text, parent);
    label->setObjectName("header:" + text);
    label->setGeometry(x, y - PluginWindow::kRowAreaTop, w, h);
    label->setAlignment(Qt::AlignCenter);
    label->setStyleSheet(cellStyle(true, false, left, true, "text-align: center;"));
    return label;
}

}  // namespace

PluginWindow::PluginWindow(QWidget* parent)
    : QWidget(parent), folders_(std::make_shared<PluginFolders>()) {
    resize(800, 600);
    setWindowTitle("Plugin Manager");
    // The table's lines and words are black by design: in a dark theme too, the table is a
    // light sheet and the coloured labels keep black words.
    setStyleSheet(
        "#connectionLabel, #rowArea QLabel { color: black; } "
        "#rowArea { background-color: rgb(250, 250, 250); }");
}

PluginWindow::~PluginWindow() = default;

void PluginWindow::setUp(const QStringList& pictureDirectories) {
    folders_->pictureDirectories = pictureDirectories;

    updateButton_ = new QPushButton("Update info", this);
    updateButton_->setObjectName("updateButton");
    updateButton_->setGeometry(30, 20, 150, 30);
    connect(updateButton_, &QPushButton::released, this, &PluginWindow::refreshRemote);

    engineButton_ = new QPushButton("Stop Engine", this);
    engineButton_->setObjectName("engineButton");
    engineButton_->setGeometry(170, 20, 150, 30);
    engineButton_->hide();
    connect(engineButton_, &QPushButton::released, this, &PluginWindow::toggleEngine);

    connectionLabel_ = new QLabel(kCouldNotConnect, this);
    connectionLabel_->setObjectName("connectionLabel");
    connectionLabel_->setGeometry(660, 20, 120, 30);
    connectionLabel_->setAlignment(Qt::AlignCenter);
    connectionLabel_->setWordWrap(true);
    connectionLabel_->setStyleSheet(kRedLabel);

    rowScroll_ = new QScrollArea(this);
    rowScroll_->setObjectName("rowScroll");
    rowScroll_->setFrameShape(QFrame::NoFrame);
    rowScroll_->setGeometry(0, kRowAreaTop, 800, 600 - kRowAreaTop);
    rowScroll_->setHorizontalScrollBarPolicy(Qt::ScrollBarAlwaysOff);

    fetchCatalogue();
}

std::vector<std::string> PluginWindow::pluginFolders() const {
    std::shared_lock<std::shared_mutex> lock(folders_->lock);
    return folders_->pluginFolders;
}

void PluginWindow::updateModel(const json::Document& jsJSon) {
    std::optional<std::vector<std::string>> folders;
    readServerConfig(jsJSon, localVersions_, folders);
    if (folders) {
        std::unique_lock<std::shared_mutex> lock(folders_->lock);
        folders_->pluginFolders = std::move(*folders);
    }
}

void PluginWindow::refreshRemote() {
    setConnection("TRYING TO CONNECT...", kOrangeLabel);
    fetchCatalogue();
}

void PluginWindow::toggleEngine() {
    // Nothing receives these signals in this program, and the button stays hidden.
    if (!engineStarted_) {
        emit startEngine();
        engineStarted_ = true;
        engineButton_->setText("Stop Engine");
    } else {
        emit stopEngine();
        engineStarted_ = false;
        engineButton_->setText("Start Engine");
    }
}

void PluginWindow::setConnection(const char* text, const char* style) {
    connectionLabel_->setText(text);
    connectionLabel_->setStyleSheet(style);
}

void PluginWindow::fetchCatalogue() {
    std::ostringstream body;
    if (!httpGet(catalogueHost(), "/plugins.json", body))
        return;
    CatalogueEntries fresh;
    if (!readCatalogue(body.str(), fresh))
        return;
    setConnection("CONNECTED", kGreenLabel);
    entries_ = std::move(fresh);
    rebuildRows();
}

void PluginWindow::rebuildRows() {
    std::unique_lock<std::shared_mutex> lock(folders_->lock);
    applyStatus(entries_, localVersions_);

    // Replacing the scroll area's widget deletes the old rows; their workers' reports to
    // them are dropped with them.
    rows_.clear();
    auto* area = new QWidget;
    area->setObjectName("rowArea");
    headerCell(area, "PLUG-INS", 30, 80, 530, 30, true);
    headerCell(area, "Icons", 560, 80, 220, 60, false);
    headerCell(area, "Name", 30, 110, 120, 30, true);
    headerCell(area, "Description", 150, 110, 200, 30, false);
    headerCell(area, "Stability", 350, 110, 90, 30, false);
    headerCell(area, "Installed", 440, 110, 120, 30, false);

    int y = 140 - kRowAreaTop;
    std::size_t index = 0;
    for (const auto& [name, entry] : entries_) {
        const bool last = ++index == entries_.size();
        auto* row = new RowDisplay(entry, y, last, downloaded_.count(name) > 0, folders_, area);
        connect(row, &RowDisplay::signalDownloaded, this,
                [this](const QString& done) { downloaded_.insert(done.toStdString()); });
        rows_.push_back(row);
        y += RowDisplay::kHeight;
    }
    area->resize(800, y + 30);
    rowScroll_->setWidget(area);
}

const QStringList& pictureDirectories(const AppConfig& config) {
    static const QStringList folders = [&config] {
        QStringList list;
        // The configuration's own folder: APPDATA where set, else the user's XDG folder.
        list << QString::fromStdString(config.picturesFolder) + "/";
        const QString executable = QCoreApplication::applicationFilePath().left(260);
        const int at = executable.lastIndexOf("VELMOR");
        if (at >= 0 && QFileInfo(executable).fileName() == "VELMOR")
            list << executable.left(at) + "pictures/";
        return list;
    }();
    return folders;
}

void showPluginsManager(std::unique_ptr<PluginWindow>& window, Agent& agent) {
    const QStringList& pictures = pictureDirectories(agent.configuration());
    window.reset();
    window = std::make_unique<PluginWindow>();
    if (json::DocumentPtr configuration = agent.queryServer("$"))
        window->updateModel(*configuration);
    window->setUp(pictures);
    window->show();
}

}  // namespace vlm
