#include "Log.h"

#include <cstdarg>
#include <cstring>
#include <ctime>

#include "platform/Platform.h"

namespace vlm {

char logColours[kLogLevels][kLogColourSize] = {
    "\033[31m\033[1m", "\033[31m\033[1m", "\033[31m\033[1m", "\033[31m\033[1m",
    "\033[33m\033[1m", "\033[36m\033[1m", "\033[32m\033[1m", "\033[35m\033[1m",
};
std::atomic<LogHook> logHook{nullptr};
std::FILE* logFile = nullptr;
bool consoleVirtualTerminal = false;

namespace {

// Appends to a fixed buffer; once the buffer is full, later steps are skipped.
class LineBuffer {
public:
    LineBuffer() { text_[0] = '\0'; }

    void timeStamp() {
        if (!room())
            return;
        std::time_t now = std::time(nullptr);
        std::tm local{};
        localtime_r(&now, &local);
        used_ += std::strftime(text_ + used_, kLogBufferSize - used_, "%T  ", &local);
    }

    void append(const char* format, ...) __attribute__((format(printf, 2, 3))) {
        va_list args;
        va_start(args, format);
        appendV(format, args);
        va_end(args);
    }

    void appendV(const char* format, va_list args) __attribute__((format(printf, 2, 0))) {
        if (!room())
            return;
        int written = std::vsnprintf(text_ + used_, kLogBufferSize - used_, format, args);
        // A formatting error still leaves its partial text in the buffer.
        if (written < 0)
            used_ = std::strlen(text_);
        else
            used_ += static_cast<std::size_t>(written);
    }

    const char* text() const { return text_; }

private:
    bool room() const { return used_ < kLogBufferSize; }

    char text_[kLogBufferSize];
    std::size_t used_ = 0;
};

bool endsWithNewline(const char* text) {
    std::size_t length = std::strlen(text);
    return length > 0 && text[length - 1] == '\n';
}

// One formatted write per line, so lines from different threads stay whole.
void writeConsole(const char* format, const char* line) {
    const char* pattern =
        endsWithNewline(format) && !endsWithNewline(line) ? "%s\033[0m...\n" : "%s\033[0m";
    std::printf(pattern, line);
    std::fflush(stdout);
}

void writeFile(const LineBuffer& line) {
    std::fputs(line.text(), logFile);
    std::fflush(logFile);
}

}  // namespace

void logLine(std::uint32_t level, const char* file, int line, const char* format, ...) {
    va_list args;
    va_start(args, format);
    if (LogHook hook = logHook.load()) {
        LineBuffer message;
        message.appendV(format, args);
        va_end(args);
        hook(level, file, line, message.text());
        return;
    }
    if (level >= kLogLevels) {
        va_end(args);
        return;
    }
    va_list fileArgs;
    va_copy(fileArgs, args);

    LineBuffer console;
    console.timeStamp();
    console.append("%s", logColours[level]);
    console.appendV(format, args);
    writeConsole(format, console.text());

    if (logFile) {
        LineBuffer plain;
        plain.timeStamp();
        plain.appendV(format, fileArgs);
        writeFile(plain);
    }
    va_end(fileArgs);
    va_end(args);
}

void logCategoryLine(const char* category, std::uint32_t level, const char* file, int line,
                     const char* format, ...) {
    if (level >= kLogLevels)
        return;
    va_list args;
    va_start(args, format);
    va_list fileArgs;
    va_copy(fileArgs, args);

    LineBuffer console;
    console.timeStamp();
    console.append("In %s, line %i: %s", file, line, logColours[level]);
    if (category)
        console.append(" %s: ", category);
    console.appendV(format, args);
    writeConsole(format, console.text());

    if (logFile) {
        LineBuffer plain;
        plain.append("In %s, line %i: ", file, line);
        if (category)
            plain.append(" %s: ", category);
        plain.appendV(format, fileArgs);
        writeFile(plain);
    }
    va_end(fileArgs);
    va_end(args);
}

void attachConsole() {
    if (platform::attachConsole())
        consoleVirtualTerminal = true;
}

}  // namespace vlm
