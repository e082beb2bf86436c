#include <QApplication>
#include <cstdlib>

#include "Agent/Agent.h"
#include "AppConfig.h"
#include "CommandLine.h"
#include "MainWindow/MainWindow.h"
#include "Roles.h"
#include "theme/QCVTheme.h"

namespace {
// Server roles run on headless machines: without a display Qt gets its offscreen platform.
void chooseHeadlessPlatform() {
    if (std::getenv("DISPLAY") || std::getenv("WAYLAND_DISPLAY") || std::getenv("QT_QPA_PLATFORM"))
        return;
    setenv("QT_QPA_PLATFORM", "offscreen", 1);
}
}  // namespace

int main(int argc, char* argv[]) {
    chooseHeadlessPlatform();
    QApplication application(argc, argv);
    QGuiApplication::setQuitOnLastWindowClosed(false);

    bool engineServer = false;
    bool consoleEngineServer = false;
    bool master = false;
    std::int64_t agentPid = 0;
    vlm::parseCommandLine(application, engineServer, consoleEngineServer, master, agentPid);

    vlm::AppConfig::instance().load();

    if (consoleEngineServer)
        return vlm::runConsoleEngineServer(application, master);
    if (engineServer)
        return vlm::runEngineServer(master, agentPid);
    return vlm::runAgent(application, [] {
        vlm::darkModeQuery = [] { return vlm::QCVTheme::instance().isDark(); };
        return std::make_unique<vlm::MainWindow>(vlm::Agent::instance());
    });
}
