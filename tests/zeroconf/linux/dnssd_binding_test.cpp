// libvelmor_dnssd.so against real Avahi daemons on two test hosts: services published on host
// "a" with Avahi's own tools, the binding used as the agent uses it, from host "b".

#include <arpa/inet.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/select.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <functional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "TestNet.h"
#include "TestSupport.h"
#include "velmor_dnssd.h"

using namespace std::chrono_literals;
using vlm::test::TestNet;

namespace {

// The binding's entry points, loaded the way the agent loads them.
struct Binding {
    decltype(&::DNSServiceRefSockFD) refSockFD = nullptr;
    decltype(&::DNSServiceProcessResult) processResult = nullptr;
    decltype(&::DNSServiceRefDeallocate) refDeallocate = nullptr;
    decltype(&::DNSServiceRegister) registerService = nullptr;
    decltype(&::DNSServiceBrowse) browse = nullptr;
    decltype(&::DNSServiceResolve) resolve = nullptr;
    decltype(&::DNSServiceQueryRecord) queryRecord = nullptr;
    decltype(&::DNSServiceReconfirmRecord) reconfirmRecord = nullptr;
    decltype(&::DNSServiceGetAddrInfo) getAddrInfo = nullptr;

    static const Binding& instance(std::string* error) {
        static Binding binding;
        static std::string loadError = binding.load();
        *error = loadError;
        return binding;
    }

private:
    std::string load() {
        void* library =
            dlopen((vlm::test::buildDir() + "/libvelmor_dnssd.so").c_str(), RTLD_NOW | RTLD_LOCAL);
        if (!library)
            return dlerror();
        auto bind = [library](auto& slot, const char* name) {
            slot = reinterpret_cast<std::remove_reference_t<decltype(slot)>>(dlsym(library, name));
            return slot != nullptr;
        };
        if (bind(refSockFD, "DNSServiceRefSockFD") &&
            bind(processResult, "DNSServiceProcessResult") &&
            bind(refDeallocate, "DNSServiceRefDeallocate") &&
            bind(registerService, "DNSServiceRegister") && bind(browse, "DNSServiceBrowse") &&
            bind(resolve, "DNSServiceResolve") && bind(queryRecord, "DNSServiceQueryRecord") &&
            bind(reconfirmRecord, "DNSServiceReconfirmRecord") &&
            bind(getAddrInfo, "DNSServiceGetAddrInfo"))
            return {};
        return "an entry point is missing";
    }
};

struct BrowseEvent {
    DNSServiceFlags flags;
    uint32_t interfaceIndex;
    DNSServiceErrorType error;
    std::string name, type, domain;
};

struct ResolveAnswer {
    uint32_t interfaceIndex;
    DNSServiceErrorType error;
    std::string fullname, host;
    uint16_t port;
    std::vector<std::string> txt;
};

struct AddressAnswer {
    DNSServiceFlags flags;
    DNSServiceErrorType error;
    std::string hostname;
    int family;
    std::string address;
};

struct RegisterAnswer {
    DNSServiceErrorType error;
    std::string name;
};

std::string text(const char* s) {
    return s ? s : "(null)";
}

class DnssdBindingTest : public ::testing::Test {
protected:
    void SetUp() override {
        // The binding has to set this itself before Avahi's first call in the process.
        static bool firstInProcess = true;
        if (std::exchange(firstInProcess, false))
            unsetenv("AVAHI_COMPAT_NOWARN");
        std::fflush(stderr);
        savedStderr_ = dup(STDERR_FILENO);
        int capture = open(stderrFile().c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        ASSERT_GE(capture, 0);
        dup2(capture, STDERR_FILENO);
        close(capture);

        net_ = std::make_unique<TestNet>(std::vector<std::string>{"a", "b"});
        ASSERT_TRUE(net_->ok()) << net_->error();
        // libdns_sd makes its D-Bus connection per operation, to the bus named here: host b's.
        setenv("DBUS_SYSTEM_BUS_ADDRESS", net_->busAddress("b").c_str(), 1);
        std::string error;
        dns_ = &Binding::instance(&error);
        ASSERT_EQ(error, "") << "cannot load libvelmor_dnssd.so";
    }

    void TearDown() override {
        for (DNSServiceRef ref : refs_)
            dns_->refDeallocate(ref);
        refs_.clear();
        publishers_.clear();
        net_.reset();
        std::fflush(stderr);
        if (savedStderr_ >= 0) {
            dup2(savedStderr_, STDERR_FILENO);
            close(savedStderr_);
        }
        EXPECT_EQ(vlm::test::readFile(stderrFile()), "") << "written to standard error";
        unsetenv("DBUS_SYSTEM_BUS_ADDRESS");
    }

    std::string stderrFile() const { return dir_.file("stderr"); }

    DNSServiceRef keep(DNSServiceRef ref) {
        refs_.push_back(ref);
        return ref;
    }

    void drop(DNSServiceRef ref) {
        refs_.erase(std::remove(refs_.begin(), refs_.end(), ref), refs_.end());
        dns_->refDeallocate(ref);
    }

    // Answers the operation's results until done() holds; false when the time runs out first.
    bool serve(DNSServiceRef ref, const std::function<bool()>& done,
               std::chrono::milliseconds timeout = 10s) {
        auto deadline = std::chrono::steady_clock::now() + timeout;
        while (!done()) {
            if (std::chrono::steady_clock::now() >= deadline)
                return false;
            serveOnce(ref, 50ms);
        }
        return true;
    }

    // Answers results until none came for `quiet` (what Avahi still had to say is said).
    void serveUntilQuiet(DNSServiceRef ref, std::chrono::milliseconds quiet = 700ms) {
        auto deadline = std::chrono::steady_clock::now() + 10s;
        while (serveOnce(ref, quiet) && std::chrono::steady_clock::now() < deadline) {
        }
    }

    bool serveOnce(DNSServiceRef ref, std::chrono::milliseconds wait) {
        int fd = dns_->refSockFD(ref);
        EXPECT_GE(fd, 0);
        if (fd < 0)
            return false;
        fd_set read;
        FD_ZERO(&read);
        FD_SET(fd, &read);
        timeval tv{static_cast<time_t>(wait.count() / 1000),
                   static_cast<suseconds_t>(wait.count() % 1000 * 1000)};
        if (select(fd + 1, &read, nullptr, nullptr, &tv) <= 0)
            return false;
        EXPECT_EQ(dns_->processResult(ref), kDNSServiceErr_NoError);
        return true;
    }

    // Publishes a service on host a with avahi-publish-service; waits until it is established.
    void publishOnA(const std::vector<std::string>& args) {
        std::vector<std::string> command{"avahi-publish-service"};
        command.insert(command.end(), args.begin(), args.end());
        publishers_.push_back(net_->start("a", command));
        // It reports on standard error.
        auto deadline = std::chrono::steady_clock::now() + 10s;
        while (publishers_.back()->errors().find("Established") == std::string::npos) {
            ASSERT_LT(std::chrono::steady_clock::now(), deadline) << publishers_.back()->errors();
            std::this_thread::sleep_for(20ms);
        }
    }

    // Host's view of a service type, one line per instance and transport.
    std::string browseOn(const std::string& host, const std::string& type) {
        std::string output;
        net_->run(host, "avahi-browse -t -p -k " + type, &output);
        return output;
    }

    static void DNSSD_API onBrowse(DNSServiceRef, DNSServiceFlags flags, uint32_t interfaceIndex,
                                   DNSServiceErrorType error, const char* name, const char* type,
                                   const char* domain, void* context) {
        static_cast<std::vector<BrowseEvent>*>(context)->push_back(
            {flags, interfaceIndex, error, text(name), text(type), text(domain)});
    }

    static void DNSSD_API onResolve(DNSServiceRef, DNSServiceFlags, uint32_t interfaceIndex,
                                    DNSServiceErrorType error, const char* fullname,
                                    const char* host, uint16_t port, uint16_t txtLen,
                                    const unsigned char* txt, void* context) {
        ResolveAnswer answer{interfaceIndex, error, text(fullname), text(host), ntohs(port), {}};
        for (size_t i = 0; txt && i < txtLen && i + 1 + txt[i] <= txtLen; i += txt[i] + 1)
            answer.txt.emplace_back(reinterpret_cast<const char*>(txt + i + 1), txt[i]);
        static_cast<std::vector<ResolveAnswer>*>(context)->push_back(answer);
    }

    static void DNSSD_API onAddress(DNSServiceRef, DNSServiceFlags flags, uint32_t,
                                    DNSServiceErrorType error, const char* hostname,
                                    const sockaddr* address, uint32_t, void* context) {
        AddressAnswer answer{flags, error, text(hostname), address ? address->sa_family : -1, {}};
        if (address && address->sa_family == AF_INET) {
            char buffer[INET_ADDRSTRLEN] = {};
            inet_ntop(AF_INET, &reinterpret_cast<const sockaddr_in*>(address)->sin_addr, buffer,
                      sizeof buffer);
            answer.address = buffer;
        }
        static_cast<std::vector<AddressAnswer>*>(context)->push_back(answer);
    }

    static void DNSSD_API onRegister(DNSServiceRef, DNSServiceFlags, DNSServiceErrorType error,
                                     const char* name, const char*, const char*, void* context) {
        static_cast<std::vector<RegisterAnswer>*>(context)->push_back({error, text(name)});
    }

    vlm::test::TempDir dir_;
    int savedStderr_ = -1;
    std::unique_ptr<TestNet> net_;
    const Binding* dns_ = nullptr;
    std::vector<DNSServiceRef> refs_;
    std::vector<std::unique_ptr<vlm::test::Child>> publishers_;
};

size_t count(const std::vector<BrowseEvent>& events, const std::string& name, bool add) {
    return std::count_if(events.begin(), events.end(), [&](const BrowseEvent& e) {
        return e.error == 0 && e.name == name && ((e.flags & kDNSServiceFlagsAdd) != 0) == add;
    });
}

TEST_F(DnssdBindingTest, BrowseWithWakeOnResolveIsAccepted) {
    std::vector<BrowseEvent> events;
    DNSServiceRef ref = nullptr;
    ASSERT_EQ(dns_->browse(&ref, kDNSServiceFlagsWakeOnResolve, 0, "_http._tcp", nullptr, onBrowse,
                           &events),
              kDNSServiceErr_NoError);
    keep(ref);
    EXPECT_GE(dns_->refSockFD(ref), 0);
}

TEST_F(DnssdBindingTest, ServiceOnAnotherHostIsBrowsedOnceResolvedAndRemovedOnce) {
    publishOnA({"--subtype=_ravenna._sub._http._tcp", "Velmor Test", "_http._tcp", "8080",
                "master:1", "x=y"});

    std::vector<BrowseEvent> events;
    DNSServiceRef browse = nullptr;
    ASSERT_EQ(dns_->browse(&browse, kDNSServiceFlagsWakeOnResolve, 0, "_http._tcp,_ravenna",
                           nullptr, onBrowse, &events),
              kDNSServiceErr_NoError);
    keep(browse);
    ASSERT_TRUE(serve(browse, [&] { return count(events, "Velmor Test", true) > 0; }));

    // Avahi has it on both transports, so it reported it twice to the binding.
    ASSERT_TRUE(serve(browse, [&] {
        std::string view = browseOn("b", "_ravenna._sub._http._tcp");
        return view.find("+;eth0;IPv4;Velmor\\032Test;") != std::string::npos &&
               view.find("+;eth0;IPv6;Velmor\\032Test;") != std::string::npos;
    })) << "Avahi on b does not see the service on IPv4 and IPv6";
    serveUntilQuiet(browse);
    EXPECT_EQ(count(events, "Velmor Test", true), 1u);

    const BrowseEvent added = events.front();
    EXPECT_EQ(added.type, "_http._tcp.");
    EXPECT_EQ(added.domain, "local.");
    EXPECT_GT(added.interfaceIndex, 0u);

    // Resolved with the browse event's flags, as the agent does.
    std::vector<ResolveAnswer> answers;
    DNSServiceRef resolve = nullptr;
    ASSERT_EQ(dns_->resolve(&resolve, added.flags, added.interfaceIndex, added.name.c_str(),
                            added.type.c_str(), added.domain.c_str(), onResolve, &answers),
              kDNSServiceErr_NoError);
    keep(resolve);
    ASSERT_TRUE(serve(resolve, [&] { return !answers.empty(); }));
    EXPECT_EQ(answers[0].error, kDNSServiceErr_NoError);
    EXPECT_EQ(answers[0].fullname, "Velmor\\032Test._http._tcp.local.");
    EXPECT_EQ(answers[0].host, "a.local.");
    EXPECT_EQ(answers[0].port, 8080);
    std::sort(answers[0].txt.begin(), answers[0].txt.end());
    EXPECT_EQ(answers[0].txt, (std::vector<std::string>{"master:1", "x=y"}));
    drop(resolve);

    publishers_.back()->kill(SIGTERM);
    ASSERT_TRUE(publishers_.back()->wait(5s).has_value());
    ASSERT_TRUE(serve(browse, [&] { return count(events, "Velmor Test", false) > 0; }));
    serveUntilQuiet(browse);
    EXPECT_EQ(count(events, "Velmor Test", false), 1u);
    EXPECT_EQ(count(events, "Velmor Test", true), 1u);
}

// The resolver's chain: inside its own callback the resolve is ended and an A-record query
// opened in the same reference, which the query's callback ends in turn.
struct Chain {
    const Binding* dns = nullptr;
    DNSServiceRef ref = nullptr;
    std::string address;
    bool ended = false;
};

void DNSSD_API onChainAddress(DNSServiceRef sdRef, DNSServiceFlags, uint32_t,
                              DNSServiceErrorType error, const char*, uint16_t, uint16_t,
                              uint16_t rdlen, const void* rdata, uint32_t, void* context) {
    auto* chain = static_cast<Chain*>(context);
    EXPECT_EQ(sdRef, chain->ref);
    if (error == kDNSServiceErr_NoError && rdlen == 4) {
        auto* bytes = static_cast<const unsigned char*>(rdata);
        chain->address = std::to_string(bytes[0]) + "." + std::to_string(bytes[1]) + "." +
                         std::to_string(bytes[2]) + "." + std::to_string(bytes[3]);
    }
    chain->dns->refDeallocate(chain->ref);
    chain->ref = nullptr;
    chain->ended = true;
}

void DNSSD_API onChainResolve(DNSServiceRef sdRef, DNSServiceFlags, uint32_t interfaceIndex,
                              DNSServiceErrorType error, const char*, const char* host, uint16_t,
                              uint16_t, const unsigned char*, void* context) {
    auto* chain = static_cast<Chain*>(context);
    EXPECT_EQ(sdRef, chain->ref);
    chain->dns->refDeallocate(chain->ref);
    chain->ref = nullptr;
    if (error != kDNSServiceErr_NoError ||
        chain->dns->queryRecord(&chain->ref, 0, interfaceIndex, host, kDNSServiceType_A,
                                kDNSServiceClass_IN, onChainAddress,
                                chain) != kDNSServiceErr_NoError)
        chain->ended = true;
}

TEST_F(DnssdBindingTest, ResolveReplacedByAnAddressQueryInsideItsCallback) {
    publishOnA({"Chained", "_velmorchain._tcp", "9000"});

    std::vector<BrowseEvent> events;
    DNSServiceRef browse = nullptr;
    ASSERT_EQ(dns_->browse(&browse, 0, 0, "_velmorchain._tcp", nullptr, onBrowse, &events),
              kDNSServiceErr_NoError);
    keep(browse);
    ASSERT_TRUE(serve(browse, [&] { return count(events, "Chained", true) > 0; }));

    Chain chain;
    chain.dns = dns_;
    ASSERT_EQ(
        dns_->resolve(&chain.ref, events[0].flags, events[0].interfaceIndex, "Chained",
                      events[0].type.c_str(), events[0].domain.c_str(), onChainResolve, &chain),
        kDNSServiceErr_NoError);
    auto deadline = std::chrono::steady_clock::now() + 10s;
    while (!chain.ended && std::chrono::steady_clock::now() < deadline)
        serveOnce(chain.ref, 50ms);
    if (chain.ref)
        dns_->refDeallocate(chain.ref);
    ASSERT_TRUE(chain.ended);
    EXPECT_EQ(chain.address, net_->address("a"));
}

TEST_F(DnssdBindingTest, GetAddrInfoGivesTheHostsIPv4Address) {
    std::vector<AddressAnswer> answers;
    DNSServiceRef ref = nullptr;
    ASSERT_EQ(dns_->getAddrInfo(&ref, kDNSServiceFlagsReturnIntermediates, 0,
                                kDNSServiceProtocol_IPv4, "a.local.", onAddress, &answers),
              kDNSServiceErr_NoError);
    keep(ref);
    ASSERT_TRUE(serve(ref, [&] { return !answers.empty(); }));
    serveUntilQuiet(ref);
    ASSERT_EQ(answers.size(), 1u);
    EXPECT_EQ(answers[0].error, kDNSServiceErr_NoError);
    EXPECT_TRUE(answers[0].flags & kDNSServiceFlagsAdd);
    EXPECT_EQ(answers[0].hostname, "a.local.");
    EXPECT_EQ(answers[0].family, AF_INET);
    EXPECT_EQ(answers[0].address, net_->address("a"));
}

TEST_F(DnssdBindingTest, RegisterWithoutRenameOnATakenNameReportsAConflictAndWithdraws) {
    publishOnA({"Taken Name", "_velmorconf._tcp", "1234"});

    std::vector<RegisterAnswer> answers;
    DNSServiceRef ref = nullptr;
    ASSERT_EQ(dns_->registerService(&ref, kDNSServiceFlagsNoAutoRename, 0, "Taken Name",
                                    "_velmorconf._tcp", nullptr, nullptr, htons(4321), 0, nullptr,
                                    onRegister, &answers),
              kDNSServiceErr_NoError);
    keep(ref);
    ASSERT_TRUE(serve(
        ref, [&] { return !answers.empty(); }, 15s));
    auto answered = std::chrono::steady_clock::now();
    EXPECT_EQ(answers[0].error, kDNSServiceErr_NameConflict);
    EXPECT_EQ(answers[0].name, "Taken Name");

    // The name Avahi chose instead ("Taken Name #2") must be gone from the network while the
    // caller still holds its reference; a withdrawn record lingers up to 1 s in caches.
    std::string view;
    for (;;) {
        view = browseOn("a", "_velmorconf._tcp");
        // Avahi escapes the space and the "#" of the new name: "Taken\032Name\032\0352".
        bool renamedVisible = view.find("Taken\\032Name\\032") != std::string::npos;
        if (!renamedVisible && std::chrono::steady_clock::now() - answered > 2s)
            break;
        ASSERT_LT(std::chrono::steady_clock::now() - answered, 10s)
            << "the renamed service is still published:\n"
            << view;
        serveOnce(ref, 100ms);
    }
    EXPECT_NE(view.find("Taken\\032Name;"), std::string::npos) << view;
    EXPECT_GE(dns_->refSockFD(ref), 0);
    EXPECT_EQ(answers.size(), 1u);
}

TEST_F(DnssdBindingTest, RegisterWithoutRenameOnAFreeNameIsPublished) {
    std::vector<RegisterAnswer> answers;
    DNSServiceRef ref = nullptr;
    const unsigned char txt[] = {3, 'a', '=', 'b'};
    ASSERT_EQ(dns_->registerService(&ref, kDNSServiceFlagsNoAutoRename, 0, "Free Name",
                                    "_velmorconf._tcp,_ravenna", nullptr, nullptr, htons(4321),
                                    sizeof txt, txt, onRegister, &answers),
              kDNSServiceErr_NoError);
    keep(ref);
    ASSERT_TRUE(serve(
        ref, [&] { return !answers.empty(); }, 15s));
    EXPECT_EQ(answers[0].error, kDNSServiceErr_NoError);
    EXPECT_EQ(answers[0].name, "Free Name");

    std::string output;
    ASSERT_TRUE(serve(ref, [&] {
        net_->run("a", "avahi-browse -t -r -p -k _ravenna._sub._velmorconf._tcp", &output);
        return output.find("=;eth0;IPv4;Free\\032Name;_velmorconf._tcp;local;b.local;" +
                           net_->address("b") + ";4321;\"a=b\"") != std::string::npos;
    })) << output;
}

TEST_F(DnssdBindingTest, ReconfirmSucceeds) {
    const unsigned char address[] = {10, 77, 0, 1};
    EXPECT_EQ(dns_->reconfirmRecord(0x800, 0, "a.local.", kDNSServiceType_A, kDNSServiceClass_IN,
                                    sizeof address, address),
              kDNSServiceErr_NoError);
}

TEST_F(DnssdBindingTest, RefusedFlagsLeaveNothingOnStandardError) {
    // Each of these makes Avahi's compatibility layer warn unless told not to.
    std::vector<BrowseEvent> events;
    std::vector<AddressAnswer> addresses;
    std::vector<RegisterAnswer> registered;
    DNSServiceRef ref = nullptr;
    ASSERT_EQ(dns_->browse(&ref, kDNSServiceFlagsWakeOnResolve, 0, "_http._tcp", nullptr, onBrowse,
                           &events),
              kDNSServiceErr_NoError);
    keep(ref);
    ASSERT_EQ(dns_->getAddrInfo(&ref, kDNSServiceFlagsReturnIntermediates, 0,
                                kDNSServiceProtocol_IPv4, "b.local.", onAddress, &addresses),
              kDNSServiceErr_NoError);
    keep(ref);
    ASSERT_EQ(
        dns_->registerService(&ref, kDNSServiceFlagsNoAutoRename, 0, "Quiet", "_velmorconf._tcp",
                              nullptr, nullptr, htons(1), 0, nullptr, onRegister, &registered),
        kDNSServiceErr_NoError);
    keep(ref);
    EXPECT_EQ(dns_->reconfirmRecord(0x800, 0, "b.local.", kDNSServiceType_A, kDNSServiceClass_IN, 0,
                                    nullptr),
              kDNSServiceErr_NoError);
    EXPECT_STREQ(getenv("AVAHI_COMPAT_NOWARN"), "1");
    // TearDown finds standard error empty.
}

}  // namespace
