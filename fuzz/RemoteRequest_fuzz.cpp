// Requests to the command server, by its own callbacks, with a civetweb made of memory in place of the true
// one: whatever the lines are, foreign ones are refused, no file from outside comes out, and what the routes
// answer is JSON.
//
// An input is a byte of flags, then "GET /path?query", then headers, a line each.
#include "Support.h"
#include "support/TempDirectory.h"

#include <zel/Component.h>
#include <zel/ref_ptr.h>
#include <zelData/Buffer.h>
#include <zelData/Type.h>
#include <zelData/ValueT.h>
#include <zelIO/Environment.h>
#include <zelIO/FilePathContainer.h>
#include <zelIO/RemoteCommandServer.h>
#include <zelNet/AllowedHosts.h>

#include <civetweb.h>
#include <json/reader.h>
#include <json/value.h>
#include <strings.h>

#include <algorithm>
#include <cctype>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <memory>
#include <string>
#include <utility>
#include <vector>

struct mg_connection {
    mg_request_info request{};
    std::string written;
};
struct mg_context {
    const void* user = nullptr;
    std::string documentRoot;
};

namespace zelFuzz {
mg_context s_context;
} // namespace zelFuzz

extern "C" {
mg_context* mg_start(const mg_callbacks*, void* user, const char** options) {
    zelFuzz::s_context.user = user;
    zelFuzz::s_context.documentRoot = options[1];
    return &zelFuzz::s_context;
}
void mg_stop(mg_context*) {}
int mg_get_server_ports(const mg_context*, int, mg_server_port* ports) {
    ports[0].port = 1;
    return 1;
}
void mg_set_auth_handler(mg_context*, const char*, mg_authorization_handler, void*) {}
void mg_set_request_handler(mg_context*, const char*, mg_request_handler, void*) {}
mg_context* mg_get_context(const mg_connection*) {
    return &zelFuzz::s_context;
}
void* mg_get_user_data(const mg_context* context) {
    return const_cast<void*>(context->user);
}
const char* mg_get_option(const mg_context* context, const char*) {
    return context->documentRoot.c_str();
}
const mg_request_info* mg_get_request_info(const mg_connection* connection) {
    return &connection->request;
}
const char* mg_get_header(const mg_connection* connection, const char* name) {
    for (int i = 0; i < connection->request.num_headers; ++i)
        if (strcasecmp(connection->request.http_headers[i].name, name) == 0)
            return connection->request.http_headers[i].value;
    return nullptr;
}
int mg_write(mg_connection* connection, const void* bytes, size_t size) {
    connection->written.append(static_cast<const char*>(bytes), size);
    return static_cast<int>(size);
}
__attribute__((format(printf, 2, 3))) int mg_printf(mg_connection* connection, const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    char text[16384];
    const int size = vsnprintf(text, sizeof(text), format, arguments);
    va_end(arguments);
    if (size < 0 || size >= static_cast<int>(sizeof(text)))
        std::abort();
    return mg_write(connection, text, static_cast<size_t>(size));
}
__attribute__((format(printf, 3, 4))) int
mg_send_http_error(mg_connection* connection, int status, const char*, ...) {
    connection->written += "HTTP/1.1 " + std::to_string(status) + "\r\n\r\n";
    return 0;
}
void mg_send_mime_file(mg_connection* connection, const char* path, const char*) {
    std::ifstream file(path, std::ios::binary);
    connection->written += "HTTP/1.1 200 OK\r\n\r\n" + std::string(std::istreambuf_iterator<char>(file), {});
}
}

namespace {

using zelIO::RemoteCommandServer;

const std::string Token = "token";
const std::string Secret = "what nobody is to see";

class Echo : public zelIO::ScriptListener {
public:
    bool run(const zel::String& text, zel::String& printed, zel::String&) override {
        printed = text;
        return true;
    }
};

/// The server, with a page, models beside it and a secret above them that links lead to.
struct Server {
    Server() {
        std::cout.rdbuf(nullptr); // each request is printed
        std::cerr.rdbuf(nullptr);
        directory.write("secret.zelComponent", Secret);
        directory.write("Models/Web/index.html", "the page");
        directory.write("Models/Web/data.txt", "data");
        directory.write("Models/Rover.zelComponent", "<Component name=\"Rover\"/>");
        std::filesystem::create_symlink("../../secret.zelComponent", directory / "Models/Web/outside.txt");
        std::filesystem::create_symlink("../secret.zelComponent", directory / "Models/outside.zelComponent");
        zelIO::Environment::instance()
            ->getFilePath(zelIO::Environment::PluginPath)
            .pushfrontPath(directory / "Models");
        root->addObject(new zelData::ValueT<double>("speed", 2.5));
        const zel::ref_ptr<zelData::Buffer> buffer(new zelData::Buffer("masses", zelData::getFormat("Real")));
        buffer->resize(3);
        root->addObject(buffer.get());
        server->setSystemRoot(root.get());
        if (!server->start(0, false))
            std::abort();
        server->add(new Echo);
    }
    zelTest::TempDirectory directory;
    zel::ref_ptr<zel::Component> root{new zel::Component("root", zel::Component::ClassModel())};
    RemoteCommandServer* server = RemoteCommandServer::instance();
};

/// The text up to the separator, which is taken off as well.
std::string take(std::string& text, char separator) {
    const std::size_t end = text.find(separator);
    std::string part = text.substr(0, end);
    text.erase(0, end == std::string::npos ? end : end + 1);
    return part;
}

/// Whether the text is a call of a function and what is in it.
bool isNameOfFunction(const std::string& text) {
    return !text.empty() && text.size() <= 64 && (std::isdigit(text.front()) == 0 && text.front() != '.') &&
           std::all_of(text.begin(), text.end(), [](unsigned char c) {
               return c < 0x80 && (std::isalnum(c) != 0 || c == '_' || c == '$' || c == '.');
           });
}

void require(bool condition) {
    if (!condition)
        std::abort();
}

/// What the request gets from the server, by the calls that civetweb makes.
void handle(mg_connection& connection, RemoteCommandServer* server, bool isLocal) {
    const auto header = [&](const char* name) {
        const char* const value = mg_get_header(&connection, name);
        return std::string(value == nullptr ? "" : value);
    };
    const std::string method = connection.request.request_method;
    const int refused = RemoteCommandServer::mgBeginRequest(&connection);
    require((refused == 405) == (method != "GET" && method != "HEAD"));
    if (refused != 0)
        return;
    const std::string token = server->getAuthenticationToken();
    const bool mayAsk = RemoteCommandServer::mgAuthCallback(&connection, server) != 0;
    require(mayAsk == (token.empty() || header("Token") == token));
    if (!mayAsk)
        return;
    const int status = RemoteCommandServer::mgRequestCallback(&connection, server);
    const bool isForeign = !isLocal || !zelNet::isAllowedHost(header("Host")) ||
                           !zelNet::isAllowedOrigin(header("Origin"), header("Host")) ||
                           header("Sec-Fetch-Site") == "cross-site";
    require((status == 403) == isForeign);
}

/// Whether it is what a route may write.
void check(std::string written, bool isRoute) {
    require(written.find(Secret) == std::string::npos);
    const std::string head = "HTTP/1.1 ";
    const bool isCall = !written.starts_with(head) && !written.empty();
    if (isCall) {
        require(isNameOfFunction(take(written, '(')));
        require(written.starts_with(head) || written.starts_with(")" + head));
    }
    const std::string good = head + "200 OK\r\nContent-Type: text/json\r\n\r\n";
    if (!isRoute || !written.starts_with(good))
        return;
    std::string body = written.substr(good.size());
    if (isCall) {
        require(body.ends_with(')'));
        body.pop_back();
    }
    Json::CharReaderBuilder builder;
    builder["stackLimit"] = 1000;
    const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    Json::Value json;
    require(body.empty() || reader->parse(body.data(), body.data() + body.size(), &json, nullptr));
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    zelFuzz::initQuietly();
    static Server server;
    if (size == 0)
        return 0;
    const bool isLocal = (data[0] & 1) == 0;
    server.server->setAuthenticationToken((data[0] & 2) == 0 ? "" : Token);

    // Texts of civetweb end at a NUL.
    std::string text(reinterpret_cast<const char*>(data) + 1, size - 1);
    std::replace(text.begin(), text.end(), '\0', ' ');
    std::string line = take(text, '\n');
    const std::string method = take(line, ' ');
    const bool hasQuery = line.find('?') != std::string::npos;
    const std::string uri = take(line, '?');
    std::vector<std::pair<std::string, std::string>> headers;
    while (!text.empty() && headers.size() < MG_MAX_HEADERS) {
        std::string value = take(text, '\n');
        std::string name = take(value, ':');
        headers.emplace_back(std::move(name), value.substr(value.starts_with(' ') ? 1 : 0));
    }
    mg_connection connection;
    mg_request_info& request = connection.request;
    request.request_method = method.c_str();
    request.request_uri = request.local_uri_raw = request.local_uri = uri.c_str();
    request.query_string = hasQuery ? line.c_str() : nullptr;
    std::strcpy(request.remote_addr, isLocal ? "127.0.0.1" : "127.0.0.2");
    for (const auto& [name, value] : headers)
        request.http_headers[request.num_headers++] = {name.c_str(), value.c_str()};

    handle(connection, server.server, isLocal);
    check(connection.written, uri.starts_with("/zelRemote/") || uri.starts_with("/zelJournal/"));
    return 0;
}
