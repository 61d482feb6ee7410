#include "data/JsonText.h"
#include "files/DiskFile.h"

#include <zel/Exception.h>
#include <zel/Log.h>
#include <zel/Verify.h>
#include <zelData/BinaryData.h>
#include <zelData/FileJournal.h>
#include <zelNet/StructuredMessage.h>

#include <json/reader.h>
#include <json/value.h>
#include <json/writer.h>

#include <algorithm>
#include <iostream>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>

// Plots: messages that stand behind the frames.

namespace zelData {

using Session = FileJournal::Session;
using zel::uint64;
using zelIO::DiskFile;
using zelNet::StructuredMessage;

namespace {

zel::String print(const Json::Value& json) {
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "   ";
    return Json::writeString(builder, json) + "\n";
}

/// @return null for a text that is no JSON object
zel::ref_ptr<StructuredMessage> parse(const BinaryData* text, BinaryData* data) {
    const std::string_view bytes(reinterpret_cast<const char*>(text->getData()), text->getSize());
    Json::Value json;
    try {
        const std::unique_ptr<Json::CharReader> reader(Json::CharReaderBuilder().newCharReader());
        if (!readJson(*reader, bytes, json) || !json.isObject())
            return {};
    } catch (const Json::Exception&) { // nested too deep
        return {};
    }
    return zel::ref_ptr<StructuredMessage>(
        new StructuredMessage(zel::String(), json, data->getSize() == 0 ? nullptr : data));
}

double idOf(const StructuredMessage* message) {
    const Json::Value& header = std::as_const(*message).getHeader();
    return header.isMember("id") && header["id"].isNumeric() ? header["id"].asDouble() : 0;
}

} // namespace

zel::Vector<zel::String> Session::plotNames() const {
    zel::Vector<zel::String> names;
    for (const auto& entry : m_plots)
        names.push_back(entry.key);
    std::sort(names.begin(), names.end(), [this](const zel::String& a, const zel::String& b) {
        const uint64 first = m_plots.find(a)->value.offset;
        const uint64 second = m_plots.find(b)->value.offset;
        return first != second ? first < second : a < b;
    });
    return names;
}

void Session::getPlotList(zel::Vector<zel::String>& names) const {
    for (const zel::String& name : plotNames())
        names.push_back(name);
}

void Session::savePlot(const StructuredMessage* message) {
    const Json::Value& ePlot = message->getHeader();
    const bool hasName = ePlot.isObject() && ePlot.isMember("name");
    if (!hasName)
        std::cerr << "FileJournal: A plot has no name: " << print(ePlot) << std::flush;
    zelVerifyAs(hasName, "ePlot.hasMember(\"name\")");
    const zel::String text = print(ePlot);
    const BinaryData* segment = message->getBinarySegment();
    SavedPlot plot;
    plot.name = ePlot["name"].isConvertibleTo(Json::stringValue) ? ePlot["name"].asString() : std::string();
    plot.text = BinaryData::copy(text.data(), text.size());
    plot.data =
        segment == nullptr ? new BinaryData(0) : BinaryData::copy(segment->getData(), segment->getSize());
    appendPlot(plot);
}

void Session::appendPlot(const SavedPlot& plot) {
    DiskFile file(m_path, DiskFile::Mode::ReadWrite);
    uint64 size = 0;
    if (!file.isOpen() || !file.size(size))
        ZEL_THROW(std::runtime_error, "Could not write plot data to '" + m_path + "'.");
    const auto former = m_plots.find(plot.name);
    const bool isNew = former == m_plots.end();
    const PlotEntry formerEntry = isNew ? PlotEntry{} : former->value;
    m_plots.insert(plot.name, PlotEntry{size, plot.text->getSize(), plot.data->getSize()});
    try {
        requireWritableHeader("the plot", plot.name);
        if (!file.writeAt(size, plot.text->getData(), plot.text->getSize()) ||
            !file.writeAt(size + plot.text->getSize(), plot.data->getData(), plot.data->getSize()) ||
            !file.close())
            ZEL_THROW(std::runtime_error, "Could not write plot data to '" + m_path + "'.");
        writeHeader();
    } catch (...) {
        if (isNew)
            m_plots.erase(plot.name);
        else
            m_plots.insert(plot.name, formerEntry);
        DiskFile again(m_path, DiskFile::Mode::ReadWrite);
        if (!again.isOpen() || !again.cut(size))
            ZEL_LOG_WARNING("Journal '" << m_path << "': a part of the plot '" << plot.name
                                        << "' stays at its end");
        throw;
    }
}

bool Session::removePlot(const zel::String& name) {
    return m_plots.erase(name);
}

Session::SavedPlot Session::readPlot(const zel::String& name, const PlotEntry& entry) const {
    DiskFile file(m_path, DiskFile::Mode::Read);
    uint64 size = 0;
    const bool isInside = file.isOpen() && file.size(size) && entry.offset <= size &&
                          entry.headerSize <= size - entry.offset &&
                          entry.dataSize <= size - entry.offset - entry.headerSize;
    SavedPlot plot;
    if (isInside) {
        plot.name = name;
        plot.text = new BinaryData(entry.headerSize);
        plot.data = new BinaryData(entry.dataSize);
    }
    if (!isInside || !file.readAt(entry.offset, plot.text->getData(), entry.headerSize) ||
        !file.readAt(entry.offset + entry.headerSize, plot.data->getData(), entry.dataSize))
        ZEL_THROW(std::runtime_error, "Could not read plot data from '" + m_path + "'.");
    return plot;
}

StructuredMessage* Session::getPlot(const zel::String& name) const {
    const auto entry = m_plots.find(name);
    if (entry != m_plots.end()) {
        const SavedPlot plot = readPlot(name, entry->value);
        return parse(plot.text.get(), plot.data.get()).release_nodelete();
    }
    // One whose place the frames have taken meanwhile.
    for (const SavedPlot& plot : m_savedPlots)
        if (plot.name == name)
            return parse(plot.text.get(), plot.data.get()).release_nodelete();
    return nullptr;
}

void Session::getAllPlots(zel::Vector<zel::ref_ptr<StructuredMessage>>& plots) const {
    zel::Vector<zel::ref_ptr<StructuredMessage>> all;
    zel::Vector<zel::String> names;
    getPlotList(names);
    for (const zel::String& name : names)
        if (const zel::ref_ptr<StructuredMessage> plot{getPlot(name)})
            all.push_back(plot);
    std::stable_sort(
        all.begin(), all.end(), [](const auto& a, const auto& b) { return idOf(a.get()) < idOf(b.get()); });
    for (const auto& plot : all)
        plots.push_back(plot);
}

void Session::takePlots() {
    for (const zel::String& name : plotNames()) {
        if (m_plots.find(name)->value.offset < m_frameDataOffset)
            continue; // ahead of the frames
        try {
            const SavedPlot plot = readPlot(name, m_plots.find(name)->value);
            auto* const older = std::find_if(m_savedPlots.begin(),
                                             m_savedPlots.end(),
                                             [&](const auto& saved) { return saved.name == name; });
            if (older != m_savedPlots.end())
                m_savedPlots.erase(older);
            m_savedPlots.push_back(plot);
        } catch (const std::runtime_error&) {
            ZEL_LOG_WARNING("Journal '" << m_path << "': the plot '" << name << "' is lost");
        }
        m_plots.erase(name);
    }
}

} // namespace zelData
