#pragma once
// The JSON layer prints its diagnostics with printf; tests compare those bytes exactly.

#include <unistd.h>

#include <cstdio>
#include <stdexcept>
#include <string>

namespace vlm::test {

/// \brief Sends file descriptor 1 to a temporary file until text() is called.
class StdoutCapture {
public:
    StdoutCapture() {
        std::fflush(stdout);
        file_ = std::tmpfile();
        saved_ = ::dup(1);
        if (!file_ || saved_ < 0 || ::dup2(::fileno(file_), 1) < 0)
            throw std::runtime_error("cannot redirect standard output");
    }
    ~StdoutCapture() {
        restore();
        if (file_)
            std::fclose(file_);
    }
    StdoutCapture(const StdoutCapture&) = delete;
    StdoutCapture& operator=(const StdoutCapture&) = delete;

    /// Everything written since construction; standard output is back in place afterwards.
    std::string text() {
        restore();
        std::string content;
        std::rewind(file_);
        char buffer[4096];
        for (std::size_t n; (n = std::fread(buffer, 1, sizeof buffer, file_)) > 0;)
            content.append(buffer, n);
        return content;
    }

private:
    void restore() {
        if (saved_ < 0)
            return;
        std::fflush(stdout);
        ::dup2(saved_, 1);
        ::close(saved_);
        saved_ = -1;
    }

    std::FILE* file_ = nullptr;
    int saved_ = -1;
};

/// Output of call(), which must print through printf.
template <typename Call>
std::string capturedOutput(Call&& call) {
    StdoutCapture capture;
    call();
    return capture.text();
}

}  // namespace vlm::test
