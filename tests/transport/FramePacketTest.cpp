#include "FramePacketFixture.h"

#include <support/CommaStreams.h>
#include <support/Stress.h>

#include <cmath>
#include <random>
#include <vector>

using zel::ref_ptr;
using zel::uint64;
using zelData::BinaryData;
using zelData::Buffer;
using zelData::Frame;
using zelData::SerializedFrame;
using zelNet::FramePacket;
using zelTest::elementsOf;

namespace {

class FramePacketTest : public zelTest::FramePacketFixture {
protected:
    static const zelData::Format* format(const char* name) { return zelData::getFormat(name); }

    /// What a packet tells of the node, in an array.
    template <typename Node>
    static std::string told(const Node& node) {
        const auto frame = makeFrame();
        FramePacket packet(frame.get());
        Json::Value children(Json::arrayValue);
        packet.add(children, &node);
        return lineOf(children);
    }
    static ref_ptr<Frame> throughPacket(const Frame* frame) { return parseFrame(bytesOf(frame)); }
    /// fullFrame without what readers do not understand.
    ref_ptr<Frame> expandedFrame() {
        ref_ptr<Frame> frame = fullFrame();
        frame->removeNode(frame->getResource("a.part"));
        return frame;
    }
};

// Writing

TEST_F(FramePacketTest, AnEmptyFrameHasAHeaderAndAnOffset) {
    Frame frame(12, 1.5, 0.25);
    frame.setKeyFrame(true);
    const ref_ptr<FramePacket> packet(new FramePacket(&frame));
    const std::string text =
        "{\"children\":[],\"index\":12,\"keyFrame\":true,\"timeStamp\":1.5,\"timeStep\":0.25}\n";
    EXPECT_EQ(packet->getHeaderText(), text);
    EXPECT_EQ(lineOf(packet->getHeader()), text);
    EXPECT_EQ(packet->getPreHeader().messageId, 0xFFFFFFFFU);
    EXPECT_EQ(packet->getPreHeader().responseId, 0xFFFFFFFFU);
    EXPECT_EQ(packet->getPreHeader().uriSize, 0U);
    EXPECT_EQ(packet->getPreHeader().headerSize, text.size());
    EXPECT_EQ(packet->getPreHeader().payloadOffset, 128U); // 24 + 78, rounded up
    EXPECT_EQ(packet->getPreHeader().payloadSize, 0U);
    EXPECT_EQ(packet->getPaddingSize(), 128 - 24 - text.size());
}

TEST_F(FramePacketTest, AHeaderThatEndsAlignedNeedsNoPadding) {
    // Each letter of the name makes the text longer by one byte.
    int numAligned = 0;
    for (std::size_t length = 1; length <= 32; ++length) {
        const auto frame = makeFrame();
        const std::string name(length, 'n');
        frame->addValue(real(name.c_str(), 1).get(), name.c_str());
        const ref_ptr<FramePacket> packet(new FramePacket(frame.get()));
        EXPECT_EQ(packet->getPreHeader().payloadOffset % 32, 0U);
        EXPECT_EQ(packet->getPreHeader().payloadOffset,
                  24 + packet->getHeaderText().size() + packet->getPaddingSize());
        EXPECT_LT(packet->getPaddingSize(), 32U);
        numAligned += packet->getPaddingSize() == 0;
    }
    EXPECT_EQ(numAligned, 1);
}

TEST_F(FramePacketTest, TellsAValue) {
    EXPECT_EQ(told(SerializedFrame::Value(7, "t", format("Real:64bit"), 16, nullptr)),
              "[{\"byteOffset\":16,\"id\":7,\"name\":\"t\",\"nodeType\":\"Value\",\"numBytes\":8,"
              "\"type\":\"Real:64bit\"}]\n");
}

TEST_F(FramePacketTest, TellsABuffer) {
    EXPECT_EQ(told(SerializedFrame::Buffer(7, "b", format("UInt:16bit"), 3, 16, nullptr)),
              "[{\"byteOffset\":16,\"id\":7,\"name\":\"b\",\"nodeType\":\"Buffer\",\"numBytes\":6,"
              "\"numElements\":3,\"type\":\"UInt:16bit\"}]\n");
}

TEST_F(FramePacketTest, TellsACustomBufferWithItsChildren) {
    SerializedFrame::CustomBuffer node(7, "n", format("String"), 3);
    EXPECT_EQ(
        told(node),
        "[{\"children\":[],\"customSerialization\":true,\"id\":7,\"name\":\"n\",\"nodeType\":\"Buffer\","
        "\"numElements\":3,\"type\":\"String:default\"}]\n");
    node.addChild(new SerializedFrame::Buffer(8, "b", format("UInt:8bit"), 3, 16, nullptr));
    EXPECT_NE(told(node).find("\"children\":[{\"byteOffset\":16,\"id\":8"), std::string::npos);
}

TEST_F(FramePacketTest, TellsAPartialBuffer) {
    EXPECT_EQ(told(SerializedFrame::PartialBuffer(7, "p", format("Real:64bit"), 3, 9)),
              "[{\"children\":[],\"id\":7,\"isPartial\":true,\"name\":\"p\",\"nodeType\":\"Buffer\","
              "\"numElements\":3,\"type\":\"Real:64bit\"}]\n");
}

TEST_F(FramePacketTest, TellsAStorage) {
    auto* model = entity("Told", "<Attribute.Scalar name='mass' type='Real'/>");
    EXPECT_EQ(told(SerializedFrame::EntityStorage(7, "s", model, 3, 4)),
              "[{\"capacity\":4,\"children\":[],\"entity\":\"Told\",\"id\":7,\"name\":\"s\","
              "\"nodeType\":\"Storage\",\"numElements\":3}]\n");
    EXPECT_NE(told(SerializedFrame::EntityStorage(7, "s", nullptr, 3, 4)).find("\"entity\":\"\""),
              std::string::npos);
}

TEST_F(FramePacketTest, TellsAComponent) {
    EXPECT_EQ(told(SerializedFrame::Component(0xFFFFFFFF, "c")),
              "[{\"children\":[],\"id\":4294967295,\"name\":\"c\",\"nodeType\":\"Component\"}]\n");
}

TEST_F(FramePacketTest, IndicesHaveSixtyFourBits) {
    const uint64 index = 0xFFFFFFFFFFFFFFFE;
    const Frame frame(index, 0, 0);
    EXPECT_EQ(throughPacket(&frame)->getIndex(), index);
}

// There and back

TEST_F(FramePacketTest, AllThatReadersUnderstandComesBack) {
    auto frame = expandedFrame();
    const auto back = throughPacket(frame.get());
    EXPECT_TRUE(back->isSerialized());
    EXPECT_FALSE(back->isKeyFrame()) << "this does not travel";
    // What does not travel is not compared.
    back->setKeyFrame(true);
    back->setId(77);
    back->addBuffer(partial("part", {1, 4}, {10, 40}, 6).get(), "a.part");
    expectFullFrame(back.get());
    EXPECT_EQ(back->getResource("a.b.time")->getId(), frame->getResource("a.b.time")->getId());
    EXPECT_EQ(back->getResource("a.b")->getId(), Frame::NoId);
}

TEST_F(FramePacketTest, NothingRefersToTheBytesAfterwards) {
    const auto frame = expandedFrame();
    std::string bytes = bytesOf(frame.get());
    const ref_ptr<Frame> back(
        FramePacket::parseFrame(reinterpret_cast<zel::uint8*>(bytes.data()), bytes.size()));
    std::fill(bytes.begin(), bytes.end(), '\xEE');
    EXPECT_EQ(elementsOf<double>(back->getBuffer("a.bodies.mass")), (std::vector<double>{3, 4}));
}

TEST_F(FramePacketTest, AStorageWithoutModelComesBack) {
    const auto frame = makeFrame();
    const ref_ptr<Frame::EntityStorage> storage(new Frame::EntityStorage("s", nullptr, 1, 2));
    frame->addStorage(storage.get(), "s");
    frame->addNode(storage.get(), reals("mass", {3}).get());
    const auto back = throughPacket(frame.get());
    EXPECT_EQ(dynamic_cast<Frame::EntityStorage&>(*back->findObject("s")).getModel(), nullptr);
}

TEST_F(FramePacketTest, AFrameOfTheDeepestTreeComesBack) {
    const auto frame = makeFrame();
    ref_ptr<zel::Component> parent(frame.get());
    for (zel::uint32 depth = 2; depth < SerializedFrame::MaxDepth; ++depth) {
        const ref_ptr<zel::Component> child(new zel::Component("c"));
        child->setId(Frame::NoId);
        frame->addNode(parent.get(), child.get());
        parent = child;
    }
    frame->addNode(parent.get(), real("t", 1).get());
    EXPECT_TRUE(bytesOf(throughPacket(frame.get()).get()) == bytesOf(frame.get()));
}

TEST_F(FramePacketTest, TheUriIsPassedOverWithoutBeingThere) {
    const Frame frame(3, 0, 0);
    std::string bytes = bytesOf(&frame);
    bytes[8] = 5; // the JSON begins at 24 all the same
    EXPECT_EQ(parseFrame(bytes)->getIndex(), 3U);
}

TEST_F(FramePacketTest, TheTwoPartsGiveAFrameToo) {
    const auto frame = makeFrame();
    frame->addValue(real("t", 2.5).get(), "t");
    const ref_ptr<FramePacket> packet(new FramePacket(frame.get()));
    const ref_ptr<Frame> back(FramePacket::parseFrame(packet->getHeader(), segmentOf(*packet).get()));
    EXPECT_EQ(contentOf(back->findObject("t")), 2.5);
    const Frame empty(4, 0, 0);
    const ref_ptr<FramePacket> none(new FramePacket(&empty));
    EXPECT_EQ(ref_ptr<Frame>(FramePacket::parseFrame(none->getHeader(), nullptr))->getIndex(), 4U);
}

TEST_F(FramePacketTest, NodesAreMadeOfJsonAloneAsWell) {
    const ref_ptr<BinaryData> payload(new BinaryData);
    const Json::Value none(Json::objectValue);
    Json::Value value;
    value["type"] = "Real:64bit";
    value["numBytes"] = 8;
    Json::Value buffer;
    buffer["type"] = "Real:64bit";
    const ref_ptr<SerializedFrame::Component> parent(FramePacket::createComponent(none, payload.get()));
    parent->addChild(FramePacket::createStorage(none, payload.get()));
    parent->addChild(FramePacket::createBuffer(buffer, payload.get()));
    parent->addChild(FramePacket::createValue(value, payload.get()));
    Json::Value tree;
    tree["children"].append(Json::Value(Json::objectValue))["nodeType"] = "Component";
    FramePacket::addChildren(parent.get(), tree, payload.get());
    using Node = SerializedFrame::Node;
    std::vector<Node::Type> types;
    for (const ref_ptr<Node>& child : parent->getChildren())
        types.push_back(child->getType());
    EXPECT_EQ(types,
              (std::vector{Node::EntityStorageType, Node::BufferType, Node::ValueType, Node::ComponentType}));
}

TEST_F(FramePacketTest, TimesComeBackWhateverTheStreamsOfTheProgramTakeForAPoint) {
    const zelTest::CommaStreams comma;
    const ref_ptr<Frame> frame = throughPacket(ref_ptr<Frame>(new Frame(1234567, 12345.0625, 1e-3)).get());
    EXPECT_EQ(frame->getIndex(), 1234567U);
    EXPECT_EQ(frame->getTimeStamp(), 12345.0625);
    EXPECT_EQ(frame->getTimeStep(), 1e-3);
}

TEST_F(FramePacketTest, WhatIsMissingInAHeaderIsZero) {
    const ref_ptr<Frame> frame(FramePacket::parseFrame(Json::Value(Json::objectValue), nullptr));
    EXPECT_EQ(frame->getIndex(), 0U);
    EXPECT_EQ(frame->getTimeStamp(), 0);
    EXPECT_EQ(frame->getNumObjects(), 0U);
}

/// Random trees of values, buffers, texts and components.
class RandomFrame {
public:
    explicit RandomFrame(unsigned seed) : m_random(seed) {}

    ref_ptr<Frame> make() {
        ref_ptr<Frame> frame(new Frame(m_random() * uint64{0x100000001}, number(), number()));
        add(frame.get(), frame.get(), 0);
        return frame;
    }

private:
    void add(Frame* frame, zel::Component* parent, int depth) {
        for (auto i = m_random() % 5; i > 0; --i)
            frame->addNode(parent, node(frame, std::to_string(i), depth).get());
    }
    ref_ptr<zel::Object> node(Frame* frame, const std::string& name, int depth) {
        const auto kind = m_random() % (depth < 4 ? 4 : 3);
        if (kind == 3) {
            const ref_ptr<zel::Component> component(new zel::Component(name.c_str()));
            component->setId(Frame::NoId);
            add(frame, component.get(), depth + 1);
            return component;
        }
        ref_ptr<zel::Object> object;
        if (kind == 0) {
            const char* const formats[] = {"UInt:8bit", "UInt:32bit", "Real:64bit"};
            const ref_ptr<zelData::Value> value(
                new zelData::Value(name.c_str(), zelData::getFormat(formats[m_random() % 3])));
            fill(value->getData(), value->getFormat()->getSize());
            object = value;
        } else if (kind == 1) {
            const char* const formats[] = {"UInt:8bit", "UInt:16bit", "Vec3:64bit"};
            const ref_ptr<Buffer> buffer(
                new Buffer(name.c_str(), zelData::getFormat(formats[m_random() % 3])));
            buffer->resize(m_random() % 20);
            fill(buffer->getPtr(), buffer->size() * buffer->getElementSize());
            object = buffer;
        } else {
            const ref_ptr<Buffer> buffer(new Buffer(name.c_str(), zelData::getFormat("String")));
            buffer->resize(m_random() % 5);
            for (uint64 i = 0; i < buffer->size(); ++i)
                buffer->data<zel::String>()[i] = std::string(m_random() % 20, 'x');
            object = buffer;
        }
        object->setId(static_cast<zel::uint32>(m_random() % 1000));
        return object;
    }
    void fill(void* bytes, uint64 size) {
        for (uint64 i = 0; i < size; ++i)
            static_cast<zel::uint8*>(bytes)[i] = static_cast<zel::uint8>(m_random());
    }
    double number() {
        return std::ldexp(static_cast<double>(m_random()), static_cast<int>(m_random() % 60) - 60);
    }

    std::mt19937 m_random;
};

TEST_F(FramePacketTest, RandomFramesComeBackTheSame) {
    const unsigned seed = zelTest::stressSeed();
    for (unsigned round = 0; round < 300 / zelTest::StressDivisor; ++round) {
        const auto frame = RandomFrame(seed + round).make();
        const std::string bytes = bytesOf(frame.get());
        const auto back = parseFrame(bytes);
        expectWhole(back.get());
        ASSERT_TRUE(bytesOf(back.get()) == bytes) << seed + round;
    }
}

} // namespace
