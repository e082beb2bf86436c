#pragma once
// Helpers shared by the tests: temporary folders, child processes, free loopback ports.

#include <sys/fsuid.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <boost/process/child.hpp>
#include <chrono>
#include <filesystem>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace vlm::test {

/// \brief A fresh folder under the system's temporary folder, removed with its content.
class TempDir {
public:
    TempDir()
        : path_(mkdtemp(
              (std::filesystem::temp_directory_path() / "velmor-test-XXXXXX").string().data())) {}
    ~TempDir() { std::filesystem::remove_all(path_, ignored_); }
    const std::string& path() const { return path_; }
    std::string file(const std::string& name) const { return path_ + "/" + name; }

private:
    std::string path_;
    std::error_code ignored_;
};

/// \brief A folder this thread cannot write to while it lives: 0555, and for root fsuid nobody.
class ReadOnlyFolder {
public:
    explicit ReadOnlyFolder(const std::string& path)
        : path_(path), mode_(std::filesystem::status(path).permissions()) {
        std::filesystem::permissions(path, std::filesystem::perms(0555));
        setfsuid(65534);
    }
    ~ReadOnlyFolder() { setfsuid(getuid()), std::filesystem::permissions(path_, mode_); }

private:
    std::string path_;
    std::filesystem::perms mode_;
};

std::string readFile(const std::string& path);
void writeFile(const std::string& path, const std::string& content);
using std::filesystem::exists;
/// Polls until done() holds; false when the time runs out first.
bool eventually(const std::function<bool()>& done,
                std::chrono::milliseconds timeout = std::chrono::seconds(15),
                std::chrono::milliseconds step = std::chrono::milliseconds(10));
inline const auto buildDir = [] { return std::string(VELMOR_BUILD_DIR); };
inline const auto velmorPath = [] { return buildDir() + "/VELMOR"; };

/// \brief A child process, env added to its environment, its output in files; killed with it.
class Child {
public:
    Child(const std::string& program, std::vector<std::string> args,
          const std::map<std::string, std::string>& env, const std::string& outputDir);
    pid_t pid() const { return child_.id(); }
    /// Exit status, or -signal when killed; nullopt when still running after the timeout.
    std::optional<int> wait(std::chrono::milliseconds timeout) {
        if (!eventually([&] { return !child_.running(); }, timeout))
            return std::nullopt;
        const int status = child_.native_exit_code();
        return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
    }
    void kill(int signal) {
        if (child_.running())
            ::kill(child_.id(), signal);
    }
    std::string output() const { return readFile(output_ + ".out"); }
    std::string errors() const { return readFile(output_ + ".err"); }
    bool waitForOutput(const std::string& text, std::chrono::milliseconds timeout) const {
        return eventually([&] { return output().find(text) != std::string::npos; }, timeout);
    }

private:
    std::string output_;
    boost::process::child child_;
};

/// A session dbus-daemon's configuration with no service folders: unowned names fail at once.
std::string sessionBusConfig(const std::string& listen);
/// A TCP port on 127.0.0.1 that was free a moment ago.
unsigned short freeLoopbackPort();
/// Polls until a POST "/get" with the engine's credentials answers 200.
bool waitForEngine(unsigned short port, std::chrono::milliseconds timeout);
/// \brief Standard output (printf included) from its construction until text().
class StdoutCapture {
public:
    StdoutCapture() { testing::internal::CaptureStdout(); }
    ~StdoutCapture() { text(); }
    std::string text() {
        if (!captured_)
            captured_ = testing::internal::GetCapturedStdout();
        return *captured_;
    }

private:
    std::optional<std::string> captured_;
};
inline std::string capturedOutput(const std::function<void()>& call) {
    StdoutCapture capture;
    return call(), capture.text();
}
/// The text of a log without its colour sequences.
std::string withoutColours(const std::string& text);

}  // namespace vlm::test
