#include "EngineServer.h"

#include <rapidjson/document.h>
#include <algorithm>
#include <boost/asio.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>
#include <mutex>
#include <optional>

#include "Log.h"

namespace kelvane {

namespace net = boost::asio;
namespace beast = boost::beast;
namespace http = beast::http;
using tcp = net::ip::tcp;
using Request = http::request<http::string_body>;

namespace {

// "anon:anon" in Base64; the encoding of a given text is unique, so a text compare suffices.
constexpr const char* kCredentials = "YW5vbjphbm9u";
constexpr const char* kServerName = "Kelvane";
constexpr const char* kJson = "application/json";
constexpr std::size_t kBufferSlack = 16 * 1024;

class Listeners;

struct Shared {
    std::shared_ptr<EngineDocument> document;
    WebAppFiles files;
    ServerLimits limits;
    std::shared_ptr<Listeners> listeners;
};

bool authorised(const Request& request) {
    auto field = request.find(http::field::authorization);
    if (field == request.end())
        return false;
    std::string value(field->value());
    auto space = value.find(' ');
    if (space == std::string::npos || !beast::iequals(value.substr(0, space), "Basic"))
        return false;
    auto token = value.find_first_not_of(' ', space);
    return token != std::string::npos && value.substr(token) == kCredentials;
}

std::string htmlEscape(const std::string& text) {
    std::string out;
    for (char c : text) {
        switch (c) {
            case '<':
                out += "&lt;";
                break;
            case '>':
                out += "&gt;";
                break;
            case '&':
                out += "&amp;";
                break;
            case '"':
                out += "&quot;";
                break;
            default:
                out += c;
        }
    }
    return out;
}

std::string statusPage(const EngineDocument& document) {
    rapidjson::Document whole;
    std::string text = document.get("$");
    whole.Parse(text.c_str(), text.size());
    const auto& engine = whole["Engine"];
    const auto& config = whole["Config"];
    std::string page =
        "<!DOCTYPE html>\n<html><head><meta charset=\"utf-8\"><title>VELMOR Engine</title>"
        "<style>body{font-family:sans-serif;margin:2em;color:#222}"
        "h1{font-weight:300}td,th{padding:2px 12px;text-align:left}"
        "@media (prefers-color-scheme:dark){body{background:#1e1e1e;color:#ddd}}</style>"
        "</head><body>\n<h1>VELMOR Engine</h1>\n<p>The engine is running on port " +
        std::to_string(engine["Port"].GetUint()) +
        (engine["Master"].GetBool() ? " as master" : "") +
        ". Its web application is not installed on this machine.</p>\n<h2>Plug-ins</h2>\n";
    if (config["Plugins"].Empty()) {
        page += "<p>No plug-in is loaded.</p>\n";
    } else {
        page += "<table><tr><th>Name</th><th>Version</th></tr>\n";
        for (const auto& plugin : config["Plugins"].GetArray())
            page += "<tr><td>" + htmlEscape(plugin["Name"].GetString()) + "</td><td>" +
                    std::to_string(plugin["Major"].GetInt()) + "." +
                    std::to_string(plugin["Minor"].GetInt()) + "</td></tr>\n";
        page += "</table>\n";
    }
    page += "<h2>Network interfaces</h2>\n<p>";
    if (engine["InterfaceFilters"].Empty())
        page += "All interfaces.";
    for (const auto& filter : engine["InterfaceFilters"].GetArray())
        page += htmlEscape(filter["Ip"].GetString()) + " / " +
                htmlEscape(filter["Mask"].GetString()) + "<br>";
    page += "</p>\n</body></html>\n";
    return page;
}

/// \brief One connection: reads requests one after the other and answers each.
class Session : public std::enable_shared_from_this<Session> {
public:
    Session(tcp::socket socket, std::shared_ptr<const Shared> shared)
        : stream_(std::move(socket)),
          // Bounded so that a line the parser cannot finish (an endless chunk header) fails
          // instead of growing; bodies pass through it into the request piece by piece.
          buffer_(shared->limits.headerBytes + kBufferSlack),
          shared_(std::move(shared)) {}

    void run() {
        net::dispatch(stream_.get_executor(), [self = shared_from_this()] { self->read(); });
    }

private:
    void read() {
        parser_.emplace();
        parser_->header_limit(shared_->limits.headerBytes);
        parser_->body_limit(shared_->limits.bodyBytes);
        // One deadline for the whole request, so a client trickling bytes cannot hold on.
        stream_.expires_after(shared_->limits.idle);
        http::async_read_header(stream_, buffer_, *parser_,
                                beast::bind_front_handler(&Session::onHeader, shared_from_this()));
    }

    void onHeader(beast::error_code error, std::size_t) {
        if (error)
            return onRead(error, 0);
        // A client that asks before sending its body would otherwise wait for an answer
        // that never comes.
        if (!parser_->is_done() &&
            beast::iequals(parser_->get()[http::field::expect], "100-continue")) {
            auto interim = std::make_shared<http::response<http::empty_body>>(
                http::status::continue_, parser_->get().version());
            http::async_write(
                stream_, *interim,
                [self = shared_from_this(), interim](beast::error_code writeError, std::size_t) {
                    if (!writeError)
                        self->readBody();
                });
            return;
        }
        readBody();
    }

    void readBody() {
        http::async_read(stream_, buffer_, *parser_,
                         beast::bind_front_handler(&Session::onRead, shared_from_this()));
    }

    void onRead(beast::error_code error, std::size_t) {
        if (error == http::error::end_of_stream)
            return close();
        if (error == http::error::header_limit)
            return fail(http::status::request_header_fields_too_large);
        if (error == http::error::body_limit)
            return fail(http::status::payload_too_large);
        if (error &&
            &error.category() == &http::make_error_code(http::error::bad_target).category())
            return fail(http::status::bad_request);
        if (error)  // timed out, reset or shut down: nobody to answer
            return;
        handle(parser_->release());
    }

    void handle(Request request) {
        std::string target(request.target());
        std::string path = target.substr(0, target.find('?'));
        switch (request.method()) {
            case http::verb::post:
                if (!authorised(request)) {
                    auto response = reply(request, http::status::unauthorized,
                                          "{\"error\":\"authentication required\"}", kJson);
                    response.set(http::field::www_authenticate, "Basic realm=\"VELMOR Engine\"");
                    return send(std::move(response));
                }
                if (path == "/get")
                    return get(request);
                if (path == "/set_interface_filters")
                    return setFilters(request);
                return send(reply(request, http::status::not_found,
                                  "{\"error\":\"no such request\"}", kJson));
            case http::verb::get:
            case http::verb::head:
                return serveFile(request, path);
            default: {
                auto response = reply(request, http::status::method_not_allowed, "", "text/plain");
                response.set(http::field::allow, "GET, HEAD, POST");
                return send(std::move(response));
            }
        }
    }

    void get(const Request& request) {
        rapidjson::Document body;
        // Iterative: a deeply nested body must not exhaust the stack.
        body.Parse<rapidjson::kParseIterativeFlag>(request.body().c_str(), request.body().size());
        if (body.HasParseError() || !body.IsObject() || !body.HasMember("Path") ||
            !body["Path"].IsString())
            return send(reply(request, http::status::bad_request,
                              "{\"error\":\"expected {\\\"Path\\\": string}\"}", kJson));
        std::string value = shared_->document->get(body["Path"].GetString());
        if (value.empty())
            return send(
                reply(request, http::status::not_found, "{\"error\":\"no such path\"}", kJson));
        send(reply(request, http::status::ok, std::move(value), kJson));
    }

    void setFilters(const Request& request);

    void serveFile(const Request& request, const std::string& path) {
        if (!shared_->files.present()) {
            if (path != "/" && path != "/index.html")
                return send(reply(request, http::status::not_found, "Not found\n", "text/plain"));
            return sendBody(request, statusPage(*shared_->document), "text/html; charset=utf-8");
        }
        auto file = shared_->files.resolve(path);
        beast::error_code error;
        http::file_body::value_type body;
        if (file)
            body.open(file->c_str(), beast::file_mode::scan, error);
        if (!file || error)
            return send(reply(request, http::status::not_found, "Not found\n", "text/plain"));
        const char* type = WebAppFiles::contentType(*file);
        if (request.method() == http::verb::head) {
            http::response<http::empty_body> response{http::status::ok, request.version()};
            headers(response, request, type);
            response.content_length(body.size());
            return send(std::move(response));
        }
        auto size = body.size();
        http::response<http::file_body> response{
            std::piecewise_construct, std::make_tuple(std::move(body)),
            std::make_tuple(http::status::ok, request.version())};
        headers(response, request, type);
        response.content_length(size);
        send(std::move(response));
    }

    void sendBody(const Request& request, std::string body, const char* type) {
        if (request.method() != http::verb::head)
            return send(reply(request, http::status::ok, std::move(body), type));
        http::response<http::empty_body> response{http::status::ok, request.version()};
        headers(response, request, type);
        response.content_length(body.size());
        send(std::move(response));
    }

    template <class Body>
    static void headers(http::response<Body>& response, const Request& request, const char* type) {
        response.set(http::field::server, kServerName);
        response.set(http::field::content_type, type);
        response.set(http::field::cache_control, "no-store");
        response.keep_alive(request.keep_alive());
    }

    static http::response<http::string_body> reply(const Request& request, http::status status,
                                                   std::string body, const char* type) {
        http::response<http::string_body> response{status, request.version()};
        headers(response, request, type);
        response.body() = std::move(body);
        response.prepare_payload();
        return response;
    }

    /// Answers a request that could not be read, then closes: the rest of the stream is
    /// unreadable.
    void fail(http::status status) {
        http::response<http::string_body> response{status, 11};
        response.set(http::field::server, kServerName);
        response.set(http::field::content_type, "text/plain");
        response.body() = std::string(http::obsolete_reason(status)) + "\n";
        response.keep_alive(false);
        response.prepare_payload();
        send(std::move(response));
    }

    template <class Message>
    void send(Message&& message) {
        auto held = std::make_shared<std::decay_t<Message>>(std::move(message));
        stream_.expires_after(shared_->limits.idle);
        http::async_write(stream_, *held,
                          [self = shared_from_this(), held](beast::error_code error, std::size_t) {
                              if (error)
                                  return;
                              if (held->need_eof())
                                  return self->close();
                              self->read();
                          });
    }

    void close() {
        beast::error_code ignored;
        stream_.socket().shutdown(tcp::socket::shutdown_send, ignored);
    }

    beast::tcp_stream stream_;
    beast::flat_buffer buffer_;
    std::optional<http::request_parser<http::string_body>> parser_;
    std::shared_ptr<const Shared> shared_;
};

/// \brief Accepts connections on one address until the context stops or it is closed.
class Listener : public std::enable_shared_from_this<Listener> {
public:
    Listener(net::io_context& context, tcp::acceptor acceptor, std::shared_ptr<const Shared> shared)
        : shared_(std::move(shared)),
          context_(context),
          acceptor_(std::move(acceptor)),
          retry_(context) {}

    void accept() {
        std::lock_guard<std::mutex> lock(mutex_);
        if (!acceptor_.is_open())
            return;
        acceptor_.async_accept(
            net::make_strand(context_),
            [self = shared_from_this()](beast::error_code error, tcp::socket socket) {
                if (error == net::error::operation_aborted)
                    return;
                if (!error) {
                    std::make_shared<Session>(std::move(socket), self->shared_)->run();
                    return self->accept();
                }
                // Out of descriptors: let connections finish before retrying.
                std::lock_guard<std::mutex> lock(self->mutex_);
                self->retry_.expires_after(std::chrono::milliseconds(50));
                self->retry_.async_wait([self](beast::error_code waitError) {
                    if (!waitError)
                        self->accept();
                });
            });
    }

    // Called from any thread; the acceptor is only touched under the mutex.
    void close() {
        std::lock_guard<std::mutex> lock(mutex_);
        beast::error_code ignored;
        acceptor_.close(ignored);
        retry_.cancel();
    }

    std::string address_;
    std::shared_ptr<const Shared> shared_;

private:
    net::io_context& context_;
    std::mutex mutex_;
    tcp::acceptor acceptor_;
    net::steady_timer retry_;
};

/// \brief The listening addresses, changed at once by "/set_interface_filters".
class Listeners {
public:
    Listeners(net::io_context& context, std::uint16_t port) : context_(context), port_(port) {}

    /// Listens on addresses (all interfaces when none, or, if asked, when none is on this
    /// machine), keeping those already open; false with a reason when none could be opened,
    /// and then the old ones are listened on again.
    bool listenOn(std::vector<std::string> addresses, std::string& error,
                  bool anywhereWhenNoneIsHere = false) {
        if (addresses.empty())
            addresses.push_back("0.0.0.0");
        std::lock_guard<std::mutex> lock(mutex_);
        std::vector<std::string> before;
        for (const auto& listener : open_)
            before.push_back(listener->address_);
        // Closed first: a listener on all interfaces holds the port for every address.
        closeUnless(addresses);
        if (open(addresses, error))
            return true;
        // Filters that name only another machine's addresses (an agent sends its own) would
        // leave the server unreachable, even for the request that could put them right.
        if (open_.empty() && error.empty() && anywhereWhenNoneIsHere) {
            VLM_LOG(4, "Engine: no filter address is on this machine; listening on all\n");
            if (open({"0.0.0.0"}, error))
                return true;
        }
        closeUnless({});
        std::string ignored;
        open(before, ignored);
        return false;
    }

    /// Starts accepting, once what sessions share exists.
    void startAccepting(std::shared_ptr<const Shared> shared) {
        std::lock_guard<std::mutex> lock(mutex_);
        shared_ = std::move(shared);
        for (auto& listener : open_) {
            listener->shared_ = shared_;
            listener->accept();
        }
    }
    void closeAll() {
        std::lock_guard<std::mutex> lock(mutex_);
        closeUnless({});
        shared_.reset();
    }
    std::uint16_t port() const { return port_; }

private:
    void closeUnless(const std::vector<std::string>& keep) {
        auto end = std::remove_if(open_.begin(), open_.end(), [&](const auto& listener) {
            if (std::find(keep.begin(), keep.end(), listener->address_) != keep.end())
                return false;
            listener->close();
            return true;
        });
        open_.erase(end, open_.end());
    }

    bool open(const std::vector<std::string>& addresses, std::string& error) {
        for (const auto& text : addresses) {
            if (std::any_of(open_.begin(), open_.end(),
                            [&](const auto& listener) { return listener->address_ == text; }))
                continue;
            beast::error_code failure;
            auto address = net::ip::make_address_v4(text, failure);
            if (failure) {
                VLM_LOG(4, "Engine: %s is not an IPv4 address; skipped\n", text.c_str());
                continue;
            }
            tcp::acceptor acceptor(context_);
            tcp::endpoint endpoint(address, port_);
            acceptor.open(endpoint.protocol(), failure);
            if (!failure)
                acceptor.set_option(tcp::acceptor::reuse_address(true), failure);
            if (!failure)
                acceptor.bind(endpoint, failure);
            if (failure == boost::system::errc::address_not_available) {
                // The interface is gone (unplugged, new address): serve on the others.
                VLM_LOG(4, "Engine: %s is not on this machine; skipped\n", text.c_str());
                continue;
            }
            if (!failure)
                acceptor.listen(net::socket_base::max_listen_connections, failure);
            if (failure) {
                error = text + ":" + std::to_string(port_) + ": " + failure.message();
                return false;
            }
            if (port_ == 0)
                port_ = acceptor.local_endpoint().port();
            auto listener = std::make_shared<Listener>(context_, std::move(acceptor), shared_);
            listener->address_ = text;
            open_.push_back(listener);
            if (shared_)
                listener->accept();
            VLM_LOG(6, "Engine web server listening on %s:%u\n", text.c_str(),
                    static_cast<unsigned>(port_));
        }
        return !open_.empty();
    }

    net::io_context& context_;
    std::uint16_t port_;
    std::mutex mutex_;
    std::vector<std::shared_ptr<Listener>> open_;
    std::shared_ptr<const Shared> shared_;
};

std::vector<std::string> addressesOf(const std::vector<InterfaceFilter>& filters) {
    std::vector<std::string> addresses;
    for (const auto& filter : filters)
        if (std::find(addresses.begin(), addresses.end(), filter.ip) == addresses.end())
            addresses.push_back(filter.ip);
    return addresses;
}

void Session::setFilters(const Request& request) {
    auto filters = EngineDocument::parseInterfaceFilters(request.body());
    if (!filters)
        return send(reply(request, http::status::bad_request,
                          "{\"error\":\"expected [{\\\"Ip\\\": IPv4, \\\"Mask\\\": IPv4}]\"}",
                          kJson));
    // The answer goes out once the server listens where the filters say.
    std::string error;
    if (!shared_->listeners->listenOn(addressesOf(*filters), error, true)) {
        VLM_LOG(3, "Engine cannot apply the interface filters: %s\n", error.c_str());
        return send(reply(request, http::status::service_unavailable,
                          "{\"error\":\"the filters cannot be applied\"}", kJson));
    }
    std::string inForce = shared_->document->setInterfaceFilters(std::move(*filters));
    VLM_LOG(6, "Engine interface filters changed: %s\n", inForce.c_str());
    send(reply(request, http::status::ok, std::move(inForce), kJson));
}

}  // namespace

struct EngineServer::State {
    net::io_context context;
    std::shared_ptr<Listeners> listeners;
};

EngineServer::EngineServer(std::vector<std::string> pluginFolders, std::string webAppFolder,
                           bool master, ServerLimits limits)
    : pluginFolders_(std::move(pluginFolders)),
      webAppFolder_(std::move(webAppFolder)),
      master_(master),
      limits_(limits) {}

EngineServer::~EngineServer() {
    stop();
}

bool EngineServer::start(const std::vector<InterfaceFilter>& filters, std::uint16_t port,
                         std::string& error) {
    stop();
    auto state = std::make_unique<State>();
    state->listeners = std::make_shared<Listeners>(state->context, port);
    if (!state->listeners->listenOn(addressesOf(filters), error)) {
        if (error.empty())
            error = "none of the interface filter addresses is on this machine";
        return false;
    }
    port_ = state->listeners->port();
    state->listeners->startAccepting(std::make_shared<Shared>(
        Shared{std::make_shared<EngineDocument>(pluginFolders_, filters, master_, port_),
               WebAppFiles(webAppFolder_), limits_, state->listeners}));
    state_ = std::move(state);
    unsigned count = std::clamp(std::thread::hardware_concurrency(), 2u, 4u);
    for (unsigned i = 0; i < count; ++i)
        threads_.emplace_back([context = &state_->context] { context->run(); });
    return true;
}

void EngineServer::stop() {
    if (!state_)
        return;
    state_->context.stop();
    for (auto& thread : threads_)
        thread.join();
    threads_.clear();
    // Breaks the cycle listeners -> shared -> listeners; sessions go with the context.
    state_->listeners->closeAll();
    state_.reset();
}

}  // namespace kelvane
