#include "WebAppFiles.h"

#include <sys/stat.h>

#include <climits>
#include <cstdlib>
#include <cstring>

namespace kelvane {

namespace {

int hexValue(char c) {
    if (c >= '0' && c <= '9')
        return c - '0';
    if (c >= 'a' && c <= 'f')
        return c - 'a' + 10;
    if (c >= 'A' && c <= 'F')
        return c - 'A' + 10;
    return -1;
}

std::optional<std::string> realPath(const std::string& path) {
    char resolved[PATH_MAX];
    if (!::realpath(path.c_str(), resolved))
        return std::nullopt;
    return std::string(resolved);
}

bool endsWith(const std::string& text, const char* suffix) {
    std::size_t n = std::strlen(suffix);
    return text.size() >= n && text.compare(text.size() - n, n, suffix) == 0;
}

}  // namespace

std::optional<std::string> percentDecode(const std::string& text) {
    std::string out;
    out.reserve(text.size());
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] != '%') {
            out += text[i];
            continue;
        }
        if (i + 2 >= text.size())
            return std::nullopt;
        int high = hexValue(text[i + 1]);
        int low = hexValue(text[i + 2]);
        if (high < 0 || low < 0 || (high == 0 && low == 0))
            return std::nullopt;
        out += static_cast<char>(high * 16 + low);
        i += 2;
    }
    return out;
}

WebAppFiles::WebAppFiles(const std::string& folder) {
    struct stat info {};
    if (folder.empty() || ::stat(folder.c_str(), &info) != 0 || !S_ISDIR(info.st_mode))
        return;
    if (auto real = realPath(folder))
        root_ = *real == "/" ? *real : *real + "/";
}

std::optional<std::string> WebAppFiles::resolve(const std::string& target) const {
    if (root_.empty() || target.empty() || target.front() != '/')
        return std::nullopt;
    auto decoded = percentDecode(target.substr(0, target.find_first_of("?#")));
    if (!decoded || decoded->find('\\') != std::string::npos)
        return std::nullopt;
    std::string relative = *decoded;
    if (relative.back() == '/')
        relative += "index.html";
    // Any ".." segment is refused outright; the real-path check below also catches links.
    std::size_t start = 0;
    while (start <= relative.size()) {
        std::size_t end = relative.find('/', start);
        if (end == std::string::npos)
            end = relative.size();
        if (relative.compare(start, end - start, "..") == 0)
            return std::nullopt;
        start = end + 1;
    }
    auto real = realPath(root_ + relative.substr(1));
    if (!real || real->compare(0, root_.size(), root_) != 0)
        return std::nullopt;
    struct stat info {};
    if (::stat(real->c_str(), &info) != 0 || !S_ISREG(info.st_mode))
        return std::nullopt;
    return real;
}

const char* WebAppFiles::contentType(const std::string& path) {
    static const struct {
        const char* suffix;
        const char* type;
    } types[] = {{".html", "text/html; charset=utf-8"},
                 {".htm", "text/html; charset=utf-8"},
                 {".css", "text/css; charset=utf-8"},
                 {".js", "application/javascript"},
                 {".mjs", "application/javascript"},
                 {".json", "application/json"},
                 {".svg", "image/svg+xml"},
                 {".png", "image/png"},
                 {".jpg", "image/jpeg"},
                 {".jpeg", "image/jpeg"},
                 {".gif", "image/gif"},
                 {".ico", "image/x-icon"},
                 {".woff", "font/woff"},
                 {".woff2", "font/woff2"},
                 {".wasm", "application/wasm"},
                 {".txt", "text/plain; charset=utf-8"}};
    for (const auto& entry : types)
        if (endsWith(path, entry.suffix))
            return entry.type;
    return "application/octet-stream";
}

}  // namespace kelvane
