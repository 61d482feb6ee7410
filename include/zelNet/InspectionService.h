#pragma once

#include <zel/Export.h>
#include <zel/Integers.h>
#include <zel/Name.h>
#include <zel/Referenced.h>
#include <zel/String.h>
#include <zel/Vector.h>
#include <zelNet/ControlChannel.h>

#include <functional>
#include <memory>

namespace zel {
class Clock;
class Component;
} // namespace zel

namespace zelNet {

/// Lets clients look into a running simulation through a control channel: they walk the tree, read and watch
/// values and buffers, follow the log and, where they may, set values and drive clocks.
///
///     const ref_ptr<InspectionService> inspection(
///         new InspectionService(new WebSocket::ControlChannel(AnyPort, token), zel::root()));
///     for (;;) {
///         clock->tick();
///         inspection->service();
///     }
///
/// docs/remote-protocol.md tells what the messages hold. All work is done by `service`, between two ticks, so
/// that clients see the model at rest and nothing waits for them: one that is slow gets fewer updates, and
/// always the latest.
///
/// What clients send is not trusted, but who may set values or call tasks can do what a model file can. At
/// first they may do neither. All that a client has asked for ends with its connection.
///
/// Owned through ref_ptr.
/// @threads all from the thread that ticks, not within a tick; the log lines of any thread are passed on
class ZEL_CORE_API InspectionService : public zel::Referenced {
public:
    static constexpr zel::uint32 Protocol = 1;
    // Of each client
    static constexpr zel::size_t MaxWatches = 64;
    static constexpr zel::size_t MaxPaths = 1024;
    static constexpr zel::size_t MaxLogLines = 1000;
    /// Bytes of elements in one message.
    static constexpr zel::size_t MaxElementBytes = zel::size_t{16} << 20;

    /// Registers its handlers with the channel, and takes them away in the end. One service a channel.
    /// @param channel  kept alive, so it is owned through ref_ptr
    /// @param root  where paths begin; kept alive
    InspectionService(WebSocket::ControlChannel* channel, zel::Component* root);
    InspectionService(const InspectionService&) = delete;
    InspectionService& operator=(const InspectionService&) = delete;
    ~InspectionService() override;

    /// Whether clients may set values and drive clocks.
    void setWritable(bool isWritable) noexcept;
    [[nodiscard]] bool isWritable() const noexcept;
    /// Whether clients may call tasks, of a service that is writable as well.
    void setCallable(bool isCallable) noexcept;
    [[nodiscard]] bool isCallable() const noexcept;

    // Tracks: what has frames over time. They are counted from 0 and stay as long as the service.

    /// A recording that clients may look into, also while it is being written, and that they move through:
    /// a component of the name, at the end of the root, shows the frame at the position that all share. It
    /// stays empty until a client asks, or openJournal. Whoever records the root records it, too.
    /// @return the id of the track
    zel::uint64 addJournal(const zel::String& file, const zel::Name& name);
    /// @throws std::runtime_error  for a file that is no journal, and an id that is not one of a journal
    void openJournal(zel::uint64 id);
    /// Frames of the running tree: what lies below the component whenever the clock has ticked. Neither is
    /// kept alive.
    /// @return the id of the track
    zel::uint64 addLiveTrack(const zel::Name& name, zel::Clock* clock, zel::Component* component);

    /// Serves the channel, makes the ticks that clients have asked for, for some 20 ms, and sends what is
    /// due. Waits for nobody.
    /// @return whether there was anything to do. A program whose clocks are paused may sleep a little if not
    bool service();

    /// Where frames of the program go, for those who look after it.
    struct Stream {
        zel::String name; ///< such as "tcp"
        zel::uint16 port = 0;
        zel::uint64 numFrames = 0;  ///< that were sent
        zel::uint64 numLeftOut = 0; ///< since readers were too slow
        zel::uint64 numClients = 0;
        zel::uint64 numQueuedBytes = 0; ///< that wait for them
    };
    /// @param streams  is asked within service(), whenever a client asks; empty for none
    void setStreams(std::function<zel::Vector<Stream>()> streams);

    [[nodiscard]] WebSocket::ControlChannel* getChannel() const noexcept;
    [[nodiscard]] zel::Component* getRoot() const noexcept;

private:
    class Implementation;
    std::unique_ptr<Implementation> m_implementation;
};

} // namespace zelNet
