#include "InspectionLog.h"

#include <zelNet/InspectionService.h>

#include <algorithm>
#include <chrono>
#include <stdexcept>
#include <utility>

namespace zelNet {

using zel::Notify;

namespace {

/// A client for whom more waits gets no lines for now.
constexpr zel::size_t MostQueuedBytes = zel::size_t{1} << 20;

constexpr std::pair<const char*, Notify::NotifyLevel> Levels[] = {
    {"debug", Notify::Debug}, {"info", Notify::Info}, {"warning", Notify::Warning}, {"error", Notify::Error}};

const char* nameOfLevel(int level) {
    for (const auto& [name, value] : Levels)
        if (value == level)
            return name;
    return "info";
}

} // namespace

void InspectionLog::message(const std::string& text, int level) {
    const std::chrono::duration<double> time = std::chrono::system_clock::now().time_since_epoch();
    const std::lock_guard lock(m_mutex);
    for (auto& [socket, client] : m_clients) {
        if (level < client.level)
            continue;
        if (client.lines.size() == InspectionService::MaxLogLines) {
            client.lines.pop_front();
            ++client.numDropped;
        }
        client.lines.push_back({level, time.count(), cutText(text)});
    }
}

void InspectionLog::subscribe(const InspectionRequest& request) {
    const zel::String name = request.text("level");
    const auto* level = std::find_if(
        std::begin(Levels), std::end(Levels), [&name](const auto& entry) { return name == entry.first; });
    if (name == "none") {
        forget(request.socket);
        return;
    }
    if (level == std::end(Levels))
        throw std::runtime_error("'level' must be one of debug, info, warning, error and none");
    {
        const std::lock_guard lock(m_mutex);
        m_clients[request.socket].level = level->second;
    }
    adjustLevel();
}

void InspectionLog::forget(WebSocket* socket) {
    {
        const std::lock_guard lock(m_mutex);
        m_clients.erase(socket);
    }
    adjustLevel();
}

void InspectionLog::adjustLevel() {
    int level = Notify::Error;
    for (const auto& client : m_clients)
        level = std::min(level, client.second.level);
    Notify::instance()->setNotifyLevel(this, static_cast<Notify::NotifyLevel>(level));
}

bool InspectionLog::send() {
    bool hasSent = false;
    for (auto& [socket, client] : m_clients) {
        if (!socket->isOpen() || socket->isAnonymous() || socket->getNumQueuedBytes() > MostQueuedBytes)
            continue;
        std::deque<Line> lines;
        zel::uint64 numDropped = 0;
        {
            const std::lock_guard lock(m_mutex);
            std::swap(lines, client.lines);
            numDropped = std::exchange(client.numDropped, 0);
        }
        for (const Line& line : lines) {
            Json::Value header;
            header["level"] = nameOfLevel(line.level);
            header["time"] = line.time;
            header["text"] = line.text;
            if (numDropped != 0)
                header["dropped"] = static_cast<Json::UInt64>(std::exchange(numDropped, 0));
            push(socket, "Log.Line", header, nullptr);
        }
        hasSent = hasSent || !lines.empty();
    }
    return hasSent;
}

} // namespace zelNet
