#include "data/JsonText.h"
#include "surface/HttpRules.h"
#include "transport/Envelope.h"

#include <zel/VerifyThrow.h>
#include <zelIO/Environment.h>
#include <zelIO/FileSystem.h>
#include <zelIO/RemoteCommandServer.h>

#include <civetweb.h>
#include <json/reader.h>
#include <json/value.h>

#include <algorithm>
#include <filesystem>
#include <memory>
#include <stdexcept>

// The files that the server hands out.

namespace zelIO {

namespace {

namespace fs = std::filesystem;

/// Adds what a file of settings holds.
void gatherJournalConfigurations(const String& file, Json::Value& json) {
    if (FileSystem::getFileExtension(file) != "json")
        return;
    Json::Value entry(Json::objectValue);
    try {
        if (!fs::is_regular_file(file.c_str()))
            throw std::runtime_error("It is no regular file"); // a pipe would keep the only worker for ever
        const std::string text = FileSystem::readFile(file);
        const std::unique_ptr<Json::CharReader> reader(Json::CharReaderBuilder().newCharReader());
        std::string fault;
        Json::Value parsed;
        if (!zelData::readJson(*reader, text, parsed, &fault))
            entry["ParseError"] = fault;
        else if (parsed.isObject())
            entry = parsed;
        else
            entry["ParseError"] = "Invalid syntax, top level value must be an object";
    } catch (const std::exception& error) {
        entry["ParseError"] = error.what();
    }
    entry["FilePath"] = static_cast<const std::string&>(file);
    json[std::string(FileSystem::getFileWithoutExtension(file))] = entry;
}

} // namespace

bool RemoteCommandServer::readComponent(mg_connection* connection, const QueryArgumentTable& arguments) {
    const String& path = arguments["path"];
    // The system would cut the name off at a NUL, and others would steer the terminal that shows the search.
    const bool isName = zelNet::printable(path) == path;
    const String found = isName ? Environment::instance()->findComponent(path) : String();
    log("  Client requesting component %s, found %s",
        zelNet::printable(path).c_str(),
        zelNet::printable(found).c_str());
    std::error_code error;
    const fs::path real = fs::canonical(found.c_str(), error);
    const String extension = FileSystem::getFileExtension(real.string());
    if (error || extension.empty())
        return false;
    if (!m_allowedExtensions.contains(extension)) {
        log("  File extension '.%s' is NOT allowed! File: %s",
            zelNet::printable(extension).c_str(),
            zelNet::printable(found).c_str());
        return false;
    }
    const auto& directories = Environment::instance()->getFilePath(Environment::PluginPath).getFilePathList();
    if (!fs::is_regular_file(real, error) || fs::file_size(real, error) > MaxReadSize || error ||
        std::none_of(directories.begin(), directories.end(), [&](const String& directory) {
            return zelNet::liesBelow(real, directory.c_str());
        }))
        return false;
    std::string fileContents;
    try {
        fileContents = FileSystem::readFile(real.string());
    } catch (const std::exception&) {
        log("  Unable to read file '%s'", zelNet::printable(found).c_str());
        return false;
    }
    const int numWritten = mg_write(connection, fileContents.data(), fileContents.size());
    zelVerifyThrowAs(numWritten == static_cast<int>(fileContents.size()),
                     "numWritten == (int)fileContents.size()");
    return true;
}

bool RemoteCommandServer::writeComponent() {
    log("%s", "writeComponent not implemented! Need authentication...");
    return false;
}

bool RemoteCommandServer::handleJournalConfigurationList(mg_connection* connection) {
    Json::Value response(Json::objectValue);
    const String directory =
        Environment::instance()->getFilePath(Environment::ResourcePath).find("JournalConfigurations");
    if (!directory.empty())
        FileSystem::scan(directory, [&](const String& file) { gatherJournalConfigurations(file, response); });
    writeResponse(response, connection);
    return true;
}

} // namespace zelIO
