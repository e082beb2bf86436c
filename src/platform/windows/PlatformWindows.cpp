// Windows half of the platform layer (built only on Windows).

#include <shlobj.h>
#include <windows.h>

#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <vector>

#include "platform/Platform.h"

namespace vlm::platform {

char pathSeparator() {
    return '\\';
}

std::string userAppDataFolder() {
    const char* folder = std::getenv("APPDATA");
    return folder ? std::string(folder) : std::string();
}

bool commonAppDataFolder(std::string& folder) {
    char path[MAX_PATH];
    if (SHGetFolderPathA(nullptr, CSIDL_COMMON_APPDATA, nullptr, 0, path) != S_OK)
        return false;
    folder = path;
    return true;
}

void makeDirectory(const std::string& path) {
    if (!path.empty())
        CreateDirectoryA(path.c_str(), nullptr);
}

void makeBaseFolder(const std::string&) {
    // APPDATA always exists.
}

std::FILE* openRegularFile(const std::string& path) {
    return fileKind(path) == 1 ? std::fopen(path.c_str(), "rb") : nullptr;
}

int fileKind(const std::string& path) {
    DWORD attributes = GetFileAttributesA(path.c_str());
    if (attributes == INVALID_FILE_ATTRIBUTES)
        return 0;
    return (attributes & FILE_ATTRIBUTE_DIRECTORY) ? 2 : 1;
}

bool replaceFile(const std::string& path, const std::string& content) {
    const std::string temporary = path + ".tmp";
    std::FILE* file = std::fopen(temporary.c_str(), "wb");
    if (!file)
        return false;
    bool written = std::fwrite(content.data(), 1, content.size(), file) == content.size();
    written = std::fclose(file) == 0 && written;
    if (written && MoveFileExA(temporary.c_str(), path.c_str(),
                               MOVEFILE_REPLACE_EXISTING | MOVEFILE_WRITE_THROUGH))
        return true;
    DeleteFileA(temporary.c_str());
    return false;
}

bool isDirectory(const std::string& path) {
    DWORD attributes = GetFileAttributesA(path.c_str());
    return attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_DIRECTORY);
}

bool isProcessAlive(std::uint32_t pid) {
    HANDLE process = OpenProcess(SYNCHRONIZE, FALSE, pid);
    DWORD wait = process ? WaitForSingleObject(process, 0) : WAIT_FAILED;
    if (process)
        CloseHandle(process);
    return wait == WAIT_TIMEOUT;
}

ProcessEndWatch::ProcessEndWatch(std::uint32_t pid)
    : handle_(
          reinterpret_cast<std::intptr_t>(pid ? OpenProcess(SYNCHRONIZE, FALSE, pid) : nullptr)) {}

ProcessEndWatch::~ProcessEndWatch() {
    if (handle_)
        CloseHandle(reinterpret_cast<HANDLE>(handle_));
}

void ProcessEndWatch::wait(std::int64_t timeoutMs) {
    if (handle_)
        WaitForSingleObject(reinterpret_cast<HANDLE>(handle_), static_cast<DWORD>(timeoutMs));
    else
        Sleep(static_cast<DWORD>(timeoutMs));
}

std::uint32_t currentProcessId() {
    return GetCurrentProcessId();
}

std::string executablePath() {
    char path[MAX_PATH];
    DWORD length = GetModuleFileNameA(nullptr, path, MAX_PATH);
    return std::string(path, length);
}

// Windows ends a session with messages to the windows, which Qt turns into a quit.
int terminationRequests() {
    return -1;
}

bool attachConsole() {
    AllocConsole();
    FILE* stream = nullptr;
    freopen_s(&stream, "CONIN$", "r", stdin);
    freopen_s(&stream, "CONOUT$", "w", stdout);
    freopen_s(&stream, "CONOUT$", "w", stderr);
    std::ios::sync_with_stdio(true);
    HANDLE output = GetStdHandle(STD_OUTPUT_HANDLE);
    if (output == INVALID_HANDLE_VALUE || !output)
        return false;
    DWORD mode = 0;
    GetConsoleMode(output, &mode);
    return SetConsoleMode(output, mode | ENABLE_VIRTUAL_TERMINAL_PROCESSING) != 0;
}

std::string versionText() {
    char path[MAX_PATH];
    GetModuleFileNameA(nullptr, path, MAX_PATH);
    DWORD handle = 0;
    DWORD size = GetFileVersionInfoSizeA(path, &handle);
    if (size == 0)
        return "None";
    std::vector<char> data(size);
    VS_FIXEDFILEINFO* info = nullptr;
    UINT length = 0;
    if (!GetFileVersionInfoA(path, 0, size, data.data()) ||
        !VerQueryValueA(data.data(), "\\", reinterpret_cast<void**>(&info), &length) || !info)
        return "None";
    int major = HIWORD(info->dwFileVersionMS), minor = LOWORD(info->dwFileVersionMS);
    int patch = HIWORD(info->dwFileVersionLS), build = LOWORD(info->dwFileVersionLS);
    if (major == 0 && minor == 0 && patch == 0 && build == 0)
        return "None";
    char text[64];
    std::snprintf(text, sizeof text, "%d.%d.%d b%d", major, minor, patch, build);
    return text;
}

std::string singleInstanceServerName(std::string&) {
    return "velmor_agent_singleton";
}

bool peerIsSameUser(std::intptr_t) {
    // The pipe's default security already limits it to the user's session.
    return true;
}

}  // namespace vlm::platform
