#include "SerializedFixture.h"

#include <support/StreamCapture.h>

#include <cstring>

// From frames to bytes and back.

using zel::Component;
using zel::ref_ptr;
using zel::uint32;
using zel::uint64;
using zel::uint8;
using zelData::BinaryData;
using zelData::Buffer;
using zelData::EntityPtr;
using zelData::Frame;
using zelData::SerializedFrame;
using zelTest::elementsOf;
using BinaryHeader = SerializedFrame::BinaryHeader;

namespace {

class SerializedFrameTest : public zelTest::SerializedFixture {
protected:
    /// The names that the header brings.
    static std::vector<std::string> namesOf(const BinaryData* header) {
        SerializedFrame::NameLookup names;
        SerializedFrame::updateNameTable(header, names);
        std::vector<std::string> result;
        for (const auto& entry : names)
            result.emplace_back(entry.value.c_str());
        return result;
    }
    static const SerializedFrame::DataNode* child(const SerializedFrame& serialized, const char* name) {
        return dynamic_cast<const SerializedFrame::DataNode*>(serialized.getRoot()->findChild(name));
    }
};

TEST_F(SerializedFrameTest, AFrameWithoutContentHasAHeaderOf96Bytes) {
    const ref_ptr<Frame> frame = makeFrame();
    const ref_ptr<SerializedFrame> serialized(new SerializedFrame(frame.get()));
    const auto header = serialized->writeBinaryHeader();
    EXPECT_EQ(header->getSize(), 96U);
    EXPECT_EQ(serialized->getDataSize(), 0U);
    EXPECT_EQ(at<uint64>(header.get(), 32), 96U); // headerSize
    EXPECT_EQ(at<uint32>(header.get(), 48), 0xFFFFFFFFU);
    EXPECT_EQ(at<uint32>(header.get(), 76), 2U);          // the root is a component
    EXPECT_EQ(at<uint32>(header.get(), 80), 0xFFFFFFFFU); // without id
    EXPECT_EQ(at<uint32>(header.get(), 84), 0xFFFFFFFFU); // and name
    EXPECT_EQ(segmentOf(*serialized)->getSize(), 0U);
    const auto copy = throughBytes(frame.get());
    EXPECT_EQ(copy->getNumObjects(), 0U);
}

TEST_F(SerializedFrameTest, EachKindOfNodeComesBack) {
    const auto frame = fullFrame();
    const auto copy = throughBytes(frame.get());
    expectFullFrame(copy.get());
    for (const char* path :
         {"bytes", "a.b", "a.b.time", "a.part", "a.bodies", "a.bodies.mass", "texts", "arrays"})
        EXPECT_EQ(copy->getResource(path)->getId(), frame->getResource(path)->getId()) << path;
    expectFullFrame(throughBytes(copy.get()).get());
}

TEST_F(SerializedFrameTest, NothingOfAFrameRefersToItsBytes) {
    const auto frame = fullFrame();
    const ref_ptr<SerializedFrame> serialized(new SerializedFrame(frame.get()));
    const auto header = serialized->writeBinaryHeader();
    const auto segment = segmentOf(*serialized);
    const ref_ptr<Frame> copy(SerializedFrame::extractFrame(header.get(), segment.get()));
    std::memset(header->getData(), 0xAA, header->getSize());
    std::memset(segment->getData(), 0xAA, segment->getSize());
    expectFullFrame(copy.get());
}

TEST_F(SerializedFrameTest, ElementsAreNotCopiedForWriting) {
    const ref_ptr<Frame> frame = makeFrame();
    const auto buffer = reals("buffer", {1, 2});
    frame->addBuffer(buffer.get(), "buffer");
    const SerializedFrame serialized(frame.get());
    ASSERT_EQ(serialized.getSegments().size(), 1U);
    EXPECT_EQ(static_cast<void*>(serialized.getSegments()[0].data->getData()), buffer->getPtr());
}

TEST_F(SerializedFrameTest, NamesStandOnceUntilTheNextKeyFrame) {
    SerializedFrame::NameTable names;
    const auto write = [&](const ref_ptr<Frame>& frame) {
        return ref_ptr<SerializedFrame>(new SerializedFrame(frame.get()))->writeBinaryHeader(names);
    };
    const ref_ptr<Frame> first = makeFrame();
    first->addValue(real("a", 1).get(), "a");
    EXPECT_EQ(namesOf(write(first).get()), (std::vector<std::string>{"a", "Real:64bit"}));
    const ref_ptr<Frame> second = makeFrame();
    second->addValue(real("a", 1).get(), "a");
    second->addValue(real("b", 1).get(), "b");
    const auto header = write(second);
    EXPECT_EQ(namesOf(header.get()), (std::vector<std::string>{"b"}));
    EXPECT_EQ(at<uint32>(header.get(), 60), 2U); // firstId
    const ref_ptr<Frame> key = makeFrame();
    key->setKeyFrame(true);
    key->addValue(real("b", 1).get(), "b");
    const auto keyHeader = write(key);
    EXPECT_EQ(namesOf(keyHeader.get()), (std::vector<std::string>{"b", "Real:64bit"}));
    EXPECT_EQ(at<uint32>(keyHeader.get(), 60), 0U);
}

TEST_F(SerializedFrameTest, AStreamIsReadWithItsNames) {
    SerializedFrame::NameTable names;
    SerializedFrame::NameLookup lookup;
    for (int i = 0; i < 4; ++i) {
        const ref_ptr<Frame> frame = makeFrame();
        frame->setKeyFrame(i == 2);
        frame->addValue(real("a", i).get(), "a");
        if (i != 0)
            frame->addValue(real("b", i).get(), "b");
        const ref_ptr<SerializedFrame> serialized(new SerializedFrame(frame.get()));
        const auto header = serialized->writeBinaryHeader(names);
        const ref_ptr<Frame> copy(
            SerializedFrame::extractFrame(header.get(), segmentOf(*serialized).get(), lookup, true, nullptr));
        EXPECT_EQ(copy->getNumObjects(), i == 0 ? 1U : 2U);
        EXPECT_EQ(contentOf(copy->findObject("a")), i);
    }
    EXPECT_EQ(lookup.size(), 3U);
}

TEST_F(SerializedFrameTest, AKnownIdTakesTheNewName) {
    SerializedFrame::NameLookup lookup;
    lookup.push_back(0, "old");
    lookup.push_back(5, "kept");
    const ref_ptr<Frame> frame = makeFrame();
    frame->addValue(real("a", 1).get(), "a");
    SerializedFrame::updateNameTable(
        ref_ptr<SerializedFrame>(new SerializedFrame(frame.get()))->writeBinaryHeader().get(), lookup);
    EXPECT_EQ(lookup.find(0)->value, "a");
    EXPECT_EQ(lookup.find(5)->value, "kept");
}

TEST_F(SerializedFrameTest, ElementsLieAtMultiplesOfTheirSize) {
    const ref_ptr<Frame> frame = makeFrame();
    frame->addBuffer(makeBuffer<uint8>("one", "UInt:8bit", {1}).get(), "one");
    frame->addValue(real("eight", 2).get(), "eight");
    const auto large = [](const char* name, uint64 size) {
        ref_ptr<Buffer> buffer(new Buffer(name, zelData::getGenericStructFormat(size)));
        buffer->resize(1);
        std::memset(buffer->getPtr(), 3, size);
        return buffer;
    };
    frame->addBuffer(large("odd", 24).get(), "odd");
    frame->addBuffer(large("large", 200).get(), "large");
    const ref_ptr<SerializedFrame> serialized(new SerializedFrame(frame.get()));
    EXPECT_EQ(child(*serialized, "one")->getOffset(), 0U);
    EXPECT_EQ(child(*serialized, "eight")->getOffset(), 8U);
    EXPECT_EQ(child(*serialized, "odd")->getOffset(), 24U);
    EXPECT_EQ(child(*serialized, "large")->getOffset(), 128U); // and not 200
    EXPECT_EQ(serialized->getDataSize(), 328U);

    std::ostringstream stream;
    stream << "abc"; // the segment begins where the stream is
    serialized->writeDataSegment(stream);
    const std::string bytes = stream.str().substr(3);
    ASSERT_EQ(bytes.size(), 328U);
    EXPECT_EQ(bytes.substr(1, 7), std::string(7, '\0'));
    EXPECT_EQ(bytes.substr(48, 80), std::string(80, '\0'));
    EXPECT_EQ(bytes.substr(128), std::string(200, 3));
}

TEST_F(SerializedFrameTest, EmptyThingsLeaveNoNode) {
    const ref_ptr<Frame> frame = makeFrame();
    frame->addBuffer(reals("empty", {}).get(), "a.b.empty");
    frame->addBuffer(partial("part", {}, {}, 3).get(), "part");
    frame->addBuffer(ref_ptr<Frame::PartialBuffer>(new Frame::PartialBuffer("none", 2, 3)).get(), "none");
    frame->addStorage(ref_ptr<Frame::EntityStorage>(new Frame::EntityStorage("s", nullptr, 0, 0)).get(), "s");
    frame->addValue(
        ref_ptr<zelData::Value>(new zelData::Value("untyped", static_cast<zelData::Format*>(nullptr))).get(),
        "untyped");
    EXPECT_TRUE(SerializedFrame(frame.get()).getRoot()->getChildren().empty());
}

TEST_F(SerializedFrameTest, VectorsAreLeftOutAloud) {
    auto* model = entity("Vectors", "<Attribute.Vector name='list' type='Real'/>");
    const ref_ptr<zelData::EntityStorage> storage(new zelData::EntityStorage(model));
    storage->createInstances(2);
    const ref_ptr<Buffer> list(storage->getBuffer("list")->clone());
    const ref_ptr<Frame> frame = makeFrame();
    frame->addBuffer(list.get(), "a.list");
    const zelTest::LogCapture log;
    EXPECT_TRUE(SerializedFrame(frame.get()).getRoot()->getChildren().empty());
    EXPECT_NE(log.text().find("Serialization of vector attributes not implemented"), std::string::npos);
}

TEST_F(SerializedFrameTest, WhatHoldsPointersIsLeftOutByName) {
    const ref_ptr<Frame> frame = makeFrame();
    frame->addValue(ref_ptr<zelData::Value>(new zelData::Value("text", zelData::getFormat("String"))).get(),
                    "a.text");
    const ref_ptr<Buffer> pointers(new Buffer("pointers", zelData::getFormat("ObjectPointer")));
    pointers->resize(1);
    frame->addBuffer(pointers.get(), "pointers");
    const zelTest::LogCapture log;
    EXPECT_TRUE(SerializedFrame(frame.get()).getRoot()->getChildren().empty());
    EXPECT_NE(log.text().find("Elements of format String:default can not be written to a file: "),
              std::string::npos)
        << log.text();
    EXPECT_NE(log.text().find("'a.text' is left out"), std::string::npos) << log.text();
    EXPECT_NE(log.text().find("'pointers' is left out"), std::string::npos) << log.text();
}

TEST_F(SerializedFrameTest, OtherObjectsAreSkippedOnStandardError) {
    const ref_ptr<Frame> frame = makeFrame();
    frame->addObject(ref_ptr<zel::Object>(new zel::Object("thing", zel::Object::ClassModel())).get());
    const zelTest::StreamCapture error(std::cerr);
    EXPECT_TRUE(SerializedFrame(frame.get()).getRoot()->getChildren().empty());
    EXPECT_EQ(error.text(), "SerializedFrame: Don't know how to write a zel.Object, ignoring...\n");
}

TEST_F(SerializedFrameTest, SerializedFramesKeepTheNumbersOfTheirReferences) {
    const ref_ptr<Frame> frame = makeFrame();
    const ref_ptr<Buffer> handles(new Buffer("handles", zelData::getFormat("EntityPtr")));
    handles->resize(1);
    handles->data<EntityPtr>()[0] =
        EntityPtr(reinterpret_cast<zelData::EntityStorage*>(uint64{0x1234500000042}), 3);
    frame->addBuffer(handles.get(), "handles");
    frame->setSerialized(true);
    const auto copy = throughBytes(frame.get());
    const auto* elements = copy->getBuffer("handles")->data<EntityPtr>();
    EXPECT_EQ(reinterpret_cast<uint64>(elements[0].getStorage()), 0x42U);
    EXPECT_EQ(elements[0].getId(), 3U);
}

TEST_F(SerializedFrameTest, ArraysWithoutElementsKeepTheNumberOfTheirBuffer) {
    const ref_ptr<Frame> frame = makeFrame();
    const auto elements = reals("elements", {7, 8, 9});
    elements->setId(99);
    const ref_ptr<Buffer> arrays(new Buffer("arrays", zelData::getFormat("Array<Real>")));
    arrays->resize(2);
    arrays->data<zelData::AbstractArray>()[0].bind(elements.get(), {1, 3});
    frame->addBuffer(arrays.get(), "arrays");
    const auto copy = throughBytes(frame.get());
    const auto* views = copy->getBuffer("arrays")->data<zelData::AbstractArray>();
    EXPECT_EQ(reinterpret_cast<uint64>(views[0].buffer()), 99U);
    EXPECT_EQ(views[0].range().begin(), 1U);
    EXPECT_EQ(views[0].range().end(), 3U);
    EXPECT_EQ(reinterpret_cast<uint64>(views[1].buffer()), 0xFFFFFFFFU);
}

TEST_F(SerializedFrameTest, AFrameThatWasReadIsWrittenByteForByte) {
    const ref_ptr<Frame> frame = fullFrame();
    frame->getBuffer("arrays")->getElementBuffer()->setId(99);
    const auto bytesOf = [](const Frame* written) {
        const ref_ptr<SerializedFrame> serialized(new SerializedFrame(written));
        return textOf(serialized->writeBinaryHeader().get()) + textOf(segmentOf(*serialized).get());
    };
    const auto copy = throughBytes(frame.get());
    EXPECT_TRUE(bytesOf(frame.get()) == bytesOf(copy.get()));
    // Also where it was merged in between.
    const ref_ptr<Frame> merged(new Frame(frame->getIndex(), frame->getTimeStamp(), frame->getTimeStep()));
    merged->merge(copy.get(), true);
    EXPECT_TRUE(bytesOf(frame.get()) == bytesOf(merged.get()));
    // The recorder's elements have no id of their own; the arrays know them by that of the live ones.
    frame->getBuffer("arrays")->getElementBuffer()->setId(Frame::NoId);
    frame->setSerialized(true);
    frame->removeNode(frame->getBuffer("handles"));
    auto* const arrays = frame->getBuffer("arrays")->data<zelData::AbstractArray>();
    for (int i = 0; i < 2; ++i)
        arrays[i].setReference(reinterpret_cast<Buffer*>(uint64{98}), arrays[i].range()); // NOLINT: a number
    const auto segmentOfFrame = [](const Frame* written) {
        return textOf(segmentOf(*ref_ptr<SerializedFrame>(new SerializedFrame(written))).get());
    };
    EXPECT_TRUE(segmentOfFrame(frame.get()) == segmentOfFrame(throughBytes(frame.get()).get()));
}

TEST_F(SerializedFrameTest, NamesComeBackAsNames) {
    const ref_ptr<Frame> frame = makeFrame();
    frame->addBuffer(texts("Name", {"", "earth"}).get(), "texts");
    const auto copy = throughBytes(frame.get());
    const auto* names = copy->getBuffer("texts")->data<zel::Name>();
    EXPECT_TRUE(names[0].empty());
    EXPECT_EQ(names[1], "earth");
}

TEST_F(SerializedFrameTest, TextsThatAreAllEmptyHaveNoCharacters) {
    const ref_ptr<Frame> frame = makeFrame();
    frame->addBuffer(texts("String", {"", ""}).get(), "texts");
    const auto copy = throughBytes(frame.get());
    ASSERT_EQ(copy->getBuffer("texts")->size(), 2U);
    EXPECT_EQ(copy->getBuffer("texts")->data<zel::String>()[1], "");
}

TEST_F(SerializedFrameTest, UnwantedNodesArePassedOver) {
    const auto frame = fullFrame();
    const ref_ptr<SerializedFrame> serialized(new SerializedFrame(frame.get()));
    const ref_ptr<zelTest::PickyReader> reader(new zelTest::PickyReader({"a", "texts"}));
    SerializedFrame::NameLookup names;
    const ref_ptr<Frame> copy(SerializedFrame::extractFrame(
        serialized->writeBinaryHeader().get(), segmentOf(*serialized).get(), names, true, reader.get()));
    EXPECT_EQ(copy->findObject("a"), nullptr);
    EXPECT_EQ(copy->findObject("texts"), nullptr);
    EXPECT_NE(copy->findObject("bytes"), nullptr);
    EXPECT_NE(copy->findObject("arrays"), nullptr); // what lies behind is read right
    EXPECT_EQ(reader->asked, (std::vector<std::string>{"bytes", "a", "texts", "handles", "arrays"}));
    expectWhole(copy.get());
}

TEST_F(SerializedFrameTest, PartsOfABufferAreNotAskedFor) {
    const ref_ptr<Frame> frame = makeFrame();
    frame->addBuffer(partial("part", {1}, {2}, 3).get(), "a.part");
    const ref_ptr<SerializedFrame> serialized(new SerializedFrame(frame.get()));
    const ref_ptr<zelTest::PickyReader> reader(new zelTest::PickyReader);
    SerializedFrame::NameLookup names;
    const ref_ptr<Frame> copy(SerializedFrame::extractFrame(
        serialized->writeBinaryHeader().get(), segmentOf(*serialized).get(), names, true, reader.get()));
    EXPECT_EQ(reader->asked, (std::vector<std::string>{"a", "a.part"}));
    EXPECT_NE(copy->getResource("a.part.data"), nullptr);
}

TEST_F(SerializedFrameTest, TheArchiveOfAFrameIsFound) {
    const ref_ptr<Frame> frame = makeFrame();
    frame->addBuffer(reals("Incremental", {1}).get(), "FrameArchive.Incremental");
    const auto copy = throughBytes(frame.get());
    EXPECT_EQ(copy->getIncrementalFrameArchiveBuffer(), copy->getBuffer("FrameArchive.Incremental"));
    EXPECT_NE(copy->getIncrementalFrameArchiveBuffer(), nullptr);
}

TEST_F(SerializedFrameTest, NumbersAbove32BitsAreRefusedByName) {
    const ref_ptr<Frame> frame = makeFrame();
    frame->addBuffer(partial("part", {1}, {2}, 0x100000000).get(), "a.part");
    const ref_ptr<SerializedFrame> serialized(new SerializedFrame(frame.get()));
    EXPECT_EQ(zelTest::whatOf([&] { (void)serialized->writeBinaryHeader(); }),
              "SerializedFrame: node a.part does not fit into a frame: 4294967296 is above 32 bits");
}

TEST_F(SerializedFrameTest, TreesAreAtMost512Deep) {
    const ref_ptr<Frame> frame = makeFrame();
    zel::String path;
    for (int i = 0; i < 510; ++i)
        path += "x.";
    frame->addValue(real("value", 1).get(), path + "value");
    const auto copy = throughBytes(frame.get());
    Component* deepest = copy.get();
    int depth = 0;
    for (; auto* next = dynamic_cast<Component*>(deepest->findObject("x")); ++depth)
        deepest = next;
    EXPECT_EQ(depth, 510);
    EXPECT_NE(deepest->findObject("value"), nullptr);
    // What is written can be read: leaves and their parts count as well.
    const auto expectRefused = [&](Frame* refused) {
        EXPECT_NE(zelTest::whatOf([&] { SerializedFrame{refused}; }).find("lie more than 512 deep"),
                  std::string::npos);
    };
    const auto withValue = makeFrame();
    withValue->addValue(real("value", 1).get(), path + "x.value");
    expectRefused(withValue.get());
    const auto withPart = makeFrame();
    withPart->addBuffer(partial("part", {1}, {2}, 3).get(), path + "part");
    expectRefused(withPart.get());
    const auto withTexts = makeFrame();
    withTexts->addBuffer(texts("String", {"text"}).get(), path + "texts");
    expectRefused(withTexts.get());
    frame->addValue(real("value", 1).get(), path + "x.x.value");
    expectRefused(frame.get());
}

TEST_F(SerializedFrameTest, PlacesOf32BitsAreRead) {
    using Node = SerializedFrame::Node;
    const zel::Name name("part");
    uint32 content[] = {1, 4};
    double data[] = {10, 40};
    const ref_ptr<BinaryData> segment(new BinaryData(24));
    std::memcpy(segment->getData(), content, 8);
    std::memcpy(segment->getData() + 8, data, 16);
    const ref_ptr<SerializedFrame::Component> root(new SerializedFrame::Component(Frame::NoId, zel::Name()));
    const ref_ptr<SerializedFrame::PartialBuffer> part(
        new SerializedFrame::PartialBuffer(5, name, zelData::getFormat("Real"), 2, 6));
    root->addChild(part.get());
    part->addChild(ref_ptr<Node>(new SerializedFrame::Buffer(
                                     6, "index", zelData::getFormat("UInt:32bit"), 2, 0, segment.get()))
                       .get());
    part->addChild(
        ref_ptr<Node>(new SerializedFrame::Buffer(7, "data", zelData::getFormat("Real"), 2, 8, segment.get()))
            .get());
    const ref_ptr<Frame> frame(SerializedFrame::createFrame(root.get(), 0, 0, 0));
    const auto& made = dynamic_cast<Frame::PartialBuffer&>(*frame->findObject("part"));
    EXPECT_EQ(elementsOf<uint64>(made.getIndexBuffer()), (std::vector<uint64>{1, 4}));
    EXPECT_EQ(made.getIndexBuffer()->getId(), 6U);
    EXPECT_EQ(made.getId(), 5U);
}

TEST_F(SerializedFrameTest, NodesKnowTheirPathAndType) {
    const auto frame = fullFrame();
    const SerializedFrame serialized(frame.get());
    const auto* a = dynamic_cast<const SerializedFrame::Component*>(serialized.getRoot()->findChild("a"));
    ASSERT_NE(a, nullptr);
    EXPECT_EQ(a->findChild("part")->getPath(), "a.part");
    EXPECT_EQ(serialized.getRoot()->getPath(), "");
    const char* names[] = {"Value", "Buffer", "Component", "CustomBuffer", "PartialBuffer", "EntityStorage"};
    for (uint32 type = 0; type < 6; ++type)
        EXPECT_STREQ(SerializedFrame::Node::getTypeName(type), names[type]);
    EXPECT_EQ(a->findChild("bodies")->getType(), SerializedFrame::Node::EntityStorageType);
}

} // namespace
