#pragma once

#include "InspectionElements.h"
#include "InspectionRequest.h"
#include "InspectionTree.h"

#include <zel/Component.h>
#include <zel/Integers.h>
#include <zel/String.h>
#include <zel/Vector.h>
#include <zel/observer_ptr.h>
#include <zelData/Buffer.h>
#include <zelData/Value.h>
#include <zelNet/InspectionService.h>

#include <chrono>
#include <map>
#include <string>

namespace zelNet {

/// What the clients of an inspection service watch.
/// @threads as the service
class InspectionWatches {
public:
    using Time = std::chrono::steady_clock::time_point;

    /// Both outlive the watches.
    InspectionWatches(zel::Component* root, const TreeRevision& revision)
        : m_root(root), m_revision(revision) {}

    void add(InspectionRequest& request);
    void remove(InspectionRequest& request);
    void acknowledge(const InspectionRequest& request);
    /// Forgets what the client watches.
    void forget(WebSocket* socket);
    /// Sends what has changed and is due.
    /// @param clock  what updates have as "clock", in JSON
    /// @return whether anything was sent
    bool update(Time now, const std::string& clock);
    /// Whether an update is due.
    [[nodiscard]] bool isDue(Time now) const;

private:
    /// What one path leads to, and what its client has been told of it.
    struct Item {
        zel::String path;
        zel::observer_ptr<zel::Object> object;
        zelData::Value* value = nullptr; // of the object; one of the two
        const zelData::Buffer* buffer = nullptr;
        bool isOfChildren = false;
        bool isTold = false;
        bool isRemovalTold = false;
        const zelData::Format* format = nullptr; // of the layout
        ElementLayout layout;
        zel::Vector<zel::uint8> lastBytes;
        std::string lastText;
        zel::uint64 lastRevision = 0;
    };
    struct Watch {
        zel::Vector<Item> items;
        ElementRange range;
        std::chrono::milliseconds interval{};
        Time due;
        zel::uint64 treeRevision = 0;
        zel::uint64 sequence = 0;
        zel::uint64 acknowledged = 0;
        zel::size_t first = 0; // where the next update begins: what did not fit goes first
    };
    using Watches = std::map<zel::uint64, Watch>;
    struct Update;

    void find(Item& item) const;
    void refresh(Watch& watch) const;
    [[nodiscard]] static bool tell(Item& item, zel::size_t index, const Watch& watch, Update& update);
    [[nodiscard]] static std::string tellValue(Item& item);
    bool send(WebSocket* socket, zel::uint64 number, Watch& watch, const std::string& clock);

    zel::Component* m_root;
    const TreeRevision& m_revision;
    zel::uint32 m_lastMessage = 0; // the number of the last update, of any client
    std::map<WebSocket*, Watches> m_clients;
};

} // namespace zelNet
