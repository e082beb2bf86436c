// httpGet against libcurl and the curl program on one 100 MB file served on 127.0.0.1.
// Usage: bench_httpget [rounds]

#include <curl/curl.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <string>
#include <vector>

#include "LoopbackHttpServer.h"
#include "plugins/HttpGet.h"

namespace {

using Clock = std::chrono::steady_clock;
constexpr std::size_t kBody = 100u * 1024 * 1024;

double median(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

/// Median seconds over rounds; a failed round ends the program.
double timeRounds(int rounds, const char* what, const std::function<bool()>& fetch) {
    std::vector<double> seconds;
    for (int i = 0; i < rounds; ++i) {
        auto start = Clock::now();
        if (!fetch()) {
            std::fprintf(stderr, "%s failed\n", what);
            std::exit(1);
        }
        seconds.push_back(std::chrono::duration<double>(Clock::now() - start).count());
    }
    return median(seconds);
}

std::size_t discard(char*, std::size_t size, std::size_t count, void* total) {
    *static_cast<std::size_t*>(total) += size * count;
    return size * count;
}

}  // namespace

int main(int argc, char** argv) {
    const int rounds = argc > 1 ? std::max(1, std::atoi(argv[1])) : 5;
    vlm::test::LoopbackHttpServer server;
    server.handle(
        "/big.dll", [](vlm::test::LoopbackHttpServer::Socket& socket, const std::string&) {
            static const std::string chunk(1024 * 1024, 'p');
            vlm::test::LoopbackHttpServer::writeAll(
                socket, "HTTP/1.0 200 OK\r\nContent-Length: " + std::to_string(kBody) + "\r\n\r\n");
            for (std::size_t sent = 0; sent < kBody; sent += chunk.size()) {
                boost::system::error_code error;
                boost::asio::write(socket, boost::asio::buffer(chunk), error);
                if (error)
                    return;
            }
        });
    const std::string url = "http://" + server.host() + "/big.dll";

    double ours = timeRounds(rounds, "httpGet", [&] {
        std::ofstream sink("/dev/null", std::ios::binary);
        return vlm::httpGet(server.host(), "/big.dll", sink);
    });

    curl_global_init(CURL_GLOBAL_DEFAULT);
    double library = timeRounds(rounds, "libcurl", [&] {
        std::size_t total = 0;
        CURL* curl = curl_easy_init();
        curl_easy_setopt(curl, CURLOPT_URL, url.c_str());
        curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, discard);
        curl_easy_setopt(curl, CURLOPT_WRITEDATA, &total);
        CURLcode result = curl_easy_perform(curl);
        curl_easy_cleanup(curl);
        return result == CURLE_OK && total == kBody;
    });
    curl_global_cleanup();

    const std::string command = "curl -s -f -o /dev/null " + url;
    double program =
        timeRounds(rounds, "curl program", [&] { return std::system(command.c_str()) == 0; });

    const double megabytes = static_cast<double>(kBody) / (1024 * 1024);
    std::printf("100 MB on loopback, median of %d rounds\n", rounds);
    std::printf("httpGet        %8.1f MB/s (%.3f s)\n", megabytes / ours, ours);
    std::printf("libcurl        %8.1f MB/s (%.3f s)  httpGet/libcurl = %.2f\n", megabytes / library,
                library, library / ours);
    std::printf("curl program   %8.1f MB/s (%.3f s)  httpGet/curl    = %.2f\n", megabytes / program,
                program, program / ours);
    return 0;
}
