#include "Agent/Agent.h"

#include <QCoreApplication>
#include <QIcon>
#include <QPixmap>
#include <QProcess>
#include <QString>
#include <QStringList>
#include <algorithm>
#include <boost/make_shared.hpp>

#include "Agent/BrowserListener.h"
#include "Agent/EndpointProbe.h"
#include "AppConfig.h"
#include "Log.h"
#include "Roles.h"
#include "platform/Platform.h"
#include "theme/QCVSplashWindow.h"
#include "theme/QCVTheme.h"
#include "zeroconf/client.h"

namespace vlm {

namespace {
constexpr int kStartupRounds = 16;
// Attachment is accepted from this round on, so the splash shows at least five seconds.
constexpr int kFirstAcceptedRound = 4;
// After this round without a server, Hybrid starts its own engine and Slave gives up.
constexpr int kLocalFallbackRound = 3;
constexpr int kSplashWidth = 600;
constexpr int kSplashHeight = 250;
// Negative: the client clamps it to 0, every interface.
constexpr int kAnyInterface = -1;
constexpr const char* kServerType = "_http._tcp";
constexpr const char* kServerSubtype = "_ravenna";
}  // namespace

Agent& Agent::instance() {
    // Never destroyed: the engine watcher may still run while the process exits.
    static Agent* agent = new Agent(AppConfig::instance());
    return *agent;
}

AgentMode agentModeFrom(json::Document* document) {
    const json::Value* value = json::findPath(document, {"mode"});
    if (!value)
        return kModeHybrid;
    if (value->IsNull())
        return kModeNone;
    if (!value->IsInt()) {
        VLM_LOG(4, "The configured \"mode\" is not a whole number; Hybrid applies\n");
        return kModeHybrid;
    }
    return value->GetInt();
}

Agent::Agent(AppConfig& config)
    : mode(agentModeFrom(config.document.get())),
      interfaceHardwareIds(interfaceHardwareIdsFrom(config.document.get())),
      config_(config) {}

Agent::~Agent() {
    if (engineWatcher && engineWatcher->joinable())
        engineWatcher->join();
}

void Agent::addListener(Listener* listener) {
    std::lock_guard<std::mutex> lock(listenersMutex_);
    listeners.push_back(listener);
}

void Agent::removeListener(Listener* listener) {
    std::lock_guard<std::mutex> lock(listenersMutex_);
    listeners.erase(std::remove(listeners.begin(), listeners.end(), listener), listeners.end());
}

void Agent::startBrowsing() {
    auto client = zeroconf::client::create(kAnyInterface);
    auto listener =
        boost::make_shared<BrowserListener>(*this, probeLocalAddress(config_.document.get()));
    browser = client->create_browser("", kServerType, kServerSubtype, listener, false);
}

void Agent::start() {
    startBrowsing();
    // Only the agent role shows the splash, so only it pays for the picture.
    initThemeResources();
    const QSize size(kSplashWidth, kSplashHeight);
    splashPixmap = std::make_unique<QPixmap>(
        QIcon(":/splash_screen").pixmap(size * dpiScale, QIcon::Normal, QIcon::On));
    const QString title = "Version " + QString::fromStdString(platform::versionText());
    QCVSplashWindow::run(
        nullptr, size, splashPixmap.get(), title,
        [this](QCVSplashWindow::IWindow* window) {
            return runStartup([window](const QString& text) { window->showMessage(text); });
        },
        dpiScale);
}

std::string Agent::attachedEndpoint() {
    std::lock_guard<std::mutex> lock(mutex);
    return attachedServer;
}

int Agent::runStartup(const std::function<void(const QString&)>& show) {
    if (mode == kModeMaster) {
        show("Master: Creating VELMOR local server in the network...");
        VLM_LOG(6, "Starting VELMOR Engine process as agent mode has been set to \"Master\"\n");
        startEngineProcess(true);
        timing.sleep(timing.masterWait);
        return 0;
    }
    if (mode != kModeSlave && mode != kModeHybrid)
        return 0;

    VLM_LOG(6, "Looking for VELMOR Engine in the network...\n");
    show(QString(mode == kModeSlave ? "Slave: " : "Hybrid: ") +
         "Looking for VELMOR Server in the network...");
    for (int round = 0; round < kStartupRounds; ++round) {
        timing.sleep(timing.startupRound);
        if (!attachedEndpoint().empty()) {
            show("Connected to VELMOR server. Please wait...");
            if (round >= kFirstAcceptedRound)
                return 0;
            continue;
        }
        if (round != kLocalFallbackRound)
            continue;
        VLM_LOG(6, "Could not find VELMOR engine in the network\n");
        if (mode == kModeHybrid) {
            VLM_LOG(6, "Starting VELMOR Engine process as agent mode has been set to \"Hybrid\"\n");
            show("Starting VELMOR local server. Please wait...");
            startEngineProcess(false);
        } else {
            notifyListeners([](Listener& listener) {
                listener.onNotification("Could not find VELMOR server in the network");
            });
            return 0;
        }
    }
    return 0;
}

void Agent::startEngineProcess(bool master) {
    std::lock_guard<std::mutex> lock(mutex);
    QStringList arguments{"--server", "1", "--apid",
                          QString::number(QCoreApplication::applicationPid())};
    if (master)
        arguments << "--master"
                  << "1";
    const QString program = engineProgram.empty() ? QCoreApplication::applicationFilePath()
                                                  : QString::fromStdString(engineProgram);
    qint64 pid = 0;
    if (QProcess::startDetached(program, arguments, QString(), &pid)) {
        enginePid = pid;
        VLM_LOG(6, "Engine process has started\n");
    } else {
        enginePid = 0;
        VLM_LOG(3, "Failed to create engine process\n");
    }
    // One watcher at a time: the previous one ends when its child has died.
    if (engineWatcher && engineWatcher->joinable())
        engineWatcher->join();
    engineWatcher = std::make_unique<std::thread>(&Agent::watchEngine, this, enginePid.load());
}

// Each watcher follows the child it was started for, so that a newer launch is never mistaken
// for the child this watcher waits on.
void Agent::watchEngine(std::int64_t pid) {
    // Woken by the child's end, and still looking at least once per interval.
    platform::ProcessEndWatch end(static_cast<std::uint32_t>(pid));
    do {
        end.wait(timing.watcherInterval.count());
    } while (isProcessAlive(static_cast<std::uint32_t>(pid)));
    enginePid.compare_exchange_strong(pid, 0);
    VLM_LOG(6, "Engine process died\n");
    notifyListeners([](Listener& listener) { listener.onEngineDied(); });
}

bool Agent::storeMode(AgentMode newMode) {
    if (newMode == mode)
        return false;
    return config_.change(
        [&](json::Document& document) { json::ensurePath(document, {"mode"}).SetInt(newMode); });
}

bool Agent::setWebServerAddress(const std::string& address) {
    const json::Value* current = json::findPath(config_.document.get(), {"server", "ip"});
    std::string old;
    if (current && current->IsString())
        old.assign(current->GetString(), current->GetStringLength());
    if (old == address)
        return false;
    return config_.change([&](json::Document& document) {
        json::Value& ip = json::ensurePath(document, {"server", "ip"});
        json::setString(ip, address.c_str(), static_cast<rapidjson::SizeType>(address.size()), true,
                        &document.GetAllocator(), document.max_length);
    });
}

bool Agent::setPluginEntries(const std::vector<PluginEntry>& entries) {
    return config_.change([&](json::Document& document) {
        json::Allocator& allocator = document.GetAllocator();
        json::Value plugins(rapidjson::kArrayType);
        for (const PluginEntry& entry : entries) {
            json::Value object(rapidjson::kObjectType);
            json::Value name, descr;
            json::setString(name, entry.name.c_str(),
                            static_cast<rapidjson::SizeType>(entry.name.size()), true, &allocator);
            json::setString(descr, entry.descr.c_str(),
                            static_cast<rapidjson::SizeType>(entry.descr.size()), true, &allocator);
            object.AddMember("name", name, allocator);
            object.AddMember("descr", descr, allocator);
            object.AddMember("enabled", json::Value(entry.enabled), allocator);
            plugins.PushBack(object, allocator);
        }
        json::ensurePath(document, {"plugins"}) = plugins;
    });
}

}  // namespace vlm
