#pragma once
// An agent on a temporary configuration with fast waits; its log and listener calls as text.

#include <gtest/gtest.h>

#include <algorithm>
#include <mutex>

#include "Agent/Agent.h"
#include "AppConfig.h"
#include "Log.h"
#include "TestSupport.h"

namespace vlm::test {

/// \brief Lines in arrival order, from any thread.
class Recorder {
public:
    void record(const std::string& line) {
        std::lock_guard<std::mutex> lock(mutex_);
        lines_.push_back(line);
    }
    std::vector<std::string> lines() {
        std::lock_guard<std::mutex> lock(mutex_);
        return lines_;
    }
    int count(const std::string& line) {
        const auto all = lines();
        return static_cast<int>(std::count(all.begin(), all.end(), line));
    }

private:
    std::mutex mutex_;
    std::vector<std::string> lines_;
};

/// \brief The log lines written while it lives.
class LogCapture : public Recorder {
public:
    LogCapture() {
        instance_ = this;
        logHook = [](std::uint32_t, const char*, int, const char* s) { instance_->record(s); };
    }
    ~LogCapture() { logHook = nullptr; }

private:
    static inline LogCapture* instance_ = nullptr;
};

/// \brief Listener calls ("attached <server>"...), also into another recorder when given.
class RecordingListener : public Agent::Listener, public Recorder {
public:
    void onAttached(const std::string& server) override { note("attached " + server); }
    void onDetached(const std::string& server) override { note("detached " + server); }
    void onNotification(const std::string& text) override { note("notification " + text); }
    void onEngineDied() override { note("engine died"); }
    std::vector<std::string> calls() { return lines(); }
    Recorder* also = nullptr;

private:
    void note(const std::string& call) {
        record(call);
        if (also)
            also->record(call);
    }
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
        agent->timing = {std::chrono::milliseconds(20), std::chrono::milliseconds(50),
                         std::chrono::milliseconds(100)};
        agent->addListener(&listener);
        return agent;
    }
    std::string savedConfig() { return readFile(appData.file("config.json")); }

    TempDir appData;
    AppConfig config;
    RecordingListener listener;
};

}  // namespace vlm::test
