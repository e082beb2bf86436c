#pragma once
// The tray icon, its menu, and the agent's listener that turns its reports into balloons.

#include <QAction>
#include <QIcon>
#include <QMenu>
#include <QObject>
#include <QSystemTrayIcon>
#include <chrono>
#include <functional>
#include <memory>
#include <optional>

#include "Agent/Agent.h"
#include "MainWindow/MainWindow.h"

class QUrl;

namespace vlm {

class PluginWindow;

/// \brief Measures the time since the last engine restart; invalid before the first one.
class RestartTimer {
public:
    using Clock = std::function<std::chrono::steady_clock::time_point()>;
    explicit RestartTimer(Clock clock = std::chrono::steady_clock::now)
        : clock_(std::move(clock)) {}
    bool isValid() const { return started_.has_value(); }
    std::chrono::milliseconds elapsed() const;
    void restart() { started_ = clock_(); }
    void setClock(Clock clock) { clock_ = std::move(clock); }

private:
    Clock clock_;
    std::optional<std::chrono::steady_clock::time_point> started_;
};

/// \brief The tray: menu actions, balloons, and the agent's reports on the GUI thread.
class MainWindow::Tray : public QObject, public Agent::Listener {
    Q_OBJECT
public:
    /// Registers with the agent and, when startAgent, runs its start-up.
    Tray(MainWindow& window, Agent& agent, bool startAgent = true);
    ~Tray() override;

    void onAttached(const std::string& server) override;
    void onDetached(const std::string& server) override;
    void onNotification(const std::string& text) override;
    void onEngineDied() override;

    /// Where balloons go and how web addresses open; tests replace both.
    std::function<void(const QString& title, const QString& text)> showBalloon;
    std::function<void(const QUrl& url)> openUrl;

    QSystemTrayIcon* trayIcon = nullptr;
    QMenu* menu = nullptr;
    QIcon icon;
    QAction* titleAction = nullptr;
    QAction* webAppAction = nullptr;
    QAction* startServerAction = nullptr;
    QAction* settingsAction = nullptr;
    QAction* masterAction = nullptr;
    QAction* slaveAction = nullptr;
    QAction* hybridAction = nullptr;
    QAction* userManualAction = nullptr;
    QAction* aboutAction = nullptr;
    QAction* quitAction = nullptr;
    RestartTimer engineRestartTimer;

signals:
    void signalAttachChanged(QString address, bool attached);
    void signalNotification(QString message);
    void signalEngineDied();

public slots:
    void iconActivated(QSystemTrayIcon::ActivationReason reason);
    void messageClicked();
    void showWebApp();
    void startLocalServer();
    void quit();
    void slotModeMaster();
    void slotModeSlave();
    void slotModeHybrid();
    void slotUpdatePopupMenu();
    void slotUpdateModeMenu();
    void slotShowPluginsManager();
    void showSettings();
    void showHelpAbout();
    void showDocumentation();
    void slotAttachChanged(QString address, bool attached);
    void slotNotification(QString message);
    void slotEngineDied();

public:
    /// Stores a new mode and tells the user it applies at the next start.
    void changeMode(AgentMode mode);

    /// The plug-in manager window, once slotShowPluginsManager has opened it.
    PluginWindow* pluginWindow() const { return pluginWindow_.get(); }

private:
    void defaultBalloon(const QString& title, const QString& text);

    MainWindow& window_;
    Agent& agent_;
    std::function<void()> previousShowWebApp_;
    std::unique_ptr<PluginWindow> pluginWindow_;
};

/// The address the web application last opened for; one per process.
QString& lastAttachedAddress();

}  // namespace vlm
