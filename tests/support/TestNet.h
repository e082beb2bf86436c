#pragma once
// Test hosts made by tools/testnet/testnet.sh: network namespaces with their own avahi-daemon.

#include <algorithm>
#include <memory>
#include <regex>

#include "TestSupport.h"

namespace vlm::test {

inline std::string shellQuote(const std::string& text) {
    return "'" + std::regex_replace(text, std::regex("'"), "'\\''") + "'";
}

/// \brief Test hosts "a", "b"... (10.77.0.1, .2... on "eth0", "<name>.local"), removed with it.
class TestNet {
public:
    // Named by the process id; leftovers of crashed tests, and of one with this id, go first.
    explicit TestNet(const std::vector<std::string>& hosts)
        : hosts_(hosts), name_("n" + std::to_string(getpid())) {
        script({"prune"});
        script({"down", name_});
        std::vector<std::string> up{"up", name_};
        up.insert(up.end(), hosts.begin(), hosts.end());
        error_ = script(up, &error_) ? "could not make the test hosts (root, namespaces): " + error_
                                     : std::string();
    }
    ~TestNet() { script({"down", name_}); }
    bool ok() const { return error_.empty(); }
    const std::string& error() const { return error_; }
    std::string address(const std::string& host) const {
        auto index = std::find(hosts_.begin(), hosts_.end(), host) - hosts_.begin();
        return "10.77.0." + std::to_string(index + 1);
    }
    /// Exit status (-1: not run); output in *output.
    int run(const std::string& host, const std::string& command,
            std::string* output = nullptr) const {
        return script({"run", name_, host, "sh", "-c", command}, output);
    }
    /// The host's avahi-daemon killed (SIGKILL) by "kill", or "start"ed, returning once it runs.
    int avahi(const std::string& host, const std::string& action) const {
        return script({"avahi", name_, host, action});
    }
    std::unique_ptr<Child> start(const std::string& host, std::vector<std::string> args) const {
        args.insert(args.begin(), {"run", name_, host});
        return std::make_unique<Child>(VELMOR_TESTNET_SCRIPT, args,
                                       std::map<std::string, std::string>{}, outputs_.path());
    }

private:
    int script(const std::vector<std::string>& args, std::string* output = nullptr) const {
        Child child(VELMOR_TESTNET_SCRIPT, args, {}, outputs_.path());
        const int status = child.wait(std::chrono::minutes(5)).value_or(-1);
        if (output)
            *output = child.output() + child.errors();
        return std::max(status, -1);
    }

    std::vector<std::string> hosts_;
    std::string name_, error_;
    TempDir outputs_;
};

}  // namespace vlm::test
