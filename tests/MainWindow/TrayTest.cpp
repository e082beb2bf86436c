// The tray and the dialogs it opens, on real widgets; modal windows are driven by a timer.

#include "MainWindow/Tray.h"

#include <sys/stat.h>

#include <QtTest>
#include <QtWidgets>

#include "AgentTestSupport.h"
#include "MainWindow/About.h"
#include "MainWindow/Settings.h"
#include "Roles.h"
#include "plugins/PluginWindow.h"

namespace {

using namespace std::chrono_literals;
using Texts = std::vector<std::string>;
using Settings = vlm::MainWindow::Settings;

const std::string kPluginsBox =
    "Plug-ins Filtering Changed | Plug-ins filtering will be set next time this Agent starts | 1";
std::string modeBox(const std::string& word) {
    return "Mode Changed | Mode will be set to \"" + word + "\" next time this Agent starts | 1";
}

Texts texts(const QList<QAction*>& actions) {
    Texts found;
    for (QAction* action : actions)
        found.push_back(action->isSeparator() ? "-" : action->text().toStdString());
    return found;
}

// A list's check boxes: "X" checked, "-" unchecked, "x" and "." the same but disabled.
std::string rows(const QStandardItemModel* model, bool withTexts = false) {
    std::string states;
    for (int row = 0; row < model->rowCount(); ++row) {
        const QStandardItem* item = model->item(row);
        states += "-X.x"[2 * !item->isEnabled() + (item->checkState() == Qt::Checked)];
        if (withTexts)
            states += " " + item->text().toStdString() + "|";
    }
    return states;
}

// Clicks a row's check box as a user does (or, onText, the row's text beside it).
void click(QListView* view, int row, bool onText = false) {
    QStyleOptionViewItem option;
    option.initFrom(view->viewport());
    option.rect = view->visualRect(view->model()->index(row, 0));
    option.features = QStyleOptionViewItem::HasCheckIndicator;
    const QRect box = view->style()->subElementRect(QStyle::SE_ItemViewItemCheckIndicator, &option);
    QTest::mouseClick(view->viewport(), Qt::LeftButton, {}, (onText ? option.rect : box).center());
}

class TrayTest : public vlm::test::AgentFixture {
protected:
    void build(const std::string& configText = "{}", bool trayHost = true) {
        TearDown();
        hasTray = trayHost;
        agent = makeAgent(configText);
        agent->engineProgram = "/bin/false";  // every launch is followed by a death report
        window = std::make_unique<vlm::MainWindow>(*agent, false, [this] { return hasTray; });
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
    // Runs run; act sees each other modal window once; message boxes are recorded
    // ("title | text | icon", then their style sheet) and accepted.
    void modal(const std::function<void()>& run, const std::function<void(QWidget*)>& act = {}) {
        QPointer<QWidget> last;
        QTimer driver;
        QObject::connect(&driver, &QTimer::timeout, [&] {
            QWidget* modal = QApplication::activeModalWidget();
            if (auto* box = qobject_cast<QMessageBox*>(modal)) {
                boxes.push_back((box->windowTitle() + " | " + box->text() + " | " +
                                 QString::number(box->icon()) + box->styleSheet())
                                    .toStdString());
                box->accept();
            } else if (modal && modal != last && act) {
                act(last = modal);
            }
        });
        driver.start(5);
        run();
        EXPECT_TRUE(last.isNull());  // a dialog is gone when its slot returns
    }

    std::unique_ptr<vlm::Agent> agent;
    std::unique_ptr<vlm::MainWindow> window;
    vlm::MainWindow::Tray* tray = nullptr;
    bool hasTray = true;
    Texts balloons, opened, boxes;
    std::chrono::steady_clock::time_point now{};
};

// The menu and window as designed, the unconnected slots reachable, a tray gone hears nothing.
// Without a tray the window stands in (minimised, the actions in its menu bar, the menu's title
// and "Start Local Server" state in view) until a tray host appears.
TEST_F(TrayTest, ConstructionAndMetaObject) {
    qputenv("VELMOR_CATALOGUE_HOST", "127.0.0.1:1");  // never the maker's server
    build();
    EXPECT_EQ(texts(tray->menu->actions()),
              (Texts{"Title", "-", "Open &Web App", "Start Local Server", "&Settings...", "-",
                     "&User Manual", "&About", "&Quit"}));
    EXPECT_FALSE(tray->titleAction->isEnabled() || tray->webAppAction->isEnabled());
    EXPECT_EQ(tray->menu->title() + " | " + tray->trayIcon->toolTip(), "App | VELMOR 1.0.0 b1");
    EXPECT_EQ(texts(window->menuBar()->actions()), Texts{"App"});
    EXPECT_FALSE(window->isVisible() || window->close());  // only an anchor; closing hides it
    EXPECT_TRUE(tray->trayIcon->isVisible() && !tray->trayIcon->icon().pixmap(16).isNull());
    EXPECT_TRUE(QMetaObject::invokeMethod(tray, "slotUpdateModeMenu"));
    EXPECT_TRUE(tray->hybridAction->isChecked() && !tray->masterAction->isChecked());
    ASSERT_TRUE(QMetaObject::invokeMethod(tray, "slotShowPluginsManager"));
    EXPECT_TRUE(tray->pluginWindow()->isVisible() && tray->pluginWindow()->rows().empty());
    qunsetenv("VELMOR_CATALOGUE_HOST");
    window.reset();
    EXPECT_EQ(agent->listeners, std::vector<vlm::Agent::Listener*>{&listener});

    build("{}", false);
    EXPECT_EQ(texts(window->menuBar()->actions()),
              (Texts{"Open &Web App", "Start Local Server", "&Settings...", "&User Manual",
                     "&About", "&Quit"}));
    EXPECT_TRUE(window->isVisible() && window->isMinimized());
    EXPECT_EQ(window->size(), QSize(480, 320));
    auto* status = window->findChild<QLabel*>("status");
    auto report = [&](const std::string& server, bool attached) {  // then the menu's state
        agent->attachedServer = attached ? server : "";
        attached ? tray->onAttached(server) : tray->onDetached(server);
        QCoreApplication::processEvents();
        return status->text().toStdString() + (tray->webAppAction->isEnabled() ? "+web" : "") +
               (tray->startServerAction->isVisible() ? "+start" : "");
    };
    EXPECT_EQ(report("10.0.0.5:8080", true), "VELMOR - Server on 10.0.0.5:8080+web+start");
    agent->enginePid = 4242;  // a local engine, or another mode: no "Start Local Server"
    EXPECT_EQ(report("10.0.0.5:8080", true), "VELMOR - Server on 10.0.0.5:8080+web");
    agent->enginePid = 0;
    agent->mode = vlm::kModeSlave;
    EXPECT_EQ(report("10.0.0.5:8080", false), "VELMOR - No Server Running");
    window->showNormal();
    EXPECT_TRUE(!window->close() && window->isVisible() && window->isMinimized());
    hasTray = true;
    window->checkTrayHost();
    EXPECT_FALSE(window->isVisible() || window->withoutTray());
    EXPECT_EQ(texts(window->menuBar()->actions()), Texts{"App"});
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
    window.reset();
    if (vlm::showWebApp)
        vlm::showWebApp();  // the tray is gone: nothing reaches it
    EXPECT_EQ(opened.size(), 6u);
}

// A second death within 30000 ms of a restart gives up (once per death); later ones restart.
TEST_F(TrayTest, RestartGuardTable) {
    // The gaps between deaths, the restarts, the deaths given up.
    const std::tuple<std::vector<std::chrono::milliseconds>, int, int> cases[] = {
        {{0ms}, 1, 0},          {{0ms, 10s}, 1, 1},      {{0ms, 30000ms}, 1, 1},
        {{0ms, 30001ms}, 2, 0}, {{0ms, 10s, 21s}, 2, 1}, {{0ms, 30001ms, 30000ms}, 2, 1}};
    for (const auto& [gaps, restarts, givenUp] : cases) {
        SCOPED_TRACE(gaps.size() * 100 + restarts * 10 + givenUp);
        build();
        vlm::test::LogCapture log;
        for (auto gap : gaps) {
            now += gap;
            tray->slotEngineDied();
        }
        EXPECT_EQ(log.count("Trying to restart Engine process...\n"), restarts);
        EXPECT_EQ(log.count("Engine Process dies rapidly. No further attempt to restart\n"),
                  givenUp);
        EXPECT_EQ(balloons, Texts(givenUp,
                                  "Local Server Died | No further attempts to revive "
                                  "local server as it crashes rapidly"));
    }
    // A death reported on the watcher's thread restarts a Master's engine as a master; its own
    // quick death is then given up.
    build(R"({"mode": 1})");
    agent->engineProgram = appData.file("engine");
    vlm::test::writeFile(agent->engineProgram, "#!/bin/sh\necho \"$@\" >\"$0.args\"\n");
    chmod(agent->engineProgram.c_str(), 0755);
    std::thread([this] { tray->onEngineDied(); }).join();
    EXPECT_TRUE(QTest::qWaitFor([&] { return balloons.size() == 1; }));
    EXPECT_EQ(vlm::test::readFile(agent->engineProgram + ".args"),
              "--server 1 --apid " + std::to_string(getpid()) + " --master 1\n");
}

// "&About" runs the box modally, sized by the scale, the agent's picture filling it and the
// version right-aligned in its lower right corner (at 1.5: 10 from the left, 57 above the bottom,
// 21 narrower than the box).
TEST_F(TrayTest, AboutBox) {
    build();
    agent->splashPixmap = std::make_unique<QPixmap>(60, 25);
    agent->splashPixmap->fill(Qt::black);
    vlm::dpiScale = 1.5f;
    QImage image;
    modal([&] { tray->aboutAction->trigger(); },
          [&](QWidget* about) {
              EXPECT_EQ(about->windowTitle() + " | " +
                            qobject_cast<vlm::MainWindow::About*>(about)->text(),
                        "About | Version 1.0.0 b1");
              EXPECT_FALSE(about->windowFlags() & Qt::WindowContextHelpButtonHint);
              image = about->grab().toImage();
              about->close();
          });
    vlm::dpiScale = 1.0f;
    ASSERT_EQ(image.size(), QSize(900, 375));
    QRect text;  // the bright pixels
    for (int y = 0; y < image.height(); ++y)
        for (int x = 0; x < image.width(); ++x)
            text |= qGray(image.pixel(x, y)) > 200 ? QRect(x, y, 1, 1) : QRect();
    EXPECT_TRUE(QRect(10, 318, 879, 57).contains(text) && text.width() > 40);
    EXPECT_LE(888 - text.right() + text.top() - 318, 8);     // at the right, at the top
    EXPECT_EQ(qGray(image.pixel(image.width() - 1, 0)), 0);  // the picture fills the box
    EXPECT_FALSE(vlm::MainWindow::About(nullptr, "None").grab().isNull());  // without a picture
}

// A mode is announced only when stored; one that cannot be written is reported in the shared
// (here dark) box. The dialog: open, change by mouse and keyboard, Ok, reopen: what the boxes
// showed is stored; a click is a change even when nothing toggles; Cancel changes nothing.
TEST_F(TrayTest, ModeChangeAndSettingsRoundTrip) {
    build(R"({"mode": 4})");
    const auto query = std::exchange(vlm::darkModeQuery, [] { return true; });
    modal([&] {
        tray->slotModeMaster();
        tray->slotModeHybrid();  // the running mode: nothing stored, nothing shown
        // Unwritable for this one call.
        std::make_unique<vlm::test::ReadOnlyFolder>(appData.path()), tray->slotModeSlave();
    });
    vlm::darkModeQuery = query;
    const std::string dark = "background-color: rgb(43, 43, 43);color: rgb(255, 255, 255);}";
    EXPECT_EQ(boxes, (Texts{modeBox("Master") + dark,
                            "Settings Not Saved | The settings could not be written to " +
                                appData.file("config.json") +
                                " (Permission denied). They stay as they were. | 2" + dark}));
    EXPECT_NE(savedConfig().find(R"("mode":1)"), std::string::npos) << savedConfig();
    EXPECT_EQ(agent->mode, vlm::kModeHybrid);
    boxes.clear();
    modal([&] { tray->settingsAction->trigger(); },
          [&](QWidget* dialog) {
              auto& settings = *qobject_cast<Settings*>(dialog);
              EXPECT_EQ(settings.windowTitle() + settings.modeCombo->currentText(),
                        "SettingsHybrid");
              EXPECT_EQ(rows(settings.pluginModel).substr(0, 4), "X-XX");
              click(settings.discoveryList, 0);  // "All" off: the interface rows free, unchecked
              EXPECT_EQ(rows(settings.discoveryModel).find_first_not_of('-'), std::string::npos);
              click(settings.pluginList, 1);
              settings.pluginList->setCurrentIndex(settings.pluginModel->index(2, 0));
              QKeyEvent space(QEvent::KeyPress, Qt::Key_Space, Qt::NoModifier, " ");
              QApplication::sendEvent(settings.pluginList, &space);
              settings.modeCombo->setCurrentIndex(1);
              dialog->findChild<QDialogButtonBox*>()->button(QDialogButtonBox::Ok)->click();
          });
    EXPECT_EQ(boxes, (Texts{modeBox("Slave"), kPluginsBox}));
    const std::string saved = savedConfig();
    modal([&] { tray->settingsAction->trigger(); },
          [&](QWidget* dialog) {
              auto& settings = *qobject_cast<Settings*>(dialog);
              EXPECT_EQ(settings.discoveryModel->item(0)->checkState(), Qt::Unchecked);
              EXPECT_EQ(settings.modeCombo->currentText(), "Hybrid");  // the running mode
              click(settings.pluginList, 1, true);  // no toggle, and still a change
              EXPECT_EQ(rows(settings.pluginModel).substr(0, 4), "XX-X");  // as stored, untoggled
              EXPECT_TRUE(settings.choices().pluginsChanged);
              dialog->findChild<QDialogButtonBox*>()->button(QDialogButtonBox::Cancel)->click();
          });
    EXPECT_EQ(boxes.size(), 2u);
    EXPECT_EQ(savedConfig(), saved);
}

// The rows from the interfaces (several addresses on one; one chosen but gone), and the
// choices in the dialog's order with their messages.
TEST_F(TrayTest, SettingsApplyTellsWhatWaitsForTheNextStart) {
    const std::vector<vlm::InterfaceAddress> interfaces{
        {"Studio A", "AA:00:00:00:00:01", "10.0.0.5", "255.255.255.0"},
        {"Studio A", "AA:00:00:00:00:01", "172.16.4.2", "255.255.0.0"},
        {"Studio B", "BB:00:00:00:00:02", "192.168.7.9", "255.0.255.0"}};
    build(R"({"mode": 4, "server": {"ip": "172.16.4.2"}, "discovery": {"filtering":
        [{"hardware_id": "CC:00:00:00:00:09"}, {"hardware_id": "BB:00:00:00:00:02"}]}})");
    auto settings = std::make_unique<Settings>(*agent, config, interfaces);
    EXPECT_EQ(settings->addressCombo->currentText() +
                  QString::number(settings->addressCombo->count()) +
                  settings->modeCombo->currentText(),
              "172.16.4.24Hybrid");
    EXPECT_EQ(rows(settings->discoveryModel, true),
              "- All|- 10.0.0.x\t(Studio A)|- 172.16.x.x\t(Studio A)|X 192.x.7.x\t(Studio B)|"
              "X CC:00:00:00:00:09\t(not available)|");
    settings->discoveryModel->item(1)->setCheckState(Qt::Checked);  // one row chooses AA
    settings->discoveryModel->item(4)->setCheckState(Qt::Unchecked);
    settings->addressCombo->setCurrentIndex(0);
    settings->modeCombo->setCurrentIndex(0);
    settings->pluginModel->item(0)->setCheckState(Qt::Unchecked);
    modal([&] { vlm::applySettings(*agent, settings->choices()); });
    EXPECT_EQ(boxes, (Texts{"Web Server Address Changed | Web Server Address will be set next "
                            "time this Agent starts | 1",
                            modeBox("Master"), kPluginsBox}));
    const std::string saved = savedConfig();
    for (const char* part : {R"("server":{"ip":""})", R"("mode":1)", R"(Bonjour","enabled":false})",
                             R"("filtering":[{"hardware_id":"AA:00:00:00:00:01"},)"
                             R"({"hardware_id":"BB:00:00:00:00:02"}])"})
        EXPECT_NE(saved.find(part), std::string::npos) << part << "\n" << saved;
    EXPECT_EQ(agent->mode, vlm::kModeHybrid);  // the running agent keeps its mode

    settings = std::make_unique<Settings>(*agent, config, interfaces);
    EXPECT_EQ(rows(settings->discoveryModel), "-XXX");
    settings->discoveryModel->item(0)->setCheckState(Qt::Checked);  // "All" wins: ["0"]
    EXPECT_EQ(settings->choices().discoveryFilter, Texts{"0"});
}

}  // namespace
