#pragma once

#include <zel/Export.h>
#include <zel/Integers.h>
#include <zel/String.h>
#include <zel/ref_ptr.h>
#include <zelData/BinaryData.h>
#include <zelData/SerializedFrame.h>
#include <zelNet/StructuredMessage.h>

#include <json/forwards.h>

#include <memory>

namespace zelNet {

/// A frame in the envelope of a StructuredMessage with an empty URI: the header tells the tree of the frame,
/// the payload is its data segment. The layout stands in docs/wire-format.md.
///
/// The ids of components, and whether the frame is a key frame, do not come back when a packet is read. A
/// partial buffer can be written and not read: expand frames ahead of a stream.
///
/// Owned through ref_ptr.
/// @threads external lock
class ZEL_CORE_API FramePacket : public zelData::SerializedFrame {
public:
    /// Frames with JSON that is nested deeper are refused: as deep as frames can be.
    static constexpr int MaxHeaderDepth = 2 * static_cast<int>(MaxDepth) + 2;

    /// @param frame  outlives this object, and must not change until all is sent
    /// @param leftOut  the name of a child of the frame that is not sent
    /// @throws std::runtime_error  as SerializedFrame, and for a packet of 4 GiB
    explicit FramePacket(const zelData::Frame* frame, const zel::Name& leftOut = zel::Name());
    ~FramePacket() override;

    [[nodiscard]] const StructuredMessage::PreHeader& getPreHeader() const noexcept { return m_preHeader; }
    [[nodiscard]] const Json::Value& getHeader() const noexcept { return *m_header; }
    /// The header as it is sent.
    [[nodiscard]] const zel::String& getHeaderText() const noexcept { return m_headerText; }
    /// Of the bytes between the header and the payload.
    [[nodiscard]] zel::uint32 getPaddingSize() const noexcept { return m_paddingSize; }

    /// The frame of a whole packet. Nothing of the frame refers to the bytes afterwards; it is marked as
    /// serialized.
    /// @param onFault  for nodes that do not fit their payload, or whose format or entity is not known here
    /// @return a new frame without owner
    /// @throws std::runtime_error  for bytes that are no packet, and not exactly one
    [[nodiscard]] static zelData::Frame*
    parseFrame(zel::uint8* data, zel::size_t size, OnFault onFault = OnFault::EndProcess);
    /// The same of the two parts.
    /// @param payload  null stands for no bytes
    /// @throws std::runtime_error  for a header that is none of a frame
    [[nodiscard]] static zelData::Frame* parseFrame(const Json::Value& header,
                                                    zelData::BinaryData* payload,
                                                    OnFault onFault = OnFault::EndProcess);

    // From nodes to JSON: each appends what its node tells to an array.

    void add(Json::Value& children, const Value* node);
    void add(Json::Value& children, const Buffer* node);
    void add(Json::Value& children, const CustomBuffer* node);
    void add(Json::Value& children, const PartialBuffer* node);
    void add(Json::Value& children, const EntityStorage* node);
    void add(Json::Value& children, const Component* node);
    /// Sets "children" of what stands for the component.
    void addChildren(Json::Value& json, const Component* component);

    // From JSON to nodes, which have no owner. Exceptions of jsoncpp pass where a member is of a wrong kind.

    [[nodiscard]] static Component* createComponent(const Json::Value& json,
                                                    zelData::BinaryData* payload,
                                                    OnFault onFault = OnFault::EndProcess);
    [[nodiscard]] static EntityStorage* createStorage(const Json::Value& json,
                                                      zelData::BinaryData* payload,
                                                      OnFault onFault = OnFault::EndProcess);
    /// A Buffer or a CustomBuffer.
    [[nodiscard]] static Node* createBuffer(const Json::Value& json,
                                            zelData::BinaryData* payload,
                                            OnFault onFault = OnFault::EndProcess);
    [[nodiscard]] static Value*
    createValue(const Json::Value& json, zelData::BinaryData* payload, OnFault onFault = OnFault::EndProcess);
    /// Adds what "children" holds, if it is there.
    static void addChildren(Component* component,
                            const Json::Value& json,
                            zelData::BinaryData* payload,
                            OnFault onFault = OnFault::EndProcess);

private:
    [[nodiscard]] Json::Value makeNode(const char* nodeType, const Node* node) const;
    [[nodiscard]] Json::Value makeBuffer(const Node* node, const zelData::Format* format, zel::uint64 size);

    StructuredMessage::PreHeader m_preHeader;
    std::unique_ptr<Json::Value> m_header; // never null; the class of the value stays out of this header
    zel::String m_scratch;
    zel::String m_headerText;
    zel::uint32 m_paddingSize = 0;
};

} // namespace zelNet
