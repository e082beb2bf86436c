#pragma once
// The process-wide agent: its mode, the engine it runs or the server it attaches to, and the
// listeners (the tray) it tells what happens.

#include <QList>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <boost/shared_ptr.hpp>

#include "json/Json.h"

class QNetworkInterface;
class QPixmap;
class QString;

namespace zeroconf {
class browser;
}

namespace vlm {

class AppConfig;

/// Master = 1, Slave = 2, Hybrid = 4; 0 and other values make start-up do nothing.
using AgentMode = std::int32_t;
constexpr AgentMode kModeNone = 0;
constexpr AgentMode kModeMaster = 1;
constexpr AgentMode kModeSlave = 2;
constexpr AgentMode kModeHybrid = 4;

/// The hardware-id list that means "no interface filtering: every interface".
constexpr const char* kNoInterfaceFilter = "0";

/// (IPv4 address, netmask) in dotted form.
using InterfaceFilter = std::pair<std::string, std::string>;
using InterfaceFilters = std::vector<InterfaceFilter>;

/// One row of the user's plug-in filter.
struct PluginEntry {
    std::string name;
    std::string descr;
    bool enabled = false;
};

/// The agent's fixed waits. The product uses these values; tests may shorten them.
struct AgentTiming {
    std::chrono::milliseconds startupRound{1000};
    std::chrono::milliseconds masterWait{4000};
    std::chrono::milliseconds watcherInterval{3000};
    /// How the start-up sequence waits out a round or the Master wait.
    std::function<void(std::chrono::milliseconds)> sleep = [](std::chrono::milliseconds wait) {
        std::this_thread::sleep_for(wait);
    };
};

/// \brief The process-wide agent.
class Agent {
public:
    /// \brief Told about attachment, user messages and the engine child's death. Calls come
    /// from worker threads with the agent's mutex possibly held: only queue work.
    class Listener {
    public:
        virtual void onAttached(const std::string& server) = 0;
        virtual void onDetached(const std::string& server) = 0;
        virtual void onNotification(const std::string& text) = 0;
        virtual void onEngineDied() {}
        virtual ~Listener() = default;
    };

    class BrowserListener;

    static Agent& instance();

    /// An agent configured from this configuration (the process-wide one uses AppConfig's).
    explicit Agent(AppConfig& config);
    ~Agent();
    Agent(const Agent&) = delete;
    Agent& operator=(const Agent&) = delete;

    void addListener(Listener* listener);
    /// No call reaches the listener once this has returned (a call under way is waited for).
    /// Never call it from inside a listener call.
    void removeListener(Listener* listener);

    /// Opens the browse for engine servers and runs the start-up sequence under the splash.
    void start();

    /// The first half of start(): the zeroconf client and the browse whose listener attaches
    /// this agent. Programs without a splash (test hosts, benchmarks) call it alone.
    void startBrowsing();

    /// The start-up sequence of the mode; show receives the progress texts. Always 0.
    int runStartup(const std::function<void(const QString&)>& show);

    /// Launches the engine-server role as a detached child and watches it.
    void startEngineProcess(bool master);

    // Configuration setters: they write "config.json" and take effect at the next start. Each
    // is true when the value changed and was written; a value that cannot be written is not
    // changed at all.
    bool storeMode(AgentMode newMode);
    bool setWebServerAddress(const std::string& address);
    bool setPluginEntries(const std::vector<PluginEntry>& entries);

    // Server control: requests to the attached server.
    json::DocumentPtr queryServer(const std::string& path);
    /// Stores the discovery filter and pushes the interface filters to the attached server.
    /// False when the filter could not be stored (the push happens all the same).
    bool applyInterfaceFilters(const std::vector<std::string>& hardwareIds);

    // Engine host: the engine inside the server roles.
    void collectInterfaceFilters(InterfaceFilters& out) const;
    bool startEngine(bool master);
    void stopEngine();
    static bool isProcessAlive(std::uint32_t pid);

    /// Calls every listener in registration order.
    template <typename Call>
    void notifyListeners(Call call) {
        std::lock_guard<std::mutex> lock(listenersMutex_);
        for (Listener* listener : listeners)
            call(*listener);
    }

    /// The attached server's endpoint, read under the mutex; empty when not attached.
    std::string attachedEndpoint();

    /// The configuration this agent was built on; the settings dialog reads it directly.
    AppConfig& configuration() const { return config_; }

    AgentMode mode = kModeHybrid;
    std::vector<std::string> interfaceHardwareIds;
    // Guarded by its own lock (see notifyListeners).
    std::vector<Listener*> listeners;
    std::mutex mutex;
    // The browse for engine servers, open for the life of the process.
    boost::shared_ptr<zeroconf::browser> browser;

    std::string attachedName;
    std::string attachedServer;
    std::string attachedHost;
    std::int32_t attachedMode = 0;

    std::atomic<std::int64_t> enginePid{0};
    std::unique_ptr<std::thread> engineWatcher;
    std::unique_ptr<QPixmap> splashPixmap;

    /// Seams for tests: the waits, and the program started as the engine child (empty: this
    /// executable).
    AgentTiming timing;
    std::string engineProgram;

private:
    void watchEngine(std::int64_t pid);

    // The listeners' own lock, never the agent's mutex: a launch joins the previous engine
    // watcher under that mutex, and the watcher's last act is a listener call.
    std::mutex listenersMutex_;

    AppConfig& config_;
};

/// Hardware addresses from "discovery"/"filtering"; ["0"] when there are none.
std::vector<std::string> interfaceHardwareIdsFrom(json::Document* document);

/// The mode from "mode": Hybrid when absent, none when null.
AgentMode agentModeFrom(json::Document* document);

/// The filters for these hardware ids over the given interfaces, in list order.
void interfaceFiltersFor(const std::vector<std::string>& hardwareIds,
                         const QList<QNetworkInterface>& interfaces, InterfaceFilters& out);

}  // namespace vlm
