#pragma once
// A minimal blocking HTTP/1.0 GET: the plug-in catalogue, plug-in files and device pictures.

#include <ostream>
#include <string>
#include <utility>

namespace vlm {

/// Fetches path from host ("name" or "name:port", port 80 by default) and writes the body to
/// body as it arrives. True when the transfer ran to the end of the stream; on false the
/// bytes already written must not be used. Any status (404, 500...) counts as a document.
bool httpGet(const std::string& host, const std::string& path, std::ostream& body);

/// ("name", "port") from "name", "name:port" or "[v6]:port"; the port is "http" when absent.
std::pair<std::string, std::string> splitHostPort(const std::string& host);

/// "host/some/path" (an optional "http://" in front is dropped) as ("host", "/some/path").
std::pair<std::string, std::string> splitAddress(const std::string& address);

/// The plug-in catalogue's web server: VELMOR_CATALOGUE_HOST when set, else the maker's.
std::string catalogueHost();

}  // namespace vlm
