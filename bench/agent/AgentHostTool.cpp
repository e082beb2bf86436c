// An agent without its tray and splash, for tests and benchmarks that run it on a test host or
// kill it: it opens the browse as the tray's start does, runs the start-up sequence on a thread
// and reports every listener call on standard output as one "@" line:
//   @<kind> <steady-clock ns> <text>
// kinds: ready (local address), show, startup-done, attached, detached, notification,
// engine-died, engine (the child's pid when it changes), query (compact JSON or "null"),
// filters-sent, launched.
// Signals: SIGUSR1 asks the attached server for "$", SIGUSR2 pushes the configured interface
// filters, SIGHUP launches the engine child once more, SIGTERM/SIGINT end the tool at once.
//
// agent_host_tool <config.json> [--round ms] [--master-wait ms] [--watcher ms]
//                 [--engine program] [--no-startup] [--no-browse]

#include <signal.h>
#include <time.h>

#include <QCoreApplication>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>
#include <thread>

#include "Agent/Agent.h"
#include "Agent/BrowserListener.h"
#include "AppConfig.h"
#include "rapidjson/stringbuffer.h"
#include "rapidjson/writer.h"

namespace {

std::mutex outputMutex;

long long now() {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

void report(const char* kind, const std::string& text = {}) {
    std::lock_guard<std::mutex> lock(outputMutex);
    std::printf("@%s %lld %s\n", kind, now(), text.c_str());
    std::fflush(stdout);
}

class Reporter : public vlm::Agent::Listener {
public:
    void onAttached(const std::string& server) override { report("attached", server); }
    void onDetached(const std::string& server) override { report("detached", server); }
    void onNotification(const std::string& text) override { report("notification", text); }
    void onEngineDied() override { report("engine-died"); }
};

std::string compact(const vlm::json::Document& document) {
    rapidjson::StringBuffer text;
    rapidjson::Writer<rapidjson::StringBuffer> writer(text);
    document.Accept(writer);
    return text.GetString();
}

std::chrono::milliseconds milliseconds(const char* text) {
    return std::chrono::milliseconds(std::atol(text));
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 2) {
        std::fprintf(stderr, "usage: %s config.json [options]\n", argv[0]);
        return 2;
    }
    // Every thread inherits the mask, so only the main loop below takes these signals.
    sigset_t handled;
    sigemptyset(&handled);
    for (int number : {SIGUSR1, SIGUSR2, SIGHUP, SIGTERM, SIGINT})
        sigaddset(&handled, number);
    pthread_sigmask(SIG_BLOCK, &handled, nullptr);

    QCoreApplication application(argc, argv);
    vlm::AppConfig config;
    config.load(argv[1]);
    vlm::Agent agent(config);
    bool startup = true;
    bool browse = true;
    for (int i = 2; i < argc; ++i) {
        const std::string option = argv[i];
        const char* value = i + 1 < argc ? argv[i + 1] : "0";
        if (option == "--round")
            agent.timing.startupRound = milliseconds(value), ++i;
        else if (option == "--master-wait")
            agent.timing.masterWait = milliseconds(value), ++i;
        else if (option == "--watcher")
            agent.timing.watcherInterval = milliseconds(value), ++i;
        else if (option == "--engine")
            agent.engineProgram = value, ++i;
        else if (option == "--no-startup")
            startup = false;
        else if (option == "--no-browse")
            browse = false;
    }
    Reporter reporter;
    agent.addListener(&reporter);

    if (browse) {
        agent.startBrowsing();
        if (!agent.browser) {
            report("error", "no browse");
            return 1;
        }
    }
    report("ready", std::to_string(QCoreApplication::applicationPid()));

    std::thread startupThread;
    if (startup) {
        startupThread = std::thread([&agent] {
            agent.runStartup([](const QString& text) { report("show", text.toStdString()); });
            report("startup-done");
        });
        startupThread.detach();
    }

    std::int64_t reportedPid = 0;
    const timespec step{0, 5 * 1000 * 1000};
    for (;;) {
        const int number = sigtimedwait(&handled, nullptr, &step);
        const std::int64_t pid = agent.enginePid.load();
        if (pid != reportedPid) {
            reportedPid = pid;
            report("engine", std::to_string(pid));
        }
        if (number == SIGUSR1) {
            vlm::json::DocumentPtr document = agent.queryServer("$");
            report("query", document ? compact(*document) : "null");
        } else if (number == SIGUSR2) {
            agent.applyInterfaceFilters(agent.interfaceHardwareIds);
            report("filters-sent");
        } else if (number == SIGHUP) {
            agent.startEngineProcess(false);
            report("launched", std::to_string(agent.enginePid.load()));
        } else if (number == SIGTERM || number == SIGINT) {
            // The agent and its threads are left as the shipped program leaves them at exit.
            std::fflush(stdout);
            std::_Exit(0);
        }
    }
}
