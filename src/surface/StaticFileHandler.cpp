#include "surface/StaticFileHandler.h"

#include "surface/HttpRules.h"

#include <filesystem>

namespace zelNet::zelWebServer {

namespace fs = std::filesystem;

bool StaticFileHandler::handleGet(CivetServer*, mg_connection* connection) {
    sendFile(connection, decodedUri(connection));
    return true;
}

bool StaticFileHandler::handleHead(CivetServer* server, mg_connection* connection) {
    return handleGet(server, connection);
}

void StaticFileHandler::sendFile(mg_connection* connection, const std::string& uri) {
    const fs::path file = findServedFile(uri, mg_get_option(mg_get_context(connection), "document_root"));
    if (file.empty()) {
        mg_send_http_error(connection, 404, "%s", "Error: File not found");
        return;
    }
    const char* const known = mg_get_builtin_mime_type(file.c_str());
    const std::string type = mapContentType(file, known == nullptr ? "text/plain" : known);
    mg_send_mime_file(connection, file.c_str(), type.c_str());
}

std::string StaticFileHandler::mapContentType(const std::string& path, const std::string& type) {
    const fs::path extension = fs::path(path).extension();
    if (extension == ".js" || extension == ".mjs")
        return "text/javascript";
    return extension == ".wasm" ? "application/wasm" : type;
}

} // namespace zelNet::zelWebServer
