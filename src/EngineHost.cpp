// The engine library inside the server roles: interface filters, start, stop, parent watch.

#include <QNetworkInterface>

#include "Agent/Agent.h"
#include "Kelvane.h"
#include "platform/Platform.h"

namespace vlm {

namespace {
constexpr std::uint32_t kEngineFlagBase = 1;
constexpr std::uint32_t kEngineFlagMaster = 2;
}  // namespace

std::vector<std::string> interfaceHardwareIdsFrom(json::Document* document) {
    std::vector<std::string> ids;
    const json::Value* filtering = json::findPath(document, {"discovery", "filtering"});
    if (filtering && filtering->IsArray()) {
        for (const json::Value& element : filtering->GetArray()) {
            const json::Value& id = json::checkedMember(element, "hardware_id");
            // Read as "", a missing id would match interfaces without a hardware address, such
            // as a VPN tunnel: skipped instead.
            if (id.IsString())
                ids.emplace_back(id.GetString(), id.GetStringLength());
        }
    }
    if (ids.empty())
        ids.emplace_back(kNoInterfaceFilter);
    return ids;
}

void interfaceFiltersFor(const std::vector<std::string>& hardwareIds,
                         const QList<QNetworkInterface>& interfaces, InterfaceFilters& out) {
    if (hardwareIds.size() == 1 && hardwareIds.front() == kNoInterfaceFilter)
        return;
    for (const std::string& id : hardwareIds) {
        for (const QNetworkInterface& interface : interfaces) {
            const auto flags = interface.flags();
            if (!(flags & QNetworkInterface::IsUp) || (flags & QNetworkInterface::IsLoopBack))
                continue;
            const std::string hardware = interface.hardwareAddress().toStdString();
            for (const QNetworkAddressEntry& entry : interface.addressEntries()) {
                if (entry.ip().protocol() != QAbstractSocket::IPv4Protocol)
                    continue;
                if (hardware == id) {
                    out.emplace_back(entry.ip().toString().toStdString(),
                                     entry.netmask().toString().toStdString());
                    break;
                }
            }
        }
    }
}

void Agent::collectInterfaceFilters(InterfaceFilters& out) const {
    if (interfaceHardwareIds.size() == 1 && interfaceHardwareIds.front() == kNoInterfaceFilter)
        return;
    // The interface list is taken afresh for each id, as interfaces may come and go.
    for (const std::string& id : interfaceHardwareIds)
        interfaceFiltersFor({id}, QNetworkInterface::allInterfaces(), out);
}

bool Agent::startEngine(bool master) {
    InterfaceFilters filters;
    collectInterfaceFilters(filters);
    for (const InterfaceFilter& filter : filters)
        KLV_AddInterfaceFilter(filter.first.c_str(), filter.second.c_str());
    const std::uint32_t flags = kEngineFlagBase + (master ? kEngineFlagMaster : 0);
    return KLV_Initialize(-1, 0, flags) == 0;
}

void Agent::stopEngine() {
    KLV_Uninitialize();
}

bool Agent::isProcessAlive(std::uint32_t pid) {
    return platform::isProcessAlive(pid);
}

}  // namespace vlm
