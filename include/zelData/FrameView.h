#pragma once

#include <zel/Export.h>
#include <zel/Integers.h>
#include <zel/InvalidIndex.h>
#include <zel/Path.h>
#include <zel/ref_ptr.h>
#include <zelData/FileJournal.h>
#include <zelData/PlainFrame.h>

#include <span>
#include <type_traits>

namespace zelData {

/// Looks at the frames of a journal where they lie: its file is mapped, and nothing of it is copied. A frame
/// is seen as it stands in the file, which for increments is what has changed.
///
///     FrameView view(journal->getFileSession("run"));
///     if (view.show(500))
///         for (const double speed : view.getElements<double>("sun.planets.speed"))
///             ...
///
/// The journal may grow meanwhile, see FileJournal::Session::refresh. Who cuts the file while it is mapped
/// takes the process with it (SIGBUS) that looks behind its end.
/// @threads external lock; the elements may be read by any thread
/// @cost show: its header is read, and the names of the frames since the key frame that are not known yet
class ZEL_CORE_API FrameView {
public:
    /// @param session  kept alive
    explicit FrameView(FileJournal::Session* session);
    ~FrameView();
    FrameView(const FrameView&) = delete;
    FrameView& operator=(const FrameView&) = delete;

    /// Looks at the frame of the index. What was got of the one before stays valid while somebody holds its
    /// PlainFrame, or a copy.
    /// @return false, with nothing changed, if there is none
    /// @throws std::runtime_error  for a frame that is damaged, and a file that cannot be read; no frame is
    ///     shown then
    bool show(zel::uint64 index);

    /// An empty one until the first is shown.
    [[nodiscard]] const PlainFrame& getFrame() const noexcept { return m_frame; }
    /// Null without one.
    [[nodiscard]] const PlainFrame::Node* find(const zel::Path& path) const { return m_frame.find(path); }
    /// The elements of the value or plain buffer at the path.
    /// @throws std::runtime_error  where there is none, or its elements are not of the size of T
    template <typename T>
    [[nodiscard]] std::span<const T> getElements(const zel::Path& path) const {
        static_assert(std::is_trivially_copyable_v<T>);
        const PlainFrame::Node& node = require(path, sizeof(T), alignof(T));
        return {reinterpret_cast<const T*>(node.bytes()), node.numElements};
    }

private:
    class Mapping;

    [[nodiscard]] const PlainFrame::Node&
    require(const zel::Path& path, zel::size_t elementSize, zel::size_t alignment) const;
    void map(zel::uint64 end);
    /// Of the frames ahead of the position, from the one behind the last on if it belongs to the same key
    /// frame.
    void readNames(zel::uint64 last, zel::uint64 position);
    [[nodiscard]] PlainFrame parse(const FileJournal::FrameInfo& info, bool withData);

    zel::ref_ptr<FileJournal::Session> m_session;
    zel::ref_ptr<Mapping> m_mapping;
    zel::uint64 m_position = zel::InvalidIndex; // of the frame that is shown
    PlainFrame::Names m_names;                  // up to it
    PlainFrame m_frame;
};

} // namespace zelData
