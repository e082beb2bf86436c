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

// The process id keeps networks of tests running side by side apart.
TestNet::TestNet(const std::vector<std::string>& hosts)
    : hosts_(hosts), name_("n" + std::to_string(getpid())) {
    // Leftovers of crashed tests, and of one that had this process's id.
    script({"prune"});
    script({"down", name_});
    std::vector<std::string> up{"up", name_};
    up.insert(up.end(), hosts.begin(), hosts.end());
    if (script(up, &error_) == 0)
        error_.clear();
    else
        error_ = "could not make the test hosts (root and network namespaces needed): " + error_;
}

std::string TestNet::address(const std::string& host) const {
    return "10.77.0." +
           std::to_string(std::find(hosts_.begin(), hosts_.end(), host) - hosts_.begin() + 1);
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
    return std::max(status, -1);
}

}  // namespace vlm::test
