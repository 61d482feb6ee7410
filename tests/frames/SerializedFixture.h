#pragma once

#include "FrameFixture.h"

#include <zelData/EntityStorageEvents.h>
#include <zelData/FrameIO.h>
#include <zelData/SerializedFrame.h>
#include <zelData/SerializedNodes.h>

#include <functional>
#include <set>
#include <sstream>
#include <string>
#include <vector>

namespace zelTest {

/// Wants all nodes but those of some paths, and remembers what it was asked for.
class PickyReader : public zelData::FrameReader {
public:
    explicit PickyReader(std::set<std::string> unwanted = {}) : m_unwanted(std::move(unwanted)) {}
    zelData::Frame* readFrame() override { return nullptr; }
    bool shouldExtract(const zel::Path& path) override {
        asked.push_back(path.str());
        return !m_unwanted.contains(path.str());
    }
    std::vector<std::string> asked;

private:
    std::set<std::string> m_unwanted;
};

/// Frames as bytes and back.
class SerializedFixture : public FrameFixture {
protected:
    static zel::ref_ptr<zelData::BinaryData> segmentOf(const zelData::SerializedFrame& serialized) {
        std::ostringstream stream;
        serialized.writeDataSegment(stream);
        const std::string bytes = stream.str();
        return zel::ref_ptr<zelData::BinaryData>(zelData::BinaryData::copy(bytes.data(), bytes.size()));
    }
    static zel::ref_ptr<zelData::Frame> throughBytes(const zelData::Frame* frame) {
        const zel::ref_ptr<zelData::SerializedFrame> serialized(new zelData::SerializedFrame(frame));
        return zel::ref_ptr<zelData::Frame>(zelData::SerializedFrame::extractFrame(
            serialized->writeBinaryHeader().get(), segmentOf(*serialized).get()));
    }
    static std::string textOf(const zelData::BinaryData* data) {
        return {reinterpret_cast<const char*>(data->getData()), data->getSize()};
    }
    static zel::ref_ptr<zelData::BinaryData> dataOf(const std::string& bytes) {
        return zel::ref_ptr<zelData::BinaryData>(zelData::BinaryData::copy(bytes.data(), bytes.size()));
    }
    template <typename T>
    static T at(const zelData::BinaryData* data, zel::size_t offset) {
        T value;
        std::memcpy(&value, data->getData() + offset, sizeof(T));
        return value;
    }

    zel::ref_ptr<zelData::Buffer> texts(const char* type, std::initializer_list<const char*> content) {
        zel::ref_ptr<zelData::Buffer> buffer(new zelData::Buffer("texts", zelData::getFormat(type)));
        buffer->resize(content.size());
        zel::size_t i = 0;
        for (const char* text : content)
            if (std::string(type) == "Name")
                buffer->data<zel::Name>()[i++] = text;
            else
                buffer->data<zel::String>()[i++] = text;
        return buffer;
    }

    /// A frame with a node of each kind.
    zel::ref_ptr<zelData::Frame> fullFrame() {
        const zel::ref_ptr<zelData::Frame> frame(new zelData::Frame(11, 5.5, 0.5));
        frame->setId(77);
        frame->setKeyFrame(true);
        frame->addBuffer(makeBuffer<zel::uint8>("bytes", "UInt:8bit", {1, 2, 3}).get(), "bytes");
        frame->addValue(real("time", 2.5).get(), "a.b.time");
        frame->addBuffer(partial("part", {1, 4}, {10, 40}, 6).get(), "a.part");
        auto* model = entity("Serialized", "<Attribute.Scalar name='mass' type='Real'/>");
        const zel::ref_ptr<zelData::Frame::EntityStorage> storage(
            new zelData::Frame::EntityStorage("bodies", model, 2, 4));
        frame->addStorage(storage.get(), "a.bodies");
        frame->addNode(storage.get(), reals("mass", {3, 4}).get());
        frame->addNode(storage.get(), numbers("_idToIndex", {1, 0, 2, 3}).get());
        frame->addBuffer(texts("String", {"sun", "", "moon"}).get(), "texts");
        const zel::ref_ptr<zelData::Buffer> handles(
            new zelData::Buffer("handles", zelData::getFormat("EntityPtr")));
        handles->resize(2);
        const zel::ref_ptr<zelData::EntityStorage> live(new zelData::EntityStorage(model));
        live->setId(4321);
        handles->data<zelData::EntityPtr>()[0] = zelData::EntityPtr(live.get(), 9);
        frame->addBuffer(handles.get(), "handles");
        m_live.push_back(live);
        const zel::ref_ptr<zelData::Buffer> arrays(
            new zelData::Buffer("arrays", zelData::getFormat("Array<Real>")));
        arrays->resize(2);
        const auto elements = reals("elements", {7, 8, 9});
        arrays->setElementBuffer(elements.get());
        arrays->data<zelData::AbstractArray>()[0].bind(elements.get(), {0, 1});
        arrays->data<zelData::AbstractArray>()[1].bind(elements.get(), {1, 3});
        frame->addBuffer(arrays.get(), "arrays");
        return frame;
    }
    /// Checks a copy of fullFrame().
    void expectFullFrame(zelData::Frame* frame) {
        using zelData::Frame;
        EXPECT_EQ(frame->getIndex(), 11U);
        EXPECT_EQ(frame->getTimeStamp(), 5.5);
        EXPECT_EQ(frame->getTimeStep(), 0.5);
        EXPECT_EQ(frame->getId(), 77U);
        EXPECT_TRUE(frame->isKeyFrame());
        EXPECT_TRUE(frame->isSerialized());
        EXPECT_EQ(elementsOf<zel::uint8>(frame->getBuffer("bytes")), (std::vector<zel::uint8>{1, 2, 3}));
        EXPECT_EQ(contentOf(frame->getResource("a.b.time")), 2.5);
        const auto& part = dynamic_cast<Frame::PartialBuffer&>(*frame->getResource("a.part"));
        EXPECT_EQ(part.getFullSize(), 6U);
        EXPECT_EQ(elementsOf<zel::uint64>(part.getIndexBuffer()), (std::vector<zel::uint64>{1, 4}));
        EXPECT_EQ(elementsOf<double>(part.getDataBuffer()), (std::vector<double>{10, 40}));
        const auto& storage = dynamic_cast<Frame::EntityStorage&>(*frame->getResource("a.bodies"));
        EXPECT_EQ(storage.getModel(), zelData::getEntity("Serialized"));
        EXPECT_EQ(storage.size(), 2U);
        EXPECT_EQ(storage.capacity(), 4U);
        EXPECT_EQ(elementsOf<double>(frame->getBuffer("a.bodies.mass")), (std::vector<double>{3, 4}));
        EXPECT_EQ(elementsOf<zel::uint64>(storage.getIdToIndexBuffer()),
                  (std::vector<zel::uint64>{1, 0, 2, 3}));
        const zelData::Buffer* texts = frame->getBuffer("texts");
        ASSERT_EQ(texts->size(), 3U);
        EXPECT_EQ(texts->data<zel::String>()[0], "sun");
        EXPECT_EQ(texts->data<zel::String>()[1], "");
        EXPECT_EQ(texts->data<zel::String>()[2], "moon");
        const auto* handles = frame->getBuffer("handles")->data<zelData::EntityPtr>();
        EXPECT_EQ(handles[0].getId(), 9U);
        EXPECT_EQ(reinterpret_cast<zel::uint64>(handles[0].getStorage()), 4321U);
        EXPECT_EQ(reinterpret_cast<zel::uint64>(handles[1].getStorage()), 0xFFFFFFFFU);
        const zelData::Buffer* arrays = frame->getBuffer("arrays");
        ASSERT_NE(arrays->getElementBuffer(), nullptr);
        const auto* views = arrays->data<zelData::Array<double>>();
        EXPECT_EQ((std::vector<double>(views[0].begin(), views[0].end())), (std::vector<double>{7}));
        EXPECT_EQ((std::vector<double>(views[1].begin(), views[1].end())), (std::vector<double>{8, 9}));
        EXPECT_EQ(views[1].buffer(), arrays->getElementBuffer());
        expectWhole(frame);
    }

    void TearDown() override {
        m_live.clear();
        FrameFixture::TearDown();
    }

private:
    std::vector<zel::ref_ptr<zelData::EntityStorage>> m_live;
};

} // namespace zelTest
