#include "Roles.h"

#include <QApplication>
#include <QDesktopWidget>
#include <QFont>
#include <QSocketNotifier>
#include <chrono>
#include <cstdio>
#include <thread>

#include "Agent/Agent.h"
#include "Log.h"
#include "SingletonApp.h"
#include "platform/Platform.h"
#include "theme/QCVTheme.h"

namespace vlm {

float dpiScale = 1.0f;

std::function<void()> showWebApp;

namespace {
constexpr int kSingletonConnectMs = 500;
constexpr auto kSecondAgentLinger = std::chrono::seconds(1);
constexpr auto kParentWatchInterval = std::chrono::seconds(10);
constexpr qint32 kShowWebAppMessage = 0;

const char* const kBanner[] = {
    "\033[37m\033[1m\n",
    "*********************************************************************************\n",
    "**                                 Velmor Agent                                **\n",
    "**                         Inner Troubleshooting Logger                        **\n",
    "*********************************************************************************\n\n",
    "\033[0m",
    nullptr,
};

void printBanner() {
    for (const char* const* line = kBanner; *line; ++line) {
        std::fputs(*line, stdout);
        std::fflush(stdout);
    }
}

void handleMessage(const QByteArray& data) {
    // Fewer than four bytes is not a message anyone sends; reading past them would be.
    if (data.size() < static_cast<int>(sizeof(qint32)))
        return;
    qint32 message = 0;
    std::memcpy(&message, data.constData(), sizeof message);
    if (message != kShowWebAppMessage)
        return;
    VLM_LOG(6, "Another agent asked to show the web application\n");
    if (showWebApp)
        showWebApp();
}
}  // namespace

const char* const* agentBanner() {
    return kBanner;
}

int runConsoleEngineServer(QApplication& application, bool master) {
    attachConsole();
    if (!Agent::instance().startEngine(master))
        return 0;
    return application.exec();
}

int runEngineServer(bool master, std::int64_t agentPid) {
    Agent& agent = Agent::instance();
    if (!agent.startEngine(master))
        return 0;
    while (Agent::isProcessAlive(static_cast<std::uint32_t>(agentPid)))
        std::this_thread::sleep_for(kParentWatchInterval);
    agent.stopEngine();
    return 0;
}

int runAgent(QApplication& application, const MainWindowFactory& makeMainWindow) {
    QSingletonApp singleton;
    std::string problem;
    const QString name = QString::fromStdString(platform::singleInstanceServerName(problem));
    if (name.isEmpty())
        VLM_LOG(4, "No single-instance guard: %s; a second agent will not hand over\n",
                problem.c_str());
    if (singleton.claim(name, kSingletonConnectMs)) {
        singleton.send(kShowWebAppMessage);
        std::this_thread::sleep_for(kSecondAgentLinger);
        return 0;
    }
    singleton.handler = handleMessage;

    printBanner();
    dpiScale = static_cast<float>(QApplication::desktop()->logicalDpiX()) / 96.0f;

    // Where Calibri is missing, its metric twin keeps every text at its designed width.
    QFont::insertSubstitution("Calibri", "Carlito");
    QFont font("Calibri", 10, -1, false);
    // Monospace hint with a proportional family is how the agent has always looked.
    font.setStyleHint(QFont::Monospace, QFont::PreferDefault);
    QApplication::setFont(font);
    QCVTheme::instance().applyTheme();

    std::unique_ptr<QWidget> mainWindow = makeMainWindow ? makeMainWindow() : nullptr;
    // From here on, ending the session ends the agent as "&Quit" does: windows, tray icon and
    // the single-instance socket go away in order. During the splash it still ends the
    // process at once, so a logout never waits for the search.
    std::unique_ptr<QSocketNotifier> termination;
    if (const int requests = platform::terminationRequests(); requests >= 0) {
        termination = std::make_unique<QSocketNotifier>(requests, QSocketNotifier::Read);
        QObject::connect(termination.get(), &QSocketNotifier::activated, &application, [] {
            VLM_LOG(6, "Asked to end: quitting\n");
            QCoreApplication::quit();
        });
    }
    const int result = application.exec();
    mainWindow.reset();
    return result;
}

}  // namespace vlm
