#pragma once

#include <zel/Export.h>
#include <zel/Object.h>
#include <zel/Path.h>
#include <zel/String.h>
#include <zel/Vector.h>
#include <zel/Xml.h>
#include <zel/ref_ptr.h>
#include <zelData/Frame.h>
#include <zelData/SerializedFrame.h>

#include <atomic>

namespace zelData {

class Track;

/// An end of a track: the base of all that reads frames from somewhere or writes them. The bindings say which
/// paths of frames matter to it; without any, all do.
///
/// Owned through ref_ptr.
/// @threads external lock: the track's, once it has one
class ZEL_CORE_API FrameIO : public zel::Object {
public:
    using BindingVector = zel::Vector<zel::ref_ptr<Frame::DataBinding>>;

    /// @param threaded  whether a track runs a thread for this end
    explicit FrameIO(bool threaded = true);
    ~FrameIO() override;

    /// @return a new binding without owner
    [[nodiscard]] virtual Frame::DataBinding* createDataBinding(const zel::Path& internalPath,
                                                                const zel::Path& externalPath);

    [[nodiscard]] Track* getTrack() const noexcept { return m_track; }
    void setTrack(Track* track) noexcept { m_track = track; }
    [[nodiscard]] SerializedFrame::HeaderFormat getHeaderFormat() const noexcept { return m_headerFormat; }
    void setHeaderFormat(SerializedFrame::HeaderFormat format) noexcept { m_headerFormat = format; }
    /// Whether the stream has ended.
    /// @threads any thread
    [[nodiscard]] bool isEOF() const noexcept { return m_isEOF.load(std::memory_order_relaxed); }
    [[nodiscard]] bool isThreaded() const noexcept { return m_threaded; }

    /// Enters a binding by the order of bindingComparor; one that is there already stays alone.
    void addDataBinding(Frame::DataBinding* binding);
    void addDataBinding(const zel::Path& internalPath, const zel::Path& externalPath, bool recursive);
    /// Of a path to itself.
    void addDataBinding(const zel::Path& path, bool recursive);
    /// @return whether there was one
    bool removeDataBinding(const zel::Path& internalPath, const zel::Path& externalPath);
    bool removeDataBinding(const zel::Path& path) { return removeDataBinding(path, path); }
    void clearDataBindings() { m_dataBindings.clear(); }
    /// Adds the bindings of an XML file, all or none:
    ///
    ///     <DataFrame>
    ///         <DataBinding path="Sun.mass"/>
    ///         <DataBinding internal="Sun.planets" external="planets" recursive="true"/>
    ///     </DataFrame>
    ///
    /// A file with another root has none, which is told by a warning.
    /// @throws std::runtime_error with file and, for a fault in it, the row
    void loadDataBindings(const zel::String& file);
    /// The same from the children of an element.
    /// @throws std::runtime_error with file and row
    void loadDataBindings(const TiXmlElement* element);
    /// The same from a JSON file: {"DataPaths": ["Sun.mass", {"path": "Sun.planets", "recursive": true}]}
    void loadDataBindingsJSON(const zel::String& file);
    [[nodiscard]] const BindingVector& getDataBindings() const noexcept { return m_dataBindings; }
    /// Whether the first stands ahead of the second: by the text of the internal paths, then of the external
    /// ones.
    [[nodiscard]] static bool bindingComparor(const Frame::DataBinding* a, const Frame::DataBinding* b);

protected:
    void setEndOfFile(bool flag) noexcept { m_isEOF.store(flag, std::memory_order_relaxed); }

private:
    [[nodiscard]] zel::ref_ptr<Frame::DataBinding>
    makeBinding(const zel::Path& internalPath, const zel::Path& externalPath, bool recursive);
    [[nodiscard]] zel::ref_ptr<Frame::DataBinding> makeBinding(const TiXmlElement* element);

    Track* m_track = nullptr;
    SerializedFrame::HeaderFormat m_headerFormat = SerializedFrame::INVALID;
    bool m_threaded;
    BindingVector m_dataBindings;
    std::atomic<bool> m_isEOF{false};
};

/// Where frames come from.
class ZEL_CORE_API FrameReader : public FrameIO {
public:
    using FrameIO::FrameIO;

    /// @return a new frame without owner; null at the end
    [[nodiscard]] virtual Frame* readFrame() = 0;
    /// The index of the frame that readFrame gives next; 0 by default.
    [[nodiscard]] virtual zel::uint64 getNextFrameIndex();
    /// Goes on by the track's stride. Does nothing by default.
    virtual void advanceToNextFrame();
    /// @return whether there is such a frame; false by default
    virtual bool jumpToFrame(zel::uint64 index);
    virtual bool jumpToTime(double time);
    /// Whether the node at the path of a frame is wanted; true by default.
    [[nodiscard]] virtual bool shouldExtract(const zel::Path& path);
    /// Of the simulation between two indices; -1, by default, where it is not known.
    [[nodiscard]] virtual double getTimeStep();
    /// How far apart the indices of neighbouring frames are; 1 by default.
    [[nodiscard]] virtual zel::uint64 getFrameStride();
};

/// Where frames go.
class ZEL_CORE_API FrameWriter : public FrameIO {
public:
    using FrameIO::FrameIO;

    virtual void writeFrame(const Frame* frame) = 0;
    /// Does nothing by default.
    virtual void forceFlush();
    /// No frame follows. Does nothing by default.
    virtual void endOfStream();

    void setEOF(bool flag) noexcept { setEndOfFile(flag); }
};

/// Prints each frame on the standard output stream.
class ZEL_CORE_API DebugFrameWriter : public FrameWriter {
public:
    using FrameWriter::FrameWriter;

    /// "Frame 1 (time: 0.500000, dt: 0.500000)", and the frame's subtree.
    void writeFrame(const Frame* frame) override;
};

} // namespace zelData
