#pragma once
// The hidden anchor window of the agent role; it owns the tray.

#include <QMainWindow>
#include <QMessageBox>
#include <functional>
#include <memory>

#include "Agent/Agent.h"

class QTimer;

namespace vlm {

class AppConfig;

/// \brief Hidden window that owns the tray; closing it only hides it.
class MainWindow : public QMainWindow {
    Q_OBJECT
public:
    class Tray;
    class Settings;
    class About;

    /// startAgent: run the agent's start-up from the tray (tests build the window without it).
    /// trayAvailable: whether the desktop shows a tray now; the desktop's own answer when empty.
    explicit MainWindow(Agent& agent, bool startAgent = true,
                        std::function<bool()> trayAvailable = {});
    ~MainWindow() override;

    Tray* tray() const { return tray_.get(); }
    /// True where the desktop has no tray and this window stands in for it.
    bool withoutTray() const { return withoutTray_; }

    static MainWindow* instance() { return instance_; }

    /// Gives way to the tray icon once a tray host has appeared; called every few seconds while
    /// this window stands in for the tray.
    void checkTrayHost();

protected:
    void closeEvent(QCloseEvent* event) override;

private:
    void showWithoutTray();

    static inline MainWindow* instance_ = nullptr;
    std::unique_ptr<Tray> tray_;
    std::function<bool()> trayAvailable_;
    QTimer* trayCheck_ = nullptr;
    bool withoutTray_ = false;
};

/// Tells whether the desktop is dark; the theme installs its query.
extern std::function<bool()> darkModeQuery;

/// The program's modal message box, dark when the desktop is.
int showMessageBox(QWidget* parent, const QString& title, const QString& text,
                   QMessageBox::Icon icon, QMessageBox::StandardButtons buttons);

/// showMessageBox's signature, so that tests can see the boxes without running them.
using MessageBoxFunction = std::function<int(QWidget*, const QString&, const QString&,
                                             QMessageBox::Icon, QMessageBox::StandardButtons)>;

/// "Master", "Slave" or "Hybrid"; the number itself for any other value.
QString modeWord(AgentMode mode);

/// Runs changes that write the configuration; when any of them could not be written, tells
/// the user once. True when told.
bool changeSettings(const AppConfig& config, const std::function<void()>& changes,
                    const MessageBoxFunction& messageBox = showMessageBox);

/// The tray's and the settings dialog's mode change: stores the mode for the next start and,
/// when it was stored, tells the user so. True when stored.
bool changeAgentMode(Agent& agent, AgentMode mode,
                     const MessageBoxFunction& messageBox = showMessageBox);

}  // namespace vlm
