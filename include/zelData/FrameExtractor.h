#pragma once

#include <zel/Export.h>
#include <zel/Integers.h>
#include <zel/Name.h>
#include <zel/String.h>
#include <zel/Vector.h>
#include <zel/ref_ptr.h>
#include <zelData/ByteStream.h>
#include <zelData/SerializedNodes.h>

namespace zelData {

/// Reads the binary header of one frame.
/// @threads external lock
class ZEL_CORE_API SerializedFrame::BinaryHeader::FrameExtractor {
public:
    /// The blocks, the names and the reader outlive it.
    /// @param reader  is asked which nodes are wanted; null wants all
    FrameExtractor(const BinaryData* header,
                   const BinaryData* segment,
                   NameLookup& names,
                   FrameReader* reader,
                   OnFault onFault = OnFault::EndProcess);

    /// The frame; see SerializedFrame::extractFrame.
    /// @param source  where the elements are in place of the segment, of which only the size is asked for
    /// then
    [[nodiscard]] zelData::Frame* extract(bool clearNameTableOnKeyFrame, ElementSource* source = nullptr);
    /// The first record of the header.
    [[nodiscard]] Frame extractMeta();
    void extractNameTable();
    void extractEvents();

    // Each reads one node with all below it.

    /// @param skip  whether to pass over it
    /// @return a new node without owner; null for one that is passed over
    [[nodiscard]] Node* extractNode(bool skip);

    [[nodiscard]] zel::Name getName(zel::uint32 id) const;
    /// @throws std::runtime_error  where faults throw; an unknown format ends the process otherwise
    [[nodiscard]] const Format* getFormat(zel::uint32 id) const;
    [[nodiscard]] EntityModel* getEntityModel(zel::uint32 id) const;

private:
    struct Common {
        zel::uint32 type = 0;
        zel::uint32 id = 0;
        zel::Name name;
    };
    [[nodiscard]] Node* extractValue(const Common& common, bool skip);
    [[nodiscard]] Node* extractBuffer(const Common& common, bool skip);
    [[nodiscard]] Node* extractComponent(const Common& common, bool skip);
    [[nodiscard]] Node* extractCustomBuffer(const Common& common, bool skip);
    [[nodiscard]] Node* extractPartialBuffer(const Common& common, bool skip);
    [[nodiscard]] Node* extractEntityStorage(const Common& common, bool skip);
    void extractChildren(bool skip, Component* parent, zel::uint32 count);
    [[nodiscard]] zel::ref_ptr<zel::Object::Event> extractEvent();
    template <typename T>
    [[nodiscard]] T read();
    void expectEndTag();

    const BinaryData* m_segment;
    NameLookup& m_names;
    FrameReader* m_reader;
    OnFault m_onFault;
    ByteStream m_stream;
    zel::String m_path; // of the node that is being read
    zel::uint32 m_depth = 0;
    bool m_wantsAll = false; // within a buffer, whose parts belong to it
    zelData::Frame::EventVector m_events;
};

} // namespace zelData
