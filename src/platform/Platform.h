#pragma once
// The few operating-system services the program needs, one implementation per system.

#include <cstdint>
#include <cstdio>
#include <string>

namespace vlm::platform {

/// Separator the program puts between path components.
char pathSeparator();

/// Per-user base folder for application data; empty when none can be determined.
std::string userAppDataFolder();

/// Machine-wide application-data folder; false when the system cannot give one.
bool commonAppDataFolder(std::string& folder);

/// Creates one folder level; failures (already there, missing parent) are ignored.
void makeDirectory(const std::string& path);
/// Creates the per-user base folder with its missing parents where the system may lack it (a
/// new Linux account has no ~/.config); failures are ignored.
void makeBaseFolder(const std::string& path);

/// Opens a file for reading only when it is a regular file: a folder or a FIFO is never opened
/// (a FIFO would block the reader). Null otherwise, with errno set.
std::FILE* openRegularFile(const std::string& path);
/// The kind of what path names after links: 0 nothing, 1 a regular file, 2 anything else.
int fileKind(const std::string& path);
/// Writes content whole to a temporary file beside path (its link target when path is a
/// symbolic link), with the mode of the file it replaces, then renames it over that file.
/// False with errno set when anything failed; the old file is then intact.
bool replaceFile(const std::string& path, const std::string& content);

bool isDirectory(const std::string& path);

/// True while the process exists and has not ended (a zombie has ended).
bool isProcessAlive(std::uint32_t pid);

std::uint32_t currentProcessId();

/// \brief Wakes a waiting thread the moment a process ends (a pidfd on Linux, the process
/// handle on Windows).
class ProcessEndWatch {
public:
    /// A process that cannot be opened (pid 0, already gone) is waited for by time alone.
    explicit ProcessEndWatch(std::uint32_t pid);
    ~ProcessEndWatch();
    ProcessEndWatch(const ProcessEndWatch&) = delete;
    ProcessEndWatch& operator=(const ProcessEndWatch&) = delete;

    /// Returns when the process has ended or timeoutMs have passed, whichever comes first.
    void wait(std::int64_t timeoutMs);

private:
    std::intptr_t handle_;
};

/// Full path of the running executable.
std::string executablePath();

/// Gives the process a console; true when it accepts virtual-terminal colour sequences.
bool attachConsole();

/// A descriptor that becomes readable when the session asks the program to end (on Linux
/// SIGTERM at logout, SIGHUP, SIGINT), so that the event loop can quit as "&Quit" does; -1
/// where the system ends a session through the windows instead.
int terminationRequests();

/// "major.minor.patch bbuild" of the executable, or "None" when it has no version.
std::string versionText();

/// Name of the agent's single-instance local socket, placed so that users never share it; empty,
/// with the reason in problem, when its folder is not private to this user.
std::string singleInstanceServerName(std::string& problem);
/// True when the peer of a connected local socket runs as this process's user.
bool peerIsSameUser(std::intptr_t socketDescriptor);

/// Folder layout under the base folders, shared by the configuration and the engine.
constexpr const char* kMakerFolder = "Corvane Technologies";
constexpr const char* kProductFolder = "velmor";

/// Machine-wide engine plug-in and web-application folders; false without a common folder.
bool commonPluginFolder(std::string& folder);
bool commonWebAppFolder(std::string& folder);

/// Per-user plug-in folder (empty when there is no per-user base folder).
std::string userPluginFolder();

}  // namespace vlm::platform
