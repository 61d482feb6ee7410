#include "MemoryJournal.h"
#include "SerializedFixture.h"

#include <zel/Notify.h>
#include <zelData/EntityStorage.h>
#include <zelData/FrameApply.h>
#include <zelData/FrameExtractor.h>

#include <support/Stress.h>

#include <random>

// What readers make of bytes that are wrong: by default the end of the process, or exceptions of the same
// text.

using zel::ref_ptr;
using zel::uint32;
using zel::uint64;
using zelData::BinaryData;
using zelData::Buffer;
using zelData::Frame;
using zelData::SerializedFrame;
using OnFault = SerializedFrame::OnFault;
using Node = SerializedFrame::Node;

namespace {

class SerializedFrameFaultTest : public zelTest::SerializedFixture {
protected:
    void SetUp() override {
        SerializedFixture::SetUp();
        const ref_ptr<Frame> frame = makeFrame();
        frame->addValue(real("a", 1).get(), "a");
        const ref_ptr<SerializedFrame> serialized(new SerializedFrame(frame.get()));
        header = serialized->writeBinaryHeader();
        segment = segmentOf(*serialized);
        root = new SerializedFrame::Component(Frame::NoId, zel::Name());
    }
    template <typename T>
    void put(zel::size_t offset, T value) {
        std::memcpy(header->getData() + offset, &value, sizeof(T));
    }
    void extract(OnFault onFault) {
        (void)ref_ptr<Frame>(SerializedFrame::extractFrame(header.get(), segment.get(), onFault));
    }
    void create(OnFault onFault) {
        (void)ref_ptr<Frame>(SerializedFrame::createFrame(root.get(), 0, 0, 0, onFault));
    }
    /// Adds a node of plain elements, which lie at the beginning of a segment of 16 bytes.
    void addBuffer(SerializedFrame::Component* parent,
                   const char* name,
                   const char* format,
                   uint64 numElements,
                   uint64 offset = 0) {
        const ref_ptr<Node> node(new SerializedFrame::Buffer(
            1, name, zelData::getFormat(format), numElements, offset, bytes.get()));
        parent->addChild(node.get());
    }
    SerializedFrame::CustomBuffer* addCustom(const char* format, uint64 numElements) {
        const ref_ptr<SerializedFrame::CustomBuffer> node(
            new SerializedFrame::CustomBuffer(1, "custom", zelData::getFormat(format), numElements));
        root->addChild(node.get());
        return node.get();
    }
    SerializedFrame::PartialBuffer* addPartial(uint64 fullSize) {
        const ref_ptr<SerializedFrame::PartialBuffer> node(
            new SerializedFrame::PartialBuffer(1, "part", zelData::getFormat("Real"), 2, fullSize));
        root->addChild(node.get());
        return node.get();
    }

    ref_ptr<BinaryData> header; // of a frame with the value "a": 56 + 12 + (4 + 1) + (4 + 10) + 8 + 44 bytes
    ref_ptr<BinaryData> segment;
    ref_ptr<SerializedFrame::Component> root;
    ref_ptr<BinaryData> bytes{dataOf(std::string(16, '\0'))};
    static constexpr zel::size_t Table = 56;
    static constexpr zel::size_t Events = Table + 12 + 5 + 14;
    static constexpr zel::size_t Tree = Events + 8;
};

#define EXPECT_FAULT(action, deathText, exceptionText)                                                       \
    do {                                                                                                     \
        EXPECT_DEATH(action(OnFault::EndProcess), deathText);                                                \
        EXPECT_EQ(zelTest::whatOf([&] { action(OnFault::Throw); }), exceptionText);                          \
    } while (false)

using SerializedFrameFaultDeathTest = SerializedFrameFaultTest;

TEST_F(SerializedFrameFaultDeathTest, ARecordEndsWithItsTag) {
    put<uint32>(48, 0);
    EXPECT_FAULT(extract,
                 "frameMeta.endTag == BinaryHeader::EndTag",
                 "A frame is damaged: frameMeta.endTag == BinaryHeader::EndTag");
}

TEST_F(SerializedFrameFaultDeathTest, AHeaderHoldsItsRecord) {
    header = dataOf(std::string(55, '\0'));
    EXPECT_FAULT(extract,
                 "\\(size_t\\)\\(m_end - m_head\\) >= sizeof\\(T\\)",
                 "A frame is damaged: (size_t)(m_end - m_head) >= sizeof(T)");
}

TEST_F(SerializedFrameFaultDeathTest, SectionsEndWithTheirTag) {
    put<uint32>(Events - 4, 1);
    EXPECT_FAULT(extract, "element == value", "A frame is damaged: element == value");
    put<uint32>(Events - 4, 0xFFFFFFFFU);
    put<uint32>(Events + 4, 1);
    EXPECT_FAULT(extract, "element == value", "A frame is damaged: element == value");
    put<uint32>(Events + 4, 0xFFFFFFFFU);
    put<uint32>(header->getSize() - 4, 1);
    EXPECT_FAULT(extract, "element == value", "A frame is damaged: element == value");
}

TEST_F(SerializedFrameFaultDeathTest, NamesLieWithinTheHeader) {
    put<uint32>(Table + 8, 0xFFFFFFF0U); // the length of the first
    EXPECT_FAULT(extract,
                 "\\(size_t\\)\\(m_end-m_head\\) >= numBytes",
                 "A frame is damaged: (size_t)(m_end-m_head) >= numBytes");
    put<uint32>(Table, 0xFFFFFFFFU); // their number
    EXPECT_FAULT(extract,
                 "\\(size_t\\)\\(m_end-m_head\\) >= numBytes",
                 "A frame is damaged: (size_t)(m_end-m_head) >= numBytes");
}

TEST_F(SerializedFrameFaultDeathTest, IdsOfNamesEndAheadOfThatOfTheEmptyOne) {
    put<uint32>(Table + 4, 0xFFFFFFFEU);
    EXPECT_FAULT(
        extract, "firstId \\+ count <= EmptyName", "A frame is damaged: its names end at 4294967296");
}

TEST_F(SerializedFrameFaultDeathTest, NamesAreKnown) {
    put<uint32>(Tree + 16 + 8, 7); // of the value
    EXPECT_FAULT(extract, "zelVerify failed: `name'", "A frame is damaged: it has no name with the id 7");
}

TEST_F(SerializedFrameFaultDeathTest, NodesAreOfAKnownType) {
    put<uint32>(Tree + 16, 6);
    EXPECT_FAULT(extract, "Unknown node type '6'", "Unknown node type '6'");
}

TEST_F(SerializedFrameFaultDeathTest, TheRootIsAComponent) {
    put<uint32>(Tree, 5);
    put<uint32>(Tree + 16, 0xFFFFFFFFU); // what are children else is the entity: none
    EXPECT_DEATH(extract(OnFault::EndProcess), "zelVerify failed");
    EXPECT_THROW(extract(OnFault::Throw), std::runtime_error);
    put<uint32>(Tree, 0);
    put<uint32>(Tree + 12, 1); // the format
    put<uint32>(Tree + 16, 8); // its bytes
    EXPECT_FAULT(extract,
                 "rootNode->is<SerializedFrame::Component>\\(\\)",
                 "A frame is damaged: rootNode->is<SerializedFrame::Component>()");
}

TEST_F(SerializedFrameFaultDeathTest, FormatsAndEntitiesAreKnown) {
    put<char>(Events - 14, 'X'); // Xeal:64bit
    EXPECT_FAULT(extract, "`format', No format with name 'Xeal:64bit'", "No format with name 'Xeal:64bit'");

    SerializedFrame::NameLookup names;
    names.push_back(3, "Nowhere");
    const SerializedFrame::BinaryHeader::FrameExtractor extractor(
        header.get(), segment.get(), names, nullptr, OnFault::EndProcess);
    EXPECT_DEATH((void)extractor.getEntityModel(3), "`model', No entity with name 'Nowhere'");
}

TEST_F(SerializedFrameFaultDeathTest, SizesBelongToTheirFormat) {
    put<uint32>(Tree + 16 + 16, 4);
    EXPECT_FAULT(
        extract, "format->getSize\\(\\) == numBytes", "A frame is damaged: format->getSize() == numBytes");
}

TEST_F(SerializedFrameFaultDeathTest, ElementsLieWithinTheSegment) {
    put<uint32>(Tree + 16 + 20, 1);
    EXPECT_FAULT(
        extract,
        "offset \\+ numBytes <= serializedValue->getData\\(\\)->size\\(\\)', SerializedFrame: Unable to "
        "copy 8 bytes from offset 1 in node a",
        "SerializedFrame: Unable to copy 8 bytes from offset 1 in node a");
    addBuffer(root.get(), "b", "UInt:8bit", 4, 13);
    EXPECT_FAULT(
        create,
        "offset \\+ numBytes <= serializedBuffer->getData\\(\\)->size\\(\\)', SerializedFrame: Unable "
        "to copy 4 bytes from offset 13 in node b",
        "SerializedFrame: Unable to copy 4 bytes from offset 13 in node b");
}

TEST_F(SerializedFrameFaultDeathTest, EventsAreKnown) {
    const ref_ptr<Frame> frame = makeFrame();
    frame->addEvent(ref_ptr<zel::Object::Event>(
                        new zelData::EntityStorage::CreateInstanceEvent(nullptr, zelData::EntityPtr()))
                        .get());
    header = ref_ptr<SerializedFrame>(new SerializedFrame(frame.get()))->writeBinaryHeader();
    put<char>(Table + 12, 'X');
    EXPECT_FAULT(extract,
                 "0x[0-9a-f]+: Unknown event type 'XntityStorage.CreateInstanceEvent'",
                 "Unknown event type 'XntityStorage.CreateInstanceEvent'");
}

TEST_F(SerializedFrameFaultDeathTest, PartsOfPartialBuffersAreThere) {
    auto* part = addPartial(9);
    EXPECT_FAULT(create,
                 "`serializedIndexBuffer', SerializedFrame: Expected index buffer in node part",
                 "SerializedFrame: Expected index buffer in node part");
    addBuffer(part, "index", "UInt", 2);
    EXPECT_FAULT(create,
                 "`serializedDataBuffer', SerializedFrame: Expected data buffer in node part",
                 "SerializedFrame: Expected data buffer in node part");
    addBuffer(part, "data", "Real", 1);
    EXPECT_FAULT(create,
                 "indexBuffer->size\\(\\) == dataBuffer->size\\(\\)",
                 "A frame is damaged: indexBuffer->size() == dataBuffer->size()");
}

TEST_F(SerializedFrameFaultDeathTest, PartsOfTakenApartBuffersAreThere) {
    auto* handles = addCustom("EntityPtr", 2);
    EXPECT_FAULT(create,
                 "`serializedIdBuffer', SerializedFrame: Expected id buffer in node custom",
                 "SerializedFrame: Expected id buffer in node custom");
    addBuffer(handles, "id", "UInt", 2);
    EXPECT_FAULT(create,
                 "`serializedStorageBuffer', SerializedFrame: Expected storage buffer in node custom",
                 "SerializedFrame: Expected storage buffer in node custom");
    for (const char* format : {"Array<Real>", "Name", "String"}) {
        root = new SerializedFrame::Component(Frame::NoId, zel::Name());
        addCustom(format, 2);
        EXPECT_FAULT(create,
                     "`serializedRangeBuffer', SerializedFrame: Expected range buffer in node custom",
                     "SerializedFrame: Expected range buffer in node custom");
    }
}

TEST_F(SerializedFrameFaultDeathTest, OnlyEventsOfStoragesAreWritten) {
    const ref_ptr<Frame> frame = makeFrame();
    frame->addEvent(ref_ptr<zel::Object::Event>(new zel::Object::Event).get());
    const ref_ptr<SerializedFrame> serialized(new SerializedFrame(frame.get()));
    EXPECT_DEATH((void)serialized->writeBinaryHeader(), "An event of this class can not be serialized");
    EXPECT_DEATH((void)serialized->writeXmlHeader(), "An event of this class can not be written in XML");
}

TEST_F(SerializedFrameFaultDeathTest, AStreamThatFailsEndsTheProcess) {
    const ref_ptr<Frame> frame = makeFrame();
    frame->addValue(real("a", 1).get(), "a");
    const ref_ptr<SerializedFrame> serialized(new SerializedFrame(frame.get()));
    std::ostringstream stream;
    stream.setstate(std::ios::badbit);
    EXPECT_DEATH(serialized->writeDataSegment(stream),
                 "binaryFile.good\\(\\)', SerializedFrame: Could not write 'a' to binary file");
}

TEST_F(SerializedFrameFaultTest, UnknownCustomFormatsAreRefused) {
    addCustom("Real", 2);
    EXPECT_EQ(zelTest::whatOf([&] { create(OnFault::EndProcess); }),
              "SerializedFrame: Unknown custom buffer format 'Real:64bit' in node custom");
}

TEST_F(SerializedFrameFaultTest, PointersDoNotStandAsBytes) {
    for (const char* format : {"EntityPtr", "String", "Array<Real>", "ObjectPointer"}) {
        root = new SerializedFrame::Component(Frame::NoId, zel::Name());
        const zelData::Format* pointers = zelData::getFormat(format);
        bytes = dataOf(std::string(pointers->getSize(), '\0'));
        addBuffer(root.get(), "b", format, 1);
        EXPECT_EQ(zelTest::whatOf([&] { create(OnFault::EndProcess); }),
                  "SerializedFrame: elements of format '" + pointers->fullName() +
                      "' can not stand as bytes in node b");
    }
}

TEST_F(SerializedFrameFaultTest, PlacesRiseWithinTheWhole) {
    const auto put2 = [this](uint64 a, uint64 b) {
        std::memcpy(bytes->getData(), &a, 8);
        std::memcpy(bytes->getData() + 8, &b, 8);
    };
    auto* part = addPartial(9);
    addBuffer(part, "index", "UInt", 2);
    addBuffer(part, "data", "Real", 2);
    put2(3, 8);
    create(OnFault::Throw);
    put2(3, 9);
    EXPECT_EQ(zelTest::whatOf([&] { create(OnFault::Throw); }),
              "SerializedFrame: the place of element 1 is wrong in node part");
    put2(3, 3);
    EXPECT_EQ(zelTest::whatOf([&] { create(OnFault::Throw); }),
              "SerializedFrame: the place of element 1 is wrong in node part");
    create(OnFault::EndProcess);
}

TEST_F(SerializedFrameFaultTest, RangesLieWithinTheElements) {
    const auto putRange = [this](uint32 begin, uint32 end) {
        std::memcpy(bytes->getData(), &begin, 4);
        std::memcpy(bytes->getData() + 4, &end, 4);
    };
    for (const char* format : {"Array<Real>", "String"}) {
        root = new SerializedFrame::Component(Frame::NoId, zel::Name());
        auto* custom = addCustom(format, 1);
        addBuffer(custom, "range", "IndexRange:32bit", 1);
        addBuffer(custom, "elements", "Real", 2);
        addBuffer(custom, "characters", "UInt:8bit", 2);
        putRange(1, 2);
        create(OnFault::Throw);
        for (const auto& [begin, end] : {std::pair{2U, 3U}, {2U, 1U}, {0U, 0xFFFFFFFFU}}) {
            putRange(begin, end);
            EXPECT_EQ(zelTest::whatOf([&] { create(OnFault::Throw); }),
                      "SerializedFrame: the range of element 0 lies outside in node custom");
        }
        putRange(0, 0);
    }
}

TEST_F(SerializedFrameFaultTest, PartsHaveAsManyElementsAsTheWhole) {
    auto* custom = addCustom("EntityPtr", 0xFFFFFFFF);
    addBuffer(custom, "id", "UInt", 2);
    addBuffer(custom, "storage", "UInt", 2);
    EXPECT_EQ(zelTest::whatOf([&] { create(OnFault::Throw); }),
              "SerializedFrame: 'id' has 2 elements, and not 4294967295, in node custom");
}

TEST_F(SerializedFrameFaultTest, TheSameBytesAreNotShownAgainAndAgain) {
    for (int i = 0; i < 16; ++i)
        addBuffer(root.get(), ("b" + std::to_string(i)).c_str(), "Real", 2);
    create(OnFault::Throw);
    addBuffer(root.get(), "c", "UInt:8bit", 1);
    for (const OnFault onFault : {OnFault::Throw, OnFault::EndProcess})
        EXPECT_EQ(zelTest::whatOf([&] { create(onFault); }),
                  "SerializedFrame: the buffers up to node c show the same bytes again and again");
}

TEST_F(SerializedFrameFaultTest, ElementsAreOfTheFormatOfTheirArrays) {
    auto* arrays = addCustom("Array<Real>", 1);
    addBuffer(arrays, "range", "IndexRange:32bit", 1);
    addBuffer(arrays, "elements", "UInt:8bit", 16);
    EXPECT_EQ(zelTest::whatOf([&] { create(OnFault::Throw); }),
              "SerializedFrame: format 'UInt:8bit' is not that of the elements in node custom");
}

TEST_F(SerializedFrameFaultTest, PartsAreOfTheRightFormat) {
    auto* custom = addCustom("String", 1);
    addBuffer(custom, "range", "UInt", 1);
    EXPECT_EQ(zelTest::whatOf([&] { create(OnFault::Throw); }),
              "SerializedFrame: format 'UInt:64bit' holds no ranges in node custom");
    root = new SerializedFrame::Component(Frame::NoId, zel::Name());
    custom = addCustom("String", 1);
    addBuffer(custom, "range", "IndexRange:32bit", 1);
    addBuffer(custom, "characters", "UInt:16bit", 1);
    EXPECT_EQ(zelTest::whatOf([&] { create(OnFault::Throw); }),
              "SerializedFrame: format 'UInt:16bit' holds no characters in node custom");
    root = new SerializedFrame::Component(Frame::NoId, zel::Name());
    custom = addCustom("EntityPtr", 1);
    addBuffer(custom, "id", "Real", 1);
    addBuffer(custom, "storage", "UInt", 1);
    EXPECT_EQ(zelTest::whatOf([&] { create(OnFault::Throw); }),
              "SerializedFrame: format 'Real:64bit' holds no numbers in node custom.id");
}

/// Whether nothing of a frame tells of memory that no test has.
bool isSmall(const zel::Component* node) {
    constexpr uint64 limit = 100'000;
    const auto* part = dynamic_cast<const Frame::PartialBuffer*>(node);
    const auto* storage = dynamic_cast<const Frame::EntityStorage*>(node);
    if ((part != nullptr && part->getFullSize() > limit) || (storage != nullptr && storage->size() > limit))
        return false;
    for (zel::size_t i = 0; i < node->getNumObjects(); ++i) {
        const auto* below = dynamic_cast<const zel::Component*>(node->getObject(i));
        if (below != nullptr && dynamic_cast<const Buffer*>(below) == nullptr && !isSmall(below))
            return false;
    }
    return true;
}

/// Whatever the bytes are, a reader that throws lives on, and gives a frame that can be written again, merged
/// and applied to a tree.
TEST_F(SerializedFrameFaultTest, DamagedBytesNeverHarmAReaderThatThrows) {
    const auto frame = fullFrame();
    const ref_ptr<SerializedFrame> serialized(new SerializedFrame(frame.get()));
    const std::string whole = textOf(serialized->writeBinaryHeader().get());
    const std::string data = textOf(segmentOf(*serialized).get());
    std::mt19937 random(zelTest::stressSeed());
    const ref_ptr<zel::Component> tree(new zel::Component("root"));
    const ref_ptr<zel::Component> below(new zel::Component("a"));
    tree->addObject(below.get());
    const auto addBuffer = [](zel::Component* parent, const char* name, const char* format) {
        parent->addObject(ref_ptr<Buffer>(new Buffer(name, zelData::getFormat(format))).get());
    };
    addBuffer(tree.get(), "bytes", "UInt:8bit");
    addBuffer(tree.get(), "texts", "String");
    addBuffer(tree.get(), "handles", "EntityPtr");
    addBuffer(below.get(), "part", "Real");
    below->addObject(ref_ptr<zelData::EntityStorage>(
                         new zelData::EntityStorage(zelData::getEntity("Serialized"), "bodies"))
                         .get());
    const ref_ptr<zelData::FrameApply> target(new zelData::FrameApply(tree.get()));
    zel::Notify::instance()->setNotifyLevel(zel::Notify::Error); // of what does not fit there are many
    const auto read = [&](const std::string& headerBytes, const std::string& segmentBytes) {
        try {
            const ref_ptr<Frame> copy(SerializedFrame::extractFrame(
                dataOf(headerBytes).get(), dataOf(segmentBytes).get(), OnFault::Throw));
            expectWhole(copy.get());
            const ref_ptr<Frame> again = throughBytes(copy.get());
            expectWhole(again.get());
            if (!isSmall(copy.get()))
                return;
            target->writeFrame(copy.get());
            const ref_ptr<zelTest::MemorySession> session(new zelTest::MemorySession);
            for (Frame* part : {frame.get(), copy.get(), again.get()}) {
                part->setIndex(session->getNumFrames());
                part->setKeyFrame(part == frame);
                session->append(part);
            }
            const ref_ptr<zelTest::MemoryReader> reader(new zelTest::MemoryReader(session.get()));
            for (const uint64 index : {2U, 1U}) {
                EXPECT_TRUE(reader->jumpToFrame(index));
                const ref_ptr<Frame> merged(static_cast<zelData::FrameReader&>(*reader).readFrame());
                expectWhole(merged.get());
                target->writeFrame(merged.get());
            }
        } catch (const std::runtime_error&) {
        }
    };
    for (zel::size_t length = 0; length < whole.size(); ++length)
        read(whole.substr(0, length), data);
    for (zel::size_t length = 0; length < data.size(); ++length)
        read(whole, data.substr(0, length));
    for (zel::size_t i = 0; i < whole.size(); ++i)
        for (const int flip : {0x01, 0x80, 0xFF}) {
            std::string damaged = whole;
            damaged[i] = static_cast<char>(damaged[i] ^ flip);
            read(damaged, data);
        }
    for (int i = 0; i < 2000; ++i) {
        std::string damaged = whole;
        for (int k = 0; k < 4; ++k)
            damaged[random() % damaged.size()] = static_cast<char>(random());
        read(damaged, data);
    }
}

} // namespace
