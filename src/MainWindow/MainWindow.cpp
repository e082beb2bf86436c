#include "MainWindow/MainWindow.h"

#include <QCloseEvent>
#include <QLabel>
#include <QMenuBar>
#include <QSystemTrayIcon>
#include <QTimer>
#include <QVBoxLayout>

#include "AppConfig.h"
#include "MainWindow/Tray.h"
#include "Roles.h"

// The program's icon lives in a static library: its registration must be pulled in by name.
static void initProgramResources() {
    Q_INIT_RESOURCE(velmor);
}

namespace vlm {

std::function<bool()> darkModeQuery = [] { return false; };

namespace {
constexpr int kTrayCheckMs = 3000;
}  // namespace

MainWindow::MainWindow(Agent& agent, bool startAgent, std::function<bool()> trayAvailable)
    : trayAvailable_(trayAvailable ? std::move(trayAvailable)
                                   : [] { return QSystemTrayIcon::isSystemTrayAvailable(); }) {
    instance_ = this;
    initProgramResources();
    setWindowFlags((windowFlags() & ~Qt::WindowMaximizeButtonHint) |
                   Qt::MSWindowsFixedSizeDialogHint);
    tray_ = std::make_unique<Tray>(*this, agent, startAgent);
    resize(static_cast<int>(480 * dpiScale), static_cast<int>(320 * dpiScale));
    withoutTray_ = !trayAvailable_();
    if (!withoutTray_)
        return;
    showWithoutTray();
    // Qt passes on no event when a tray host starts later (a panel restarting, a session
    // still coming up): ask now and then.
    trayCheck_ = new QTimer(this);
    connect(trayCheck_, &QTimer::timeout, this, &MainWindow::checkTrayHost);
    trayCheck_->start(kTrayCheckMs);
}

void MainWindow::checkTrayHost() {
    if (!withoutTray_ || !trayAvailable_())
        return;
    withoutTray_ = false;
    trayCheck_->stop();
    menuBar()->clear();
    menuBar()->addMenu(tray_->menu);
    // The icon itself moves into the new tray on its own.
    hide();
}

void MainWindow::showWithoutTray() {
    // No tray to open the menu from: the window stays in the desktop's window list with the
    // menu's actions in its menu bar, and a line that says what the menu's title would.
    setWindowTitle("VELMOR");
    menuBar()->clear();
    for (QAction* action : tray_->menu->actions())
        if (!action->isSeparator() && action != tray_->titleAction)
            menuBar()->addAction(action);
    auto* page = new QWidget(this);
    auto* layout = new QVBoxLayout(page);
    auto* icon = new QLabel(page);
    icon->setPixmap(tray_->icon.pixmap(64, 64));
    auto* status = new QLabel(page);
    status->setObjectName("status");
    QFont larger = status->font();
    larger.setPointSizeF(larger.pointSizeF() * 1.3);
    status->setFont(larger);
    auto* hint =
        new QLabel("This desktop shows no tray icons: the menu is in the bar above.", page);
    hint->setWordWrap(true);
    layout->addStretch(2);
    for (QLabel* label : {icon, status, hint}) {
        label->setAlignment(Qt::AlignCenter);
        layout->addWidget(label);
    }
    layout->addStretch(3);
    setCentralWidget(page);
    auto update = [this, status] {
        tray_->slotUpdatePopupMenu();
        status->setText(tray_->titleAction->text());
    };
    update();
    connect(tray_.get(), &Tray::signalAttachChanged, status, update, Qt::QueuedConnection);
    showMinimized();
}

MainWindow::~MainWindow() {
    tray_.reset();
    if (instance_ == this)
        instance_ = nullptr;
}

void MainWindow::closeEvent(QCloseEvent* event) {
    // Only "&Quit" ends the agent; the window merely goes out of sight, and without a tray
    // it stays within reach in the window list.
    event->ignore();
    if (withoutTray_)
        showMinimized();
    else
        hide();
}

int showMessageBox(QWidget* parent, const QString& title, const QString& text,
                   QMessageBox::Icon icon, QMessageBox::StandardButtons buttons) {
    QMessageBox box(parent);
    const bool dark = darkModeQuery && darkModeQuery();
    box.setWindowTitle(title);
    box.setText(text);
    box.setIcon(icon);
    box.setStandardButtons(buttons);
    if (dark)
        box.setStyleSheet("background-color: rgb(43, 43, 43);color: rgb(255, 255, 255);}");
    return box.exec();
}

QString modeWord(AgentMode mode) {
    switch (mode) {
        case kModeMaster:
            return "Master";
        case kModeSlave:
            return "Slave";
        case kModeHybrid:
            return "Hybrid";
        default:
            return QString::number(mode);
    }
}

bool changeSettings(const AppConfig& config, const std::function<void()>& changes,
                    const MessageBoxFunction& messageBox) {
    const unsigned failuresBefore = config.failedSaves();
    changes();
    if (config.failedSaves() == failuresBefore)
        return false;
    messageBox(nullptr, "Settings Not Saved",
               QString("The settings could not be written to %1 (%2). They stay as they were.")
                   .arg(QString::fromStdString(config.configFilePath),
                        QString::fromStdString(config.saveError())),
               QMessageBox::Warning, QMessageBox::Ok);
    return true;
}

bool changeAgentMode(Agent& agent, AgentMode mode, const MessageBoxFunction& messageBox) {
    if (!agent.storeMode(mode))
        return false;
    messageBox(nullptr, "Mode Changed",
               "Mode will be set to \"" + modeWord(mode) + "\" next time this Agent starts",
               QMessageBox::Information, QMessageBox::Ok);
    return true;
}

}  // namespace vlm
