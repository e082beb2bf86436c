#include <fcntl.h>
#include <limits.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
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

void makeBaseFolder(const std::string& path) {
    std::error_code ignored;
    if (!path.empty())
        std::filesystem::create_directories(path, ignored);
}

std::FILE* openRegularFile(const std::string& path) {
    // Opening a FIFO would release a writer waiting on it: only a regular file is opened.
    if (const int kind = fileKind(path); kind != 1) {
        errno = kind == 0 ? ENOENT : EINVAL;
        return nullptr;
    }
    // Without blocking and checked again on the descriptor, for a FIFO put there meanwhile.
    const int descriptor = ::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (descriptor < 0)
        return nullptr;
    struct stat info {};
    if (::fstat(descriptor, &info) != 0 || !S_ISREG(info.st_mode)) {
        ::close(descriptor);
        errno = EINVAL;
        return nullptr;
    }
    ::fcntl(descriptor, F_SETFL, 0);
    std::FILE* file = ::fdopen(descriptor, "rb");
    if (!file)
        ::close(descriptor);
    return file;
}

int fileKind(const std::string& path) {
    struct stat info {};
    if (::stat(path.c_str(), &info) != 0)
        return 0;
    return S_ISREG(info.st_mode) ? 1 : 2;
}

bool replaceFile(const std::string& path, const std::string& content) {
    // A link (dotfile managers keep config.json as one) stays a link: its target is replaced.
    std::string target = path;
    char resolved[PATH_MAX];
    struct stat link {};
    if (::lstat(path.c_str(), &link) == 0 && S_ISLNK(link.st_mode) &&
        ::realpath(path.c_str(), resolved))
        target = resolved;
    struct stat old {};
    const bool replacing = ::stat(target.c_str(), &old) == 0;
    const std::string temporary = target + ".tmp";
    ::unlink(temporary.c_str());
    const int descriptor = ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
    if (descriptor < 0)
        return false;
    bool written = !replacing || ::fchmod(descriptor, old.st_mode & 07777) == 0;
    for (std::size_t done = 0; written && done < content.size();) {
        const ssize_t count = ::write(descriptor, content.data() + done, content.size() - done);
        if (count < 0 && errno == EINTR)
            continue;
        written = count > 0;
        done += written ? static_cast<std::size_t>(count) : 0;
    }
    // Full file systems may only say so when the data reaches the disk.
    written = written && ::fsync(descriptor) == 0;
    written = ::close(descriptor) == 0 && written;
    if (written && ::rename(temporary.c_str(), target.c_str()) == 0)
        return true;
    const int error = errno;
    ::unlink(temporary.c_str());
    errno = error;
    return false;
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

std::string singleInstanceServerName(std::string& problem) {
    std::string folder = environment("XDG_RUNTIME_DIR");
    if (folder.empty()) {
        std::string temp = environment("TMPDIR");
        folder =
            (temp.empty() ? std::string("/tmp") : temp) + "/velmor-" + std::to_string(::getuid());
        ::mkdir(folder.c_str(), 0700);
    }
    // Only a folder nobody else can enter keeps other users from taking the name first.
    struct stat info {};
    if (::lstat(folder.c_str(), &info) != 0) {
        problem = folder + ": " + std::strerror(errno);
        return {};
    }
    if (!S_ISDIR(info.st_mode) || info.st_uid != ::getuid() || (info.st_mode & 0777) != 0700) {
        problem = folder + " is not a folder of this user with mode 0700";
        return {};
    }
    return folder + "/velmor_agent_singleton";
}

bool peerIsSameUser(std::intptr_t socketDescriptor) {
    struct ucred peer {};
    socklen_t length = sizeof peer;
    return ::getsockopt(static_cast<int>(socketDescriptor), SOL_SOCKET, SO_PEERCRED, &peer,
                        &length) == 0 &&
           peer.uid == ::getuid();
}

}  // namespace vlm::platform
