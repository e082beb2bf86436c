#pragma once
// The "Inner Troubleshooting Logger": coloured, time-stamped lines on standard output.

#include <atomic>
#include <cstdint>
#include <cstdio>

namespace vlm {

/// \brief Replaces the console and file output of logLine when set.
using LogHook = void (*)(std::uint32_t level, const char* file, int line, const char* message);

constexpr std::size_t kLogBufferSize = 1024;
constexpr std::uint32_t kLogLevels = 8;
constexpr std::size_t kLogColourSize = 13;

/// Colour sequence per level; mutable so that a sequence can be changed at run time.
extern char logColours[kLogLevels][kLogColourSize];
// Atomic: tests set and clear it while worker threads log.
extern std::atomic<LogHook> logHook;
extern std::FILE* logFile;
extern bool consoleVirtualTerminal;

void logLine(std::uint32_t level, const char* file, int line, const char* format, ...)
    __attribute__((format(printf, 4, 5)));
void logCategoryLine(const char* category, std::uint32_t level, const char* file, int line,
                     const char* format, ...) __attribute__((format(printf, 5, 6)));

/// Gives the process a console the log can colour (console engine-server role).
void attachConsole();

}  // namespace vlm

#define VLM_LOG(level, ...) ::vlm::logLine((level), __FILE_NAME__, __LINE__, __VA_ARGS__)
#define VLM_LOG_CATEGORY(category, level, ...) \
    ::vlm::logCategoryLine((category), (level), __FILE_NAME__, __LINE__, __VA_ARGS__)
