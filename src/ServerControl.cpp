#include "ServerControl.h"

#include <curl/curl.h>

#include "Agent/Agent.h"
#include "AppConfig.h"
#include "rapidjson/stringbuffer.h"
#include "rapidjson/writer.h"

namespace vlm {

namespace {
constexpr long kMaxRedirects = 50;
// A server host that vanished without closing its connections must not hold the caller (the
// GUI thread) for TCP's own minutes.
constexpr long kConnectTimeoutMs = 3000;
constexpr long kRequestTimeoutMs = 10000;

std::size_t appendReceived(char* data, std::size_t size, std::size_t count, void* target) {
    static_cast<std::string*>(target)->append(data, size * count);
    return size * count;
}

struct CurlGlobal {
    CurlGlobal() { curl_global_init(CURL_GLOBAL_DEFAULT); }
};

using Easy = std::unique_ptr<CURL, decltype(&curl_easy_cleanup)>;
using HeaderList = std::unique_ptr<curl_slist, decltype(&curl_slist_free_all)>;
}  // namespace

std::unique_ptr<ServerResponse> httpPost(const char* tag, const std::string& url,
                                         const char* const* headerLines, unsigned headerCount,
                                         const char* body, int bodySize) {
    // libcurl's global set-up is not thread-safe; do it once, before the first handle.
    static CurlGlobal global;
    auto response = std::make_unique<ServerResponse>();
    if (tag)
        response->tag = tag;

    HeaderList headers(nullptr, curl_slist_free_all);
    for (unsigned i = 0; i < headerCount; ++i) {
        curl_slist* extended = curl_slist_append(headers.get(), headerLines[i]);
        if (extended) {
            headers.release();
            headers.reset(extended);
        }
    }

    Easy curl(curl_easy_init(), curl_easy_cleanup);
    if (!curl) {
        response->error = curl_easy_strerror(CURLE_FAILED_INIT);
        return response;
    }
    curl_easy_setopt(curl.get(), CURLOPT_URL, url.c_str());
    if (body)
        curl_easy_setopt(curl.get(), CURLOPT_POSTFIELDS, body);
    if (bodySize != 0)
        curl_easy_setopt(curl.get(), CURLOPT_POSTFIELDSIZE, static_cast<long>(bodySize));
    curl_easy_setopt(curl.get(), CURLOPT_CUSTOMREQUEST, "POST");
    curl_easy_setopt(curl.get(), CURLOPT_HTTPHEADER, headers.get());
    curl_easy_setopt(curl.get(), CURLOPT_NOPROGRESS, 1L);
    curl_easy_setopt(curl.get(), CURLOPT_USERPWD, "anon:anon");
    curl_easy_setopt(curl.get(), CURLOPT_USERAGENT, curl_version());
    curl_easy_setopt(curl.get(), CURLOPT_MAXREDIRS, kMaxRedirects);
    curl_easy_setopt(curl.get(), CURLOPT_TCP_KEEPALIVE, 1L);
    curl_easy_setopt(curl.get(), CURLOPT_CONNECTTIMEOUT_MS, kConnectTimeoutMs);
    curl_easy_setopt(curl.get(), CURLOPT_TIMEOUT_MS, kRequestTimeoutMs);
    // Time-outs by signal would reach whatever thread Qt or the zeroconf client runs.
    curl_easy_setopt(curl.get(), CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(curl.get(), CURLOPT_WRITEFUNCTION, appendReceived);
    curl_easy_setopt(curl.get(), CURLOPT_WRITEDATA, &response->body);
    curl_easy_setopt(curl.get(), CURLOPT_HEADERDATA, &response->headers);

    // Read before the transfer, as the agent always has: the figure is never meaningful.
    curl_easy_getinfo(curl.get(), CURLINFO_TOTAL_TIME, &response->totalTime);
    char* effectiveUrl = nullptr;
    curl_easy_getinfo(curl.get(), CURLINFO_EFFECTIVE_URL, &effectiveUrl);

    CURLcode result = curl_easy_perform(curl.get());
    if (result != CURLE_OK) {
        response->error = curl_easy_strerror(result);
    } else {
        long status = 0;
        curl_easy_getinfo(curl.get(), CURLINFO_RESPONSE_CODE, &status);
        response->status = static_cast<int>(status);
    }
    return response;
}

}  // namespace vlm

// The agent's two requests to the attached server.

namespace vlm {

namespace {
const char* const kJsonContent[] = {"Content-Type: application/json"};
}

json::DocumentPtr Agent::queryServer(const std::string& path) {
    const std::string server = attachedEndpoint();
    if (server.empty())
        return nullptr;
    // The path goes in as it stands: the server decides what an odd one means.
    const std::string body = "{ \"Path\": \"" + path + "\"}";
    auto response = httpPost(nullptr, server + "/get", kJsonContent, 1, body.c_str(), -1);
    if (response->status != 200)
        return nullptr;
    auto document = std::make_shared<json::Document>();
    if (!json::parseString(*document, response->body.c_str()))
        return nullptr;
    return document;
}

bool Agent::applyInterfaceFilters(const std::vector<std::string>& hardwareIds) {
    const bool stored = config_.change([&](json::Document& document) {
        json::Allocator& allocator = document.GetAllocator();
        json::Value filtering(rapidjson::kArrayType);
        for (const std::string& id : hardwareIds) {
            json::Value element(rapidjson::kObjectType);
            json::Value text;
            json::setString(text, id.c_str(), static_cast<rapidjson::SizeType>(id.size()), true,
                            &allocator);
            element.AddMember("hardware_id", text, allocator);
            filtering.PushBack(element, allocator);
        }
        json::ensurePath(document, {"discovery", "filtering"}) = filtering;
    });

    const std::string server = attachedEndpoint();
    if (server.empty())
        return stored;
    // The interfaces this agent started with: the choice just saved applies at the next start.
    InterfaceFilters filters;
    collectInterfaceFilters(filters);
    rapidjson::StringBuffer text;
    rapidjson::Writer<rapidjson::StringBuffer> writer(text);
    writer.StartArray();
    for (const InterfaceFilter& filter : filters) {
        writer.StartObject();
        writer.Key("Ip");
        writer.String(filter.first.c_str(), static_cast<rapidjson::SizeType>(filter.first.size()));
        writer.Key("Mask");
        writer.String(filter.second.c_str(),
                      static_cast<rapidjson::SizeType>(filter.second.size()));
        writer.EndObject();
    }
    writer.EndArray();
    httpPost(nullptr, server + "/set_interface_filters", kJsonContent, 1, text.GetString(), -1);
    return stored;
}

}  // namespace vlm
