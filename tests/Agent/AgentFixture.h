#pragma once
// An agent on a configuration in a temporary folder, with fast waits and its log collected.

#include <gtest/gtest.h>

#include <condition_variable>
#include <mutex>
#include <string>
#include <vector>

#include "Agent/Agent.h"
#include "AppConfig.h"
#include "Log.h"
#include "TestSupport.h"

namespace vlm::test {

/// \brief Collects the log lines written while it lives.
class LogCapture {
public:
    LogCapture() {
        instance_ = this;
        logHook = [](std::uint32_t, const char*, int, const char* message) {
            std::lock_guard<std::mutex> lock(instance_->mutex_);
            instance_->lines_.emplace_back(message);
            instance_->changed_.notify_all();
        };
    }
    ~LogCapture() { logHook = nullptr; }

    std::vector<std::string> lines() {
        std::lock_guard<std::mutex> lock(mutex_);
        return lines_;
    }
    int count(const std::string& line) {
        std::lock_guard<std::mutex> lock(mutex_);
        return static_cast<int>(std::count(lines_.begin(), lines_.end(), line));
    }
    bool waitFor(const std::string& line, std::chrono::milliseconds timeout) {
        std::unique_lock<std::mutex> lock(mutex_);
        return changed_.wait_for(lock, timeout, [&] {
            return std::find(lines_.begin(), lines_.end(), line) != lines_.end();
        });
    }

private:
    static inline LogCapture* instance_ = nullptr;
    std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<std::string> lines_;
};

/// \brief Records every listener call, in order, as text.
class RecordingListener : public Agent::Listener {
public:
    void onAttached(const std::string& server) override { record("attached " + server); }
    void onDetached(const std::string& server) override { record("detached " + server); }
    void onNotification(const std::string& text) override { record("notification " + text); }
    void onEngineDied() override { record("engine died"); }

    std::vector<std::string> calls() {
        std::lock_guard<std::mutex> lock(mutex_);
        return calls_;
    }
    bool waitFor(const std::string& call, std::chrono::milliseconds timeout) {
        std::unique_lock<std::mutex> lock(mutex_);
        return changed_.wait_for(lock, timeout, [&] {
            return std::find(calls_.begin(), calls_.end(), call) != calls_.end();
        });
    }

private:
    void record(const std::string& call) {
        std::lock_guard<std::mutex> lock(mutex_);
        calls_.push_back(call);
        changed_.notify_all();
    }
    std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<std::string> calls_;
};

class AgentFixture : public ::testing::Test {
protected:
    void SetUp() override {
        setenv("APPDATA", appData.path().c_str(), 1);
        setenv("VELMOR_COMMON_APPDATA", appData.path().c_str(), 1);
    }

    /// Loads the configuration text and builds an agent on it with fast waits.
    std::unique_ptr<Agent> makeAgent(const std::string& configText = "{}") {
        writeFile(appData.file("config.json"), configText);
        config.load(appData.file("config.json").c_str());
        auto agent = std::make_unique<Agent>(config);
        agent->timing.startupRound = std::chrono::milliseconds(20);
        agent->timing.masterWait = std::chrono::milliseconds(50);
        agent->timing.watcherInterval = std::chrono::milliseconds(100);
        agent->addListener(&listener);
        return agent;
    }

    std::string savedConfig() { return readFile(appData.file("config.json")); }

    TempDir appData;
    AppConfig config;
    RecordingListener listener;
};

}  // namespace vlm::test
