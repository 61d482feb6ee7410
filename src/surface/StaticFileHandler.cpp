#include "surface/StaticFileHandler.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <string_view>

namespace zelNet::zelWebServer {

namespace {

namespace fs = std::filesystem;

/// The server leaves it encoded (option "decode_url"), since a decoded NUL would end it.
std::string decodedUri(const mg_request_info& request) {
    const std::string_view local = request.local_uri == nullptr ? "" : request.local_uri;
    std::string uri(local.size() + 1, '\0');
    const int size = mg_url_decode(
        local.data(), static_cast<int>(local.size()), uri.data(), static_cast<int>(uri.size()), 0);
    uri.resize(size < 0 ? 0 : static_cast<std::size_t>(size));
    return uri;
}

/// The file behind all links; empty unless it is one below the root that can be read.
fs::path findServedFile(const fs::path& path, const fs::path& root) {
    std::error_code error;
    const fs::path realRoot = fs::canonical(root, error);
    if (error)
        return {};
    fs::path file = fs::weakly_canonical(path, error);
    if (error ||
        std::mismatch(realRoot.begin(), realRoot.end(), file.begin(), file.end()).first != realRoot.end())
        return {};
    // A pipe would keep the only worker for ever.
    if (!fs::is_regular_file(file, error) || !std::ifstream(file))
        return {};
    return file;
}

} // namespace

bool StaticFileHandler::handleGet(CivetServer*, mg_connection* connection) {
    std::string uri = decodedUri(*mg_get_request_info(connection));
    if (uri == "/")
        uri = "/index.html";
    const fs::path root = mg_get_option(mg_get_context(connection), "document_root");
    fs::path path = root / fs::path(uri).relative_path();
    std::error_code error;
    if (fs::is_directory(path, error))
        path /= "index.html";
    // The system would cut the name off at a NUL.
    const fs::path file = uri.find('\0') == std::string::npos ? findServedFile(path, root) : fs::path();
    if (file.empty()) {
        mg_send_http_error(connection, 404, "%s", "Error: File not found");
        return true;
    }
    const char* const known = mg_get_builtin_mime_type(path.c_str());
    const std::string type = mapContentType(path, known == nullptr ? "text/plain" : known);
    mg_send_mime_file(connection, file.c_str(), type.c_str());
    return true;
}

bool StaticFileHandler::handleHead(CivetServer* server, mg_connection* connection) {
    return handleGet(server, connection);
}

std::string StaticFileHandler::mapContentType(const std::string& path, const std::string& type) {
    const fs::path extension = fs::path(path).extension();
    if (extension == ".js" || extension == ".mjs")
        return "text/javascript";
    return extension == ".wasm" ? "application/wasm" : type;
}

} // namespace zelNet::zelWebServer
