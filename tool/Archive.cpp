#include "ArchiveFile.h"
#include "Command.h"
#include "JournalText.h"
#include "Model.h"

#include <zel/String.h>
#include <zelIO/FileSystem.h>
#include <zelStream/OutputArchive.h>
#include <zelStream/XMLOutputArchive.h>

#include <json/json.h>

#include <bit>
#include <fstream>
#include <iostream>
#include <stdexcept>

// zel archive info and convert.

namespace tool {

namespace {

using zelStream::InputArchive;

std::string versionOf(const InputArchive& archive) {
    return zel::String::format("%u.%u.%u.%u",
                               archive.getGenerationVersion(),
                               archive.getMajorVersion(),
                               archive.getMinorVersion(),
                               archive.getPatchVersion());
}

std::string formOf(const InputArchive& archive) {
    if (!archive.isBinary())
        return "XML";
    const bool isLittle = archive.getEndianMatch() == (std::endian::native == std::endian::little);
    return isLittle ? "binary, little-endian" : "binary, big-endian";
}

Json::Value describe(const std::string& path, ArchiveFile& file) {
    const InputArchive& archive = file.archive();
    Json::Value info(Json::objectValue);
    info["file"] = path;
    info["size"] = static_cast<Json::UInt64>(file.size());
    info["form"] = formOf(archive);
    info["application"] = std::string(archive.getAppName());
    info["version"] = versionOf(archive);
    info["serializationVersion"] = archive.getSerializationVersion();
    info["revision"] = std::string(archive.getRevision());
    info["date"] = std::string(archive.getArchiveDate());
    info["buildDate"] = std::string(archive.getBuildDate());
    info["buildTime"] = std::string(archive.getBuildTime());
    info["buildFlags"] = Json::Value(Json::objectValue);
    for (const InputArchive::BuildFlag& flag : archive.getBuildFlags())
        info["buildFlags"][std::string(flag.name)] = flag.isSet;
    info["modifications"] = Json::Value(Json::arrayValue);
    for (const zel::String& hash : archive.getModifications())
        info["modifications"].append(std::string(hash));
    return info;
}

void printLine(const char* title, const std::string& text) {
    if (!text.empty())
        std::cout << title << ": " << printable(text) << '\n';
}

} // namespace

int printArchiveInfo(const Arguments& arguments) {
    const std::string& path = arguments.positional()[0];
    ArchiveFile file(path);
    const Json::Value info = describe(path, file);
    if (arguments.has("--json")) {
        Json::StreamWriterBuilder builder;
        builder["indentation"] = "  ";
        std::cout << Json::writeString(builder, info) << '\n';
        return Done;
    }
    std::cout << "file: " << path << "\nsize: " << sizeOf(file.size())
              << "\nform: " << info["form"].asString() << '\n';
    printLine("application", info["application"].asString());
    std::cout << "version: " << info["version"].asString()
              << "\nserialization version: " << info["serializationVersion"].asUInt() << '\n';
    printLine("revision", info["revision"].asString());
    printLine("written", info["date"].asString());
    const std::string built = info["buildDate"].asString();
    printLine("library built", built.empty() ? built : built + ", " + info["buildTime"].asString());
    if (!info["buildFlags"].empty())
        std::cout << "build flags:\n";
    for (const InputArchive::BuildFlag& flag : file.archive().getBuildFlags())
        std::cout << "    " << flag.name << ": " << (flag.isSet ? "yes" : "no") << '\n';
    if (!info["modifications"].empty())
        std::cout << "modifications:\n";
    for (const Json::Value& hash : info["modifications"])
        std::cout << "    " << printable(hash.asString()) << '\n';
    return Done;
}

int convertArchive(const Arguments& arguments) {
    addFolders(arguments);
    const std::string& target = arguments.positional()[1];
    if (zelIO::FileSystem::exists(target))
        throw std::runtime_error(target + " exists already");
    ArchiveFile file(arguments.positional()[0]);
    const zel::Vector<zelStream::Serializable*> objects = file.readObjects();
    zelStream::XMLOutputArchive text;
    zelStream::OutputArchive binary;
    zelStream::OutputArchive& output = file.archive().isBinary() ? text : binary;
    std::ofstream stream(target, std::ios::binary);
    if (!stream)
        throw std::runtime_error(target + " can not be written");
    try {
        for (const zel::String& hash : file.archive().getModifications())
            output.addModification(hash);
        output.open(stream, file.archive().getAppName());
        for (const zelStream::Serializable* const object : objects)
            output.write(object);
        output.close();
    } catch (const std::exception& exception) {
        stream.close();
        zelIO::FileSystem::remove(target, false);
        throw std::runtime_error(target + " can not be written: " + exception.what());
    }
    std::cout << counted(output.getNumObjectsWritten(), "object") << " written to " << target << '\n';
    return Done;
}

} // namespace tool
