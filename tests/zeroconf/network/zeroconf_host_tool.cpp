// The library on a test host for network tests and benchmarks: browse TYPE [SUBTYPE [HOST]] |
// register NAME TYPE PORT SUBTYPE|- [TXT...] | browsers COUNT TYPE; OPEN_DESCRIPTORS=n opens n
// first. Reports "@kind\tfields": ready <poll thread> | add <ns> <if> <name> <type> <host>
// <address> <port> [txt...] | remove <ns> <if> <name> <type> | host <if> <name> <address> | status
// <state> | cpu <ns> <poll ns> (on SIGUSR2).
#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <ctime>
#include <fstream>
#include <iostream>
#include <sstream>

#include <boost/make_shared.hpp>

#include "zeroconf/client.h"
#include "zeroconf/hostname_browser.h"

namespace {
template <typename... Fields>
void report(const char* kind, const Fields&... fields) {
    std::ostringstream line;
    line << '@' << kind;
    ((line << '\t' << fields), ...);
    std::cout << line.str() + '\n' << std::flush;  // one write: threads' lines never interleave
}

struct Printer : zeroconf::browser_listener, zeroconf::hostname_listener {
    static auto ns() { return std::chrono::steady_clock::now().time_since_epoch().count(); }
    void add(std::uint32_t index, const char* name, const char* type, const char* host,
             const char* address, std::uint16_t port,
             const std::vector<std::string>& txt) override {
        std::string entries;
        for (const std::string& entry : txt)
            entries += '\t' + entry;
        report("add", ns(), index, name, type, host, address, std::to_string(port) + entries);
    }
    void remove(std::uint32_t index, const char* name, const char* type) override {
        report("remove", ns(), index, name, type);
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
        limit.rlim_cur = limit.rlim_max, setrlimit(RLIMIT_NOFILE, &limit);
        for (int i = std::atoi(count); i > 0; --i)
            open("/dev/null", O_RDONLY);
    }
    sigset_t signals;  // every thread inherits the mask, so the signals reach sigwait below
    sigemptyset(&signals), sigaddset(&signals, SIGTERM), sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGUSR2);
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
        return std::cerr << "usage: see the opening comment of zeroconf_host_tool.cpp\n", 2;
    }
    if (std::count(operations.begin(), operations.end(), nullptr))
        return 1;
    report("ready", poll_thread);
    for (int signal = 0; signal != SIGTERM && signal != SIGINT;) {
        long long poll_ns = -1;
        if (sigwait(&signals, &signal) == 0 && signal == SIGUSR2 &&
            std::ifstream("/proc/self/task/" + poll_thread + "/schedstat") >> poll_ns)
            report("cpu", std::clock() * (1000000000LL / CLOCKS_PER_SEC), poll_ns);
    }
    return 0;  // the operations end before their client
}
