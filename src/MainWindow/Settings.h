#pragma once
// The settings dialog of the tray menu: web server address, mode, discovery filter, plug-ins.

#include <QDialog>
#include <QList>
#include <QString>
#include <string>
#include <vector>

#include "Agent/Agent.h"
#include "MainWindow/MainWindow.h"

class QComboBox;
class QListView;
class QModelIndex;
class QNetworkInterface;
class QStandardItem;
class QStandardItemModel;

namespace vlm {

class AppConfig;

/// One IPv4 address of an interface that is up and not a loopback.
struct InterfaceAddress {
    QString name;  // human-readable
    QString hardwareAddress;
    QString ip;
    QString netmask;
};

/// The IPv4 addresses of the usable interfaces, in interface and address order.
std::vector<InterfaceAddress> usableInterfaceAddresses(const QList<QNetworkInterface>& interfaces);

/// The address with "x" wherever the netmask part is "0": 192.168.1.x for a /24.
QString discoveryPattern(const QString& address, const QString& netmask);

/// The configuration's "plugins" array as entries, in array order.
std::vector<PluginEntry> configuredPluginEntries(json::Document* document);

/// \brief The modal settings dialog. Everything it computes is read through choices(), so it
/// can be driven and read without exec().
class MainWindow::Settings : public QDialog {
    Q_OBJECT
public:
    /// What the user chose, as applySettings takes it.
    struct Choices {
        std::string webServerAddress;  // empty for "Auto"
        AgentMode mode = kModeNone;
        std::vector<std::string> discoveryFilter;  // ["0"] for all interfaces
        bool pluginsChanged = false;
        std::vector<PluginEntry> plugins;
    };

    /// Rows from the machine's interfaces.
    Settings(Agent& agent, AppConfig& config, QWidget* parent = nullptr);
    Settings(Agent& agent, AppConfig& config, const std::vector<InterfaceAddress>& addresses,
             QWidget* parent = nullptr);

    Choices choices() const;

    QComboBox* addressCombo = nullptr;
    QComboBox* modeCombo = nullptr;
    QListView* discoveryList = nullptr;
    QStandardItemModel* discoveryModel = nullptr;
    QListView* pluginList = nullptr;
    QStandardItemModel* pluginModel = nullptr;
    bool pluginsChanged = false;
    std::vector<PluginEntry> plugins;

private:
    void discoveryClicked(const QModelIndex& index);
    void pluginClicked(const QModelIndex& index);
    void pluginChanged(QStandardItem* item);
};

/// Item data role of a discovery row's hardware address.
constexpr int kHardwareAddressRole = Qt::UserRole + 1;

/// Hands the choices to the agent in the dialog's order, telling the user what waits for the
/// next start.
void applySettings(Agent& agent, const MainWindow::Settings::Choices& choices,
                   const MessageBoxFunction& messageBox = showMessageBox);

}  // namespace vlm
