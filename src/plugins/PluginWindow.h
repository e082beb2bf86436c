#pragma once
// The "Plugin Manager" window: the server's plug-ins beside the catalogue's, one row each.

#include <QStringList>
#include <QWidget>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "json/Json.h"
#include "plugins/Catalogue.h"
#include "plugins/Downloads.h"

class QLabel;
class QPushButton;
class QScrollArea;

namespace vlm {

class Agent;
class AppConfig;
class RowDisplay;

/// \brief Top-level plug-in manager window at fixed pixel positions.
class PluginWindow : public QWidget {
    Q_OBJECT
public:
    /// Window top of the scrolling row area; the header and rows sit at their window
    /// positions while it is not scrolled.
    static constexpr int kRowAreaTop = 80;

    explicit PluginWindow(QWidget* parent = nullptr);
    ~PluginWindow() override;

    /// Keeps the picture folders, builds the controls and fetches the catalogue at once.
    void setUp(const QStringList& pictureDirectories);

    const CatalogueEntries& entries() const { return entries_; }
    const LocalVersions& localVersions() const { return localVersions_; }
    std::vector<std::string> pluginFolders() const;
    const std::vector<RowDisplay*>& rows() const { return rows_; }

signals:
    void stopEngine();
    void startEngine();

public slots:
    void updateModel(const vlm::json::Document& jsJSon);
    void refreshRemote();
    void toggleEngine();

private:
    void fetchCatalogue();
    void rebuildRows();
    void setConnection(const char* text, const char* style);

    LocalVersions localVersions_;
    CatalogueEntries entries_;
    std::shared_ptr<PluginFolders> folders_;
    std::set<std::string> downloaded_;
    QPushButton* updateButton_ = nullptr;
    QPushButton* engineButton_ = nullptr;
    QLabel* connectionLabel_ = nullptr;
    QScrollArea* rowScroll_ = nullptr;
    std::vector<RowDisplay*> rows_;
    bool engineStarted_ = false;
};

/// The process-wide picture folders, filled on first use: the configuration's per-user
/// pictures folder, then the "pictures" folder beside the executable when it runs as VELMOR.
const QStringList& pictureDirectories(const AppConfig& config);

/// Replaces window with a new plug-in manager on the attached server's configuration and
/// shows it.
void showPluginsManager(std::unique_ptr<PluginWindow>& window, Agent& agent);

}  // namespace vlm
