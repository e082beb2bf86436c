// The zeroconf library's side of the network tests and benchmarks, run on a test host so that
// it talks to that host's Avahi. It reports on standard output in lines beginning with "@",
// fields separated by tabs (the library's own log lines are mixed in):
//   @ready <poll thread id>                      the operations are open
//   @add <monotonic ns> <interface> <name> <type> <host> <address> <port> [<txt>...]
//   @remove <monotonic ns> <interface> <name> <type>
//   @status <state>                              a registration's outcome
//   @cpu <process ns> <poll thread ns>           on SIGUSR2
//   @started / @stopped                          the engine, on SIGUSR1
//   @done                                        everything ended cleanly (SIGTERM)
//
//   zeroconf_host_tool browse TYPE [SUBTYPE]     SIGUSR1: a new client and browser
//   zeroconf_host_tool register NAME TYPE PORT SUBTYPES|- [TXT...]
//   zeroconf_host_tool browsers COUNT TYPE       COUNT idle browsers (0: a bare client)
//   zeroconf_host_tool engine FLAGS              the engine library; SIGUSR1 stops/starts it

#include <dirent.h>
#include <pthread.h>
#include <signal.h>
#include <time.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <mutex>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include <boost/make_shared.hpp>

#include "Kelvane.h"
#include "zeroconf/client.h"

namespace {

std::mutex outputMutex;

void report(const std::string& line) {
    std::lock_guard<std::mutex> lock(outputMutex);
    std::fputs(("@" + line + "\n").c_str(), stdout);
    std::fflush(stdout);
}

long long nanoseconds(clockid_t clock) {
    timespec now{};
    clock_gettime(clock, &now);
    return static_cast<long long>(now.tv_sec) * 1000000000LL + now.tv_nsec;
}

std::set<std::string> threads() {
    std::set<std::string> ids;
    if (DIR* dir = opendir("/proc/self/task")) {
        while (dirent* entry = readdir(dir))
            if (entry->d_name[0] != '.')
                ids.insert(entry->d_name);
        closedir(dir);
    }
    return ids;
}

// CPU time of one thread of this process, in ns (the scheduler's figure, not clock ticks).
long long threadCpu(const std::string& id) {
    std::ifstream in("/proc/self/task/" + id + "/schedstat");
    long long ns = -1;
    in >> ns;
    return ns;
}

class PrintingListener : public zeroconf::browser_listener {
public:
    void add(std::uint32_t interface_index, const char* name, const char* type, const char* host,
             const char* address, std::uint16_t port,
             const std::vector<std::string>& txt) override {
        std::ostringstream line;
        line << "add\t" << nanoseconds(CLOCK_MONOTONIC) << '\t' << interface_index << '\t' << name
             << '\t' << type << '\t' << host << '\t' << address << '\t' << port;
        for (const std::string& entry : txt)
            line << '\t' << entry;
        report(line.str());
    }
    void remove(std::uint32_t interface_index, const char* name, const char* type) override {
        std::ostringstream line;
        line << "remove\t" << nanoseconds(CLOCK_MONOTONIC) << '\t' << interface_index << '\t'
             << name << '\t' << type;
        report(line.str());
    }
};

// A client and what the mode opened with it; the operations end before the client.
struct Session {
    std::string pollThread;
    boost::shared_ptr<zeroconf::client> client;
    std::vector<boost::shared_ptr<zeroconf::browser>> browsers;
    boost::shared_ptr<zeroconf::service> service;

    void open() {
        std::set<std::string> before = threads();
        client = zeroconf::client::create(-1);
        for (const std::string& id : threads())
            if (!before.count(id))
                pollThread = id;
    }
    void close() {
        service.reset();
        browsers.clear();
        client.reset();
    }
};

std::vector<std::string> split(const std::string& text, char separator) {
    std::vector<std::string> parts;
    std::istringstream in(text);
    for (std::string part; std::getline(in, part, separator);)
        parts.push_back(part);
    return parts;
}

bool openBrowsers(Session& session, int count, const std::string& type,
                  const std::string& subtype) {
    session.open();
    auto listener = boost::make_shared<PrintingListener>();
    for (int i = 0; i < count; ++i) {
        auto browser = session.client->create_browser("", type, subtype, listener, false);
        if (!browser)
            return false;
        session.browsers.push_back(browser);
    }
    return true;
}

int usage() {
    std::fputs(
        "usage: zeroconf_host_tool browse TYPE [SUBTYPE] | register NAME TYPE PORT "
        "SUBTYPES|- [TXT...] | browsers COUNT TYPE | engine FLAGS\n",
        stderr);
    return 2;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 2)
        return usage();
    const std::string mode = argv[1];

    // Every thread inherits the mask, so the signals reach the sigwait below.
    sigset_t signals;
    sigemptyset(&signals);
    for (int signal : {SIGTERM, SIGINT, SIGUSR1, SIGUSR2})
        sigaddset(&signals, signal);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);

    Session session;
    std::string browseType, browseSubtype;
    bool engineRunning = false;
    std::uint32_t engineFlags = 0;
    if (mode == "browse" && (argc == 3 || argc == 4)) {
        browseType = argv[2];
        browseSubtype = argc == 4 ? argv[3] : "";
        if (!openBrowsers(session, 1, browseType, browseSubtype))
            return 1;
    } else if (mode == "register" && argc >= 6) {
        std::vector<std::string> subtypes;
        if (std::string(argv[5]) != "-")
            subtypes = split(argv[5], ',');
        std::vector<std::string> txt(argv + 6, argv + argc);
        session.open();
        session.service = session.client->create_service(
            argv[2], argv[3], static_cast<std::uint16_t>(std::atoi(argv[4])), subtypes, txt,
            [](int state) { report("status\t" + std::to_string(state)); });
        if (!session.service)
            return 1;
    } else if (mode == "browsers" && argc == 4) {
        int count = std::atoi(argv[2]);
        if (count == 0)
            session.open();
        else if (!openBrowsers(session, count, argv[3], ""))
            return 1;
    } else if (mode == "engine" && argc == 3) {
        engineFlags = static_cast<std::uint32_t>(std::strtoul(argv[2], nullptr, 0));
        if (KLV_Initialize(-1, 0, engineFlags) != 0)
            return 1;
        engineRunning = true;
    } else {
        return usage();
    }
    report("ready\t" + session.pollThread);

    for (;;) {
        int signal = 0;
        if (sigwait(&signals, &signal) != 0)
            continue;
        if (signal == SIGUSR2) {
            report("cpu\t" + std::to_string(nanoseconds(CLOCK_PROCESS_CPUTIME_ID)) + "\t" +
                   std::to_string(session.pollThread.empty() ? -1 : threadCpu(session.pollThread)));
        } else if (signal == SIGUSR1 && mode == "browse") {
            // As after a daemon restart: the old operations go, a new client starts over.
            session.close();
            if (!openBrowsers(session, 1, browseType, browseSubtype))
                return 1;
            report("ready\t" + session.pollThread);
        } else if (signal == SIGUSR1 && mode == "engine") {
            if (engineRunning) {
                KLV_Uninitialize();
                report("stopped");
            } else if (KLV_Initialize(-1, 0, engineFlags) == 0) {
                report("started");
            } else {
                return 1;
            }
            engineRunning = !engineRunning;
        } else if (signal == SIGTERM || signal == SIGINT) {
            break;
        }
    }
    if (engineRunning)
        KLV_Uninitialize();
    session.close();
    report("done");
    return 0;
}
