#include "MainWindow/Tray.h"

#include <QApplication>
#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusVirtualObject>
#include <QDesktopServices>
#include <QElapsedTimer>
#include <QLabel>
#include <QMessageBox>
#include <QMetaMethod>
#include <QPushButton>
#include <QTimer>
#include <QUrl>

#include "Agent/AgentFixture.h"
#include "Roles.h"
#include "plugins/PluginWindow.h"
#include "theme/PrivateSessionBus.h"

namespace {

using namespace std::chrono_literals;
using vlm::test::LogCapture;
using Texts = std::vector<std::string>;

// Stands for the desktop's browser: QDesktopServices hands it every web address it opens.
class Browser : public QObject {
    Q_OBJECT
public:
    Browser() {
        for (const char* scheme : {"http", "https"})
            QDesktopServices::setUrlHandler(scheme, this, "open");
    }
    ~Browser() override {
        for (const char* scheme : {"http", "https"})
            QDesktopServices::unsetUrlHandler(scheme);
    }
    Texts opened;

public slots:
    void open(const QUrl& url) { opened.push_back(url.toString().toStdString()); }
};

class TrayTest : public vlm::test::AgentFixture {
protected:
    void build(const std::string& configText = "{}") {
        agent = makeAgent(configText);
        // A child that ends at once: every launch is followed by a death report.
        agent->engineProgram = "/bin/false";
        window = std::make_unique<vlm::MainWindow>(*agent, false);
        tray = window->tray();
        tray->showBalloon = [this](const QString& title, const QString& text) {
            balloons.push_back((title + " | " + text).toStdString());
        };
        tray->openUrl = [this](const QUrl& url) { opened.push_back(url.toString().toStdString()); };
        tray->engineRestartTimer.setClock([this] { return now; });
        vlm::lastAttachedAddress().clear();
    }
    // The tray as the program builds it, with its own balloons and browser opener.
    void buildAsIs() {
        agent = makeAgent();
        window = std::make_unique<vlm::MainWindow>(*agent, false);
        tray = window->tray();
        vlm::lastAttachedAddress().clear();
    }
    void TearDown() override {
        // A watcher still running would report a death to the tray about to be destroyed.
        if (agent && agent->engineWatcher && agent->engineWatcher->joinable())
            agent->engineWatcher->join();
        window.reset();
        agent.reset();
    }

    std::unique_ptr<vlm::Agent> agent;
    std::unique_ptr<vlm::MainWindow> window;
    vlm::MainWindow::Tray* tray = nullptr;
    Texts balloons;
    Texts opened;
    std::chrono::steady_clock::time_point now{};
};

TEST_F(TrayTest, MenuEntriesInOrder) {
    build();
    Texts texts;
    for (QAction* action : tray->menu->actions())
        texts.push_back(action->isSeparator() ? "-" : action->text().toStdString());
    EXPECT_EQ(texts, (Texts{"Title", "-", "Open &Web App", "Start Local Server", "&Settings...",
                            "-", "&User Manual", "&About", "&Quit"}));
    EXPECT_FALSE(tray->titleAction->isEnabled());
    EXPECT_FALSE(tray->webAppAction->isEnabled());
    EXPECT_EQ(tray->menu->title(), "App");
    EXPECT_EQ(tray->trayIcon->toolTip(), "VELMOR 1.0.0 b1");
}

TEST_F(TrayTest, AttachmentReportsCrossToTheGuiThread) {
    build();
    std::thread poll([this] { tray->onAttached("10.0.0.5:8080"); });
    poll.join();
    EXPECT_TRUE(balloons.empty());
    QCoreApplication::processEvents();
    EXPECT_EQ(balloons, Texts{"Server Found | Attached to 10.0.0.5:8080"});
    EXPECT_TRUE(tray->webAppAction->isEnabled());
}

TEST_F(TrayTest, WebAppOpensOncePerNewAddress) {
    build();
    agent->attachedServer = "10.0.0.5:8080";
    tray->slotAttachChanged("10.0.0.5:8080", true);
    tray->slotAttachChanged("10.0.0.5:8080", false);
    tray->slotAttachChanged("10.0.0.5:8080", true);
    agent->attachedServer = "10.0.0.6:8080";
    tray->slotAttachChanged("10.0.0.6:8080", true);
    EXPECT_EQ(opened, (Texts{"http://10.0.0.5:8080", "http://10.0.0.6:8080"}));
    EXPECT_EQ(balloons, (Texts{"Server Found | Attached to 10.0.0.5:8080",
                               "Server Lost | Detached from 10.0.0.5:8080",
                               "Server Found | Attached to 10.0.0.5:8080",
                               "Server Found | Attached to 10.0.0.6:8080"}));
    EXPECT_TRUE(tray->webAppAction->isEnabled());
}

TEST_F(TrayTest, TheDesktopsBrowserOpensTheWebAppAndTheManual) {
    buildAsIs();
    Browser browser;
    agent->attachedServer = "10.0.0.5:8080";
    tray->slotAttachChanged("10.0.0.5:8080", true);
    tray->slotAttachChanged("10.0.0.5:8080", true);  // the same server: not again
    tray->iconActivated(QSystemTrayIcon::Trigger);
    tray->userManualAction->trigger();
    ASSERT_EQ(browser.opened.size(), 3u);
    EXPECT_EQ(browser.opened[0], "http://10.0.0.5:8080");
    EXPECT_EQ(browser.opened[1], "http://10.0.0.5:8080");
    EXPECT_EQ(browser.opened[2].rfind("https://", 0), 0u);
    EXPECT_EQ(browser.opened[2].substr(browser.opened[2].size() - 4), ".pdf");
}

TEST_F(TrayTest, ABrowserThatCannotBeOpenedIsOnlyLogged) {
    buildAsIs();  // the offscreen platform has no browser to start
    LogCapture log;
    agent->attachedServer = "10.0.0.5:8080";
    tray->slotAttachChanged("10.0.0.5:8080", true);
    EXPECT_EQ(log.count("Could not open http://10.0.0.5:8080 in a browser\n"), 1);
    EXPECT_EQ(vlm::lastAttachedAddress(), "10.0.0.5:8080");
}

TEST_F(TrayTest, NotificationTextIsFixed) {
    build();
    tray->slotNotification("anything at all");
    EXPECT_EQ(balloons, Texts{"Server Not Found | Could not find VELMOR server in the network"});
}

TEST_F(TrayTest, IconClickOpensTheWebAppOnlyWhenAttached) {
    build();
    tray->iconActivated(QSystemTrayIcon::Trigger);
    tray->messageClicked();
    EXPECT_TRUE(opened.empty());
    agent->attachedServer = "10.0.0.5:8080";
    tray->iconActivated(QSystemTrayIcon::Context);
    tray->iconActivated(QSystemTrayIcon::Trigger);
    tray->messageClicked();
    EXPECT_EQ(opened, (Texts{"http://10.0.0.5:8080", "http://10.0.0.5:8080"}));
}

TEST_F(TrayTest, PopupTitleAndStartLocalServer) {
    build();
    tray->slotUpdatePopupMenu();
    EXPECT_EQ(tray->titleAction->text(), "VELMOR - No Server Running");
    EXPECT_TRUE(tray->startServerAction->isVisible());
    agent->attachedServer = "10.0.0.5:8080";
    agent->enginePid = 4242;
    tray->slotUpdatePopupMenu();
    EXPECT_EQ(tray->titleAction->text(), "VELMOR - Server on 10.0.0.5:8080");
    EXPECT_FALSE(tray->startServerAction->isVisible());
    agent->enginePid = 0;
    for (vlm::AgentMode mode : {vlm::kModeMaster, vlm::kModeSlave}) {
        agent->mode = mode;
        tray->slotUpdatePopupMenu();
        EXPECT_FALSE(tray->startServerAction->isVisible()) << mode;
    }
}

TEST_F(TrayTest, RapidEngineDeathStopsTheRestarts) {
    build(R"({"mode": 1})");
    LogCapture log;
    tray->slotEngineDied();  // the first death always restarts
    now += 10s;
    tray->slotEngineDied();  // within 30 s of that restart: give up
    EXPECT_EQ(balloons, Texts{"Local Server Died | No further attempts to revive local server as "
                              "it crashes rapidly"});
    now += 21s;
    tray->slotEngineDied();  // 31 s after the last restart: try again
    Texts expected{"Trying to restart Engine process...\n",
                   "Engine Process dies rapidly. No further attempt to restart\n",
                   "Trying to restart Engine process...\n"};
    Texts lines;
    for (const std::string& line : log.lines())
        if (line.find("restart") != std::string::npos)
            lines.push_back(line);
    EXPECT_EQ(lines, expected);
}

TEST_F(TrayTest, RestartGuardEndsAt30000Milliseconds) {
    build(R"({"mode": 4})");
    LogCapture log;
    tray->slotEngineDied();
    now += 30001ms;
    tray->slotEngineDied();  // just past the guard: a second restart
    now += 30000ms;
    tray->slotEngineDied();  // still within it
    EXPECT_EQ(log.count("Trying to restart Engine process...\n"), 2);
    EXPECT_EQ(log.count("Engine Process dies rapidly. No further attempt to restart\n"), 1);
    EXPECT_EQ(balloons.size(), 1u);
}

TEST(MessageBoxTest, TheDarkStyleSheetIsKeptAsWritten) {
    const auto query = vlm::darkModeQuery;
    for (bool dark : {false, true}) {
        vlm::darkModeQuery = [dark] { return dark; };
        QString seen;
        QTimer::singleShot(0, [&] {
            auto* box = qobject_cast<QMessageBox*>(QApplication::activeModalWidget());
            ASSERT_NE(box, nullptr);
            seen = box->windowTitle() + " | " + box->text() + " | " + box->styleSheet();
            EXPECT_EQ(box->icon(), QMessageBox::Information);
            EXPECT_EQ(box->standardButtons(), QMessageBox::Ok);
            box->button(QMessageBox::Ok)->click();
        });
        EXPECT_EQ(vlm::showMessageBox(nullptr, "Title", "Text", QMessageBox::Information,
                                      QMessageBox::Ok),
                  QMessageBox::Ok);
        EXPECT_EQ(seen.toStdString(),
                  dark ? "Title | Text | background-color: rgb(43, 43, 43);color: rgb(255, 255, "
                         "255);}"
                       : "Title | Text | ");
    }
    vlm::darkModeQuery = query;
}

TEST_F(TrayTest, ClosingTheWindowOnlyHidesIt) {
    build();
    window->show();
    EXPECT_FALSE(window->close());  // the close event is ignored
    EXPECT_FALSE(window->isVisible());
    EXPECT_TRUE(tray->trayIcon->isVisible());
    EXPECT_NE(vlm::MainWindow::instance(), nullptr);
}

TEST_F(TrayTest, ModeChangeTellsTheUserOnlyWhenStored) {
    build(R"({"mode": 4})");
    QString shown;
    QTimer::singleShot(0, [&] {
        if (auto* box = qobject_cast<QMessageBox*>(QApplication::activeModalWidget())) {
            shown = box->windowTitle() + " | " + box->text();
            box->accept();
        }
    });
    tray->slotModeMaster();
    EXPECT_EQ(shown, "Mode Changed | Mode will be set to \"Master\" next time this Agent starts");
    shown.clear();
    tray->slotModeHybrid();  // the running mode: nothing stored, nothing shown
    EXPECT_TRUE(shown.isEmpty());
}

TEST_F(TrayTest, AModeThatCannotBeStoredIsReportedNotAnnounced) {
    build(R"({"mode": 4})");
    const std::string before = savedConfig();
    QString shown;
    QTimer::singleShot(0, [&] {
        if (auto* box = qobject_cast<QMessageBox*>(QApplication::activeModalWidget())) {
            shown = box->windowTitle() + " | " + box->text();
            EXPECT_EQ(box->icon(), QMessageBox::Warning);
            box->accept();
        }
    });
    ::testing::internal::CaptureStdout();
    {
        vlm::test::ReadOnlyFolder readOnly(appData.path());
        tray->slotModeMaster();
    }
    ::testing::internal::GetCapturedStdout();
    EXPECT_EQ(shown.toStdString(), "Settings Not Saved | The settings could not be written to " +
                                       appData.file("config.json") +
                                       " (Permission denied). They stay as they were.");
    EXPECT_EQ(savedConfig(), before);
    EXPECT_EQ(vlm::agentModeFrom(config.document.get()), vlm::kModeHybrid);
}

}  // namespace

namespace {

TEST_F(TrayTest, MetaObjectNamesEverySignalAndSlotInOrder) {
    build();
    const QMetaObject* meta = tray->metaObject();
    Texts methods;
    for (int i = meta->methodOffset(); i < meta->methodCount(); ++i) {
        const QMetaMethod method = meta->method(i);
        methods.push_back(
            std::string(method.methodType() == QMetaMethod::Signal ? "signal " : "slot ") +
            method.methodSignature().toStdString());
    }
    EXPECT_EQ(methods, (Texts{"signal signalAttachChanged(QString,bool)",
                              "signal signalNotification(QString)",
                              "signal signalEngineDied()",
                              "slot iconActivated(QSystemTrayIcon::ActivationReason)",
                              "slot messageClicked()",
                              "slot showWebApp()",
                              "slot startLocalServer()",
                              "slot quit()",
                              "slot slotModeMaster()",
                              "slot slotModeSlave()",
                              "slot slotModeHybrid()",
                              "slot slotUpdatePopupMenu()",
                              "slot slotUpdateModeMenu()",
                              "slot slotShowPluginsManager()",
                              "slot showSettings()",
                              "slot showHelpAbout()",
                              "slot showDocumentation()",
                              "slot slotAttachChanged(QString,bool)",
                              "slot slotNotification(QString)",
                              "slot slotEngineDied()"}));
    const QMetaMethod attach = meta->method(meta->methodOffset());
    EXPECT_EQ(attach.parameterNames(), (QList<QByteArray>{"address", "attached"}));
    EXPECT_NE(tray->qt_metacast("Agent::Listener"), nullptr);
    // Unconnected but reachable by name.
    EXPECT_TRUE(QMetaObject::invokeMethod(tray, "slotUpdateModeMenu"));
    EXPECT_TRUE(tray->hybridAction->isChecked());
    EXPECT_FALSE(tray->masterAction->isChecked());
}

}  // namespace

namespace {

TEST_F(TrayTest, SecondAgentsRequestOpensTheWebApp) {
    build();
    agent->attachedServer = "10.0.0.5:8080";
    ASSERT_TRUE(vlm::showWebApp);
    vlm::showWebApp();
    EXPECT_EQ(opened, Texts{"http://10.0.0.5:8080"});
    window.reset();
    if (vlm::showWebApp)
        vlm::showWebApp();  // the tray is gone: nothing reaches it
    EXPECT_EQ(opened.size(), 1u);
}

}  // namespace

namespace {

// Takes the calls made to the desktop's notification service.
class NotificationService : public QDBusVirtualObject {
public:
    bool handleMessage(const QDBusMessage& message, const QDBusConnection&) override {
        std::lock_guard<std::mutex> lock(mutex);
        if (message.member() == "Notify")
            calls.push_back(message.arguments());
        return true;
    }
    QString introspect(const QString&) const override { return {}; }

    std::mutex mutex;
    std::vector<QList<QVariant>> calls;
};

TEST_F(TrayTest, WithoutATrayBalloonsGoToTheNotificationServiceAndTheLog) {
    if (QSystemTrayIcon::isSystemTrayAvailable())
        GTEST_SKIP() << "this desktop shows a tray";
    vlm::test::PrivateSessionBus bus;
    if (bus.address().isEmpty())
        GTEST_SKIP() << "no dbus-daemon";
    // The session bus connection is made on first use; each test runs in its own process.
    setenv("DBUS_SESSION_BUS_ADDRESS", bus.address().toUtf8().constData(), 1);
    NotificationService service;
    {
        QDBusConnection connection = QDBusConnection::connectToBus(bus.address(), "notifications");
        ASSERT_TRUE(connection.registerService("org.freedesktop.Notifications"));
        ASSERT_TRUE(connection.registerVirtualObject("/org/freedesktop/Notifications", &service));
    }

    agent = makeAgent();
    window = std::make_unique<vlm::MainWindow>(*agent, false);
    LogCapture log;
    window->tray()->slotNotification("ignored");
    QElapsedTimer waited;
    waited.start();
    auto received = [&] {
        std::lock_guard<std::mutex> lock(service.mutex);
        return !service.calls.empty();
    };
    while (!received() && waited.elapsed() < 5000) {
        QCoreApplication::processEvents();
        std::this_thread::sleep_for(5ms);
    }
    QDBusConnection::disconnectFromBus("notifications");
    unsetenv("DBUS_SESSION_BUS_ADDRESS");

    ASSERT_EQ(service.calls.size(), 1u);
    const QList<QVariant>& call = service.calls.front();
    ASSERT_EQ(call.size(), 8);
    EXPECT_EQ(call[0].toString(), "VELMOR");
    EXPECT_EQ(call[1].toUInt(), 0u);
    EXPECT_EQ(call[3].toString(), "Server Not Found");
    EXPECT_EQ(call[4].toString(), "Could not find VELMOR server in the network");
    EXPECT_EQ(call[7].toInt(), 10000);
    EXPECT_EQ(log.count("Server Not Found: Could not find VELMOR server in the network\n"), 1);
}

}  // namespace

TEST_F(TrayTest, PluginManagerSlotOpensTheWindowByName) {
    // A closed loopback port: the catalogue is never looked for outside this machine.
    qputenv("VELMOR_CATALOGUE_HOST", "127.0.0.1:1");
    build();
    ASSERT_EQ(tray->pluginWindow(), nullptr);
    ASSERT_TRUE(QMetaObject::invokeMethod(tray, "slotShowPluginsManager"));
    ASSERT_NE(tray->pluginWindow(), nullptr);
    EXPECT_TRUE(tray->pluginWindow()->isVisible());
    EXPECT_TRUE(tray->pluginWindow()->rows().empty());
    bool refused = false;
    for (QLabel* label : tray->pluginWindow()->findChildren<QLabel*>())
        refused = refused || label->text() == "COULD NOT CONNECT TO WEBSITE";
    EXPECT_TRUE(refused);
    qunsetenv("VELMOR_CATALOGUE_HOST");
}

#include "TrayTest.moc"
