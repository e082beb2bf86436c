#pragma once
// Test hosts for network tests, made by tools/testnet/testnet.sh: each host is a network
// namespace with its own /run, host name, dbus-daemon and avahi-daemon.

#include <memory>

#include "TestSupport.h"

namespace vlm::test {

/// \brief A network of test hosts (network namespaces joined by veth pairs), removed with it.
///
/// Hosts are named by the caller ("a", "b"...: lower-case letters and digits); the i-th host
/// (from 0) has the IPv4 address 10.77.0.(i+1)/24 on its only interface, "eth0", and answers
/// to "<name>.local" over multicast DNS. A test that needs the network asserts ok() and shows
/// error(), so that a machine without root or namespaces fails it with the reason.
class TestNet {
public:
    explicit TestNet(const std::vector<std::string>& hosts);
    ~TestNet() { script({"down", name_}); }
    TestNet(const TestNet&) = delete;
    TestNet& operator=(const TestNet&) = delete;

    bool ok() const { return error_.empty(); }
    const std::string& error() const { return error_; }
    const std::string& name() const { return name_; }
    std::string address(const std::string& host) const;
    /// Runs a shell command line on host: its exit status (-1 when it could not run), with
    /// standard output and error in *output when given.
    int run(const std::string& host, const std::string& command,
            std::string* output = nullptr) const {
        return script({"run", name_, host, "sh", "-c", command}, output);
    }
    /// Starts a program on host; the Child ends it (SIGKILL) when destroyed.
    std::unique_ptr<Child> start(const std::string& host,
                                 const std::vector<std::string>& args) const;

private:
    int script(const std::vector<std::string>& args, std::string* output = nullptr) const;

    std::vector<std::string> hosts_;
    std::string name_, error_;
    TempDir outputs_;
};

/// Quotes text for a POSIX shell.
std::string shellQuote(const std::string& text);

}  // namespace vlm::test
