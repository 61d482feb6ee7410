#include "JournalTree.h"

#include "frames/ElementForm.h"

#include <zel/TreeGate.h>
#include <zelData/Buffer.h>
#include <zelData/EntityPtr.h>
#include <zelData/Format.h>
#include <zelData/Frame.h>
#include <zelData/FrameNodes.h>
#include <zelData/PlainFrame.h>
#include <zelData/Type.h>
#include <zelData/Value.h>

#include <algorithm>
#include <cstring>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

namespace zelNet {

using zel::Component;
using zel::Object;
using zel::size_t;
using zel::uint32;
using zel::uint64;
using zelData::Buffer;
using zelData::ElementForm;
using zelData::Frame;
using zelData::PlainJournal;
using zelData::Value;

namespace {

template <typename Text>
bool areTextsEqual(const Buffer& a, const Buffer& b) {
    return std::equal(a.data<Text>(), a.data<Text>() + a.size(), b.data<Text>());
}

bool areElementsEqual(const Buffer& a, const Buffer& b) {
    if (a.size() != b.size())
        return false;
    if (a.empty())
        return true;
    if (a.hasPlainElements())
        return std::memcmp(a.getPtr(), b.getPtr(), a.size() * a.getElementSize()) == 0;
    return a.getType()->getName() == "Name" ? areTextsEqual<zel::Name>(a, b)
                                            : areTextsEqual<zel::String>(a, b);
}

/// Brings components to what those of a frame hold.
class TreeUpdate {
public:
    // NOLINTNEXTLINE(misc-no-recursion): frames are no deeper than SerializedFrame::MaxDepth
    void updateChildren(Component& target, const Component& source) const {
        // Those of one name in their order, the first one last. What listens to a value may change the tree.
        std::unordered_map<std::string_view, std::vector<zel::ref_ptr<Object>>> present;
        for (size_t i = target.getNumObjects(); i-- > 0;)
            present[target.getObject(i)->getName().c_str()].emplace_back(target.getObject(i));
        std::vector<zel::ref_ptr<Object>> added;
        for (size_t i = 0; i < source.getNumObjects(); ++i) {
            const Object& node = *source.getObject(i);
            std::vector<zel::ref_ptr<Object>>& ofName = present[node.getName().c_str()];
            if (!ofName.empty() && update(*ofName.back(), node))
                ofName.pop_back();
            else if (zel::ref_ptr<Object> object = make(node))
                added.push_back(std::move(object));
        }
        for (const auto& [name, objects] : present)
            for (const auto& object : objects)
                target.removeObject(object.get());
        for (const auto& object : added)
            target.addObject(object.get());
    }

private:
    /// @return false if the object is of another kind, or of another format
    // NOLINTNEXTLINE(misc-no-recursion)
    [[nodiscard]] bool update(Object& object, const Object& node) const {
        if (const auto* value = dynamic_cast<const Value*>(&node)) {
            auto* target = dynamic_cast<Value*>(&object);
            return target != nullptr && update(*target, *value);
        }
        auto* buffer = dynamic_cast<Buffer*>(&object);
        if (const auto* source = dynamic_cast<const Buffer*>(&node))
            return buffer != nullptr && update(*buffer, *source);
        const auto* component = dynamic_cast<const Component*>(&node);
        auto* target = dynamic_cast<Component*>(&object);
        if (component == nullptr || target == nullptr || buffer != nullptr)
            return false;
        updateChildren(*target, *component);
        return true;
    }

    static bool update(Value& value, const Value& source) {
        if (value.getFormat() != source.getFormat() || value.getBinding() != nullptr)
            return false;
        const void* element = const_cast<Value&>(source).getData(); // NOLINT
        if (std::memcmp(value.getData(), element, source.getFormat()->getSize()) != 0)
            value.set(element);
        return true;
    }

    static bool update(Buffer& buffer, const Buffer& source) {
        const zel::ref_ptr<const Buffer> shown = shownElements(source);
        if (!shown || buffer.getFormat() != shown->getFormat() ||
            buffer.getNumElementsValue()->getBinding() != nullptr)
            return false;
        if (areElementsEqual(buffer, *shown))
            return true;
        if (buffer.size() != shown->size())
            buffer.resize(shown->size(), !buffer.hasPlainElements());
        Buffer::copy(&buffer, shown.get());
        return true;
    }

    /// What stands for the elements of the frame's buffer; null where nothing does.
    static zel::ref_ptr<const Buffer> shownElements(const Buffer& source) {
        switch (zelData::elementFormOf(source.getFormat())) {
        case ElementForm::Plain:
        case ElementForm::Text:
            return zel::ref_ptr<const Buffer>(&source);
        case ElementForm::Handle: {
            const zel::ref_ptr<Buffer> ids(new Buffer(source.getName(), zelData::getFormat("UInt:32bit")));
            ids->resize(source.size(), false);
            for (uint64 i = 0; i < source.size(); ++i)
                ids->data<uint32>()[i] = source.data<zelData::EntityPtr>()[i].getId();
            return ids;
        }
        default:
            return {};
        }
    }

    /// @return null for what is not shown
    // NOLINTNEXTLINE(misc-no-recursion)
    zel::ref_ptr<Object> make(const Object& node) const {
        if (const auto* value = dynamic_cast<const Value*>(&node))
            return zel::ref_ptr<Object>(value->clone());
        if (const auto* buffer = dynamic_cast<const Buffer*>(&node)) {
            const zel::ref_ptr<const Buffer> shown = shownElements(*buffer);
            if (!shown)
                return {};
            const zel::ref_ptr<Buffer> made(new Buffer(shown->getName(), shown->getFormat()));
            (void)update(*made, *shown);
            return made;
        }
        const auto* component = dynamic_cast<const Component*>(&node);
        if (component == nullptr || dynamic_cast<const Frame::PartialBuffer*>(&node) != nullptr)
            return {};
        const zel::ref_ptr<Component> made(new Component(node.getName(), Component::ClassModel()));
        updateChildren(*made, *component);
        return made;
    }
};

void showFrame(Component& tree, PlainJournal& journal, size_t place) {
    const zelData::PlainFrame& complete = journal.readComplete(place);
    const zel::ref_ptr<const Frame> frame(complete.createFrame([](const zel::String&) { return true; }));
    const zel::TreeChange change;
    TreeUpdate().updateChildren(tree, *frame);
}

} // namespace

size_t placeOfFrame(const PlainJournal& journal, uint64 index) {
    const auto& frames = journal.getFrames();
    const auto behind = std::upper_bound(
        frames.begin(), frames.end(), index, [](uint64 wanted, const PlainJournal::FrameEntry& entry) {
            return wanted < entry.record.index;
        });
    return behind == frames.begin() ? 0 : static_cast<size_t>(behind - frames.begin()) - 1;
}

JournalTree::JournalTree(const zel::Name& name) : Component(name, Component::ClassModel()) {}

JournalTree::~JournalTree() = default;

void JournalTree::open(const zel::String& path) {
    const bool isEmpty = getNumFrames() == 0;
    if (m_journal && m_journal->refresh()) {
        if (isEmpty && getNumFrames() != 0)
            show(0);
        return;
    }
    auto journal = m_journal ? nullptr : m_closed.lock();
    if (journal == nullptr || journal->getPath() != path || !journal->refresh())
        journal = std::make_shared<PlainJournal>(path, PlainJournal::Search::Records);
    size_t place = 0;
    if (!journal->getFrames().empty()) {
        if (getNumFrames() != 0)
            place = placeOfFrame(*journal, getRecord(m_place).index);
        showFrame(*this, *journal, place);
    } else {
        const zel::TreeChange change;
        removeAllObjects();
    }
    m_journal = journal;
    m_place = place;
    ++m_revision;
}

void JournalTree::close() {
    const zel::TreeChange change;
    removeAllObjects();
    m_closed = std::exchange(m_journal, nullptr);
    m_place = 0;
    ++m_revision;
}

void JournalTree::show(size_t place) {
    showFrame(*this, *m_journal, place);
    m_place = place;
    ++m_revision;
}

} // namespace zelNet
