#include "MainWindow/Tray.h"

#include <QApplication>
#include <QDBusConnection>
#include <QDBusMessage>
#include <QDesktopServices>
#include <QMenuBar>
#include <QUrl>
#include <utility>

#include "AppConfig.h"
#include "Log.h"
#include "MainWindow/About.h"
#include "MainWindow/Settings.h"
#include "Roles.h"
#include "platform/Platform.h"
#include "plugins/PluginWindow.h"

namespace vlm {

namespace {
constexpr int kBalloonMs = 10000;
constexpr auto kRapidDeath = std::chrono::milliseconds(30000);
constexpr const char* kUserManualUrl = "https://www.corvane.com/velmor/VELMOR-User-Manual.pdf";
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
    // A browser that cannot be started leaves nothing for the user to do: it is only logged.
    openUrl = [](const QUrl& url) {
        if (!QDesktopServices::openUrl(url))
            VLM_LOG(4, "Could not open %s in a browser\n", url.toString().toUtf8().constData());
    };

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

    // A second agent's request lands here, as the tray's own action.
    previousShowWebApp_ = std::exchange(vlm::showWebApp, [this] { showWebApp(); });

    agent.addListener(this);
    if (startAgent)
        agent.start();
}

MainWindow::Tray::~Tray() {
    // The agent's threads outlive the tray: none may call into it once it is gone.
    agent_.removeListener(this);
    vlm::showWebApp = std::move(previousShowWebApp_);
}

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
    // A plain message: an interface object would first introspect the service, blocking.
    QDBusMessage notify = QDBusMessage::createMethodCall("org.freedesktop.Notifications",
                                                         "/org/freedesktop/Notifications",
                                                         "org.freedesktop.Notifications", "Notify");
    notify << QString("VELMOR") << 0u << QString() << title << text << QStringList()
           << QVariantMap() << kBalloonMs;
    QDBusConnection::sessionBus().send(notify);
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
    changeSettings(agent_.configuration(), [&] { changeAgentMode(agent_, mode); });
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

// No menu entry reaches it; it stays invocable by name through the meta-object.
void MainWindow::Tray::slotShowPluginsManager() {
    showPluginsManager(pluginWindow_, agent_);
}

void MainWindow::Tray::showSettings() {
    Settings settings(agent_, agent_.configuration());
    if (settings.exec() != QDialog::Accepted)
        return;
    applySettings(agent_, settings.choices());
}

void MainWindow::Tray::showHelpAbout() {
    About about(agent_.splashPixmap.get(), QString::fromStdString(platform::versionText()));
    about.exec();
}

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
