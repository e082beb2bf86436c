#include "TestNet.h"

#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>

namespace vlm::test {

namespace {

const std::string testnetScript = VELMOR_TESTNET_SCRIPT;

int runShell(const std::string& commandLine, std::string* output) {
    FILE* pipe = popen(commandLine.c_str(), "r");
    if (!pipe)
        return -1;
    std::string text;
    char buffer[4096];
    size_t n;
    while ((n = fread(buffer, 1, sizeof buffer, pipe)) > 0)
        text.append(buffer, n);
    int status = pclose(pipe);
    if (output)
        *output = text;
    if (status == -1 || !WIFEXITED(status))
        return -1;
    return WEXITSTATUS(status);
}

}  // namespace

std::string shellQuote(const std::string& text) {
    std::string quoted = "'";
    for (char c : text) {
        if (c == '\'')
            quoted += "'\\''";
        else
            quoted += c;
    }
    return quoted + "'";
}

TestNet::TestNet(const std::vector<std::string>& hosts)
    // The process id keeps networks of tests running side by side apart.
    : hosts_(hosts), name_("n" + std::to_string(getpid())) {
    if (geteuid() != 0) {
        error_ = "test hosts need root (network namespaces, mounts)";
        return;
    }
    std::string output;
    // Leftovers of crashed tests, and of one that had this process's id.
    runShell(script({"prune"}, true), nullptr);
    runShell(script({"down", name_}, true), nullptr);
    std::vector<std::string> up{"up", name_};
    up.insert(up.end(), hosts.begin(), hosts.end());
    made_ = true;
    if (runShell(script(up, true), &output) != 0)
        error_ = "could not make the test hosts: " + output;
}

TestNet::~TestNet() {
    if (made_)
        runShell(script({"down", name_}, true), nullptr);
}

std::string TestNet::address(const std::string& host) const {
    auto it = std::find(hosts_.begin(), hosts_.end(), host);
    return "10.77.0." + std::to_string(it - hosts_.begin() + 1);
}

std::string TestNet::busAddress(const std::string& host) const {
    std::string output;
    if (runShell(script({"bus", name_, host}, false), &output) != 0)
        return {};
    while (!output.empty() && output.back() == '\n')
        output.pop_back();
    return output;
}

int TestNet::run(const std::string& host, const std::string& command, std::string* output) const {
    return runShell(script({"run", name_, host, "sh", "-c", command}, true), output);
}

int TestNet::avahi(const std::string& host, const std::string& action) const {
    return runShell(script({"avahi", name_, host, action}, true), nullptr);
}

std::unique_ptr<Child> TestNet::start(const std::string& host,
                                      const std::vector<std::string>& args) const {
    std::vector<std::string> all{"run", name_, host};
    all.insert(all.end(), args.begin(), args.end());
    // The script hands its process over to the program, so the Child's pid is the program's.
    return std::make_unique<Child>(testnetScript, all, std::map<std::string, std::string>{},
                                   outputs_.path());
}

std::string TestNet::script(const std::vector<std::string>& args, bool captureErrors) const {
    std::string line = shellQuote(testnetScript);
    for (const std::string& arg : args)
        line += " " + shellQuote(arg);
    line += captureErrors ? " 2>&1" : " 2>/dev/null";
    return line + " </dev/null";
}

}  // namespace vlm::test
