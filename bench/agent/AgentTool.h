#pragma once
// agent_host_tool (an agent without tray or splash) on a test host or on this machine, and the
// "@" reports it prints. For the benchmark.

#include <optional>
#include <sstream>

#include "ProgramsOnHost.h"

namespace vlm::test {

/// One "@" line of the tool: kind, steady-clock time, text.
struct AgentEvent {
    std::string kind;
    std::chrono::steady_clock::time_point at;
    std::string text;
};

inline std::vector<AgentEvent> agentEvents(const std::string& output) {
    std::vector<AgentEvent> events;
    std::istringstream in(output);
    for (std::string line; std::getline(in, line);) {
        if (line.size() < 2 || line[0] != '@')
            continue;
        std::istringstream fields(line.substr(1));
        AgentEvent event;
        long long ns = 0;
        fields >> event.kind >> ns;
        std::getline(fields >> std::ws, event.text);
        event.at = std::chrono::steady_clock::time_point(std::chrono::nanoseconds(ns));
        events.push_back(event);
    }
    return events;
}

/// \brief agent_host_tool on a test host, with its configuration and reports.
class AgentOnHost {
public:
    /// args: the tool's options after the configuration file.
    AgentOnHost(const TestNet& net, const std::string& host, const std::string& configText,
                const std::vector<std::string>& args, int enginePort = 18090) {
        writeFile(folders_.dir.file("config.json"), configText);
        std::string command = "exec " + folders_.environment(enginePort) + " " +
                              shellQuote(buildDir() + "/agent_host_tool") + " " +
                              shellQuote(folders_.dir.file("config.json"));
        for (const std::string& arg : args)
            command += " " + shellQuote(arg);
        process_ = net.start(host, {"sh", "-c", command});
    }
    ~AgentOnHost() {
        // The engine child outlives a killed agent by design; the test host must not.
        const std::string pid = lastText("engine");
        process_->kill(SIGKILL);
        process_->wait(std::chrono::seconds(5));
        if (!pid.empty() && pid != "0")
            ::kill(std::stoi(pid), SIGKILL);
    }

    std::string log() const { return withoutColours(process_->output()); }
    /// What a sanitizer build reported on standard error (the engine child's included), but
    /// for the lock-order reports of libdbus inside Avahi's DNS-SD library: those locks are
    /// taken by resolves started from a browse callback, all on the one poll thread.
    std::string sanitizerReports() const {
        const std::string separator = "==================\n";
        const std::string errors = process_->errors();
        std::string reports;
        for (std::size_t at = errors.find("WARNING: "); at != std::string::npos;) {
            std::size_t end = errors.find(separator, at);
            std::string report = errors.substr(at, end == std::string::npos ? end : end - at);
            at = end == std::string::npos ? end : errors.find("WARNING: ", end);
            const std::size_t summary = report.find("SUMMARY:");
            if (report.find("Sanitizer") == std::string::npos ||
                (summary != std::string::npos &&
                 report.find("libdbus-1.so", summary) != std::string::npos))
                continue;
            reports += report;
        }
        return reports;
    }
    std::vector<AgentEvent> events(const std::string& kind) const {
        std::vector<AgentEvent> found;
        // The log ends its colour after the newline, so the reports are read without colours.
        for (const AgentEvent& event : agentEvents(log()))
            if (event.kind == kind)
                found.push_back(event);
        return found;
    }
    std::string lastText(const std::string& kind) const {
        auto found = events(kind);
        return found.empty() ? std::string() : found.back().text;
    }
    /// The first event of kind with text (any text when empty), waited for.
    std::optional<AgentEvent> waitFor(
        const std::string& kind, const std::string& text = {},
        std::chrono::milliseconds timeout = std::chrono::seconds(20)) const {
        std::optional<AgentEvent> found;
        eventually(
            [&] {
                for (const AgentEvent& event : events(kind))
                    if (text.empty() || event.text == text) {
                        found = event;
                        return true;
                    }
                return !running();
            },
            timeout, std::chrono::milliseconds(2));
        return found;
    }
    bool logHas(const std::string& line) const { return log().find(line) != std::string::npos; }
    bool running() const { return !process_->wait(std::chrono::milliseconds(0)).has_value(); }
    void signal(int number) { process_->kill(number); }

private:
    ProgramFolders folders_;
    std::unique_ptr<Child> process_;
};

/// agent_host_tool on this machine, with no DNS-SD and no browse or start-up: only its engine
/// launches (SIGHUP asks for one). Its folders live in dir; the engine child serves on port.
inline std::unique_ptr<Child> startLocalAgentTool(const TempDir& dir, unsigned short port) {
    for (const char* folder : {"appdata", "common", "runtime", "out"})
        mkdir(dir.file(folder).c_str(), 0700);
    writeFile(dir.file("config.json"), "{}");
    return std::make_unique<Child>(
        buildDir() + "/agent_host_tool",
        std::vector<std::string>{dir.file("config.json"), "--no-browse", "--no-startup", "--engine",
                                 velmorPath()},
        std::map<std::string, std::string>{
            {"APPDATA", dir.file("appdata")},
            {"VELMOR_COMMON_APPDATA", dir.file("common")},
            {"XDG_RUNTIME_DIR", dir.file("runtime")},
            {"QT_QPA_PLATFORM", "offscreen"},
            {"VELMOR_DNSSD_LIBRARY", dir.file("no-dnssd/libvelmor_dnssd.so")},
            {"VELMOR_ENGINE_PORT", std::to_string(port)}},
        dir.file("out"));
}

}  // namespace vlm::test
