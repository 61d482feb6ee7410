#include "InspectionWatches.h"

#include "InspectionTree.h"

#include <zel/ScalarParameter.h>
#include <zelData/Format.h>

#include <algorithm>
#include <cstring>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>

namespace zelNet {

using zel::size_t;
using zel::uint64;
using zel::uint8;

namespace {

constexpr uint64 MaxUnacknowledged = 2;
constexpr uint64 ShortestInterval = 16;
constexpr uint64 LongestInterval = 3'600'000;
/// Of the texts of one update, in bytes; see describeInspected.
constexpr size_t MaxUpdateText = size_t{700} * 1024;

} // namespace

/// An update that is being put together.
struct InspectionWatches::Update {
    struct Piece {
        const zelData::Buffer* buffer;
        ElementRange range;
        uint64 offset;
    };

    std::string items; // in JSON, with commas between them
    zel::Vector<Piece> pieces;
    uint64 numBytes = 0;

    [[nodiscard]] bool isFull() const { return items.size() > MaxUpdateText; }

    /// @param members  in JSON
    void add(size_t index, std::string_view members) {
        items += items.empty() ? "{\"item\":" : ",{\"item\":";
        items += std::to_string(index);
        items += ',';
        items += members;
        items += '}';
    }

    [[nodiscard]] zel::ref_ptr<zelData::BinaryData> payload() const {
        if (numBytes == 0)
            return nullptr;
        zel::ref_ptr<zelData::BinaryData> bytes(new zelData::BinaryData(numBytes));
        uint64 end = 0;
        for (const Piece& piece : pieces) {
            std::memset(bytes->getData() + end, 0, piece.offset - end);
            copyElements(bytes->getData() + piece.offset, *piece.buffer, piece.range);
            end = piece.offset + piece.range.count * piece.buffer->getElementSize();
        }
        return bytes;
    }
};

void InspectionWatches::add(InspectionRequest& request) {
    const uint64 number = request.wholeNumber("watch", ~zel::uint32{0});
    const zel::Vector<zel::String> paths = request.texts("paths", InspectionService::MaxPaths);
    Watch watch;
    watch.range.begin = request.wholeNumber("begin", 0, ~uint64{0});
    watch.range.count = request.wholeNumber("count", ~uint64{0}, ~uint64{0});
    watch.range.stride = request.wholeNumber("stride", 1, ~uint64{0});
    const uint64 interval = request.wholeNumber("interval", ShortestInterval, LongestInterval);
    if (interval < ShortestInterval || watch.range.stride == 0)
        throw std::runtime_error("'interval' must be at least 16, and 'stride' at least 1");
    watch.interval = std::chrono::milliseconds(interval);

    Watches& watches = m_clients[request.socket];
    size_t numPaths = paths.size();
    for (const auto& [other, present] : watches)
        numPaths += other == number ? 0 : present.items.size();
    if (numPaths > InspectionService::MaxPaths ||
        (!watches.contains(number) && watches.size() == InspectionService::MaxWatches))
        throw std::runtime_error("There may be 64 watches of 1024 paths in all");

    Json::Value& items = request.response["items"] = Json::Value(Json::arrayValue);
    for (const zel::String& path : paths) {
        Item item;
        item.path = path;
        find(item);
        Json::Value entry;
        entry["path"] = static_cast<const std::string&>(path);
        entry["kind"] = item.value != nullptr ? "value" : item.buffer != nullptr ? "buffer" : "none";
        const zelData::Format* format = item.value != nullptr    ? item.value->getFormat()
                                        : item.buffer != nullptr ? item.buffer->getFormat()
                                                                 : nullptr;
        entry["type"] = format == nullptr ? "" : static_cast<const std::string&>(format->fullName());
        items.append(entry);
        watch.items.push_back(std::move(item));
    }
    watch.treeRevision = m_revision.get();
    watches[number] = std::move(watch);
}

void InspectionWatches::remove(InspectionRequest& request) {
    const uint64 number = request.wholeNumber("watch", ~zel::uint32{0});
    const auto client = m_clients.find(request.socket);
    if (client == m_clients.end() || client->second.erase(number) == 0)
        throw std::runtime_error("There is no watch " + std::to_string(number));
}

void InspectionWatches::acknowledge(const InspectionRequest& request) {
    const auto client = m_clients.find(request.socket);
    if (client == m_clients.end())
        return;
    const auto watch = client->second.find(request.wholeNumber("watch", ~zel::uint32{0}));
    if (watch == client->second.end())
        return;
    const uint64 sequence = request.wholeNumber("sequence", ~uint64{0});
    Watch& w = watch->second;
    w.acknowledged = std::max(w.acknowledged, std::min(sequence, w.sequence));
}

void InspectionWatches::forget(WebSocket* socket) {
    m_clients.erase(socket);
}

void InspectionWatches::find(Item& item) const {
    zel::Object* object = findInspected(m_root, item.path);
    item.isOfChildren = object != nullptr && isOfChildren(m_root, item.path);
    if (item.object == object && object != nullptr)
        return;
    item.object = object;
    const auto* parameter = dynamic_cast<zel::ScalarParameter*>(object);
    item.value = parameter == nullptr ? dynamic_cast<zelData::Value*>(object) : parameter->getValue();
    item.buffer = dynamic_cast<zelData::Buffer*>(object);
    item.isTold = false;
}

void InspectionWatches::refresh(Watch& watch) const {
    const bool hasTreeChanged = std::exchange(watch.treeRevision, m_revision.get()) != m_revision.get();
    for (Item& item : watch.items) {
        // A parameter may have got another value meanwhile.
        const bool isParameter = item.value != nullptr && item.object != item.value;
        if (hasTreeChanged || !item.object || !item.isOfChildren || isParameter) {
            if (isParameter)
                item.object = nullptr;
            find(item);
        }
    }
}

/// @return the value in JSON; empty if it has been told
std::string InspectionWatches::tellValue(Item& item) {
    const zelData::Format* format = item.value->getFormat();
    if (item.format != format) {
        item.format = format;
        item.layout = ElementLayout(format);
        item.isTold = false;
    }
    if (item.layout.components == 0) {
        std::string text = jsonOf(valueToJson(*item.value, item.layout));
        if (item.isTold && item.lastText == text)
            return {};
        item.lastText = text;
        return text;
    }
    const auto* bytes = static_cast<const uint8*>(item.value->getData());
    const size_t size = format->getSize();
    if (item.isTold && item.lastBytes.size() == size && std::memcmp(item.lastBytes.data(), bytes, size) == 0)
        return {};
    item.lastBytes.assign(bytes, bytes + size);
    return item.layout.components == 1 ? item.layout.numberToText(bytes)
                                       : jsonOf(valueToJson(*item.value, item.layout));
}

/// @return false if there is no room for it
bool InspectionWatches::tell(Item& item, size_t index, const Watch& watch, Update& update) {
    constexpr uint64 Alignment = 16;
    if (!item.object || (item.value == nullptr && item.buffer == nullptr)) {
        if (!item.isRemovalTold)
            update.add(index, "\"removed\":true");
        item.isRemovalTold = true;
        item.isTold = false;
        return true;
    }
    if (item.value != nullptr) {
        const std::string value = tellValue(item);
        if (!value.empty())
            update.add(index, "\"value\":" + value);
    } else if (!item.isTold || item.lastRevision != item.buffer->getRevision()) {
        const uint64 offset = (update.numBytes + Alignment - 1) / Alignment * Alignment;
        const ElementRange range = watch.range.clipped(*item.buffer, InspectionService::MaxElementBytes);
        const uint64 numBytes =
            item.buffer->hasPlainElements() ? range.count * item.buffer->getElementSize() : 0;
        if (offset + numBytes > InspectionService::MaxElementBytes && update.numBytes != 0)
            return false;
        Json::Value json;
        update.numBytes = offset + describeElements(json, *item.buffer, range, offset);
        if (numBytes != 0)
            update.pieces.push_back({item.buffer, range, offset});
        const std::string object = jsonOf(json);
        update.add(index, std::string_view(object).substr(1, object.size() - 2));
        item.lastRevision = item.buffer->getRevision();
    }
    item.isRemovalTold = false;
    item.isTold = true;
    return true;
}

bool InspectionWatches::send(WebSocket* socket, uint64 number, Watch& watch, const std::string& clock) {
    refresh(watch);
    Update update;
    const size_t size = watch.items.size();
    size_t done = 0;
    for (; done < size && !update.isFull(); ++done) {
        const size_t index = (watch.first + done) % size;
        if (!tell(watch.items[index], index, watch, update))
            break;
    }
    watch.first = size == 0 ? 0 : (watch.first + done) % size;
    if (update.items.empty())
        return false;
    const std::string header = "{\"watch\":" + std::to_string(number) +
                               ",\"sequence\":" + std::to_string(++watch.sequence) + ",\"clock\":" + clock +
                               ",\"items\":[" + update.items + "]}";
    pushText(socket, "Watch.Update", ++m_lastMessage, header, update.payload().get());
    return true;
}

bool InspectionWatches::isDue(Time now) const {
    for (const auto& client : m_clients)
        for (const auto& entry : client.second)
            if (entry.second.due <= now)
                return true;
    return false;
}

bool InspectionWatches::update(Time now, const std::string& clock) {
    bool hasSent = false;
    for (auto& [socket, watches] : m_clients) {
        if (!socket->isOpen() || socket->isAnonymous())
            continue;
        for (auto& [number, watch] : watches) {
            if (now < watch.due || watch.sequence - watch.acknowledged >= MaxUnacknowledged)
                continue;
            hasSent = send(socket, number, watch, clock) || hasSent;
            watch.due = now + watch.interval;
        }
    }
    return hasSent;
}

} // namespace zelNet
