// The zeroconf library against the fake DNS-SD library: what its callers, DNS-SD and the log see.
#include <gtest/gtest.h>

#include <filesystem>
#include <sstream>

#include <boost/make_shared.hpp>

#include "ProgramsOnHost.h"
#include "bonjour_browser.h"
#include "fake_dnssd_control.h"
#include "zeroconf/client.h"
#include "zeroconf/dns_txt_record.h"
#include "zeroconf/hostname_browser.h"

using namespace std::chrono_literals;
using Lines = std::vector<std::string>;
using vlm::test::eventually;
namespace fs = std::filesystem;
using namespace fake_dnssd;  // cstr, u32
namespace {
const control& fake = control::get();
constexpr u32 kAdd = 2;
const char* kRegtype = "_http._tcp,_ravenna";
const char* kError = "zeroconf_category: errorCode = -65563\n";

// Standard output (the log) goes to a file while it lives.
struct Log {
    Log() : saved(dup(1)) { std::fflush(stdout), dup2(mkstemp(path), 1); }
    ~Log() { std::fflush(stdout), dup2(saved, 1), close(saved), std::remove(path); }
    std::size_t count(const std::string& line) const {
        std::fflush(stdout);
        std::size_t found = 0, at = 0;
        for (std::string all = vlm::test::readFile(path); (at = all.find(line, at)) != all.npos;)
            ++found, ++at;
        return found;
    }
    bool wait(const std::string& line, std::size_t times = 1) const {
        return eventually([&] { return count(line) >= times; });
    }
    char path[32] = "/tmp/zeroconf-log-XXXXXX";
    int saved;
};

// Every call of both listeners, as one line of text.
struct Listener : zeroconf::browser_listener, zeroconf::hostname_listener {
    void add(u32 index, cstr name, cstr type, cstr host, cstr address, u16 port,
             const Lines& txt) override {
        std::string entries;
        for (const std::string& entry : txt)
            entries += " [" + entry + ']';
        record("add", index, name, type, host, address, std::to_string(port) + entries);
        if (on_add)
            on_add();
    }
    void remove(u32 i, cstr name, cstr type) override { record("remove", i, name, type); }
    void add(u32 i, cstr host, cstr address) override { record("host", i, host, address); }
    void remove(u32 i, cstr host) override { record("gone", i, host); }
    template <typename... Parts>
    void record(const Parts&... parts) {
        std::ostringstream line;
        ((line << parts << ' '), ...);
        std::lock_guard<std::mutex> hold(mutex);
        lines.push_back(line.str().substr(0, line.str().size() - 1));
    }
    Lines seen() {
        std::lock_guard<std::mutex> hold(mutex);
        return lines;
    }
    std::mutex mutex;
    Lines lines;
    std::function<void()> on_add;
};

class Zeroconf : public ::testing::Test {
public:
    static std::string added(const std::string& name = "_velmor_a") {
        return "add 5 " + name + " _http._tcp. a.local. 10.0.0.1 8080 [master:1]";
    }
    static int threads() { return std::distance(fs::directory_iterator("/proc/self/task"), {}); }
    void SetUp() override {
        fake.reset();
        // The designed waits, but for the retries: 50 ms, and 300 ms to report again.
        client = zeroconf::client::create(
            5, boost::make_shared<zeroconf::clock>(100ms, 5min, 50ms, 300ms, 50ms));
        without_client = threads() - 1;  // a sanitizer may have started a thread of its own
    }
    void TearDown() override {
        browser.reset(), service.reset(), hosts.reset(), client.reset();
        EXPECT_TRUE(fake.wait_closed(5000));  // every operation ends with its object
        EXPECT_TRUE(eventually([&] { return threads() == without_client; }));  // and the thread
    }
    void browse(const std::string& filter = "", bool reconfirm = false) {
        browser = client->create_browser(filter, "_http._tcp", "_ravenna", listener, reconfirm);
    }
    void announce(const char* name, u32 flags = kAdd, u32 index = 5) {
        ASSERT_TRUE(fake.wait_open("DNSServiceBrowse", kRegtype, 5000));  // opened again
        ASSERT_EQ(fake.browse_event(kRegtype, flags, index, 0, name, "_http._tcp.", "local."), 0);
    }
    // Answers the oldest open resolve of name: "a.local." port 8080, TXT "master:1".
    void resolve(const std::string& name, std::string fullname = "") {
        ASSERT_TRUE(fake.wait_idle(5000));  // earlier answers went to earlier operations
        ASSERT_TRUE(fake.wait_open("DNSServiceResolve", name.c_str(), 5000));
        fullname = fullname.empty() ? name + "._http._tcp.local." : fullname;
        ASSERT_FALSE(fake.resolve_answer(name.c_str(), 0, 5, 0, fullname.c_str(), "a.local.",
                                         htons(8080), 9, (const unsigned char*)"\x08master:1"));
    }
    void address() {
        ASSERT_TRUE(fake.wait_idle(5000));
        ASSERT_TRUE(fake.wait_open("DNSServiceQueryRecord", "a.local.", 5000));
        ASSERT_EQ(fake.query_answer("a.local.", kAdd, 5, 0, "a.local.", 1, 1, 4, "\n\0\0\1", 9), 0);
    }
    void chain(const char* name = "_velmor_a") { announce(name), resolve(name), address(); }
    Lines settled(std::size_t count = 0) {  // in order of their text
        EXPECT_TRUE(eventually([&] { return listener->seen().size() >= count; }));
        EXPECT_TRUE(fake.wait_idle(5000));
        Lines seen = listener->seen();
        return std::sort(seen.begin(), seen.end()), seen;
    }
    void answer_host(const char* host, const char* address, u32 flags = kAdd) {
        fake.address_answer("h.local.", flags, 0, host, address);
    }
    Log log;
    int without_client = 0;
    boost::shared_ptr<Listener> listener = boost::make_shared<Listener>();
    boost::shared_ptr<zeroconf::client> client;
    boost::shared_ptr<zeroconf::browser> browser;
    boost::shared_ptr<zeroconf::service> service;
    boost::shared_ptr<zeroconf::hostname_browser> hosts;
};

// Wrong DNS-SD call arguments, an escape left in a name, a withdrawal on another interface taken
// for this one; host answers: IPv4 text, empty text for IPv6, another host's ignored, removal.
TEST_F(Zeroconf, CallsMadeAndWhatTheListenerGets) {
    browse("", true);
    announce("My\\.Box"), announce("My\\.Box", 0, 6);  // left elsewhere: still reported here
    resolve("My\\.Box"), address();
    service = client->create_service("studio", "_http._tcp", 8080, {"_ravenna", "_x"},
                                     {"a", "", "bc"}, [](int) {});
    hosts = client->create_hostname_browser("h.local.", listener);
    answer_host("h.local.", "10.0.0.2"), answer_host("h.local.", "fe80::2");
    answer_host("other.local.", "10.0.0.2"), answer_host("h.local.", "10.0.0.2", 0);
    auto other = client->create_browser("", "_http._tcp", "local.", "", listener, false);
    settled(5);
    const std::pair<const char*, const char*> calls[] = {
        {"DNSServiceBrowse", "262144 0 _http._tcp local."},        // flags, interface, the rest
        {"DNSServiceResolve", "2 5 My\\.Box _http._tcp. local."},  // the browse event's flags
        {"DNSServiceQueryRecord", "0 5 a.local. 1 1"},
        {"DNSServiceReconfirmRecord", "2048 5 a.local. 1 1 0a000001"},
        {"DNSServiceRegister", "8 5 studio _http._tcp,_ravenna,_x (null) (null) 8080 0161026263"},
        {"DNSServiceGetAddrInfo", "4096 5 1 h.local."}};
    for (const auto& call : calls)
        EXPECT_EQ(fake.last(call.first), call.second);
    announce("My\\.Box", 0);  // remove names the instance as DNS-SD did
    EXPECT_EQ(settled(6),
              (Lines{"add 5 My.Box _http._tcp. a.local. 10.0.0.1 8080 [master:1]",
                     "gone 5 h.local.", "host 5 h.local. ", "host 5 h.local. 10.0.0.2",
                     "remove 5 My\\.Box _http._tcp.", "remove 6 My\\.Box _http._tcp."}));
    EXPECT_EQ(log.count("Hostname Resolved h.local. -> \x02"), 1u);
    EXPECT_EQ(log.count("a.local. seems out dated -> force daemon to verify"), 1u);
}

struct Stage {
    const char *name, *line;
    std::size_t times = 1;
    friend void PrintTo(const Stage& stage, std::ostream* out) { *out << stage.name; }
};
class ErrorAtEachStage : public Zeroconf, public ::testing::WithParamInterface<Stage> {};

// Error answers carry null names (read once: a crash): one log line each; the browse is opened
// again, a failed resolve retried while its instance is announced, the next one served.
TEST_P(ErrorAtEachStage, IsLoggedAndDiscoveryGoesOn) {
    const std::string stage = GetParam().name;
    const bool retried = stage == "resolve" || stage == "query";
    browse();
    hosts = client->create_hostname_browser("h.local.", listener);
    if (stage == "browse")
        fake.browse_event(kRegtype, 0, 0, -65563, nullptr, nullptr, nullptr);
    else if (stage == "address")
        fake.address_answer("h.local.", 0, -65563, nullptr, nullptr);
    else {
        if (stage.find("_refused") != std::string::npos)
            fake.fail(stage == "resolve_refused" ? "DNSServiceResolve" : "DNSServiceQueryRecord",
                      stage == "query_refused" ? -65537 : -65540);
        announce("_velmor_x");
        if (stage == "resolve" && fake.wait_open("DNSServiceResolve", "_velmor_x", 5000))
            fake.resolve_answer("_velmor_x", 0, 0, -65563, nullptr, nullptr, 0, 0, nullptr);
        else if (stage != "resolve_refused")
            resolve("_velmor_x", stage == "full_name_without_a_dot" ? "_velmor_x" : "");
        if (stage == "query" && fake.wait_open("DNSServiceQueryRecord", "a.local.", 5000))
            fake.query_answer("a.local.", 0, 0, -65563, nullptr, 0, 0, 0, nullptr, 0);
    }
    EXPECT_TRUE(log.wait(GetParam().line, GetParam().times));
    fake.reset();
    settled();
    retried ? (resolve("_velmor_x"), address()) : chain();
    EXPECT_EQ(settled(1), Lines{added(retried ? "_velmor_x" : "_velmor_a")});
    EXPECT_EQ(log.count(GetParam().line), GetParam().times);
}

INSTANTIATE_TEST_SUITE_P(
    Zeroconf, ErrorAtEachStage,
    ::testing::Values(Stage{"browse", kError}, Stage{"resolve", kError}, Stage{"query", kError},
                      Stage{"address", kError},
                      Stage{"resolve_refused", "DNSServiceResolve() failed (-65540)\n"},
                      Stage{"query_refused", "DNSServiceQueryRecord failed (-65537)\n", 2},
                      Stage{"query_refused_for_parameters",
                            "DNSServiceQueryRecord failed (-65540 = wrong parameters)\n"
                            "resolve_reply(n/a, 0, _velmor_x._http._tcp.local., a.local., 36895, "
                            "9, 0x"},
                      Stage{"full_name_without_a_dot", "exception in DNSServiceProcessResult\n"}),
    [](const auto& info) { return std::string(info.param.name); });

// The daemon lost (Avahi: an error to each browse and registration): said once, retried quietly;
// back: the registration as it was, TXT too, and what the browse no longer reports removed. A
// resolve that failed is not retried after its instance left; a client dropped in a callback.
TEST_F(Zeroconf, DaemonLostAndBack) {
    browse();
    service = client->create_service("s", "_t._tcp", 80, {}, {"a=1"}, [](int) {});
    const std::string registered = fake.last("DNSServiceRegister");
    chain("_velmor_old");
    announce("_velmor_r");
    settled(1);
    fake.fail("DNSServiceBrowse", -65563), fake.fail("DNSServiceRegister", -65563);
    fake.browse_event(kRegtype, 0, 0, -65537, nullptr, nullptr, nullptr);
    fake.register_answer("s", -65537);
    fake.resolve_answer("_velmor_r", 0, 0, -65537, nullptr, nullptr, 0, 0, nullptr);
    EXPECT_TRUE(log.wait("zeroconf_category: DNS-SD daemon lost (-65537); browses and"));
    std::this_thread::sleep_for(300ms);  // a few tries
    EXPECT_EQ(log.count("\n"), 4u);
    fake.reset();
    EXPECT_TRUE(log.wait("DNS-SD daemon is back: browses and registrations opened again\n"));
    EXPECT_TRUE(eventually([&] { return fake.last("DNSServiceRegister") == registered; }));
    chain();
    EXPECT_EQ(settled(4), (Lines{added(), added("_velmor_old"), "remove 5 _velmor_old _http._tcp.",
                                 "remove 5 _velmor_r _http._tcp."}));
    announce("_velmor_w");  // its resolve fails, and it leaves before the retry
    ASSERT_TRUE(fake.wait_open("DNSServiceResolve", "_velmor_w", 5000));
    fake.resolve_answer("_velmor_w", 0, 0, -65537, nullptr, nullptr, 0, 0, nullptr);
    announce("_velmor_w", 0);
    ASSERT_TRUE(fake.wait_idle(5000));
    EXPECT_FALSE(fake.wait_open("DNSServiceResolve", "_velmor_w", 300));
    std::atomic<bool> dropped{false};
    service.reset();
    listener->on_add = [&] { browser.reset(), client.reset(), dropped = true; };
    chain("_velmor_z");
    EXPECT_TRUE(eventually([&] { return dropped.load(); }));
    EXPECT_TRUE(log.wait("destroyed from poll_thread_\n"));
}

// A name filter keeps only that instance's last announcement; resolves outlive their browser.
TEST_F(Zeroconf, NameFilterKeepsTheLastAnnouncementAndResolvesOutliveTheBrowser) {
    for (const char* filter : {"_velmor_a", ""}) {
        listener->lines.clear();
        browse(filter);
        announce("_velmor_b"), announce("_velmor_a"), announce("_velmor_a");
        resolve("_velmor_a"), browser.reset(), address();
        resolve("_velmor_a"), address();
        if (!*filter)  // ends the other instance's resolve
            fake.resolve_answer("_velmor_b", 0, 0, -65563, nullptr, nullptr, 0, 0, nullptr);
        EXPECT_EQ(settled(*filter ? 1 : 2), Lines(*filter ? 1 : 2, added())) << filter;
        ASSERT_TRUE(fake.wait_closed(5000));
    }
}

// Outcomes reach the callback and the log; the daemon decides on long names; no callback: caught.
// A refused operation gives a null object and one line: interface, first two arguments, reason.
TEST_F(Zeroconf, RegistrationOutcomesAndRefusedOperations) {
    const std::tuple<std::string, int, int, const char*> rows[] = {
        {std::string(63, 'n'), 0, 3, nullptr},
        {std::string(64, 'n'), -65548, 2, "bonjour_service failed name collision (-65548)\n"},
        {"s", -65537, 1, "bonjour_service failed (-65537)\n"}};
    for (const auto& [name, error, outcome, line] : rows) {
        std::atomic<int> state{0};
        service = client->create_service(name, "_t._tcp", 80, {}, {}, [&](int s) { state = s; });
        fake.register_answer(name.c_str(), error);
        EXPECT_TRUE(eventually([&, outcome = outcome] { return state == outcome; })) << name;
        EXPECT_EQ(log.count(line ? line : "\n"), line ? 1u : 0u);
        service.reset();
    }
    EXPECT_EQ(log.count("\"" + std::string(64, 'n') + "\" is too long(64) should be < 64\n"), 1u);
    service = client->create_service("x", "_t._tcp", 80, {}, {}, {});
    fake.register_answer("x", 0);
    EXPECT_TRUE(log.wait("exception in DNSServiceProcessResult\n"));
    const std::size_t lines = log.count("\n");
    fake.fail("DNSServiceBrowse", -65563), fake.fail("DNSServiceRegister", -65548);
    fake.fail("DNSServiceGetAddrInfo", -65537);
    EXPECT_FALSE(client->create_browser("_velmor", "_http._tcp", "_ravenna", listener, 0));
    EXPECT_FALSE(client->create_service("studio", "_http._tcp", 80, {}, {}, [](int) {}));
    EXPECT_FALSE(client->create_hostname_browser("h.local.", listener));
    for (const char* line :
         {"[5] _velmor  _http._tcp; runtime error DNSServiceBrowse() failed (-65563).",
          "[5] studio  _http._tcp; runtime error Could not register service \"studio\" (-65548).",
          "[5] h.local.  ; runtime error DNSServiceGetAddrInfo() failed (-65537)."})
        EXPECT_EQ(log.count(std::string("zeroconf_category: ") + line + "\n"), 1u) << line;
    EXPECT_EQ(log.count("\n"), lines + 3);
}

// 512 operations are all served; the 513th ends the poll thread.
TEST_F(Zeroconf, Serves512OperationsAndNoMore) {
    std::vector<boost::shared_ptr<zeroconf::hostname_browser>> open;
    for (int i = 0; i < 512; ++i)
        open.push_back(client->create_hostname_browser("h" + std::to_string(i), listener));
    fake.address_answer("h511", kAdd, 0, "h511", nullptr);
    EXPECT_EQ(settled(1), Lines{"host 5 h511 "});
    open.push_back(client->create_hostname_browser("h512", listener));
    EXPECT_TRUE(log.wait("fdset too small\n"));
    EXPECT_TRUE(eventually([&] { return threads() == without_client; }));
}

// Operations dropped on another thread during their dispatch: the fake aborts on a free under it.
TEST_F(Zeroconf, OperationsComeAndGoWhileThePollThreadDispatches) {
    browse();
    std::thread churn([&] {
        for (int i = 0; i < 50; ++i) {  // each dropped while its callback runs
            std::atomic<bool> entered{false};
            std::string name = "churn" + std::to_string(i);
            auto s = client->create_service(name, "_t._tcp", 80, {}, {}, [&](int) {
                entered = true, std::this_thread::sleep_for(2ms);
            });
            auto b = client->create_browser("", name, "", listener, false);
            fake.register_answer(name.c_str(), 0);
            fake.browse_event(name.c_str(), 0, 5, 0, "x", "_t._tcp.", "local.");
            EXPECT_TRUE(eventually([&] { return entered.load(); }));
        }
    });
    for (int i = 0; i < 300; ++i)
        announce("_velmor_a", 0);
    churn.join();
    EXPECT_GE(settled(300).size(), 300u);
}

// TXT limits: 127 bytes an entry, 32767 in all; parsing keeps empty entries, refuses overruns.
TEST(TxtRecord, EncodingAndParsing) {
    Lines full(255, std::string(127, 'x')), over;
    full.push_back(std::string(126, 'y'));  // 32,767 bytes encoded
    (over = full).back() += 'y';
    const std::pair<Lines, std::string> encoded[] = {{{"abc", "", "de"}, "\3abc\2de"},
                                                     {{full[0]}, "\177" + full[0]},
                                                     {{full[0] + 'x'}, ""},
                                                     {over, ""}};
    for (const auto& [entries, bytes] : encoded) {
        zeroconf::dns_txt_records record(entries);
        EXPECT_EQ(std::string((const char*)record.data(), record.length()), bytes);
    }
    EXPECT_EQ(zeroconf::dns_txt_records(full).length(), 32767);
    const std::tuple<std::string, bool, Lines> parsed[] = {
        {std::string("\3abc\0", 5), true, {"abc", ""}}, {"", true, {}}, {"\3abc\3de", false, {}}};
    for (const auto& [bytes, ok, expected] : parsed) {
        Lines entries{"stale"};
        Log log;
        auto data = (const unsigned char*)bytes.data();
        EXPECT_EQ(zeroconf::parse_txt_record(bytes.size(), data, entries), ok);
        EXPECT_EQ(entries, expected);
        EXPECT_EQ(log.count("Invalid TXT Record\n"), ok ? 0u : 1u);
    }
}

// Instance names end at the first unescaped dot; "\." "\\" and "\DDD" are undone; null: refused.
TEST(InstanceName, CutAndUnescaped) {
    const std::pair<const char*, const char*> rows[] = {
        {"a.b._http._tcp.", "a"}, {"a\\.b._http", "a.b"},
        {"a\\\\.b", "a\\"},       {"a\\\\\\.b.c", "a\\.b"},
        {"a\\032b.c", "a b"},     {"a\\03.c", "a\\03"},
        {"a\\x32.c", "a\\x32"},   {"abc", nullptr},
        {"a\\.", nullptr},        {"", nullptr}};
    for (const auto& [full, name] : rows) {
        if (name)
            EXPECT_EQ(zeroconf::unescape_instance_name(zeroconf::instance_part(full)), name);
        else
            EXPECT_THROW(zeroconf::instance_part(full), std::runtime_error) << full;
    }
}

}  // namespace
