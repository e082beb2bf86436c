#pragma once
// Test hosts for network tests, made by tools/testnet/testnet.sh: each host is a network
// namespace with its own /run, host name, dbus-daemon and avahi-daemon.

#include <memory>
#include <string>
#include <vector>

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
    ~TestNet();
    TestNet(const TestNet&) = delete;
    TestNet& operator=(const TestNet&) = delete;

    bool ok() const { return error_.empty(); }
    /// Why the network could not be made; empty when it is up.
    const std::string& error() const { return error_; }
    const std::string& name() const { return name_; }

    std::string address(const std::string& host) const;
    /// The host's system bus, for a D-Bus client (such as libdns_sd) outside its namespaces.
    std::string busAddress(const std::string& host) const;

    /// Runs a shell command line on host; returns its exit status (-1 when it could not run).
    /// Standard output and error go to *output when given.
    int run(const std::string& host, const std::string& command,
            std::string* output = nullptr) const;
    /// The host's avahi-daemon killed (SIGKILL) with "kill", or started again with "start",
    /// which returns once it runs; the exit status.
    int avahi(const std::string& host, const std::string& action) const;
    /// Starts a program on host; the Child ends it (SIGKILL) when destroyed.
    std::unique_ptr<Child> start(const std::string& host,
                                 const std::vector<std::string>& args) const;

private:
    std::string script(const std::vector<std::string>& args, bool captureErrors) const;

    std::vector<std::string> hosts_;
    std::string name_;
    std::string error_;
    bool made_ = false;
    TempDir outputs_;
};

/// Quotes text for a POSIX shell.
std::string shellQuote(const std::string& text);

}  // namespace vlm::test
