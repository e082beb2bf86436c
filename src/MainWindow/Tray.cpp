#include "MainWindow/Tray.h"

#include <QApplication>
#include <QDBusConnection>
#include <QDBusInterface>
#include <QDesktopServices>
#include <QMenuBar>
#include <QUrl>

#include "Log.h"
#include "platform/Platform.h"

namespace vlm {

namespace {
constexpr int kBalloonMs = 10000;
constexpr auto kRapidDeath = std::chrono::milliseconds(30000);
constexpr const char* kUserManualUrl = "https://www.corvane.com/velmor/VELMOR-User-Manual.pdf";

QString modeWord(AgentMode mode) {
    switch (mode) {
        case kModeMaster:
            return "Master";
        case kModeSlave:
            return "Slave";
        default:
            return "Hybrid";
    }
}
}  // namespace

std::chrono::milliseconds RestartTimer::elapsed() const {
    if (!started_)
        return std::chrono::milliseconds::zero();
    return std::chrono::duration_cast<std::chrono::milliseconds>(clock_() - *started_);
}

QString& lastAttachedAddress() {
    static QString address;
    return address;
}

MainWindow::Tray::Tray(MainWindow& window, Agent& agent, bool startAgent)
    : QObject(&window), window_(window), agent_(agent) {
    showBalloon = [this](const QString& title, const QString& text) {
        defaultBalloon(title, text);
    };
    openUrl = [](const QUrl& url) { QDesktopServices::openUrl(url); };

    icon = QIcon(":/app_default");
    menu = new QMenu("App", &window);
    connect(menu, &QMenu::aboutToShow, this, &Tray::slotUpdatePopupMenu);

    auto addAction = [&](const QString& text, void (Tray::*slot)()) {
        QAction* action = new QAction(text, &window);
        if (slot)
            connect(action, &QAction::triggered, this, slot);
        menu->addAction(action);
        return action;
    };
    titleAction = addAction("Title", nullptr);
    titleAction->setEnabled(false);
    menu->addSeparator();
    webAppAction = addAction("Open &Web App", &Tray::showWebApp);
    webAppAction->setEnabled(false);
    startServerAction = addAction("Start Local Server", &Tray::startLocalServer);
    settingsAction = addAction("&Settings...", &Tray::showSettings);
    menu->addSeparator();
    userManualAction = addAction("&User Manual", &Tray::showDocumentation);
    aboutAction = addAction("&About", &Tray::showHelpAbout);
    quitAction = addAction("&Quit", &Tray::quit);

    // Kept for the mode slots; the menu itself offers no mode entries.
    masterAction = new QAction("Master", &window);
    slaveAction = new QAction("Slave", &window);
    hybridAction = new QAction("Hybrid", &window);
    for (QAction* action : {masterAction, slaveAction, hybridAction})
        action->setCheckable(true);

    trayIcon = new QSystemTrayIcon(&window);
    trayIcon->setContextMenu(menu);
    trayIcon->setToolTip("VELMOR " + QString::fromStdString(platform::versionText()));
    trayIcon->setIcon(icon);
    window.menuBar()->addMenu(menu);

    connect(trayIcon, &QSystemTrayIcon::activated, this, &Tray::iconActivated);
    connect(trayIcon, &QSystemTrayIcon::messageClicked, this, &Tray::messageClicked);
    connect(this, &Tray::signalAttachChanged, this, &Tray::slotAttachChanged);
    connect(this, &Tray::signalNotification, this, &Tray::slotNotification);
    connect(this, &Tray::signalEngineDied, this, &Tray::slotEngineDied);
    trayIcon->setVisible(true);

    agent.addListener(this);
    if (startAgent)
        agent.start();
}

MainWindow::Tray::~Tray() = default;

void MainWindow::Tray::onAttached(const std::string& server) {
    emit signalAttachChanged(QString::fromLatin1(server.c_str()), true);
}

void MainWindow::Tray::onDetached(const std::string& server) {
    emit signalAttachChanged(QString::fromLatin1(server.c_str()), false);
}

void MainWindow::Tray::onNotification(const std::string& text) {
    emit signalNotification(QString::fromLatin1(text.c_str()));
}

void MainWindow::Tray::onEngineDied() {
    emit signalEngineDied();
}

void MainWindow::Tray::defaultBalloon(const QString& title, const QString& text) {
    if (QSystemTrayIcon::isSystemTrayAvailable() && trayIcon->isVisible()) {
        trayIcon->showMessage(title, text, QSystemTrayIcon::Information, kBalloonMs);
        return;
    }
    // No tray on this desktop: the notification service and the log still reach the user.
    VLM_LOG(6, "%s: %s\n", title.toUtf8().constData(), text.toUtf8().constData());
    QDBusInterface notifications("org.freedesktop.Notifications", "/org/freedesktop/Notifications",
                                 "org.freedesktop.Notifications", QDBusConnection::sessionBus());
    if (notifications.isValid())
        notifications.asyncCall("Notify", QString("VELMOR"), 0u, QString(), title, text,
                                QStringList(), QVariantMap(), kBalloonMs);
}

void MainWindow::Tray::iconActivated(QSystemTrayIcon::ActivationReason reason) {
    if (reason == QSystemTrayIcon::Trigger && !agent_.attachedEndpoint().empty())
        showWebApp();
}

void MainWindow::Tray::messageClicked() {
    if (!agent_.attachedEndpoint().empty())
        showWebApp();
}

void MainWindow::Tray::showWebApp() {
    const std::string server = agent_.attachedEndpoint();
    openUrl(QUrl(QString::fromLatin1(("http://" + server).c_str())));
}

void MainWindow::Tray::startLocalServer() {
    agent_.startEngineProcess(false);
}

void MainWindow::Tray::quit() {
    QCoreApplication::quit();
}

void MainWindow::Tray::changeMode(AgentMode mode) {
    if (!agent_.storeMode(mode))
        return;
    showMessageBox(nullptr, "Mode Changed",
                   "Mode will be set to \"" + modeWord(mode) + "\" next time this Agent starts",
                   QMessageBox::Information, QMessageBox::Ok);
}

void MainWindow::Tray::slotModeMaster() {
    changeMode(kModeMaster);
}
void MainWindow::Tray::slotModeSlave() {
    changeMode(kModeSlave);
}
void MainWindow::Tray::slotModeHybrid() {
    changeMode(kModeHybrid);
}

void MainWindow::Tray::slotUpdatePopupMenu() {
    const std::string server = agent_.attachedEndpoint();
    titleAction->setText(server.empty()
                             ? QString("VELMOR - No Server Running")
                             : "VELMOR - Server on " + QString::fromLatin1(server.c_str()));
    bool noLocalEngine = false;
    {
        std::lock_guard<std::mutex> lock(agent_.mutex);
        noLocalEngine = agent_.enginePid == 0;
    }
    startServerAction->setVisible(agent_.mode == kModeHybrid && noLocalEngine);
}

void MainWindow::Tray::slotUpdateModeMenu() {
    masterAction->setChecked(agent_.mode == kModeMaster);
    slaveAction->setChecked(agent_.mode == kModeSlave);
    hybridAction->setChecked(agent_.mode == kModeHybrid);
}

void MainWindow::Tray::slotShowPluginsManager() {}

void MainWindow::Tray::showSettings() {}

void MainWindow::Tray::showHelpAbout() {}

void MainWindow::Tray::showDocumentation() {
    openUrl(QUrl(kUserManualUrl));
}

void MainWindow::Tray::slotAttachChanged(QString address, bool attached) {
    webAppAction->setEnabled(attached);
    if (!attached) {
        showBalloon("Server Lost", "Detached from " + address);
        return;
    }
    showBalloon("Server Found", "Attached to " + address);
    if (address != lastAttachedAddress()) {
        showWebApp();
        lastAttachedAddress() = address;
    }
}

void MainWindow::Tray::slotNotification(QString) {
    showBalloon("Server Not Found", "Could not find VELMOR server in the network");
}

void MainWindow::Tray::slotEngineDied() {
    if (engineRestartTimer.isValid() && engineRestartTimer.elapsed() <= kRapidDeath) {
        VLM_LOG(3, "Engine Process dies rapidly. No further attempt to restart\n");
        showBalloon("Local Server Died",
                    "No further attempts to revive local server as it crashes rapidly");
        return;
    }
    VLM_LOG(6, "Trying to restart Engine process...\n");
    agent_.startEngineProcess(agent_.mode == kModeMaster);
    engineRestartTimer.restart();
}

}  // namespace vlm
