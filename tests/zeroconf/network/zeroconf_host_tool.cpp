// The zeroconf library on a test host, for the network tests and benchmarks. Reports "@kind<TAB>
// fields" among the log: @ready <poll thread id> | @add <ns> <interface> <name> <type> <host>
// <address> <port> [txt...] | @remove <ns> <interface> <name> <type> | @host <interface> <name>
// <address> | @status <state> | @cpu <process ns> <poll thread ns> (on SIGUSR2). Modes: browse
// TYPE [SUBTYPE [HOST]] | register NAME TYPE PORT SUBTYPE|- [TXT...] | browsers COUNT TYPE.
// OPEN_DESCRIPTORS=n opens n descriptors first, raising the soft limit as needed.
#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <iostream>
#include <mutex>
#include <sstream>

#include <boost/make_shared.hpp>

#include "zeroconf/client.h"
#include "zeroconf/hostname_browser.h"

namespace {

template <typename... Fields>
void report(const char* kind, const Fields&... fields) {
    static std::mutex mutex;
    std::ostringstream line;
    line << '@' << kind;
    ((line << '\t' << fields), ...);
    std::lock_guard<std::mutex> hold(mutex);
    std::cout << line.str() << std::endl;
}

long long ns(clockid_t clock) {
    timespec now{};
    clock_gettime(clock, &now);
    return now.tv_sec * 1000000000LL + now.tv_nsec;
}

struct Printer : zeroconf::browser_listener, zeroconf::hostname_listener {
    void add(std::uint32_t index, const char* name, const char* type, const char* host,
             const char* address, std::uint16_t port,
             const std::vector<std::string>& txt) override {
        std::string entries;
        for (const std::string& entry : txt)
            entries += '\t' + entry;
        report("add", ns(CLOCK_MONOTONIC), index, name, type, host, address,
               std::to_string(port) + entries);
    }
    void remove(std::uint32_t index, const char* name, const char* type) override {
        report("remove", ns(CLOCK_MONOTONIC), index, name, type);
    }
    void add(std::uint32_t index, const char* name, const char* address) override {
        report("host", index, name, address);
    }
    void remove(std::uint32_t, const char*) override {}
};

}  // namespace

int main(int argc, char** argv) {
    const std::vector<std::string> args(argv + 1, argv + argc);
    if (const char* count = std::getenv("OPEN_DESCRIPTORS")) {
        rlimit limit{};
        getrlimit(RLIMIT_NOFILE, &limit);
        limit.rlim_cur = limit.rlim_max;
        setrlimit(RLIMIT_NOFILE, &limit);
        for (int i = std::atoi(count); i > 0; --i)
            open("/dev/null", O_RDONLY);
    }
    sigset_t signals;  // every thread inherits the mask, so the signals reach sigwait below
    sigemptyset(&signals);
    for (int signal : {SIGTERM, SIGINT, SIGUSR2})
        sigaddset(&signals, signal);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);

    auto client = zeroconf::client::create(-1);
    std::string poll_thread;  // the one thread beside the main thread so far
    DIR* tasks = opendir("/proc/self/task");
    while (dirent* task = readdir(tasks))
        if (task->d_name[0] != '.' && std::atoi(task->d_name) != getpid())
            poll_thread = task->d_name;
    closedir(tasks);
    auto printer = boost::make_shared<Printer>();
    std::vector<boost::shared_ptr<void>> operations;
    auto arg = [&](std::size_t i) { return i < args.size() ? args[i] : ""; };
    if (arg(0) == "browse" && args.size() >= 2) {
        operations.push_back(client->create_browser("", args[1], arg(2), printer, false));
        if (args.size() > 3)
            operations.push_back(client->create_hostname_browser(args[3], printer));
    } else if (arg(0) == "register" && args.size() >= 5) {
        const std::vector<std::string> subtypes(args[4] == "-" ? 0 : 1, args[4]);
        operations.push_back(client->create_service(args[1], args[2], std::stoi(args[3]), subtypes,
                                                    {args.begin() + 5, args.end()},
                                                    [](int state) { report("status", state); }));
    } else if (arg(0) == "browsers" && args.size() == 3) {
        for (int i = std::stoi(args[1]); i > 0; --i)
            operations.push_back(client->create_browser("", args[2], "", printer, false));
    } else {
        std::cerr << "usage: see the opening comment of zeroconf_host_tool.cpp\n";
        return 2;
    }
    if (std::count(operations.begin(), operations.end(), nullptr))
        return 1;
    report("ready", poll_thread);

    for (int signal = 0; signal != SIGTERM && signal != SIGINT;) {
        long long poll_ns = -1;
        if (sigwait(&signals, &signal) == 0 && signal == SIGUSR2 &&
            std::ifstream("/proc/self/task/" + poll_thread + "/schedstat") >> poll_ns)
            report("cpu", ns(CLOCK_PROCESS_CPUTIME_ID), poll_ns);
    }
    return 0;  // the operations end before their client
}
