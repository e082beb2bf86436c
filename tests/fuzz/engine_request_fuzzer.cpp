// libFuzzer target: any request bytes; every connection ends, no file from outside is served.
#include <arpa/inet.h>
#include <errno.h>
#include <poll.h>
#include <unistd.h>
#include <cstring>
#include <filesystem>
#include <fstream>
#include "EngineServer.h"
#include "Log.h"
static char folder[] = "/tmp/engine_fuzzer.XXXXXX";
static kelvane::EngineServer engine({}, std::string(mkdtemp(folder)) + "/webapp", false,
                                    {1024, 4096, std::chrono::milliseconds(200)});
static std::string error;
[[maybe_unused]] static const bool started = [] {
    vlm::logHook = [](std::uint32_t, const char*, int, const char*) {};
    const std::filesystem::path root = folder;
    std::filesystem::create_directories(root / "webapp");
    std::ofstream(root / "webapp/index.html") << "<!DOCTYPE html><title>Engine</title>";
    std::ofstream(root / "webapp-secret.txt") << "never to be served";
    std::filesystem::create_symlink("../webapp-secret.txt", root / "webapp/link.txt");
    return engine.start({{"127.0.0.1", "255.0.0.0"}}, 0, error) || (std::abort(), false);
}();

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const int client = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{AF_INET, htons(engine.port()), {htonl(INADDR_LOOPBACK)}, {}};
    // libFuzzer's alarm signal interrupts system calls (EINTR): they are made again.
    while (connect(client, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 &&
           errno != EISCONN)
        if (errno != EINTR && errno != EALREADY)
            std::abort();
    while (send(client, data, size, MSG_NOSIGNAL) < 0 && errno == EINTR) {
    }
    shutdown(client, SHUT_WR);
    std::string answer, chunk(65536, '\0');
    bool closed = false;
    // Answered and closed, even with a request left unfinished; the bound only has to outlast a
    // loaded machine, the server itself drops a silent client after 200 ms.
    for (pollfd ready{client, POLLIN, 0}; !closed;) {
        const int events = poll(&ready, 1, 10000);
        if (events == 0 || (events < 0 && errno != EINTR))
            break;
        const ssize_t got = events < 0 ? -1 : recv(client, chunk.data(), chunk.size(), 0);
        if (got > 0)
            answer.append(chunk, 0, static_cast<std::size_t>(got));
        else
            closed = got == 0 || errno != EINTR;
    }
    close(client);
    if (!closed || answer.find("never to be served") != std::string::npos)
        std::abort();
    // Filters from the input may have moved the server off this address: it starts afresh.
    if (memmem(data, size, "/set_interface_filters", 22) &&
        !engine.start({{"127.0.0.1", "255.0.0.0"}}, 0, error))
        std::abort();
    return 0;
}
