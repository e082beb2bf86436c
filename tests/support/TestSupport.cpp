#include "TestSupport.h"

#include <atomic>
#include <boost/asio/ip/tcp.hpp>
#include <boost/process.hpp>
#include <fstream>
#include <regex>
#include <thread>

namespace vlm::test {

std::string readFile(const std::string& path) {
    return {std::istreambuf_iterator<char>(std::ifstream(path, std::ios::binary).rdbuf()), {}};
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
    std::vector<std::string> all;  // for env(1): Boost.Process's own lookup reads past short keys
    for (const auto& [key, value] : env)
        all.push_back(key + "=" + value);
    all.push_back(program);
    all.insert(all.end(), args.begin(), args.end());
    namespace bp = boost::process;
    child_ = bp::child(bp::exe = "/usr/bin/env", bp::args = all,
                       bp::std_in<"/dev/null", bp::std_out> output_ + ".out",
                       bp::std_err > output_ + ".err");
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

bool waitForEngine(unsigned short port, std::chrono::milliseconds timeout) {
    const std::string url = "http://127.0.0.1:" + std::to_string(port) + "/get";
    TempDir outputs;
    return eventually(
        [&] {
            Child curl("/usr/bin/curl",
                       {"-s", "-m1", "-u", "anon:anon", "-d", R"({"Path": "$"})", "-o/dev/null",
                        "-w%{http_code}", url},
                       {}, outputs.path());
            return curl.wait(std::chrono::seconds(2)) && curl.output() == "200";
        },
        timeout);
}

std::string withoutColours(const std::string& text) {
    return std::regex_replace(text, std::regex("\x1b\\[[0-9;]*m"), "");
}

}  // namespace vlm::test
