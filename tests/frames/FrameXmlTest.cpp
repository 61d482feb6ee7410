#include "SerializedFixture.h"

#include <support/StreamCapture.h>

// Headers in XML.

using zel::Object;
using zel::ref_ptr;
using zel::uint64;
using zelData::BinaryData;
using zelData::EntityPtr;
using zelData::EntityRange;
using zelData::EntityStorage;
using zelData::Frame;
using zelData::SerializedFrame;

namespace {

class FrameXmlTest : public zelTest::SerializedFixture {
protected:
    static std::string print(const SerializedFrame& serialized) {
        const std::unique_ptr<TiXmlElement> element(serialized.writeXmlHeader());
        TiXmlPrinter printer;
        element->Accept(&printer);
        return printer.CStr();
    }
    ref_ptr<Frame> throughXml(const Frame* frame) {
        const ref_ptr<SerializedFrame> serialized(new SerializedFrame(frame));
        return ref_ptr<Frame>(
            SerializedFrame::extractFrame(parse(print(*serialized)), segmentOf(*serialized).get()));
    }
    /// Reads a frame with the content, over a segment of 16 zero bytes.
    ref_ptr<Frame> read(const std::string& content) {
        return ref_ptr<Frame>(SerializedFrame::extractFrame(
            parse("<Frame index='1' timeStamp='0' timeStep='0' id='2' keyFrame='false'>" + content +
                  "</Frame>"),
            dataOf(std::string(16, '\0')).get()));
    }
    void expectError(const std::string& content, const std::string& text) {
        const std::string what = zelTest::whatOf([&] { (void)read(content); });
        EXPECT_NE(what.find("] XML error: " + text + ". Error at row 1"), std::string::npos) << what;
    }
};
using FrameXmlDeathTest = FrameXmlTest;

TEST_F(FrameXmlTest, TellsEachKindOfNode) {
    const ref_ptr<Frame> frame(new Frame(3, 0.1, 0.5));
    frame->setId(8);
    const auto buffer = reals("b", {1, 2});
    buffer->setId(5);
    const auto value = real("v", 1);
    value->setId(6);
    frame->addBuffer(buffer.get(), "b");
    frame->addValue(value.get(), "c.v");
    const SerializedFrame serialized(frame.get());
    EXPECT_EQ(print(serialized),
              R"(<Frame index="3" timeStamp="0.10000000000000001" timeStep="0.5" id="8" keyFrame="false">
    <Buffer name="b" id="5" type="Real:64bit" numElements="2" numBytes="16" byteOffset="0" />
    <Component name="c" id="4294967295">
        <Value name="v" id="6" type="Real:64bit" numBytes="8" byteOffset="16" />
    </Component>
</Frame>
)");
}

TEST_F(FrameXmlTest, EachKindOfNodeComesBack) {
    const auto frame = fullFrame();
    const auto copy = throughXml(frame.get());
    expectFullFrame(copy.get());
    for (const char* path : {"bytes", "a.b", "a.b.time", "a.part", "a.bodies", "texts", "arrays"})
        EXPECT_EQ(copy->getResource(path)->getId(), frame->getResource(path)->getId()) << path;
}

TEST_F(FrameXmlTest, EventsComeBackWithTheIdOfTheirStorage) {
    auto* model = entity("Told", "<Attribute.Scalar name='mass' type='Real'/>");
    const ref_ptr<EntityStorage> storage(new EntityStorage(model));
    storage->setId(66);
    const ref_ptr<Frame> frame = makeFrame();
    const auto add = [&](Object::Event* event) { frame->addEvent(ref_ptr<Object::Event>(event).get()); };
    add(new EntityStorage::CreateInstanceEvent(storage.get(), EntityPtr(storage.get(), 1)));
    add(new EntityStorage::CreateInstancesEvent(storage.get(), EntityRange(storage.get(), 2, 5)));
    add(new EntityStorage::DestroyInstanceEvent(storage.get(), EntityPtr(storage.get(), 7)));
    add(new EntityStorage::DestroyInstancesEvent(storage.get(), EntityRange(storage.get(), 3, 4)));
    const auto copy = throughXml(frame.get());
    const auto& events = copy->getEvents();
    ASSERT_EQ(events.size(), 4U);
    for (const auto& event : events)
        EXPECT_EQ(
            reinterpret_cast<uint64>(dynamic_cast<const EntityStorage::InstanceEvent&>(*event).getStorage()),
            66U);
    EXPECT_EQ(dynamic_cast<const EntityStorage::CreateInstancesEvent&>(*events[1]).getRange().size(), 3U);
    EXPECT_EQ(dynamic_cast<const EntityStorage::DestroyInstanceEvent&>(*events[2]).getInstance().getId(), 7U);
    EXPECT_EQ(dynamic_cast<const EntityStorage::DestroyInstancesEvent&>(*events[3]).getRange().begin(), 3U);
    // A frame that was read holds numbers, which stand again as they are.
    EXPECT_EQ(reinterpret_cast<uint64>(
                  dynamic_cast<const EntityStorage::InstanceEvent&>(*throughXml(copy.get())->getEvents()[0])
                      .getStorage()),
              66U);
}

TEST_F(FrameXmlTest, ABufferWithBothMarksIsCustom) {
    const auto frame =
        read("<Buffer name='b' id='1' type='String' numElements='1' fullSize='3' "
             "customSerialization='true' isPartial='true'>"
             "<Buffer name='range' id='1' type='IndexRange:32bit' numElements='1' numBytes='8' "
             "byteOffset='0'/></Buffer>");
    ASSERT_NE(frame->getBuffer("b"), nullptr);
    EXPECT_EQ(frame->getBuffer("b")->data<zel::String>()[0], "");
}

TEST_F(FrameXmlTest, WhatIsWrongIsToldWithItsRow) {
    expectError("<Thing name='a' id='1'/>", "SerializedFrame: Unknown tag 'Thing'");
    expectError("<Value name='a' id='1' type='Real'/>", "Could not locate attribute 'numBytes'");
    expectError("<Value name='a' id='x' type='Real'/>", "Unable to parse attribute id");
    expectError("<Value name='a' id='1' type='Nothing' numBytes='8' byteOffset='0'/>",
                "FileFrameReader: Invalid format 'Nothing'");
    expectError("<Buffer name='a' id='1' type='Nothing' numElements='1' numBytes='8' byteOffset='0'/>",
                "SerializedFrame: Invalid format 'Nothing'");
    expectError("<Storage name='a' id='1' entity='Nothing' numElements='1' capacity='8'/>",
                "FileFrameReader: No entiy with name 'Nothing'");
    expectError("<Events><Event type='Nothing'/></Events>", "Unknown event type 'Nothing'");
}

TEST_F(FrameXmlDeathTest, SizesBelongToTheirFormat) {
    EXPECT_DEATH((void)read("<Value name='a' id='1' type='Real' numBytes='4' byteOffset='0'/>"),
                 "format->getSize\\(\\) == numBytes");
    EXPECT_DEATH(
        (void)read("<Buffer name='a' id='1' type='Real' numElements='2' numBytes='8' byteOffset='0'/>"),
        "format->getSize\\(\\) \\* numElements == numBytes");
    // The product of the two has more than 64 bits.
    EXPECT_DEATH((void)read("<Buffer name='a' id='1' type='Real' numElements='2305843009213693953' "
                            "numBytes='8' byteOffset='0'/>"),
                 "format->getSize\\(\\) \\* numElements == numBytes");
}

TEST_F(FrameXmlTest, TreesAreAtMost512Deep) {
    std::string deep;
    for (int i = 0; i < 511; ++i)
        deep += "<Component name='x' id='1'>";
    std::string end;
    for (int i = 0; i < 511; ++i)
        end += "</Component>";
    EXPECT_NO_THROW((void)read(deep + end));
    EXPECT_EQ(zelTest::whatOf([&] {
                  (void)read(deep +
                             "<Buffer name='b' id='1' type='Real' numElements='0' numBytes='0' "
                             "byteOffset='0'/>" +
                             end);
              }),
              "SerializedFrame: nodes lie more than 512 deep");
    EXPECT_EQ(
        zelTest::whatOf([&] { (void)read("<Component name='x' id='1'>" + deep + end + "</Component>"); }),
        "SerializedFrame: nodes lie more than 512 deep");
}

} // namespace
