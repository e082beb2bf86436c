#pragma once
// The program's roles on test hosts, each with folders of its own.

#include <sys/stat.h>

#include <algorithm>
#include <csignal>
#include <thread>

#include "TestNet.h"

namespace vlm::test {

/// Folders of one program's configuration (APPDATA, common, runtime), removed with it.
struct ProgramFolders {
    TempDir dir;
    ProgramFolders() {
        for (const char* folder : {"appdata", "common", "runtime"})
            mkdir(dir.file(folder).c_str(), 0700);
    }
    std::string environment(int enginePort) const {
        return "env -u VELMOR_DNSSD_LIBRARY -u DISPLAY -u WAYLAND_DISPLAY APPDATA=" +
               shellQuote(dir.file("appdata")) +
               " VELMOR_COMMON_APPDATA=" + shellQuote(dir.file("common")) +
               " XDG_RUNTIME_DIR=" + shellQuote(dir.file("runtime")) +
               " QT_QPA_PLATFORM=offscreen VELMOR_ENGINE_PORT=" + std::to_string(enginePort);
    }
};

/// \brief The agent with mode >= 0 configured on a test host, else an engine server (-2: master).
class ProgramOnHost {
public:
    ProgramOnHost(const TestNet& net, const std::string& host, int port, int mode) {
        const std::string config = folders_.dir.file("appdata/Corvane Technologies/velmor");
        std::filesystem::create_directories(config);
        writeFile(config + "/config.json", "{\"mode\": " + std::to_string(mode) + "}");
        parent_.reset(new Child("/bin/sleep", {"600"}, {}, folders_.dir.path()));
        const std::string role = " --server 1 --apid " + std::to_string(parent_->pid()) +
                                 (mode == -2 ? " --master 1" : "");
        process_ = net.start(host, {"sh", "-c",
                                    "exec " + folders_.environment(port) + " " +
                                        shellQuote(velmorPath()) + (mode < 0 ? role : "")});
    }
    std::string log() const { return withoutColours(process_->output()); }
    std::string errors() const { return process_->errors(); }
    bool logHas(const std::string& line, std::chrono::milliseconds timeout = {}) const {
        return eventually([&] { return log().find(line) != std::string::npos; }, timeout);
    }
    bool announced() const { return logHas("Engine: DNS-SD registered", std::chrono::seconds(15)); }
    /// Ends the agent as a logout does, once its splash (4 s for a Master) has closed.
    std::optional<int> quit(std::chrono::seconds splash = std::chrono::seconds(5)) {
        std::this_thread::sleep_until(started_ + splash);
        process_->kill(SIGTERM);
        return process_->wait(std::chrono::seconds(10));
    }
    void kill(int number = SIGKILL) {
        process_->kill(number);
        process_->wait(std::chrono::seconds(5));
    }
    /// Engine servers started with this program's folders.
    std::vector<pid_t> engineChildren() const {
        std::vector<pid_t> found;
        for (const auto& entry : std::filesystem::directory_iterator("/proc")) {
            std::string text = readFile(entry.path() / "cmdline");
            std::replace(text.begin(), text.end(), '\0', ' ');
            if (text.find("--server 1") != std::string::npos &&
                readFile(entry.path() / "environ").find(folders_.dir.path()) != std::string::npos)
                found.push_back(std::stoi(entry.path().filename()));
        }
        return found;
    }

private:
    std::chrono::steady_clock::time_point started_ = std::chrono::steady_clock::now();
    ProgramFolders folders_;
    std::unique_ptr<Child> parent_, process_;
};

struct EngineOnHost : ProgramOnHost {
    EngineOnHost(const TestNet& net, const std::string& host, int port, bool master)
        : ProgramOnHost(net, host, port, master ? -2 : -1) {}
};

}  // namespace vlm::test
