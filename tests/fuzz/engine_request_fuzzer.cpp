// libFuzzer target: any bytes a client may send to the engine's web server, which must answer
// or close every connection and never serve a file from outside its web-app folder.
#include <arpa/inet.h>
#include <net/if.h>
#include <poll.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "EngineServer.h"
#include "Log.h"

namespace fs = std::filesystem;

static const std::string secret = "beside the web-app folder, never served";
static const std::vector<kelvane::InterfaceFilter> loopback{{"127.0.0.1", "255.0.0.0"}};

static kelvane::EngineServer& server() {
    static char folder[] = "/tmp/engine_fuzzer.XXXXXX";
    static kelvane::EngineServer engine({mkdtemp(folder)}, std::string(folder) + "/webapp", false,
                                        {1024, 4096, std::chrono::milliseconds(200)});
    [[maybe_unused]] static const bool started = [] {
        vlm::logHook = [](std::uint32_t, const char*, int, const char*) {};
        // A network of its own (when allowed): filters set by an input stay off real interfaces.
        ifreq lo{};
        std::strcpy(lo.ifr_name, "lo");
        lo.ifr_flags = IFF_UP;
        if (unshare(CLONE_NEWNET) == 0)
            ioctl(socket(AF_INET, SOCK_DGRAM, 0), SIOCSIFFLAGS, &lo);
        const fs::path root = folder;
        fs::create_directories(root / "webapp/css");
        std::ofstream(root / "webapp/index.html") << "<!DOCTYPE html><title>Engine</title>";
        std::ofstream(root / "webapp/css/app.css") << "body{margin:0}";
        std::ofstream(root / "webapp-secret.txt") << secret;
        std::ofstream(root / "Reverb_2.1.so");
        fs::create_symlink("../webapp-secret.txt", root / "webapp/link.txt");
        std::string error;
        return engine.start(loopback, 0, error) || (std::abort(), false);
    }();
    return engine;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    kelvane::EngineServer& engine = server();
    const int client = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{AF_INET, htons(engine.port()), {htonl(INADDR_LOOPBACK)}, {}};
    if (connect(client, reinterpret_cast<sockaddr*>(&address), sizeof address))
        std::abort();
    send(client, data, size, MSG_NOSIGNAL);
    shutdown(client, SHUT_WR);
    std::string answer;
    char chunk[65536];
    pollfd ready{client, POLLIN, 0};
    ssize_t got = 1;
    // Every request has its answer and the connection its end well within a second.
    while (poll(&ready, 1, 2000) == 1 && (got = recv(client, chunk, sizeof chunk, 0)) > 0)
        answer.append(chunk, static_cast<std::size_t>(got));
    close(client);
    if (got > 0 || answer.find(secret) != std::string::npos)
        std::abort();
    // Filters from the input may have moved the server off the loopback address: set back.
    const std::string request(reinterpret_cast<const char*>(data), size);
    std::string error;
    if (request.find("/set_interface_filters") != std::string::npos &&
        !engine.start(loopback, engine.port(), error))
        std::abort();
    return 0;
}
