#pragma once
// JSON requests to the attached engine server's web interface, by HTTP POST.

#include <memory>
#include <string>

namespace vlm {

/// \brief What one POST brought back.
struct ServerResponse {
    std::string tag;
    std::string headers;
    std::string body;
    std::string error;     // libcurl's text for a failed transfer
    int status = 0;        // HTTP status; 0 when the transfer failed
    double totalTime = 0;  // read before the transfer, so always 0
};

/// Synchronous POST with the server's fixed credentials; it gives up after 3 s without a
/// connection or 10 s in all, as a failed transfer.
std::unique_ptr<ServerResponse> httpPost(const char* tag, const std::string& url,
                                         const char* const* headerLines, unsigned headerCount,
                                         const char* body, int bodySize);

}  // namespace vlm
