#include "Command.h"
#include "JournalText.h"

#include <zel/String.h>
#include <zelData/PlainJournal.h>

#include <json/json.h>

#include <iostream>

// zel journal info and frames.

namespace tool {

using zelData::FileJournal;
using zelData::PlainJournal;

int tellFaults(const PlainJournal& journal) {
    for (const PlainJournal::Fault& fault : journal.getFaults())
        std::cerr << "zel: " << journal.getPath() << ", at offset " << fault.offset << ": "
                  << printable(fault.text) << '\n';
    return journal.getFaults().empty() ? Done : Differs;
}

std::string counted(unsigned long number, const std::string& noun) {
    return std::to_string(number) + " " + noun + (number == 1 ? "" : "s");
}

std::string sizeOf(unsigned long numBytes) {
    std::string exact = counted(numBytes, "byte");
    if (numBytes < 10'000)
        return exact;
    const char* const units[] = {"kB", "MB", "GB", "TB"};
    auto size = static_cast<double>(numBytes) / 1000;
    std::size_t unit = 0;
    for (; size >= 1000 && unit < 3; ++unit)
        size /= 1000;
    return exact + zel::String::format(" (%.1f %s)", size, units[unit]);
}

namespace {

void printText(const Json::Value& info) {
    for (const std::string& name : info.getMemberNames())
        if (info[name].isObject()) {
            std::cout << name << ":\n";
            for (const std::string& key : info[name].getMemberNames())
                std::cout << "    " << key << ": " << printable(info[name][key].asString(), "\n\t") << '\n';
        } else if (info[name].isArray()) {
            std::cout << name << ":\n";
            for (const Json::Value& entry : info[name])
                std::cout << "    " << printable(entry.asString()) << '\n';
        }
}

Json::Value number(unsigned long value) {
    return Json::Value(static_cast<Json::UInt64>(value));
}

/// What the session header tells, beside the frames.
void describe(FileJournal::Session& session, Json::Value& info) {
    info["session"] = session.getName().str();
    info["date"] = std::string(session.getDate().toStringDateAndTime());
    info["version"] = std::string(session.getZelVersionString());
    info["timeStep"] = session.getTimeStep();
    info["frameStride"] = number(session.getFrameStride());
    info["computationTime"] = session.getComputationTime();
    info["sceneSize"] = number(session.getSceneDataSize());
    zel::Vector<zel::String> keys;
    session.getExtraDataKeys(keys);
    for (const zel::String& key : keys)
        info["extraData"][std::string(key)] = std::string(session.retrieveExtraData(key));
    zel::Vector<zel::String> plots;
    session.getPlotList(plots);
    for (const zel::String& plot : plots)
        info["plots"].append(std::string(plot));
}

Json::Value describe(const PlainJournal& journal) {
    Json::Value info(Json::objectValue);
    info["file"] = std::string(journal.getPath());
    info["size"] = number(journal.getFileSize());
    info["closed"] = journal.isClosed();
    info["numFrames"] = number(journal.getFrames().size());
    unsigned long keyFrames = 0;
    unsigned long headers = 0;
    unsigned long data = 0;
    for (const PlainJournal::FrameEntry& entry : journal.getFrames()) {
        keyFrames += entry.record.isKeyFrame;
        headers += entry.record.headerSize;
        data += entry.record.dataSize;
    }
    info["numKeyFrames"] = number(keyFrames);
    info["headerBytes"] = number(headers);
    info["dataBytes"] = number(data);
    if (!journal.getFrames().empty()) {
        const auto& first = journal.getFrames().front().record;
        const auto& last = journal.getFrames().back().record;
        info["firstFrame"] = number(first.index);
        info["lastFrame"] = number(last.index);
        info["firstTime"] = first.timeStamp;
        info["lastTime"] = last.timeStamp;
    }
    for (const PlainJournal::Fault& fault : journal.getFaults()) {
        Json::Value entry;
        entry["offset"] = number(fault.offset);
        entry["text"] = std::string(fault.text);
        info["faults"].append(entry);
    }
    if (journal.getSession() != nullptr)
        describe(*journal.getSession(), info);
    return info;
}

void printJson(const Json::Value& value) {
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "  ";
    builder["precision"] = 17;
    std::cout << Json::writeString(builder, value) << '\n';
}

} // namespace

int printInfo(const Arguments& arguments) {
    const PlainJournal journal(arguments.positional()[0]);
    const Json::Value info = describe(journal);
    if (arguments.has("--json")) {
        printJson(info);
        return tellFaults(journal);
    }
    std::cout << "file: " << journal.getPath() << "\nsize: " << sizeOf(journal.getFileSize()) << '\n';
    if (info.isMember("session")) {
        std::cout << "session: " << printable(info["session"].asString())
                  << (journal.isClosed() ? "" : ", never closed") << "\nrecorded: " << info["date"].asString()
                  << ", by version " << printable(info["version"].asString())
                  << "\ncomputation time: " << toText(info["computationTime"].asDouble()) << " s\n";
    } else {
        std::cout << "session: none that can be read\n";
    }
    std::cout << "frames: " << info["numFrames"].asUInt64() << ", " << info["numKeyFrames"].asUInt64()
              << " of them key frames\n";
    if (info.isMember("firstFrame"))
        std::cout << "indices: " << info["firstFrame"].asUInt64() << " to " << info["lastFrame"].asUInt64()
                  << "\ntime: " << toText(info["firstTime"].asDouble()) << " to "
                  << toText(info["lastTime"].asDouble()) << '\n';
    std::cout << "headers of frames: " << sizeOf(info["headerBytes"].asUInt64())
              << "\ndata of frames: " << sizeOf(info["dataBytes"].asUInt64()) << '\n';
    if (info.isMember("session"))
        std::cout << "time step: " << toText(info["timeStep"].asDouble())
                  << "\nframe stride: " << info["frameStride"].asUInt64()
                  << "\nscene: " << sizeOf(info["sceneSize"].asUInt64()) << '\n';
    Json::Value rest(Json::objectValue);
    for (const auto& [name, title] : {std::pair{"extraData", "extra data"}, {"plots", "plots"}})
        if (info.isMember(name))
            rest[title] = info[name];
    printText(rest);
    return tellFaults(journal);
}

int listFrames(const Arguments& arguments) {
    const PlainJournal journal(arguments.positional()[0]);
    if (arguments.has("--json")) {
        Json::Value frames(Json::arrayValue);
        for (const PlainJournal::FrameEntry& entry : journal.getFrames()) {
            Json::Value frame;
            frame["index"] = number(entry.record.index);
            frame["time"] = entry.record.timeStamp;
            frame["step"] = entry.record.timeStep;
            frame["isKeyFrame"] = entry.record.isKeyFrame != 0;
            frame["offset"] = number(entry.offset);
            frame["headerSize"] = number(entry.record.headerSize);
            frame["dataSize"] = number(entry.record.dataSize);
            frames.append(frame);
        }
        Json::Value all;
        all["frames"] = frames;
        printJson(all);
        return tellFaults(journal);
    }
    std::cout
        << "     index               time               step  key       offset     header         data\n";
    for (const PlainJournal::FrameEntry& entry : journal.getFrames())
        std::cout << zel::String::format("%10lu %18s %18s  %-3s %12lu %10lu %12lu\n",
                                         entry.record.index,
                                         toText(entry.record.timeStamp).c_str(),
                                         toText(entry.record.timeStep).c_str(),
                                         entry.record.isKeyFrame != 0 ? "key" : "",
                                         entry.offset,
                                         entry.record.headerSize,
                                         entry.record.dataSize);
    return tellFaults(journal);
}

} // namespace tool
