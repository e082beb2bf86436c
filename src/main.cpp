#include <QApplication>
#include <QWindow>
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
    // Nothing here draws with OpenGL. Without a GL integration Qt's X11 platform leaves the
    // system's GL driver unloaded: tens of MB resident with a software renderer.
    const bool glChosen = qEnvironmentVariableIsSet("QT_XCB_GL_INTEGRATION");
    if (!glChosen)
        qputenv("QT_XCB_GL_INTEGRATION", "none");
    QApplication application(argc, argv);
    if (!glChosen) {
        // Qt settles the integration with the first window that could use it; programs
        // started later (the user's browser) then get the environment as it was.
        QWindow settle;
        settle.setSurfaceType(QSurface::OpenGLSurface);
        settle.create();
        qunsetenv("QT_XCB_GL_INTEGRATION");
    }
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
