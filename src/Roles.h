#pragma once
// The three roads main() can take once the command line and the configuration are read.

#include <cstdint>
#include <functional>
#include <memory>

class QApplication;
class QWidget;

namespace vlm {

/// Desktop logical DPI / 96; window sizes are multiplied by it.
extern float dpiScale;

/// What a second agent's request does in the running agent; the tray installs its action.
extern std::function<void()> showWebApp;

/// Console engine-server role: the engine runs until the event loop ends.
int runConsoleEngineServer(QApplication& application, bool master);
/// Engine-server role: the engine runs while the agent process agentPid lives.
int runEngineServer(bool master, std::int64_t agentPid);
/// Builds the agent's main window; main() supplies it, as the tray lives above this library.
using MainWindowFactory = std::function<std::unique_ptr<QWidget>()>;

/// Agent role: single-instance guard, banner, font, theme, main window, then the event loop.
int runAgent(QApplication& application, const MainWindowFactory& makeMainWindow);

/// The banner the agent writes to standard output, one element per write.
const char* const* agentBanner();

}  // namespace vlm
