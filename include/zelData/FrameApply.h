#pragma once

#include <zel/Component.h>
#include <zel/Export.h>
#include <zel/HashTable.h>
#include <zel/Integers.h>
#include <zel/Path.h>
#include <zel/String.h>
#include <zel/Vector.h>
#include <zel/ref_ptr.h>
#include <zelData/Frame.h>
#include <zelData/FrameIO.h>

namespace zelData {

class Buffer;
class EntityStorage;
class Value;

/// Writes frames into a live tree: the other way round of FrameCapture. A key frame gives all data that it
/// holds, an increment what has changed since the frame before, a merged frame both.
///
///     const zel::ref_ptr<FrameApply> apply(new FrameApply(zel::root()));
///     apply->addDataBinding("Simulation", true);
///     while (const zel::ref_ptr<Frame> frame = track->popFrame(true))
///         apply->writeFrame(frame.get());
///
/// Of a binding, the internal path says where in the frame the data are, and the external one where they go
/// in the tree; what is not recursive is as with FrameCapture. Without bindings, all of the frame goes to the
/// paths that it has, and all of the tree is bound.
///
/// Storages come first: they get the size, the capacity and the ids that were recorded, with those that are
/// free. Then follow values, and then the elements of buffers and columns; each buffer that changes is
/// committed once. No storage tells of events, and no instance is constructed. Handles lead to the storage at
/// the path of the one that was recorded; a handle of one that is not in the frames becomes null.
///
/// A key frame empties the bound buffers and storages that it lacks. A value that is bound, or follows a
/// function, is left alone. Where the tree has nothing of the name, the kind and the format, nothing is
/// written, which is told once for each path, as a warning.
///
/// Stands at the end of a track as a writer without a thread: the caller pops and writes.
///
/// Owned through ref_ptr.
/// @threads owner thread of the tree: between task executions
/// @cost a copy of all elements that the frame holds
class ZEL_CORE_API FrameApply : public FrameWriter {
public:
    /// @param root  where the external paths begin; kept alive
    explicit FrameApply(zel::Component* root);
    ~FrameApply() override;

    /// @throws std::runtime_error  for a table of ids that is none: storages ahead of it are as the frame
    /// tells
    ///     then, and nothing else is written. What listeners throw, the first of them once all is written
    void writeFrame(const Frame* frame) override;

    /// What has not been written, one entry for each: "'PATH' is not replayed: REASON", with the path in the
    /// tree.
    [[nodiscard]] const zel::Vector<zel::String>& getOmissions() const noexcept { return m_omissions; }

private:
    class Pass;

    void omit(const zel::Path& path, const zel::String& reason);

    zel::ref_ptr<zel::Component> m_root;
    zel::Vector<zel::String> m_omissions;
    /// Where the storages of the frames lie in the tree, by their recorded ids; since the last key frame.
    zel::HashTable<zel::uint32, zel::Path> m_storages;
};

} // namespace zelData
