#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <thread>

#include "platform/Platform.h"
#include "velmor_version.h"

namespace vlm::platform {

namespace {
std::string environment(const char* name) {
    const char* value = std::getenv(name);
    return value ? std::string(value) : std::string();
}
}  // namespace

char pathSeparator() {
    return '/';
}

std::string userAppDataFolder() {
    std::string folder = environment("APPDATA");
    if (!folder.empty())
        return folder;
    folder = environment("XDG_CONFIG_HOME");
    if (!folder.empty())
        return folder;
    folder = environment("HOME");
    return folder.empty() ? folder : folder + "/.config";
}

bool commonAppDataFolder(std::string& folder) {
    std::string configured = environment("VELMOR_COMMON_APPDATA");
    folder = configured.empty() ? "/usr/share" : configured;
    return true;
}

void makeDirectory(const std::string& path) {
    if (!path.empty())
        ::mkdir(path.c_str(), 0755);
}

bool isDirectory(const std::string& path) {
    struct stat info {};
    return ::stat(path.c_str(), &info) == 0 && S_ISDIR(info.st_mode);
}

bool isProcessAlive(std::uint32_t pid) {
    if (pid == 0 || pid > static_cast<std::uint32_t>(INT32_MAX))
        return false;
    if (::kill(static_cast<pid_t>(pid), 0) != 0 && errno != EPERM)
        return false;
    // An ended child that nobody reaped still answers kill(); its state says it ended.
    std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
    std::string line;
    if (!std::getline(stat, line))
        return false;
    std::size_t close = line.rfind(')');
    if (close == std::string::npos || close + 2 >= line.size())
        return false;
    char state = line[close + 2];
    return state != 'Z' && state != 'X' && state != 'x';
}

ProcessEndWatch::ProcessEndWatch(std::uint32_t pid) : handle_(-1) {
    if (pid != 0 && pid <= static_cast<std::uint32_t>(INT32_MAX))
        handle_ = ::syscall(SYS_pidfd_open, static_cast<pid_t>(pid), 0);
}

ProcessEndWatch::~ProcessEndWatch() {
    if (handle_ >= 0)
        ::close(static_cast<int>(handle_));
}

void ProcessEndWatch::wait(std::int64_t timeoutMs) {
    if (handle_ < 0) {
        std::this_thread::sleep_for(std::chrono::milliseconds(timeoutMs));
        return;
    }
    // A pidfd becomes readable when its process ends.
    pollfd ended{static_cast<int>(handle_), POLLIN, 0};
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    for (;;) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0 || ::poll(&ended, 1, static_cast<int>(left.count())) != -1 ||
            errno != EINTR)
            return;
    }
}

std::uint32_t currentProcessId() {
    return static_cast<std::uint32_t>(::getpid());
}

std::string executablePath() {
    char buffer[4096];
    ssize_t length = ::readlink("/proc/self/exe", buffer, sizeof buffer - 1);
    if (length <= 0)
        return {};
    return std::string(buffer, static_cast<std::size_t>(length));
}

bool attachConsole() {
    // A Linux process already has its terminal; colours work when it is one.
    std::ios::sync_with_stdio(true);
    return ::isatty(STDOUT_FILENO) == 1;
}

namespace {
int terminationPipe[2] = {-1, -1};

void onTerminationSignal(int) {
    const int saved = errno;
    const char byte = 0;
    // Async-signal-safe; a full pipe already holds a request.
    [[maybe_unused]] ssize_t written = write(terminationPipe[1], &byte, 1);
    errno = saved;
}
}  // namespace

int terminationRequests() {
    if (terminationPipe[0] >= 0)
        return terminationPipe[0];
    if (pipe2(terminationPipe, O_CLOEXEC | O_NONBLOCK) != 0)
        return -1;
    struct sigaction action {};
    action.sa_handler = onTerminationSignal;
    sigemptyset(&action.sa_mask);
    action.sa_flags = SA_RESTART;
    for (int signal : {SIGTERM, SIGHUP, SIGINT})
        sigaction(signal, &action, nullptr);
    return terminationPipe[0];
}

std::string versionText() {
    if (VELMOR_VERSION_MAJOR == 0 && VELMOR_VERSION_MINOR == 0 && VELMOR_VERSION_PATCH == 0 &&
        VELMOR_VERSION_BUILD == 0)
        return "None";
    char text[64];
    std::snprintf(text, sizeof text, "%d.%d.%d b%d", VELMOR_VERSION_MAJOR, VELMOR_VERSION_MINOR,
                  VELMOR_VERSION_PATCH, VELMOR_VERSION_BUILD);
    return text;
}

std::string singleInstanceServerName() {
    std::string runtime = environment("XDG_RUNTIME_DIR");
    if (!runtime.empty())
        return runtime + "/velmor_agent_singleton";
    std::string temp = environment("TMPDIR");
    if (temp.empty())
        temp = "/tmp";
    return temp + "/velmor_agent_singleton-" + std::to_string(::getuid());
}

}  // namespace vlm::platform
