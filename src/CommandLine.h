#pragma once
// The command line chooses the role: agent (no option), engine server, console engine server.

#include <cstdint>

class QCoreApplication;

namespace vlm {

/// Reads "server", "serverd", "master" and "apid"; a malformed command line ends the process
/// with status 1.
void parseCommandLine(QCoreApplication& application, bool& engineServer, bool& consoleEngineServer,
                      bool& master, std::int64_t& agentPid);

}  // namespace vlm
