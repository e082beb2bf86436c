#include "TestSupport.h"

#include <curl/curl.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <thread>

extern char** environ;

namespace vlm::test {

namespace fs = std::filesystem;

namespace {

// Polls until done() holds; false when the time runs out first.
bool until(const std::function<bool()>& done, std::chrono::milliseconds timeout) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (!done()) {
        if (std::chrono::steady_clock::now() >= deadline)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return true;
}

}  // namespace

TempDir::TempDir() {
    std::string pattern = (fs::temp_directory_path() / "velmor-test-XXXXXX").string();
    if (!mkdtemp(pattern.data()))
        throw std::runtime_error("mkdtemp failed");
    path_ = pattern;
}

TempDir::~TempDir() {
    std::error_code error;
    fs::remove_all(path_, error);
}

ReadOnlyFolder::ReadOnlyFolder(const std::string& path) {
    constexpr uid_t kNobody = 65534;
    auto remember = [this](const fs::path& folder, unsigned mode) {
        struct stat status {};
        if (stat(folder.c_str(), &status) != 0)
            return;
        modes_.emplace_back(folder.string(), status.st_mode & 07777);
        chmod(folder.c_str(), mode);
    };
    const fs::path folder = fs::absolute(path);
    if (geteuid() == 0) {
        for (fs::path up = folder.parent_path(); up != up.parent_path(); up = up.parent_path()) {
            struct stat status {};
            if (stat(up.c_str(), &status) == 0 && !(status.st_mode & S_IXOTH))
                remember(up, (status.st_mode & 07777) | S_IXOTH);
        }
    }
    remember(folder, 0555);
    if (geteuid() == 0)
        switchedUser_ = seteuid(kNobody) == 0;
}

ReadOnlyFolder::~ReadOnlyFolder() {
    if (switchedUser_ && seteuid(0) != 0)
        std::abort();  // the rest of the test would run without its rights
    for (auto at = modes_.rbegin(); at != modes_.rend(); ++at)
        chmod(at->first.c_str(), at->second);
}

std::string sessionBusConfig(const std::string& listen) {
    return R"(<!DOCTYPE busconfig PUBLIC
 "-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig>
  <type>session</type>
  <listen>)" +
           listen +
           R"(</listen>
  <auth>EXTERNAL</auth>
  <policy context="default">
    <allow send_destination="*" eavesdrop="true"/>
    <allow eavesdrop="true"/>
    <allow own="*"/>
  </policy>
</busconfig>
)";
}

std::string readFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

void writeFile(const std::string& path, const std::string& content) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << content;
}

bool exists(const std::string& path) {
    return fs::exists(path);
}

std::string buildDir() {
    return VELMOR_BUILD_DIR;
}

std::string velmorPath() {
    return buildDir() + "/VELMOR";
}

Child::Child(const std::string& program, const std::vector<std::string>& args,
             const std::map<std::string, std::string>& env, const std::string& outputDir)
    : stdoutPath_(outputDir + "/stdout-" + std::to_string(reinterpret_cast<std::uintptr_t>(this))),
      stderrPath_(outputDir + "/stderr-" + std::to_string(reinterpret_cast<std::uintptr_t>(this))) {
    // Emptied before the fork: a Child at the same address may have left its output there.
    writeFile(stdoutPath_, "");
    writeFile(stderrPath_, "");
    std::vector<std::string> environment;
    for (char** entry = environ; *entry; ++entry) {
        std::string text(*entry);
        std::string name = text.substr(0, text.find('='));
        if (!env.count(name))
            environment.push_back(text);
    }
    for (const auto& [name, value] : env)
        environment.push_back(name + "=" + value);

    std::vector<char*> argv{const_cast<char*>(program.c_str())};
    for (const std::string& arg : args)
        argv.push_back(const_cast<char*>(arg.c_str()));
    argv.push_back(nullptr);
    std::vector<char*> envp;
    for (std::string& entry : environment)
        envp.push_back(entry.data());
    envp.push_back(nullptr);

    pid_ = fork();
    if (pid_ == 0) {
        int out = open(stdoutPath_.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        int err = open(stderrPath_.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        int in = open("/dev/null", O_RDONLY);
        dup2(in, 0);
        dup2(out, 1);
        dup2(err, 2);
        execve(program.c_str(), argv.data(), envp.data());
        _exit(127);
    }
}

Child::~Child() {
    if (!status_ && pid_ > 0) {
        ::kill(pid_, SIGKILL);
        wait(std::chrono::seconds(5));
    }
}

std::optional<int> Child::wait(std::chrono::milliseconds timeout) {
    int status = 0;
    if (!status_ && until([&] { return waitpid(pid_, &status, WNOHANG) == pid_; }, timeout))
        status_ = WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
    return status_;
}

void Child::kill(int signal) {
    if (!status_)
        ::kill(pid_, signal);
}

std::string Child::output() const {
    return readFile(stdoutPath_);
}

std::string Child::errors() const {
    return readFile(stderrPath_);
}

bool Child::waitForOutput(const std::string& text, std::chrono::milliseconds timeout) const {
    return until([&] { return output().find(text) != std::string::npos; }, timeout);
}

unsigned short freeLoopbackPort() {
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address);
    socklen_t length = sizeof address;
    getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length);
    close(fd);
    return ntohs(address.sin_port);
}

namespace {
size_t collectBody(char* data, size_t size, size_t count, void* target) {
    static_cast<std::string*>(target)->append(data, size * count);
    return size * count;
}

}  // namespace

HttpResponse httpRequestTo(const std::string& host, unsigned short port, const std::string& method,
                           const std::string& target, std::chrono::milliseconds timeout,
                           const std::string& body, const std::string& credentials) {
    HttpResponse response;
    CURL* curl = curl_easy_init();
    if (!curl)
        return response;
    std::string url = "http://" + host + ":" + std::to_string(port) + target;
    curl_easy_setopt(curl, CURLOPT_URL, url.c_str());
    curl_easy_setopt(curl, CURLOPT_CUSTOMREQUEST, method.c_str());
    curl_easy_setopt(curl, CURLOPT_PATH_AS_IS, 1L);
    curl_easy_setopt(curl, CURLOPT_NOPROXY, "*");
    curl_easy_setopt(curl, CURLOPT_TIMEOUT_MS, static_cast<long>(timeout.count()));
    curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, collectBody);
    curl_easy_setopt(curl, CURLOPT_WRITEDATA, &response.body);
    curl_slist* headers = curl_slist_append(nullptr, "Content-Type: application/json");
    curl_easy_setopt(curl, CURLOPT_HTTPHEADER, headers);
    if (method == "POST") {
        curl_easy_setopt(curl, CURLOPT_POSTFIELDS, body.c_str());
        curl_easy_setopt(curl, CURLOPT_POSTFIELDSIZE, static_cast<long>(body.size()));
    }
    if (method == "HEAD")
        curl_easy_setopt(curl, CURLOPT_NOBODY, 1L);
    if (!credentials.empty()) {
        curl_easy_setopt(curl, CURLOPT_HTTPAUTH, CURLAUTH_BASIC);
        curl_easy_setopt(curl, CURLOPT_USERPWD, credentials.c_str());
    }
    if (curl_easy_perform(curl) == CURLE_OK) {
        long status = 0;
        curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &status);
        response.status = static_cast<int>(status);
    }
    curl_slist_free_all(headers);
    curl_easy_cleanup(curl);
    return response;
}

bool waitForEngine(unsigned short port, std::chrono::milliseconds timeout) {
    return until(
        [&] {
            return httpRequestTo("127.0.0.1", port, "POST", "/get", std::chrono::milliseconds(500),
                                 R"({"Path": "$"})", "anon:anon")
                       .status == 200;
        },
        timeout);
}

StdoutCapture::StdoutCapture() : file_(std::tmpfile()), saved_(dup(1)) {
    std::fflush(stdout);
    dup2(fileno(file_), 1);
}

StdoutCapture::~StdoutCapture() {
    text();
    std::fclose(file_);
}

std::string StdoutCapture::text() {
    std::fflush(stdout);
    if (saved_ >= 0) {
        dup2(saved_, 1);
        close(saved_);
        saved_ = -1;
    }
    std::string content;
    std::rewind(file_);
    for (int c; (c = std::fgetc(file_)) != EOF;)
        content += static_cast<char>(c);
    return content;
}

std::string capturedOutput(const std::function<void()>& call) {
    StdoutCapture capture;
    call();
    return capture.text();
}

std::string withoutColours(const std::string& text) {
    std::string plain;
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '\x1b') {
            std::size_t end = text.find('m', i);
            if (end == std::string::npos)
                break;
            i = end;
            continue;
        }
        plain += text[i];
    }
    return plain;
}

}  // namespace vlm::test
