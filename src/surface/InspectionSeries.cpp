#include "InspectionSeries.h"

#include "InspectionElements.h"
#include "InspectionTree.h"

#include <algorithm>
#include <cstring>
#include <stdexcept>
#include <string>
#include <utility>

namespace zelNet {

using zel::size_t;
using zel::uint64;

namespace {

constexpr uint64 FewestPoints = 16;
constexpr uint64 MostPoints = 100'000;
constexpr uint64 DefaultPoints = 4000;
/// Of rows that wait for their message.
constexpr size_t MaxPiece = size_t{1} << 20;
/// Bytes that wait for a client until its series are read on.
constexpr size_t MaxQueued = size_t{4} << 20;

std::optional<uint64> optionalNumber(const Json::Value& entry, const char* name) {
    const Json::Value& value = entry[name];
    if (value.isNull())
        return {};
    if (!value.isNumeric() || !value.isUInt64())
        throw std::runtime_error(std::string("'") + name + "' must be a whole number from 0 on");
    return value.asUInt64();
}

/// Where the object stands in the frames.
std::vector<zel::Name> namesBelow(const JournalTree* tree, const zel::Object* object) {
    std::vector<zel::Name> names;
    for (; object != tree; object = object->getContext())
        names.push_back(object->getName());
    std::reverse(names.begin(), names.end());
    return names;
}

bool isReady(WebSocket* socket) {
    return socket->isOpen() && !socket->isAnonymous() && socket->getNumQueuedBytes() <= MaxQueued;
}

} // namespace

std::vector<SeriesItem> InspectionSeries::itemsOf(const InspectionRequest& request) const {
    constexpr const char* Refusal = "'items' must be a list of 1 to 64 objects, each with a text 'path'";
    const Json::Value& list = request.member("items");
    if (!list.isArray() || list.empty() || list.size() > MaxItems)
        throw std::runtime_error(Refusal);
    std::vector<SeriesItem> items;
    for (const Json::Value& entry : list) {
        if (!entry.isObject() || !entry["path"].isString())
            throw std::runtime_error(Refusal);
        SeriesItem item;
        item.path = cutText(entry["path"].asString());
        item.index = optionalNumber(entry, "index");
        item.id = optionalNumber(entry, "id");
        items.push_back(std::move(item));
    }
    return items;
}

void InspectionSeries::start(InspectionRequest& request) {
    const uint64 number = request.wholeNumber("series", ~zel::uint32{0});
    std::vector<SeriesItem> items = itemsOf(request);
    const TimeRange range(request);
    const uint64 points = request.wholeNumber("points", DefaultPoints, MostPoints);
    if (points < FewestPoints)
        throw std::runtime_error("'points' must be a whole number from 16 to 100000");
    OfClient& ofClient = m_clients[request.socket];
    if (!ofClient.contains(number) && ofClient.size() == MaxSeries)
        throw std::runtime_error("There may be 16 series under way");
    JournalTree& tree = *m_tracks.requireJournal(request, "its frames are not kept").tree;
    for (SeriesItem& item : items) {
        try {
            const zel::Object& object = requireInspected(m_root, item.path);
            if (InspectionTracks::treeOf(&object) != &tree)
                throw std::runtime_error("'" + item.path + "' is not part of the track");
            item.names = namesBelow(&tree, &object);
        } catch (const std::runtime_error& error) {
            item.error = error.what();
        }
    }
    static const zelData::PlainFrame Nothing;
    const zelData::PlainFrame& present =
        tree.getNumFrames() == 0 ? Nothing : tree.getJournal()->readComplete(tree.getPlace());
    Series series{{tree.getJournal(), present, items, {range.start, range.end}, points}};
    const JournalSeries& rows = series.rows;
    request.response["numFrames"] = static_cast<Json::UInt64>(rows.getNumFrames());
    request.response["framesPerPoint"] = static_cast<Json::UInt64>(rows.getFramesPerPoint());
    request.response["start"] = rows.getNumFrames() == 0 ? Json::Value() : realToJson(rows.getStartTime());
    request.response["end"] = rows.getNumFrames() == 0 ? Json::Value() : realToJson(rows.getEndTime());
    ofClient.insert_or_assign(number, std::move(series));
}

void InspectionSeries::stop(InspectionRequest& request) {
    const uint64 number = request.wholeNumber("series", ~zel::uint32{0});
    const auto client = m_clients.find(request.socket);
    if (client == m_clients.end() || client->second.erase(number) == 0)
        throw std::runtime_error("There is no series " + std::to_string(number) + " under way");
}

void InspectionSeries::readUntil(Time end) {
    std::vector<JournalSeries*> waiting;
    for (auto& [socket, ofClient] : m_clients)
        if (isReady(socket))
            for (auto& entry : ofClient)
                waiting.push_back(&entry.second.rows);
    if (waiting.empty())
        return;
    // One that is slow to read is not always the first.
    std::rotate(waiting.begin(),
                waiting.begin() + static_cast<std::ptrdiff_t>(m_turn++ % waiting.size()),
                waiting.end());
    for (bool goesOn = true; goesOn;) {
        goesOn = false;
        for (JournalSeries* series : waiting) {
            if (series->isDone() || series->getNumBytes() > MaxPiece)
                continue;
            series->readNext();
            goesOn = true;
            if (std::chrono::steady_clock::now() >= end)
                return;
        }
    }
}

bool InspectionSeries::update(Time end) {
    if (m_clients.empty())
        return false;
    readUntil(end);
    bool hasSent = false;
    for (auto& [socket, ofClient] : m_clients) {
        if (!isReady(socket))
            continue;
        for (auto series = ofClient.begin(); series != ofClient.end();) {
            hasSent = send(socket, series->first, series->second) || hasSent;
            series = series->second.rows.isDone() ? ofClient.erase(series) : std::next(series);
        }
    }
    return hasSent;
}

bool InspectionSeries::send(WebSocket* socket, uint64 number, Series& series) {
    const bool isDone = series.rows.isDone();
    const std::string& failure = series.rows.getFailure();
    const bool hasRows = !series.rows.getTimes().empty();
    if (!hasRows && !isDone)
        return false;
    if (hasRows || failure.empty())
        sendPiece(socket, number, series, isDone && failure.empty(), {});
    if (isDone && !failure.empty())
        sendPiece(socket, number, series, true, failure);
    return true;
}

void InspectionSeries::sendPiece(
    WebSocket* socket, uint64 number, Series& series, bool isDone, const std::string& failure) {
    const std::vector<double>& times = series.rows.getTimes();
    Json::Value header;
    header["series"] = static_cast<Json::UInt64>(number);
    header["first"] = static_cast<Json::UInt64>(series.numSent);
    header["count"] = static_cast<Json::UInt64>(times.size());
    header["done"] = isDone;
    std::vector<const std::vector<double>*> pieces;
    uint64 offset = 0;
    const auto place = [&](Json::Value& json, const std::vector<double>& numbers) {
        json["byteOffset"] = static_cast<Json::UInt64>(offset);
        json["numBytes"] = static_cast<Json::UInt64>(numbers.size() * sizeof(double));
        offset += numbers.size() * sizeof(double);
        pieces.push_back(&numbers);
    };
    place(header["times"], times);
    Json::Value& items = header["items"] = Json::Value(Json::arrayValue);
    const auto& columns = series.rows.getColumns();
    for (size_t i = 0; i < columns.size(); ++i) {
        const std::string& error = columns[i].error.empty() ? failure : columns[i].error;
        if (!columns[i].error.empty() && series.areErrorsTold)
            continue;
        Json::Value item;
        item["item"] = static_cast<Json::UInt64>(i);
        if (!error.empty())
            item["error"] = error;
        else {
            item["components"] = columns[i].components;
            if (columns[i].id)
                item["id"] = wholeToJson(*columns[i].id);
            place(item, columns[i].rows);
        }
        items.append(item);
    }
    const zel::ref_ptr<zelData::BinaryData> payload(new zelData::BinaryData(offset));
    zel::uint8* bytes = payload->getData();
    for (const std::vector<double>* numbers : pieces) {
        if (!numbers->empty())
            std::memcpy(bytes, numbers->data(), numbers->size() * sizeof(double));
        bytes += numbers->size() * sizeof(double);
    }
    pushText(socket, "Track.Points", ++m_lastMessage, jsonOf(header), payload.get());
    series.numSent += times.size();
    series.areErrorsTold = true;
    series.rows.take();
}

} // namespace zelNet
