#include "EntityStorageImplementation.h"

#include <zel/Exception.h>
#include <zel/FirstException.h>
#include <zel/Verify.h>
#include <zelData/ArrayFormat.h>
#include <zelData/EntityModel.h>
#include <zelData/Format.h>
#include <zelData/Transform.h>

#include <algorithm>
#include <memory>
#include <new>
#include <stdexcept>

// Copies of instances, and instances that move from one storage to another.

namespace zelData {

namespace {

/// The model "Referenced" if the model is or derives from it.
const EntityModel* referencedBase(const EntityModel* model) {
    static const zel::Name name("Referenced");
    for (; model != nullptr; model = model->getBaseEntity())
        if (model->getName() == name && model->getBaseEntity() == EntityModel::getRootModel())
            return model;
    return nullptr;
}

/// Gives arrays of a column elements of their own in its element buffer; undone unless it is kept.
class ArrayElements {
public:
    ArrayElements() = default;
    ArrayElements(const ArrayElements&) = delete;
    ArrayElements& operator=(const ArrayElements&) = delete;
    ~ArrayElements() {
        if (m_buffer != nullptr)
            m_buffer->resize(m_oldSize);
    }
    void keep() noexcept { m_buffer = nullptr; }

    /// @param arrays  that show elements of `source`, or other memory, which is left to them
    void copy(AbstractArray* arrays, zel::uint64 n, const Buffer* source, Buffer* target) {
        m_buffer = target;
        m_oldSize = target->size();
        for (zel::uint64 i = 0; i < n; ++i) {
            if (arrays[i].buffer() != source || arrays[i].empty())
                continue;
            const zel::IndexRangeT<zel::uint32> from = arrays[i].range();
            const zel::uint64 begin = target->size();
            const zel::uint64 end = begin + from.size();
            if (end > EntityStorage::MaximumCapacity)
                ZEL_THROW(std::runtime_error,
                          zel::String::format("%s: arrays can not show elements from %lu on",
                                              target->getPath().c_str(),
                                              EntityStorage::MaximumCapacity));
            target->resize(end);
            Buffer::copy(target, begin, source, from.begin(), from.size());
            arrays[i].bind(target, {static_cast<zel::uint32>(begin), static_cast<zel::uint32>(end)});
        }
    }

private:
    Buffer* m_buffer = nullptr;
    zel::uint64 m_oldSize = 0;
};

/// The elements of one instance in one column, in the format of another one and not there yet.
class StagedElements {
public:
    StagedElements(Buffer* target, zel::uint64 to, const Buffer* source, zel::uint64 from, zel::uint64 n)
        : m_target(target)
        , m_to(to)
        , m_count(n)
        , m_memory(::operator new(std::max(n * target->getElementSize(), zel::uint64{1}), Alignment)) {
        target->getFormat()->constructElements(m_memory.get(), n);
        try {
            transform(m_memory.get(), target->getFormat(), source->getElement(from), source->getFormat(), n);
            if (dynamic_cast<const ArrayFormat*>(target->getFormat()) != nullptr &&
                source->getElementBuffer() != nullptr && target->getElementBuffer() != nullptr)
                m_arrays.copy(static_cast<AbstractArray*>(m_memory.get()),
                              n,
                              source->getElementBuffer(),
                              target->getElementBuffer());
        } catch (...) {
            target->getFormat()->destroyElements(m_memory.get(), n);
            throw;
        }
    }
    StagedElements(const StagedElements&) = delete;
    StagedElements& operator=(const StagedElements&) = delete;
    ~StagedElements() { m_target->getFormat()->destroyElements(m_memory.get(), m_count); }

    void commit() {
        // The elements of arrays may have moved since.
        if (dynamic_cast<const ArrayFormat*>(m_target->getFormat()) != nullptr)
            for (zel::uint64 i = 0; i < m_count; ++i)
                static_cast<AbstractArray*>(m_memory.get())[i].sync();
        m_target->getFormat()->moveElements(m_target->getElement(m_to), m_memory.get(), m_count);
        m_arrays.keep();
    }

private:
    static constexpr std::align_val_t Alignment{Buffer::ALIGNMENT};
    struct Release {
        void operator()(void* memory) const noexcept { ::operator delete(memory, Alignment); }
    };

    Buffer* m_target;
    zel::uint64 m_to;
    zel::uint64 m_count;
    std::unique_ptr<void, Release> m_memory;
    ArrayElements m_arrays;
};

/// Whether a copy is one of bytes, which cannot fail.
bool isPlainCopy(const Buffer* target, const Buffer* source) {
    return target->getFormat() == source->getFormat() && target->hasPlainElements();
}

} // namespace

void EntityStorage::copyInstance(zel::uint32 id, EntityStorage* target, zel::uint32 targetId) {
    zel::FirstException failure;
    copyContent(id, target, targetId, failure);
    failure.rethrow();
}

/// Collects what listeners throw once the content is there.
void EntityStorage::copyContent(zel::uint32 id,
                                EntityStorage* target,
                                zel::uint32 targetId,
                                zel::FirstException& failure) {
    zelVerify(target);
    zelVerify(this->getEntityModel()->is(target->getEntityModel()));
    verifyAlive(id);
    target->verifyAlive(targetId);
    const zel::uint64 from = getIndex(id);
    const zel::uint64 to = target->getIndex(targetId);
    // Who counts and observes an instance has nothing to do with its copy.
    const EntityModel* referenced = referencedBase(getEntityModel());
    const zel::size_t first = referenced == nullptr ? 1 : referenced->getAttributes().size();
    const auto forEachPair = [&](const auto& visit) {
        for (zel::size_t i = first; i < std::min(m_buffers.size(), target->m_buffers.size()); ++i) {
            Buffer* source = m_buffers[i].get();
            Buffer* copied = target->m_buffers[i].get();
            if (source != nullptr && copied != nullptr && source->getAttribute() == copied->getAttribute())
                visit(copied, source, copied->getElementArraySize());
        }
    };
    // What may fail comes first, beside the columns.
    zel::Vector<std::unique_ptr<StagedElements>> staged;
    forEachPair([&](Buffer* copied, Buffer* source, zel::uint64 count) {
        zelVerifyN(count == source->getElementArraySize(),
                   "%s: the instances of '%s' differ in their number of elements",
                   target->getPath().c_str(),
                   copied->getName().c_str());
        if (!isPlainCopy(copied, source))
            staged.push_back(
                std::make_unique<StagedElements>(copied, to * count, source, from * count, count));
    });
    for (const std::unique_ptr<StagedElements>& elements : staged)
        elements->commit();
    forEachPair([&](Buffer* copied, Buffer* source, zel::uint64 count) {
        if (isPlainCopy(copied, source))
            copied->getFormat()->copyElements(
                copied->getElement(to * count), source->getElement(from * count), count);
    });
    // Those who listen may change both storages.
    const Operation operation(*this);
    const Operation operationOnTarget(*target);
    forEachPair([&](Buffer* copied, Buffer*, zel::uint64) {
        if (copied->hasListeners())
            hold();
        failure.run([=] { copied->commit(static_cast<zel::uint32>(to)); });
    });
}

EntityPtr EntityStorage::copyInstance(zel::uint32 id, EntityStorage* target) {
    zel::FirstException failure;
    const EntityPtr instance = makeCopy(id, target, failure);
    failure.rethrow();
    return instance;
}

EntityPtr EntityStorage::makeCopy(zel::uint32 id, EntityStorage* target, zel::FirstException& failure) {
    zelVerify(target);
    zelVerify(this->getEntityModel()->is(target->getEntityModel()));
    verifyAlive(id);
    const Operation operation(*this);
    const Operation operationOnTarget(*target);
    const EntityPtr instance = createFor(id, target, failure);
    try {
        copyContent(id, target, instance.getId(), failure);
    } catch (...) {
        target->takeBack(instance);
        throw;
    }
    return instance;
}

/// Makes the instance that is to become a copy. Listeners may be against it.
EntityPtr EntityStorage::createFor(zel::uint32 id, EntityStorage* target, zel::FirstException& failure) {
    const Watch watch(*this);
    const Watch watchOnTarget(*target);
    hold(); // listeners of the target may let go of this one
    const EntityPtr instance = target->createInstance(failure);
    if (watch.hasGone(id)) {
        target->takeBack(instance);
        ZEL_THROW(std::runtime_error,
                  zel::String::format(
                      "%s: a listener has destroyed the instance with id %u, which was to be copied to %s",
                      getPath().c_str(),
                      id,
                      target->getPath().c_str()));
    }
    if (watchOnTarget.hasGone(instance.getId()))
        ZEL_THROW(
            std::runtime_error,
            zel::String::format("%s: a listener has destroyed the copy of the instance with id %u of %s",
                                target->getPath().c_str(),
                                id,
                                getPath().c_str()));
    return instance;
}

/// Destroys an instance that was made for a copy which has failed.
void EntityStorage::takeBack(const EntityPtr& instance) noexcept {
    zel::FirstException dropped; // another one is on its way
    dropped.run([this, &instance] {
        if (isAlive(instance.getId()))
            destroyInstance(instance.getId());
    });
}

/// Those who observe an instance go with it.
void EntityStorage::copyObservers(zel::uint32 id, EntityStorage* target, const EntityPtr& instance) const {
    const EntityModel* referenced = referencedBase(getEntityModel());
    const Attribute* observers = referenced == nullptr ? nullptr : referenced->getAttribute("observers");
    if (observers == nullptr || getBuffer(observers) == nullptr || target->getBuffer(observers) == nullptr ||
        !target->isAlive(instance.getId()))
        return;
    Buffer* buffer = target->getBuffer(observers);
    buffer->getFormat()->copyElement(buffer->getElement(instance.getIndex()),
                                     getBuffer(observers)->getElement(getIndex(id)));
}

EntityPtr EntityStorage::transferInstance(zel::uint32 id, EntityStorage* target) {
    zelVerify(target);
    if (target == this)
        return {this, id};
    verifyAlive(id);
    const Operation operation(*this);
    const Operation operationOnTarget(*target);
    const Watch watch(*this);
    zel::FirstException failure;
    const EntityPtr instance = makeCopy(id, target, failure);
    if (!watch.hasGone(id)) { // otherwise a listener has been faster
        try {
            copyObservers(id, target, instance);
        } catch (...) {
            target->takeBack(instance);
            throw;
        }
        failure.run([this, id] { destroyInstance(id); });
    }
    failure.rethrow();
    return instance;
}

} // namespace zelData
