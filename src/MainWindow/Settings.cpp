#include "MainWindow/Settings.h"

#include <QAbstractButton>
#include <QComboBox>
#include <QDialogButtonBox>
#include <QLabel>
#include <QListView>
#include <QNetworkInterface>
#include <QStandardItemModel>
#include <QStyle>
#include <QStyleFactory>
#include <QVBoxLayout>
#include <algorithm>
#include <set>

#include "AppConfig.h"
#include "Roles.h"

namespace vlm {

namespace {
constexpr int kSpacing = 7;
constexpr int kPluginNameWidth = 24;
constexpr int kButtonWidth = 100;
constexpr int kButtonHeight = 26;
constexpr int kWidth = 640;
constexpr int kHeight = 480;
constexpr const char* kAll = "All";
constexpr const char* kAbsent = "not available";

std::string stringMember(const json::Value& object, const char* name) {
    const json::Value& value = json::checkedMember(object, name);
    return value.IsString() ? std::string(value.GetString(), value.GetStringLength())
                            : std::string();
}

QString configuredAddress(const AppConfig& config) {
    const json::Value* ip = json::findPath(config.document.get(), {"server", "ip"});
    return ip && ip->IsString() ? QString::fromUtf8(ip->GetString(), ip->GetStringLength())
                                : QString();
}

// What is stored wins over what the agent started with, so that a choice made in this run,
// even an empty one, is what the dialog shows when opened again.
std::vector<std::string> discoveryFilter(const Agent& agent, const AppConfig& config) {
    const json::Value* filtering =
        json::findPath(config.document.get(), {"discovery", "filtering"});
    if (!filtering || !filtering->IsArray())
        return agent.interfaceHardwareIds;
    std::vector<std::string> ids;
    for (const json::Value& element : filtering->GetArray())
        ids.push_back(element.IsObject() ? stringMember(element, "hardware_id") : std::string());
    return ids;
}

QListView* checkList(QStandardItemModel* model, QWidget* parent) {
    auto* view = new QListView(parent);
    view->setModel(model);
    // Row texts carry meaning ("All", the plug-in names): they are not for editing.
    view->setEditTriggers(QAbstractItemView::NoEditTriggers);
    return view;
}
}  // namespace

std::vector<InterfaceAddress> usableInterfaceAddresses(const QList<QNetworkInterface>& interfaces) {
    std::vector<InterfaceAddress> addresses;
    for (const QNetworkInterface& interface : interfaces) {
        const auto flags = interface.flags();
        if (!(flags & QNetworkInterface::IsUp) || (flags & QNetworkInterface::IsLoopBack))
            continue;
        for (const QNetworkAddressEntry& entry : interface.addressEntries()) {
            if (entry.ip().protocol() != QAbstractSocket::IPv4Protocol)
                continue;
            addresses.push_back({interface.humanReadableName(), interface.hardwareAddress(),
                                 entry.ip().toString(), entry.netmask().toString()});
        }
    }
    return addresses;
}

QString discoveryPattern(const QString& address, const QString& netmask) {
    QStringList parts = address.split('.');
    const QStringList mask = netmask.split('.');
    for (int i = 0; i < parts.size() && i < mask.size(); ++i)
        if (mask[i] == "0")
            parts[i] = "x";
    return parts.join('.');
}

std::vector<PluginEntry> configuredPluginEntries(json::Document* document) {
    std::vector<PluginEntry> entries;
    const json::Value* plugins = json::findPath(document, {"plugins"});
    if (!plugins || !plugins->IsArray())
        return entries;
    for (const json::Value& element : plugins->GetArray()) {
        if (!element.IsObject())
            continue;
        const json::Value& enabled = json::checkedMember(element, "enabled");
        entries.push_back({stringMember(element, "name"), stringMember(element, "descr"),
                           enabled.IsBool() && enabled.GetBool()});
    }
    return entries;
}

MainWindow::Settings::Settings(Agent& agent, AppConfig& config, QWidget* parent)
    : Settings(agent, config, usableInterfaceAddresses(QNetworkInterface::allInterfaces()),
               parent) {}

MainWindow::Settings::Settings(Agent& agent, AppConfig& config,
                               const std::vector<InterfaceAddress>& addresses, QWidget* parent)
    : QDialog(parent) {
    setWindowTitle("Settings");
    setWindowFlags(windowFlags() & ~Qt::WindowContextHelpButtonHint);
    auto* layout = new QVBoxLayout(this);
    layout->addSpacing(kSpacing);

    layout->addWidget(new QLabel("Web Server Address:", this));
    addressCombo = new QComboBox(this);
    addressCombo->addItem("Auto");
    const QString configured = configuredAddress(config);
    for (const InterfaceAddress& address : addresses) {
        addressCombo->addItem(address.ip);
        if (address.ip == configured)
            addressCombo->setCurrentIndex(addressCombo->count() - 1);
    }
    layout->addWidget(addressCombo);

    layout->addWidget(new QLabel("Mode:", this));
    modeCombo = new QComboBox(this);
    modeCombo->addItem("Master", kModeMaster);
    modeCombo->addItem("Slave", kModeSlave);
    modeCombo->addItem("Hybrid", kModeHybrid);
    modeCombo->setCurrentIndex(
        modeCombo->findData(agent.mode, Qt::UserRole, Qt::MatchExactly | Qt::MatchCaseSensitive));
    layout->addWidget(modeCombo);

    layout->addWidget(new QLabel("Discovery Filter:", this));
    discoveryModel = new QStandardItemModel(this);
    const std::vector<std::string> filter = discoveryFilter(agent, config);
    const bool all = !filter.empty() && filter.front() == kNoInterfaceFilter;
    auto* allRow = new QStandardItem(kAll);
    allRow->setCheckable(true);
    allRow->setCheckState(all ? Qt::Checked : Qt::Unchecked);
    discoveryModel->appendRow(allRow);
    auto addInterfaceRow = [&](const QString& text, const QString& hardwareAddress, bool checked) {
        auto* row = new QStandardItem(text);
        row->setCheckable(true);
        row->setCheckState(checked ? Qt::Checked : Qt::Unchecked);
        row->setEnabled(!all);
        row->setData(hardwareAddress, kHardwareAddressRole);
        discoveryModel->appendRow(row);
    };
    std::set<std::string> shown{kNoInterfaceFilter, ""};
    for (const InterfaceAddress& address : addresses) {
        const std::string id = address.hardwareAddress.toStdString();
        shown.insert(id);
        addInterfaceRow(discoveryPattern(address.ip, address.netmask) + "\t(" + address.name + ")",
                        address.hardwareAddress,
                        std::find(filter.begin(), filter.end(), id) != filter.end());
    }
    // A chosen interface that is unplugged now keeps its row, so that Ok does not drop it.
    for (const std::string& id : filter)
        if (shown.insert(id).second)
            addInterfaceRow(QString::fromStdString(id) + "\t(" + kAbsent + ")",
                            QString::fromStdString(id), true);
    discoveryList = checkList(discoveryModel, this);
    connect(discoveryList, &QListView::clicked, this, &Settings::discoveryClicked);
    layout->addWidget(discoveryList, 1);

    layout->addSpacing(kSpacing);
    layout->addWidget(new QLabel("Plug-ins Filter:", this));
    pluginModel = new QStandardItemModel(this);
    plugins = configuredPluginEntries(config.document.get());
    for (const PluginEntry& entry : plugins) {
        auto* row =
            new QStandardItem(QString::fromStdString(entry.name).leftJustified(kPluginNameWidth) +
                              "\t" + QString::fromStdString(entry.descr));
        row->setCheckable(true);
        row->setCheckState(entry.enabled ? Qt::Checked : Qt::Unchecked);
        row->setToolTip(QString::fromStdString(entry.descr));
        pluginModel->appendRow(row);
    }
    pluginList = checkList(pluginModel, this);
    // Long descriptions end in "..." rather than under a second scroll bar; the tip has them.
    pluginList->setHorizontalScrollBarPolicy(Qt::ScrollBarAlwaysOff);
    pluginList->setTextElideMode(Qt::ElideRight);
    connect(pluginList, &QListView::clicked, this, &Settings::pluginClicked);
    // Space toggles a check box as a click does; either way the list handed back follows it.
    connect(pluginModel, &QStandardItemModel::itemChanged, this, &Settings::pluginChanged);
    // The plug-in table is long and the discovery list short: the plug-ins get the room.
    layout->addWidget(pluginList, 3);

    layout->addSpacing(kSpacing);
    auto* buttons = new QDialogButtonBox(QDialogButtonBox::Ok | QDialogButtonBox::Cancel, this);
    // Not owned by the buttons that use it; the box frees it with them.
    QStyle* fusion = QStyleFactory::create("Fusion");
    if (fusion)
        fusion->setParent(buttons);
    for (QAbstractButton* button : buttons->buttons()) {
        button->setMinimumSize(kButtonWidth, kButtonHeight);
        if (fusion)
            button->setStyle(fusion);
    }
    connect(buttons, &QDialogButtonBox::accepted, this, &QDialog::accept);
    connect(buttons, &QDialogButtonBox::rejected, this, &QDialog::reject);
    layout->addWidget(buttons);

    resize(static_cast<int>(kWidth * dpiScale), static_cast<int>(kHeight * dpiScale));
}

void MainWindow::Settings::discoveryClicked(const QModelIndex& index) {
    if (index.data().toString() != kAll)
        return;
    const Qt::CheckState state = discoveryModel->item(0)->checkState();
    for (int row = 1; row < discoveryModel->rowCount(); ++row) {
        QStandardItem* item = discoveryModel->item(row);
        item->setCheckState(state);
        item->setEnabled(state != Qt::Checked);
    }
}

void MainWindow::Settings::pluginClicked(const QModelIndex&) {
    // A click counts as a change even when it restores the first state.
    pluginsChanged = true;
}

void MainWindow::Settings::pluginChanged(QStandardItem* item) {
    plugins[static_cast<std::size_t>(item->row())].enabled = item->checkState() == Qt::Checked;
    pluginsChanged = true;
}

MainWindow::Settings::Choices MainWindow::Settings::choices() const {
    Choices choices;
    if (addressCombo->currentIndex() != 0)
        choices.webServerAddress = addressCombo->currentText().toStdString();
    choices.mode = modeCombo->currentData().toInt();
    for (int row = 0; row < discoveryModel->rowCount(); ++row) {
        QStandardItem* item = discoveryModel->item(row);
        if (item->checkState() != Qt::Checked)
            continue;
        if (row == 0) {
            choices.discoveryFilter = {kNoInterfaceFilter};
            break;
        }
        choices.discoveryFilter.push_back(
            item->data(kHardwareAddressRole).toString().toStdString());
    }
    choices.pluginsChanged = pluginsChanged;
    choices.plugins = plugins;
    return choices;
}

void applySettings(Agent& agent, const MainWindow::Settings::Choices& choices,
                   const MessageBoxFunction& messageBox) {
    changeSettings(
        agent.configuration(),
        [&] {
            if (agent.setWebServerAddress(choices.webServerAddress))
                messageBox(nullptr, "Web Server Address Changed",
                           "Web Server Address will be set next time this Agent starts",
                           QMessageBox::Information, QMessageBox::Ok);
            changeAgentMode(agent, choices.mode, messageBox);
            agent.applyInterfaceFilters(choices.discoveryFilter);
            if (choices.pluginsChanged && agent.setPluginEntries(choices.plugins))
                messageBox(nullptr, "Plug-ins Filtering Changed",
                           "Plug-ins filtering will be set next time this Agent starts",
                           QMessageBox::Information, QMessageBox::Ok);
        },
        messageBox);
}

}  // namespace vlm
