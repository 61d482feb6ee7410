#pragma once

#include "FrameFixture.h"

#include <algorithm>
#include <map>
#include <random>
#include <string>
#include <vector>

namespace zelTest {

/// Makes key frames and increments at random, and keeps what each of them changes in the terms of a model, to
/// be compared with what comes back from a session.
class FrameModelFixture : public FrameFixture {
protected:
    /// What stands at a path: a number, or a buffer in whole or in part.
    struct Content {
        double value = 0;
        std::vector<double> elements;
        std::map<zel::uint64, double> part;
        zel::uint64 fullSize = 0;
        enum { Value, Whole, Part } kind = Value;
        bool operator==(const Content&) const = default;
    };
    using State = std::map<std::string, Content>;

    void TearDown() override {
        clearModel();
        FrameFixture::TearDown();
    }
    void clearModel() {
        changes.clear();
        indices.clear();
        keys.clear();
        m_sizes = {{"a.x", 5}, {"a.y", 1}, {"s.mass", 8}};
        m_index = 0;
    }
    void startAt(zel::uint64 index) { m_index = index; }
    /// Forgets the frames from the place on.
    void dropFrom(zel::size_t place) {
        changes.resize(place);
        indices.resize(place);
        keys.resize(place);
    }

    /// The next frame, whose index is one or two above that of the last.
    zel::ref_ptr<zelData::Frame> makeAtRandom(std::mt19937& random, bool isKeyFrame) {
        using zelData::Frame;
        const auto draw = [&random](zel::uint64 n) { return static_cast<zel::uint64>(random() % n); };
        if (m_model == nullptr)
            m_model = entity("Bodies", "<Attribute.Scalar name='mass' type='Real'/>");
        zel::ref_ptr<Frame> frame(new Frame(m_index, 0.5 * static_cast<double>(m_index), 0.5));
        frame->setKeyFrame(isKeyFrame);
        State change;
        for (const char* path : {"v", "a.w"})
            if (isKeyFrame || draw(3) == 0) {
                change[path].value = static_cast<double>(random());
                frame->addValue(real(zel::Path(path).back(), change[path].value).get(), path);
            }
        // Each frame brings names of its own now and then.
        if (draw(4) == 0) {
            const zel::Name name("own" + std::to_string(m_index));
            change[name.str()].value = static_cast<double>(random());
            frame->addValue(real(name, change[name.str()].value).get(), name);
        }
        for (auto& [path, size] : m_sizes) {
            if (!isKeyFrame && draw(3) == 0)
                continue;
            Content& content = change[path];
            const zel::uint64 oldSize = size;
            if (draw(3) == 0)
                size = 1 + draw(10);
            zel::Component* context = frame->getContext(path);
            if (path == "s.mass") {
                const zel::ref_ptr<Frame::EntityStorage> storage(
                    new Frame::EntityStorage("s", m_model, size, 16));
                frame->removeNode(context);
                frame->addStorage(storage.get(), "s");
                context = storage.get();
            }
            if (isKeyFrame || draw(2) == 0) {
                content.kind = Content::Whole;
                for (zel::uint64 k = 0; k < size; ++k)
                    content.elements.push_back(static_cast<double>(random()));
                const auto buffer = reals(zel::Path(path).back(), {});
                buffer->resize(size);
                std::copy(content.elements.begin(), content.elements.end(), buffer->data<double>());
                frame->addNode(context, buffer.get());
                continue;
            }
            content.kind = Content::Part;
            content.fullSize = size;
            for (zel::uint64 k = 0; k < size; ++k)
                if (k >= oldSize || draw(3) == 0)
                    content.part[k] = static_cast<double>(random());
            if (content.part.empty())
                content.part[0] = 1;
            const zel::ref_ptr<Frame::PartialBuffer> part(new Frame::PartialBuffer(
                zel::Path(path).back(), zelData::getFormat("Real"), content.part.size(), size));
            zel::uint64 k = 0;
            for (const auto& [place, element] : content.part) {
                part->getIndexBuffer()->data<zel::uint64>()[k] = place;
                part->getDataBuffer()->data<double>()[k++] = element;
            }
            frame->addNode(context, part.get());
        }
        changes.push_back(change);
        indices.push_back(m_index);
        keys.push_back(isKeyFrame);
        m_index += draw(8) == 0 ? 2U : 1U;
        return frame;
    }

    /// The changes of the frames from the last key frame, or the one given if that comes later, up to the
    /// place.
    State between(zel::size_t first, zel::size_t last) const {
        zel::size_t begin = last;
        while (begin > first && !keys[begin])
            --begin;
        State state;
        for (zel::size_t i = begin; i <= last; ++i)
            apply(state, changes[i]);
        return state;
    }
    void expectState(const zelData::Frame* frame, const State& expected, const char* how) {
        ASSERT_NE(frame, nullptr) << how;
        State state;
        describe(frame, zel::Path(), state);
        EXPECT_TRUE(state == expected) << how << " of frame " << frame->getIndex();
        expectWhole(frame);
    }

    std::vector<State> changes;
    std::vector<zel::uint64> indices;
    std::vector<bool> keys;

private:
    /// What a frame holds, in the terms of the model.
    static void describe(const zel::Component* node, const zel::Path& path, State& state) {
        for (zel::size_t i = 0; i < node->getNumObjects(); ++i) {
            zel::Object* child = node->getObject(i);
            const zel::Path childPath = path + child->getName();
            Content content;
            if (auto* value = dynamic_cast<zelData::Value*>(child)) {
                content.value = *static_cast<const double*>(value->getData());
            } else if (const auto* part = dynamic_cast<const zelData::Frame::PartialBuffer*>(child)) {
                content.kind = Content::Part;
                content.fullSize = part->getFullSize();
                for (zel::uint64 k = 0; k < part->size(); ++k)
                    content.part[part->getIndexBuffer()->data<zel::uint64>()[k]] =
                        part->getDataBuffer()->data<double>()[k];
            } else if (const auto* buffer = dynamic_cast<const zelData::Buffer*>(child)) {
                content.kind = Content::Whole;
                content.elements = elementsOf<double>(buffer);
            } else {
                describe(dynamic_cast<const zel::Component*>(child), childPath, state);
                continue;
            }
            state[childPath.str()] = content;
        }
    }

    /// What a frame changes, applied to what was there.
    static void apply(State& state, const State& change) {
        for (const auto& [path, content] : change) {
            Content& present = state[path];
            if (content.kind != Content::Part || (present.kind == Content::Value && present == Content())) {
                present = content;
                continue;
            }
            if (present.kind == Content::Whole) {
                present.elements.resize(content.fullSize);
                for (const auto& [place, element] : content.part)
                    present.elements[place] = element;
                continue;
            }
            std::erase_if(present.part, [&](const auto& entry) { return entry.first >= content.fullSize; });
            for (const auto& [place, element] : content.part)
                present.part[place] = element;
            present.fullSize = content.fullSize;
        }
    }

    std::map<std::string, zel::uint64> m_sizes{{"a.x", 5}, {"a.y", 1}, {"s.mass", 8}};
    zel::uint64 m_index = 0;
    zelData::EntityModel* m_model = nullptr;
};

} // namespace zelTest
