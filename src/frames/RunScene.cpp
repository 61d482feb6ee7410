#include "RunScene.h"

#include "engine/PluginLibrary.h"
#include "tree/ModelPlaces.h"

#include <zel/Thread.h>
#include <zelCore/Version.h>
#include <zelCore/zelCore.h>
#include <zelData/RandomGenerator.h>
#include <zelIO/FileSystem.h>

#include <json/value.h>
#include <json/writer.h>
#include <zlib.h>

#include <fstream>
#include <iterator>
#include <string>

namespace zelData {

namespace {

std::string contentOf(const zel::String& file) {
    std::ifstream stream(file, std::ios::binary);
    return {std::istreambuf_iterator<char>(stream), {}};
}

zel::String checksumOf(const std::string& bytes) {
    uLong sum = crc32_z(0, nullptr, 0);
    sum = crc32_z(sum, reinterpret_cast<const Bytef*>(bytes.data()), bytes.size());
    return zel::String::format("%08lx", static_cast<unsigned long>(sum));
}

/// The arguments of the process, as the system tells them.
Json::Value commandLine() {
    Json::Value arguments(Json::arrayValue);
    const std::string text = contentOf("/proc/self/cmdline");
    for (std::size_t begin = 0; begin < text.size();) {
        const std::size_t end = std::min(text.find('\0', begin), text.size());
        arguments.append(text.substr(begin, end - begin));
        begin = end + 1;
    }
    return arguments;
}

} // namespace

zel::String describeRun(zel::Component* root) {
    Json::Value scene(Json::objectValue);
    scene["library"]["name"] = zelCore::zelGetLibraryName();
    scene["library"]["version"] = zelCore::zelGetVersion(true);
    scene["library"]["build"] = zelCore::zelGetBuildType();
    scene["commandLine"] = commandLine();
    scene["threads"] = static_cast<Json::UInt64>(zel::getNumThreads());
    scene["root"] = root->getPath().str();
    Json::Value& models = scene["models"] = Json::Value(Json::arrayValue);
    for (const zel::String& file : zel::listModelFiles()) {
        Json::Value model;
        model["file"] = file;
        if (zelIO::FileSystem::readable(file)) // it may have gone since it was read
            model["text"] = contentOf(file);
        models.append(model);
    }
    // They have no version of their own: the sum tells whether two are the same.
    Json::Value& plugins = scene["plugins"] = Json::Value(Json::arrayValue);
    for (const zel::String& file : zel::listPluginLibraries()) {
        const std::string content = contentOf(file);
        Json::Value plugin;
        plugin["file"] = file;
        plugin["size"] = static_cast<Json::UInt64>(content.size());
        plugin["crc32"] = checksumOf(content);
        plugins.append(plugin);
    }
    Json::Value& seeds = scene["seeds"] = Json::Value(Json::objectValue);
    root->traverse([&seeds, root](zel::Object* object) {
        if (const auto* generator = dynamic_cast<const RandomGenerator*>(object))
            seeds[generator->getPath(root).str()] = static_cast<Json::UInt64>(generator->getSeed());
    });
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "  ";
    builder["emitUTF8"] = true;
    return zel::String(Json::writeString(builder, scene));
}

} // namespace zelData
