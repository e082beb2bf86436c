#include "TestSupport.h"

#include <curl/curl.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <spawn.h>
#include <sys/fsuid.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <boost/asio/ip/tcp.hpp>
#include <cstring>
#include <fstream>
#include <regex>
#include <sstream>
#include <thread>

extern char** environ;

namespace vlm::test {

namespace fs = std::filesystem;

TempDir::TempDir() : path_((fs::temp_directory_path() / "velmor-test-XXXXXX").string()) {
    if (!mkdtemp(path_.data()))
        throw std::runtime_error("mkdtemp failed");
}

ReadOnlyFolder::ReadOnlyFolder(const std::string& path)
    : path_(path), mode_(fs::status(path).permissions()) {
    fs::permissions(path, fs::perms(0555));
    setfsuid(65534);  // this thread only; refused, and not needed, without root
}

ReadOnlyFolder::~ReadOnlyFolder() {
    setfsuid(getuid());
    fs::permissions(path_, mode_);
}

std::string readFile(const std::string& path) {
    std::ostringstream text;
    text << std::ifstream(path, std::ios::binary).rdbuf();
    return text.str();
}

void writeFile(const std::string& path, const std::string& content) {
    std::ofstream(path, std::ios::binary) << content;
}

bool eventually(const std::function<bool()>& done, std::chrono::milliseconds timeout,
                std::chrono::milliseconds step) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    for (; !done(); std::this_thread::sleep_for(step))
        if (std::chrono::steady_clock::now() >= deadline)
            return false;
    return true;
}

Child::Child(const std::string& program, std::vector<std::string> args,
             const std::map<std::string, std::string>& env, const std::string& outputDir) {
    static std::atomic<int> serial{0};
    output_ = outputDir + "/child-" + std::to_string(++serial);
    std::vector<std::string> envp;
    for (char** entry = environ; *entry; ++entry)
        if (!env.count(std::string(*entry, std::strcspn(*entry, "="))))
            envp.push_back(*entry);
    for (const auto& [key, value] : env)
        envp.push_back(key + "=" + value);
    args.insert(args.begin(), program);
    auto pointers = [](std::vector<std::string>& texts) {
        std::vector<char*> list;
        for (std::string& text : texts)
            list.push_back(text.data());
        list.push_back(nullptr);
        return list;
    };
    posix_spawn_file_actions_t files;
    posix_spawn_file_actions_init(&files);
    posix_spawn_file_actions_addopen(&files, 0, "/dev/null", O_RDONLY, 0);
    const std::string out = output_ + ".out", err = output_ + ".err";
    posix_spawn_file_actions_addopen(&files, 1, out.c_str(), O_WRONLY | O_CREAT, 0644);
    posix_spawn_file_actions_addopen(&files, 2, err.c_str(), O_WRONLY | O_CREAT, 0644);
    if (posix_spawn(&pid_, program.c_str(), &files, nullptr, pointers(args).data(),
                    pointers(envp).data()) != 0)
        status_ = 127;
    posix_spawn_file_actions_destroy(&files);
}

Child::~Child() {
    kill(SIGKILL);
    wait(std::chrono::seconds(5));
}

std::optional<int> Child::wait(std::chrono::milliseconds timeout) {
    int status = 0;
    if (!status_ && eventually([&] { return waitpid(pid_, &status, WNOHANG) == pid_; }, timeout))
        status_ = WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
    return status_;
}

void Child::kill(int signal) {
    if (!status_)
        ::kill(pid_, signal);
}

std::string sessionBusConfig(const std::string& listen) {
    return "<busconfig><type>session</type><listen>" + listen +
           "</listen><auth>EXTERNAL</auth><policy context=\"default\"><allow own=\"*\"/>"
           "<allow send_destination=\"*\" eavesdrop=\"true\"/><allow eavesdrop=\"true\"/>"
           "</policy></busconfig>\n";
}

unsigned short freeLoopbackPort() {
    using boost::asio::ip::tcp;
    boost::asio::io_context io;
    return tcp::acceptor(io, {boost::asio::ip::address_v4::loopback(), 0}).local_endpoint().port();
}

HttpResponse httpRequestTo(const std::string& host, unsigned short port, const std::string& method,
                           const std::string& target, std::chrono::milliseconds timeout,
                           const std::string& body, const std::string& credentials) {
    HttpResponse response;
    std::unique_ptr<CURL, decltype(&curl_easy_cleanup)> curl(curl_easy_init(), curl_easy_cleanup);
    const std::string url = "http://" + host + ":" + std::to_string(port) + target;
    curl_easy_setopt(curl.get(), CURLOPT_URL, url.c_str());
    curl_easy_setopt(curl.get(), CURLOPT_CUSTOMREQUEST, method.c_str());
    curl_easy_setopt(curl.get(), CURLOPT_PATH_AS_IS, 1L);
    curl_easy_setopt(curl.get(), CURLOPT_NOPROXY, "*");
    curl_easy_setopt(curl.get(), CURLOPT_TIMEOUT_MS, static_cast<long>(timeout.count()));
    auto collect = +[](char* data, size_t, size_t size, void* to) {
        static_cast<std::string*>(to)->append(data, size);
        return size;
    };
    curl_easy_setopt(curl.get(), CURLOPT_WRITEFUNCTION, collect);
    curl_easy_setopt(curl.get(), CURLOPT_WRITEDATA, &response.body);
    if (method == "POST")
        curl_easy_setopt(curl.get(), CURLOPT_POSTFIELDS, body.c_str());
    if (!credentials.empty())
        curl_easy_setopt(curl.get(), CURLOPT_USERPWD, credentials.c_str());
    long status = 0;
    if (curl_easy_perform(curl.get()) == CURLE_OK &&
        curl_easy_getinfo(curl.get(), CURLINFO_RESPONSE_CODE, &status) == CURLE_OK)
        response.status = static_cast<int>(status);
    return response;
}

bool waitForEngine(unsigned short port, std::chrono::milliseconds timeout) {
    return eventually(
        [&] {
            return httpRequestTo("127.0.0.1", port, "POST", "/get", std::chrono::milliseconds(500),
                                 R"({"Path": "$"})", "anon:anon")
                       .status == 200;
        },
        timeout);
}

std::string capturedOutput(const std::function<void()>& call) {
    testing::internal::CaptureStdout();
    call();
    return testing::internal::GetCapturedStdout();
}

std::string withoutColours(const std::string& text) {
    return std::regex_replace(text, std::regex("\x1b\\[[0-9;]*m"), "");
}

}  // namespace vlm::test
