#pragma once
// Maps request targets to files of the web-application folder, never to anything outside it.

#include <optional>
#include <string>

namespace kelvane {

/// Decodes %XX escapes; nothing for a malformed escape or an encoded NUL.
std::optional<std::string> percentDecode(const std::string& text);

/// \brief The web-application folder as the engine found it when it started.
class WebAppFiles {
public:
    explicit WebAppFiles(const std::string& folder);

    /// False when the folder did not exist: the built-in status page stands in.
    bool present() const { return !root_.empty(); }

    /// The real path of the file a target names ("/" is "/index.html"); nothing when it does
    /// not exist, is not a regular file, or its real path leaves the folder.
    std::optional<std::string> resolve(const std::string& target) const;

    static const char* contentType(const std::string& path);

private:
    std::string root_;  // real path with a trailing '/'
};

}  // namespace kelvane
