#include "FrameOverlay.h"

#include <zel/Exception.h>
#include <zel/HashSet.h>
#include <zelData/Buffer.h>
#include <zelData/Format.h>
#include <zelData/Frame.h>
#include <zelData/FrameNodes.h>

namespace zelData {

namespace {

/// Frame::merge lets the elements win that the older partial buffer holds: those that the newer one has as
/// well are taken out of its way.
void dropElements(Frame::PartialBuffer* older, const Frame::PartialBuffer* newer) {
    const Buffer* data = older->getDataBuffer();
    if (data == nullptr || newer->getDataBuffer() == nullptr ||
        data->getFormat() != newer->getDataBuffer()->getFormat())
        return;
    zel::HashSet<zel::uint64> replaced;
    const auto* newPlaces = newer->getIndexBuffer()->data<zel::uint64>();
    for (zel::uint64 i = 0; i < newer->size(); ++i)
        replaced.insert(newPlaces[i]);
    auto* places = older->getIndexBuffer()->data<zel::uint64>();
    zel::uint64 kept = 0;
    for (zel::uint64 i = 0; i < older->size(); ++i) {
        if (replaced.contains(places[i]))
            continue;
        if (kept != i) {
            places[kept] = places[i];
            data->getFormat()->moveElement(data->getElement(kept), data->getElement(i));
        }
        ++kept;
    }
    older->resize(kept);
}

/// Parts of columns that the newer frame does not tell of follow the size of their storage, as whole columns
/// do.
void followSize(const Frame::EntityStorage* older, const Frame::EntityStorage* newer) {
    for (zel::size_t i = 0; i < older->getNumObjects(); ++i) {
        auto* part = dynamic_cast<Frame::PartialBuffer*>(older->getObject(i));
        if (part == nullptr || newer->size() == older->size())
            continue;
        const zel::uint64 fullSize =
            newer->size() * elementsOfInstance(older, part->getName(), part->getFullSize());
        const zel::ref_ptr<Frame::PartialBuffer> none(
            part->getDataBuffer() == nullptr
                ? new Frame::PartialBuffer(part->getName(), 0, fullSize)
                : new Frame::PartialBuffer(part->getName(), part->getDataBuffer()->getFormat(), 0, fullSize));
        part->merge(none.get(), true);
    }
}

void dropReplaced(zel::Component* older, const zel::Component* newer) {
    const auto* oldStorage = dynamic_cast<const Frame::EntityStorage*>(older);
    const auto* newStorage = dynamic_cast<const Frame::EntityStorage*>(newer);
    if (oldStorage != nullptr && newStorage != nullptr) {
        if (oldStorage->getModel() != newStorage->getModel()) // the frames may come from any file
            ZEL_THROW(Frame::MergeException, newer, older);
        followSize(oldStorage, newStorage);
    }
    for (zel::size_t i = 0; i < newer->getNumObjects(); ++i) {
        const zel::Object* node = newer->getObject(i);
        zel::Object* existing = older->findObject(node->getName());
        if (existing == nullptr)
            continue;
        const auto* newPart = dynamic_cast<const Frame::PartialBuffer*>(node);
        auto* oldPart = dynamic_cast<Frame::PartialBuffer*>(existing);
        if (newPart != nullptr || oldPart != nullptr) {
            if (newPart != nullptr && oldPart != nullptr)
                dropElements(oldPart, newPart);
            continue;
        }
        const auto* below = dynamic_cast<const zel::Component*>(node);
        auto* above = dynamic_cast<zel::Component*>(existing);
        if (below != nullptr && above != nullptr && dynamic_cast<const Buffer*>(node) == nullptr)
            dropReplaced(above, below);
    }
}

} // namespace

void overlay(Frame* target, const Frame* newer) {
    dropReplaced(target, newer);
    target->setNumBytes(Frame::calculateNumBytes(target));
    target->merge(newer, true);
    target->setIndex(newer->getIndex());
    target->setTimeStamp(newer->getTimeStamp());
    target->setTimeStep(newer->getTimeStep());
    target->setId(newer->getId());
}

} // namespace zelData
