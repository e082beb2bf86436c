#pragma once
// What the zeroconf tests share: standard output captured to a file (the log's lines), a
// listener that records its calls, a clock moved by hand.

#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "fake_dnssd_control.h"
#include "zeroconf/browser.h"
#include "zeroconf/client.h"
#include "zeroconf/clock.h"
#include "zeroconf/hostname_browser.h"

namespace zeroconf_test {

constexpr auto timeout = std::chrono::seconds(5);
constexpr int timeout_ms = 5000;

/// Polls condition until it holds or the time-out passes.
inline bool eventually(const std::function<bool()>& condition,
                       std::chrono::milliseconds limit = timeout) {
    auto end = std::chrono::steady_clock::now() + limit;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > end)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return true;
}

/// \brief Sends standard output (the log) to a file while it lives; shows it again on failure.
class stdout_capture {
public:
    stdout_capture() {
        char name[] = "/tmp/zeroconf-log-XXXXXX";
        int file = mkstemp(name);
        path_ = name;
        std::fflush(stdout);
        saved_ = dup(STDOUT_FILENO);
        dup2(file, STDOUT_FILENO);
        close(file);
    }
    ~stdout_capture() {
        restore();
        std::remove(path_.c_str());
    }
    stdout_capture(const stdout_capture&) = delete;
    stdout_capture& operator=(const stdout_capture&) = delete;

    std::string text() const {
        std::fflush(stdout);
        std::ifstream in(path_, std::ios::binary);
        std::ostringstream content;
        content << in.rdbuf();
        return content.str();
    }
    std::size_t count(const std::string& needle) const {
        std::string all = text();
        std::size_t found = 0;
        for (std::size_t at = all.find(needle); at != std::string::npos;
             at = all.find(needle, at + needle.size()))
            ++found;
        return found;
    }
    bool contains(const std::string& needle) const { return count(needle) > 0; }
    bool wait_for(const std::string& needle, std::size_t times = 1) const {
        return eventually([&] { return count(needle) >= times; });
    }
    /// The text of the library's log line at level: colour, category, message, reset.
    static std::string line(int level, const std::string& message) {
        static const char* colours[] = {"31", "31", "31", "31", "33", "36", "32", "35"};
        return std::string("\033[") + colours[level] + "m\033[1m zeroconf_category: " + message +
               "\033[0m";
    }

    void restore() {
        if (saved_ < 0)
            return;
        std::fflush(stdout);
        dup2(saved_, STDOUT_FILENO);
        close(saved_);
        saved_ = -1;
        if (::testing::Test::HasFailure())
            std::fprintf(stdout, "--- log ---\n%s--- end of log ---\n", text().c_str());
    }

private:
    std::string path_;
    int saved_ = -1;
};

struct browser_event {
    bool added;
    std::uint32_t interface_index;
    std::string name;
    std::string type;
    std::string host;
    std::string address;
    std::uint16_t port;
    std::vector<std::string> txt;
};

/// \brief Records add and remove calls; an optional hook runs inside add.
class recording_listener : public zeroconf::browser_listener {
public:
    void add(std::uint32_t interface_index, const char* name, const char* type, const char* host,
             const char* address, std::uint16_t port,
             const std::vector<std::string>& txt) override {
        {
            std::lock_guard<std::mutex> hold(mutex_);
            events_.push_back({true, interface_index, name, type, host, address, port, txt});
        }
        if (on_add)
            on_add();
    }
    void remove(std::uint32_t interface_index, const char* name, const char* type) override {
        std::lock_guard<std::mutex> hold(mutex_);
        events_.push_back({false, interface_index, name, type, "", "", 0, {}});
    }

    std::vector<browser_event> events() const {
        std::lock_guard<std::mutex> hold(mutex_);
        return events_;
    }
    bool wait_for(std::size_t count) const {
        return eventually([&] { return events().size() >= count; });
    }

    std::function<void()> on_add;

private:
    mutable std::mutex mutex_;
    std::vector<browser_event> events_;
};

/// \brief A clock that stands still until the test moves it.
class manual_clock : public zeroconf::clock {
public:
    std::chrono::nanoseconds now() const override { return std::chrono::nanoseconds(now_.load()); }
    void advance(std::chrono::nanoseconds step) { now_ += step.count(); }

private:
    std::atomic<std::int64_t> now_{1000000000};
};

inline const fake_dnssd::control& fake() {
    return fake_dnssd::control::get();
}

/// Runs on the fixture's thread: the fake's counters start from zero for every test.
class fake_test : public ::testing::Test {
protected:
    void SetUp() override { fake().reset(); }
    void TearDown() override {
        log.restore();
        fake().reset();
    }

    stdout_capture log;
};

}  // namespace zeroconf_test
