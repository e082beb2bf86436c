#include "TestNet.h"

#include <unistd.h>

#include <algorithm>

namespace vlm::test {

std::string shellQuote(const std::string& text) {
    std::string quoted = "'";
    for (char c : text)
        quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return quoted + "'";
}

TestNet::TestNet(const std::vector<std::string>& hosts)
    // The process id keeps networks of tests running side by side apart.
    : hosts_(hosts), name_("n" + std::to_string(getpid())) {
    if (geteuid() != 0) {
        error_ = "test hosts need root (network namespaces, mounts)";
        return;
    }
    // Leftovers of crashed tests, and of one that had this process's id.
    script({"prune"});
    script({"down", name_});
    std::vector<std::string> up{"up", name_};
    up.insert(up.end(), hosts.begin(), hosts.end());
    if (script(up, &error_) == 0)
        error_.clear();
    else
        error_ = "could not make the test hosts: " + error_;
}

TestNet::~TestNet() {
    if (geteuid() == 0)
        script({"down", name_});
}

std::string TestNet::address(const std::string& host) const {
    auto it = std::find(hosts_.begin(), hosts_.end(), host);
    return "10.77.0." + std::to_string(it - hosts_.begin() + 1);
}

int TestNet::run(const std::string& host, const std::string& command, std::string* output) const {
    return script({"run", name_, host, "sh", "-c", command}, output);
}

std::unique_ptr<Child> TestNet::start(const std::string& host,
                                      const std::vector<std::string>& args) const {
    std::vector<std::string> all{"run", name_, host};
    all.insert(all.end(), args.begin(), args.end());
    // The script hands its process over to the program, so the Child's pid is the program's.
    return std::make_unique<Child>(VELMOR_TESTNET_SCRIPT, all, std::map<std::string, std::string>{},
                                   outputs_.path());
}

int TestNet::script(const std::vector<std::string>& args, std::string* output) const {
    Child child(VELMOR_TESTNET_SCRIPT, args, {}, outputs_.path());
    const int status = child.wait(std::chrono::minutes(5)).value_or(-1);
    if (output)
        *output = child.output() + child.errors();
    return status < 0 ? -1 : status;
}

}  // namespace vlm::test
