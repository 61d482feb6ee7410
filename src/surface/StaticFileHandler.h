#pragma once

#include <CivetServer.h>

#include <string>

namespace zelNet::zelWebServer {

/// Sends the files below the option "document_root".
/// @threads any thread
class StaticFileHandler : public CivetHandler {
public:
    using CivetHandler::handleGet;
    using CivetHandler::handleHead;
    bool handleGet(CivetServer* server, mg_connection* connection) override;
    /// As handleGet: civetweb, which leaves the content out, would else look for the file by its own rules.
    bool handleHead(CivetServer* server, mg_connection* connection) override;

    /// Sends the file below the option "document_root" that a decoded path names; 404 if there is none.
    static void sendFile(mg_connection* connection, const std::string& uri);
    /// The type by which browsers run the file, where civetweb knows another; else the given one.
    [[nodiscard]] static std::string mapContentType(const std::string& path, const std::string& type);
};

} // namespace zelNet::zelWebServer
