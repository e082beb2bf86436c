#include "MainWindow/Tray.h"

#include <QApplication>
#include <QLabel>
#include <QMenuBar>
#include <QMessageBox>
#include <QMetaMethod>
#include <QTimer>
#include <QUrl>

#include "Agent/AgentFixture.h"
#include "Roles.h"
#include "plugins/PluginWindow.h"

namespace {

using namespace std::chrono_literals;
using Texts = std::vector<std::string>;

Texts texts(const QList<QAction*>& actions) {
    Texts found;
    for (QAction* action : actions)
        found.push_back(action->isSeparator() ? "-" : action->text().toStdString());
    return found;
}

class TrayTest : public vlm::test::AgentFixture {
protected:
    void build(const std::string& configText = "{}", bool trayAvailable = true) {
        agent = makeAgent(configText);
        agent->engineProgram = "/bin/false";  // every launch is followed by a death report
        window = std::make_unique<vlm::MainWindow>(*agent, false, trayAvailable);
        tray = window->tray();
        tray->showBalloon = [this](const QString& title, const QString& text) {
            balloons.push_back((title + " | " + text).toStdString());
        };
        tray->openUrl = [this](const QUrl& url) { opened.push_back(url.toString().toStdString()); };
        tray->engineRestartTimer.setClock([this] { return now; });
        vlm::lastAttachedAddress().clear();
        balloons.clear();
    }
    void TearDown() override {
        // A watcher still running would report a death to the tray about to be destroyed.
        if (agent && agent->engineWatcher && agent->engineWatcher->joinable())
            agent->engineWatcher->join();
        window.reset();
    }

    std::unique_ptr<vlm::Agent> agent;
    std::unique_ptr<vlm::MainWindow> window;
    vlm::MainWindow::Tray* tray = nullptr;
    Texts balloons;
    Texts opened;
    std::chrono::steady_clock::time_point now{};
};

// The menu, the window and the meta-object as designed; the unconnected slots stay reachable
// by name, the plug-in manager's among them.
TEST_F(TrayTest, ConstructionAndMetaObject) {
    qputenv("VELMOR_CATALOGUE_HOST", "127.0.0.1:1");  // never the maker's server
    build();
    EXPECT_EQ(texts(tray->menu->actions()),
              (Texts{"Title", "-", "Open &Web App", "Start Local Server", "&Settings...", "-",
                     "&User Manual", "&About", "&Quit"}));
    EXPECT_FALSE(tray->titleAction->isEnabled() || tray->webAppAction->isEnabled());
    EXPECT_EQ(tray->menu->title() + " | " + tray->trayIcon->toolTip(), "App | VELMOR 1.0.0 b1");
    EXPECT_EQ(texts(window->menuBar()->actions()), Texts{"App"});
    EXPECT_EQ(window->size(), QSize(480, 320));
    EXPECT_FALSE(window->windowFlags() & Qt::WindowMaximizeButtonHint);
    EXPECT_FALSE(window->isVisible());  // a tray: the window is only an anchor
    EXPECT_FALSE(window->close());      // closing only hides it
    EXPECT_TRUE(tray->trayIcon->isVisible());

    const QMetaObject* meta = tray->metaObject();
    std::string methods;
    for (int i = meta->methodOffset(); i < meta->methodCount(); ++i)
        methods += meta->method(i).methodSignature().toStdString() + " ";
    EXPECT_EQ(methods,
              "signalAttachChanged(QString,bool) signalNotification(QString) signalEngineDied() "
              "iconActivated(QSystemTrayIcon::ActivationReason) messageClicked() showWebApp() "
              "startLocalServer() quit() slotModeMaster() slotModeSlave() slotModeHybrid() "
              "slotUpdatePopupMenu() slotUpdateModeMenu() slotShowPluginsManager() showSettings() "
              "showHelpAbout() showDocumentation() slotAttachChanged(QString,bool) "
              "slotNotification(QString) slotEngineDied() ");
    EXPECT_EQ(meta->method(meta->methodOffset()).parameterNames(),
              (QList<QByteArray>{"address", "attached"}));
    EXPECT_EQ(meta->method(meta->methodOffset() + 3).methodType(), QMetaMethod::Slot);
    EXPECT_NE(tray->qt_metacast("Agent::Listener"), nullptr);
    EXPECT_TRUE(QMetaObject::invokeMethod(tray, "slotUpdateModeMenu"));
    EXPECT_TRUE(tray->hybridAction->isChecked() && !tray->masterAction->isChecked());
    ASSERT_TRUE(QMetaObject::invokeMethod(tray, "slotShowPluginsManager"));
    ASSERT_NE(tray->pluginWindow(), nullptr);
    EXPECT_TRUE(tray->pluginWindow()->isVisible() && tray->pluginWindow()->rows().empty());
    qunsetenv("VELMOR_CATALOGUE_HOST");
}

// No tray on the desktop: the window is the way in, minimised, its menu bar holding the
// menu's actions, and its close button minimises it again.
TEST_F(TrayTest, WithoutATrayTheWindowStandsIn) {
    build("{}", false);
    EXPECT_EQ(texts(window->menuBar()->actions()),
              (Texts{"Open &Web App", "Start Local Server", "&Settings...", "&User Manual",
                     "&About", "&Quit"}));
    EXPECT_TRUE(window->isVisible() && window->isMinimized());
    EXPECT_EQ(window->size(), QSize(480, 320));
    auto* status = window->findChild<QLabel*>("status");
    EXPECT_EQ(status->text(), "VELMOR - No Server Running");
    agent->attachedServer = "10.0.0.5:8080";
    emit tray->signalAttachChanged("10.0.0.5:8080", true);
    QCoreApplication::processEvents();
    EXPECT_EQ(status->text(), "VELMOR - Server on 10.0.0.5:8080");
    window->showNormal();
    EXPECT_FALSE(window->close());
    EXPECT_TRUE(window->isVisible() && window->isMinimized());
}

// The web application opens by itself once per new server, on a click only when attached,
// and for a second agent; reports from Agent threads reach the GUI thread queued.
TEST_F(TrayTest, WebAppManualAndASecondAgentsRequest) {
    build();
    tray->iconActivated(QSystemTrayIcon::Trigger);
    tray->messageClicked();
    std::thread([this] { tray->onAttached("10.0.0.5:8080"); }).join();
    EXPECT_TRUE(balloons.empty());
    agent->attachedServer = "10.0.0.5:8080";
    QCoreApplication::processEvents();
    tray->onDetached("10.0.0.5:8080");
    tray->onAttached("10.0.0.5:8080");  // the same server: not again
    agent->attachedServer = "10.0.0.6:8080";
    tray->onAttached("10.0.0.6:8080");
    tray->onNotification("anything at all");
    QCoreApplication::processEvents();
    tray->iconActivated(QSystemTrayIcon::Context);
    tray->iconActivated(QSystemTrayIcon::Trigger);
    tray->messageClicked();
    vlm::showWebApp();  // what a second agent's message runs
    tray->userManualAction->trigger();
    const std::string six = "http://10.0.0.6:8080";
    EXPECT_EQ(opened, (Texts{"http://10.0.0.5:8080", six, six, six, six,
                             "https://www.corvane.com/velmor/VELMOR-User-Manual.pdf"}));
    EXPECT_EQ(balloons, (Texts{"Server Found | Attached to 10.0.0.5:8080",
                               "Server Lost | Detached from 10.0.0.5:8080",
                               "Server Found | Attached to 10.0.0.5:8080",
                               "Server Found | Attached to 10.0.0.6:8080",
                               "Server Not Found | Could not find VELMOR server in the network"}));
    EXPECT_TRUE(tray->webAppAction->isEnabled());

    // The menu's title and "Start Local Server": Hybrid without a local engine only.
    auto menu = [this] {
        tray->slotUpdatePopupMenu();
        return tray->titleAction->text().toStdString() +
               (tray->startServerAction->isVisible() ? " +start" : "");
    };
    EXPECT_EQ(menu(), "VELMOR - Server on " + six.substr(7) + " +start");
    agent->enginePid = 4242;
    EXPECT_EQ(menu(), "VELMOR - Server on 10.0.0.6:8080");
    agent->enginePid = 0;
    agent->mode = vlm::kModeSlave;
    agent->attachedServer.clear();
    EXPECT_EQ(menu(), "VELMOR - No Server Running");
    window.reset();
    if (vlm::showWebApp)
        vlm::showWebApp();  // the tray is gone: nothing reaches it
    EXPECT_EQ(opened.size(), 6u);
}

// A second death within 30000 ms of a restart gives up (once per death); later ones restart.
TEST_F(TrayTest, RestartGuardTable) {
    struct Case {
        std::vector<std::chrono::milliseconds> gaps;  // between deaths
        int restarts;
        int givenUp;
    } cases[] = {{{0ms}, 1, 0},          {{0ms, 10s}, 1, 1},      {{0ms, 30000ms}, 1, 1},
                 {{0ms, 30001ms}, 2, 0}, {{0ms, 10s, 21s}, 2, 1}, {{0ms, 30001ms, 30000ms}, 2, 1}};
    for (const Case& c : cases) {
        SCOPED_TRACE(c.gaps.size() * 100 + c.restarts * 10 + c.givenUp);
        build();
        vlm::test::LogCapture log;
        for (auto gap : c.gaps) {
            now += gap;
            tray->slotEngineDied();
        }
        EXPECT_EQ(log.count("Trying to restart Engine process...\n"), c.restarts);
        EXPECT_EQ(log.count("Engine Process dies rapidly. No further attempt to restart\n"),
                  c.givenUp);
        EXPECT_EQ(balloons, Texts(c.givenUp,
                                  "Local Server Died | No further attempts to revive "
                                  "local server as it crashes rapidly"));
        TearDown();
    }
}

// A mode is announced only when stored; one that cannot be written is reported, not
// announced, in the shared (here dark) message box with its style sheet as written.
TEST_F(TrayTest, ModeChangeAndAnUnwritableConfiguration) {
    build(R"({"mode": 4})");
    const auto query = vlm::darkModeQuery;
    vlm::darkModeQuery = [] { return true; };
    Texts shown;
    QTimer driver;
    driver.setInterval(5);
    QObject::connect(&driver, &QTimer::timeout, [&] {
        if (auto* box = qobject_cast<QMessageBox*>(QApplication::activeModalWidget())) {
            shown.push_back((box->windowTitle() + " | " + box->text() + " | " + box->styleSheet())
                                .toStdString() +
                            " | " + std::to_string(box->icon()));
            box->accept();
        }
    });
    driver.start();
    tray->slotModeMaster();
    tray->slotModeHybrid();  // the running mode: nothing stored, nothing shown
    testing::internal::CaptureStdout();
    {
        vlm::test::ReadOnlyFolder readOnly(appData.path());
        tray->slotModeSlave();
    }
    testing::internal::GetCapturedStdout();
    vlm::darkModeQuery = query;
    const std::string dark = " | background-color: rgb(43, 43, 43);color: rgb(255, 255, 255);}";
    EXPECT_EQ(shown, (Texts{"Mode Changed | Mode will be set to \"Master\" next time this Agent "
                            "starts" +
                                dark + " | 1",
                            "Settings Not Saved | The settings could not be written to " +
                                appData.file("config.json") +
                                " (Permission denied). They stay as they were." + dark + " | 2"}));
    EXPECT_NE(savedConfig().find(R"("mode":1)"), std::string::npos) << savedConfig();
    EXPECT_EQ(agent->mode, vlm::kModeHybrid);
}

}  // namespace
