#include "EntityStorageImplementation.h"

#include <zel/Exception.h>
#include <zel/FirstException.h>
#include <zel/Verify.h>
#include <zelData/Format.h>
#include <zelData/SpareBlocks.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <stdexcept>
#include <utility>

// The order of the instances.

namespace zelData {

namespace {

void swapInstance(Buffer* buffer, zel::uint64 i, zel::uint64 j) {
    const zel::uint64 count = buffer->getElementArraySize();
    for (zel::uint64 k = 0; k < count; ++k)
        buffer->getFormat()->swapElements(buffer->getElement(i * count + k),
                                          buffer->getElement(j * count + k));
}

void commitPair(Buffer* buffer, zel::uint32 i, zel::uint32 j) {
    zel::uint32 pair[] = {i, j};
    buffer->commit(Array<zel::uint32>(pair, 2));
}

void commitPair(Buffer* buffer, const std::pair<zel::uint32, zel::uint32>& pair) {
    commitPair(buffer, pair.first, pair.second);
}

} // namespace

void EntityStorage::swapInstances(zel::uint64 index1, zel::uint64 index2) {
    zelVerifyN(index1 < m_size && index2 < m_size,
               "%s: there are no instances at %llu and %llu",
               getPath().c_str(),
               static_cast<unsigned long long>(index1),
               static_cast<unsigned long long>(index2));
    if (index1 != index2)
        swapInstances({{static_cast<zel::uint32>(index1), static_cast<zel::uint32>(index2)}});
}

void EntityStorage::swapInstances(const zel::Vector<std::pair<zel::uint32, zel::uint32>>& pairs) {
    verifyNoPermutation();
    for (const auto& pair : pairs)
        zelVerifyN(pair.first < m_size && pair.second < m_size,
                   "%s: there are no instances at %u and %u",
                   getPath().c_str(),
                   pair.first,
                   pair.second);
    const Operation operation(*this);
    forEachRelative([&pairs](EntityStorage* storage) {
        for (const auto& [i, j] : pairs)
            if (i != j)
                storage->exchangeSlots(i, j);
    });
    forEachColumn([&pairs](Buffer* buffer) {
        for (const auto& [i, j] : pairs)
            if (i != j)
                swapInstance(buffer, i, j);
    });
    // Those who listen find all in the new order, and may change it in their turn.
    zel::FirstException failure;
    const auto commit = [&pairs, &failure](Buffer* buffer) {
        for (const auto& pair : pairs)
            if (pair.first != pair.second)
                failure.run([&] { commitPair(buffer, pair); });
    };
    if (m_instanceBuffer) {
        commit(m_idToIndexBuffer.get());
        commit(m_instanceBuffer.get());
    }
    callForEachOwnBuffer([&commit](Buffer* buffer) {
        if (buffer != buffer->getStorage()->m_instanceBuffer)
            commit(buffer);
    });
    failure.rethrow();
}

void EntityStorage::swapInstanceIds(zel::uint32 id1, zel::uint32 id2) {
    zelVerifyN(id1 < m_capacity && id2 < m_capacity,
               "%s: there are no instances with the ids %u and %u",
               getPath().c_str(),
               id1,
               id2);
    if (id1 == id2 || !m_instanceBuffer)
        return;
    verifyNoPermutation();
    const zel::uint32 index1 = getIndex(id1);
    const zel::uint32 index2 = getIndex(id2);
    const Operation operation(*this);
    exchangeSlots(index1, index2);
    zel::FirstException failure;
    failure.run([&] { commitPair(m_idToIndexBuffer.get(), id1, id2); });
    failure.run([&] { commitPair(m_instanceBuffer.get(), index1, index2); });
    failure.rethrow();
}

// Permutation

/// One pass over the entries, with a bit for each index.
void EntityStorage::verifyPermutation(const Array<zel::uint32>& permutation,
                                      zel::VectorPOD<zel::uint64>& seen) const {
    seen.resize((m_size + 63) / 64);
    std::fill(seen.begin(), seen.end(), 0);
    for (zel::uint64 i = 0; i < m_size; ++i) {
        const zel::uint32 index = permutation[i];
        zelVerifyN(index < m_size,
                   "%s: entry %lu of the permutation is %u, and there are %lu instances",
                   getPath().c_str(),
                   i,
                   index,
                   m_size);
        const zel::uint64 bit = zel::uint64{1} << (index % 64);
        zelVerifyN((seen[index / 64] & bit) == 0,
                   "%s: the permutation has the index %u twice",
                   getPath().c_str(),
                   index);
        seen[index / 64] |= bit;
    }
}

/// All columns that an order concerns: those of this storage, and those that only others of the family have.
void EntityStorage::getOrderedColumns(zel::VectorPOD<Buffer*>& columns) {
    columns.clear();
    for (const zel::ref_ptr<Buffer>& buffer : m_buffers)
        if (buffer)
            columns.push_back(buffer.get());
    if (hasRelatives())
        forEachColumn([this, &columns](Buffer* buffer) {
            if (getBuffer(buffer->getAttribute()) != buffer)
                columns.push_back(buffer);
        });
}

zel::VectorPOD<Buffer*> EntityStorage::getOrderedColumns() {
    zel::VectorPOD<Buffer*> columns;
    getOrderedColumns(columns);
    return columns;
}

/// Provides the blocks for the columns of plain elements, which then take their new memory one after the
/// other without failing: what one leaves is there for the next one.
/// @param sizes  becomes those of the blocks that are there when the next column comes
void EntityStorage::provideBlocks(const zel::VectorPOD<Buffer*>& columns,
                                  zel::VectorPOD<zel::uint64>& sizes,
                                  SpareBlocks& spares) const {
    zel::VectorPOD<zel::uint64> missing;
    sizes.clear();
    spares.getSizes(sizes);
    for (const Buffer* buffer : columns) {
        if (!buffer->hasPlainElements())
            continue;
        if (!sizes.findAndErase(buffer->getBackBufferSize()))
            missing.push_back(buffer->getBackBufferSize());
        sizes.push_back(buffer->getMemorySize());
    }
    for (const zel::uint64 size : missing) {
        void* const block =
            zel::ByteAllocator::tryAllocateBytes(std::max(size, zel::uint64{1}), Buffer::ALIGNMENT);
        if (block == nullptr)
            ZEL_THROW(std::runtime_error,
                      zel::String::format("%s: %lu bytes do not fit in memory", getPath().c_str(), size));
        spares.give(block, size);
    }
}

void EntityStorage::reorder(const Array<zel::uint32>& permutation, SpareBlocks* spares) {
    zelVerifyAs(permutation.size() == m_size, "permutation.size() == m_size");
    if (m_size == 0)
        return;
    verifyNoPermutation();
    const Operation operation(*this);
    // A listener may reorder while this one goes on: that one has lists of its own.
    std::unique_ptr<OrderLists> lists =
        m_orderLists ? std::move(m_orderLists) : std::make_unique<OrderLists>();
    verifyPermutation(permutation, lists->seen);
    SpareBlocks own;
    SpareBlocks& blocks = spares == nullptr ? own : *spares;
    getOrderedColumns(lists->columns);
    const zel::VectorPOD<Buffer*>& columns = lists->columns;
    // Elements with memory of their own are copied ahead of any change.
    zel::VectorPOD<void*>& backBuffers = lists->backBuffers;
    backBuffers.resize(columns.size());
    std::fill(backBuffers.begin(), backBuffers.end(), nullptr);
    zel::size_t copied = 0;
    try {
        for (; copied < columns.size(); ++copied) {
            if (columns[copied]->hasPlainElements())
                continue;
            backBuffers[copied] = prepareColumn(columns[copied], &blocks);
            permuteColumn(columns[copied], backBuffers[copied], zel::IndexRange(0, m_size), permutation);
        }
        provideBlocks(columns, lists->sizes, blocks);
    } catch (...) {
        for (zel::size_t i = 0; i < columns.size(); ++i)
            if (backBuffers[i] != nullptr) {
                if (i < copied)
                    columns[i]->getFormat()->destroyElements(backBuffers[i], columns[i]->size());
                columns[i]->releaseBackBuffer(backBuffers[i]);
            }
        throw;
    }
    commitOrder(permutation, columns, backBuffers, &blocks);
    m_orderLists = std::move(lists);
    if (spares != nullptr)
        spares->trim();
}

void EntityStorage::reorder(const zel::VectorPOD<zel::uint32>& permutation) {
    // A view of elements that are only read.
    reorder(Array<zel::uint32>(const_cast<zel::uint32*>(permutation.data()), // NOLINT
                               static_cast<zel::uint32>(permutation.size())));
}

void EntityStorage::preparePermutation() {
    verifyNoPermutation();
    const zel::VectorPOD<Buffer*> columns = getOrderedColumns();
    m_permutationBuffers.resize(columns.size());
    try {
        for (zel::size_t i = 0; i < columns.size(); ++i)
            m_permutationBuffers[i] = prepareColumn(columns[i]);
    } catch (...) {
        releasePermutation();
        throw;
    }
}

/// Gives back the raw memory of a permutation that does not come to its end.
void EntityStorage::releasePermutation() noexcept {
    if (m_permutationBuffers.empty())
        return;
    const zel::VectorPOD<Buffer*> columns = getOrderedColumns();
    for (zel::size_t i = 0; i < columns.size(); ++i)
        if (m_permutationBuffers[i] != nullptr)
            columns[i]->releaseBackBuffer(m_permutationBuffers[i]);
    m_permutationBuffers.clear();
}

void EntityStorage::reorderAttributes(const zel::IndexRange& range, const Array<zel::uint32>& permutation) {
    zelVerifyAs(range.end() <= permutation.size(), "range.end() <= permutation.size()");
    zelVerifyN(!m_permutationBuffers.empty(), "%s: no permutation has been prepared", getPath().c_str());
    for (zel::uint64 i = range.begin(); i < range.end(); ++i)
        zelVerifyN(permutation[i] < m_size,
                   "%s: entry %lu of the permutation is %u, and there are %lu instances",
                   getPath().c_str(),
                   i,
                   permutation[i],
                   m_size);
    const zel::VectorPOD<Buffer*> columns = getOrderedColumns();
    zel::size_t i = 0;
    try {
        for (; i < columns.size(); ++i)
            permuteColumn(columns[i], m_permutationBuffers[i], range, permutation);
    } catch (...) {
        // The range is as it was, and may be tried again.
        while (i-- > 0) {
            const zel::uint64 count = columns[i]->getElementArraySize();
            columns[i]->getFormat()->destroyElements(static_cast<char*>(m_permutationBuffers[i]) +
                                                         range.begin() * count * columns[i]->getElementSize(),
                                                     range.size() * count);
        }
        throw;
    }
}

void EntityStorage::commitPermutation(const Array<zel::uint32>& permutation) {
    zelVerifyAs(permutation.size() == m_size, "permutation.size() == m_size");
    zelVerifyN(!m_permutationBuffers.empty(), "%s: no permutation has been prepared", getPath().c_str());
    zel::VectorPOD<zel::uint64> seen;
    verifyPermutation(permutation, seen);
    const Operation operation(*this);
    const zel::VectorPOD<void*> backBuffers = std::exchange(m_permutationBuffers, {});
    commitOrder(permutation, getOrderedColumns(), backBuffers, nullptr);
}

/// @return raw memory for the column in its new order
void* EntityStorage::prepareColumn(Buffer* buffer, SpareBlocks* spares) {
    void* target = buffer->allocateBackBuffer(spares);
    // The free ids lie behind the instances.
    if (buffer == m_instanceBuffer && m_instancePtr != nullptr && m_capacity > m_size)
        std::memcpy(static_cast<EntityPtr*>(target) + m_size,
                    m_instancePtr + m_size,
                    (m_capacity - m_size) * sizeof(EntityPtr));
    return target;
}

void EntityStorage::permuteColumn(const Buffer* buffer,
                                  void* backBuffer,
                                  const zel::IndexRange& range,
                                  const Array<zel::uint32>& permutation) const {
    const Format* format = buffer->getFormat();
    const zel::uint64 count = buffer->getElementArraySize();
    char* target = static_cast<char*>(backBuffer) + range.begin() * count * buffer->getElementSize();
    // Plain elements need no construction ahead of the assignment, and cannot fail.
    const bool constructs = buffer != m_instanceBuffer && !buffer->hasPlainElements();
    const zel::uint64 numElements = range.size() * count;
    if (constructs)
        format->constructElements(target, numElements);
    try {
        if (count == 1) {
            format->permuteElements(
                target, buffer->getPtr(), permutation.data() + range.begin(), range.size());
            return;
        }
        char* place = target;
        for (zel::uint64 k = range.begin(); k < range.end(); ++k) {
            // Copied, as single ones are: the elements stay where they are until the order is committed.
            format->copyElements(place, buffer->getElement(permutation[k] * count), count);
            place += count * buffer->getElementSize();
        }
    } catch (...) {
        if (constructs)
            format->destroyElements(target, numElements);
        throw;
    }
}

/// Takes the other memory, in which the elements stand in their new order.
void EntityStorage::commitColumn(Buffer* buffer, void* backBuffer, SpareBlocks* spares) {
    buffer->getFormat()->destroyElements(buffer->getPtr(), buffer->size());
    buffer->takeBackBuffer(backBuffer, spares);
}

/// Brings columns and tables of ids into the new order; listeners find both in it.
/// @param backBuffers  of getOrderedColumns; null for one that takes a block of `spares`, and is permuted
/// here
void EntityStorage::commitOrder(const Array<zel::uint32>& permutation,
                                const zel::VectorPOD<Buffer*>& columns,
                                const zel::VectorPOD<void*>& backBuffers,
                                SpareBlocks* spares) {
    zel::FirstException failure;
    if (m_instancePtr != nullptr)
        for (zel::uint64 i = 0; i < m_size; ++i)
            m_idToIndexPtr[m_instancePtr[permutation[i]].getId()] = static_cast<zel::uint32>(i);
    if (hasRelatives())
        forEachRelative([this, &permutation](EntityStorage* storage) {
            if (storage != this)
                storage->permuteSlots(permutation);
        });
    for (zel::size_t i = 0; i < columns.size(); ++i) {
        void* target = backBuffers[i];
        if (target == nullptr) {
            target = prepareColumn(columns[i], spares);
            permuteColumn(columns[i], target, zel::IndexRange(0, m_size), permutation);
        }
        commitColumn(columns[i], target, spares);
    }
    syncViews();
    const auto forEachPermuted = [this, &failure](const auto& work) {
        callForEachOwnBuffer([&](Buffer* buffer) {
            if (buffer == m_instanceBuffer || buffer != buffer->getStorage()->m_instanceBuffer)
                failure.run([&] { work(buffer); });
        });
    };
    forEachPermuted([](Buffer* buffer) { buffer->signalReallocation(); });
    forEachPermuted([](Buffer* buffer) { buffer->commit(); });
    forEachRelative([&](EntityStorage* storage) {
        if (storage->m_instanceBuffer && storage != this)
            failure.run([storage] { storage->m_instanceBuffer->commit(); });
        if (storage->m_idToIndexBuffer)
            failure.run([storage] { storage->m_idToIndexBuffer->commit(); });
    });
    forEachRelative([&](EntityStorage* storage) {
        if (storage->m_enableEvents)
            failure.run([&] { storage->m_eventDispatch.triggerPermuteEvent(storage, permutation); });
    });
    failure.rethrow();
}

/// Brings the instance table alone into another order, for a storage whose columns another one permutes.
void EntityStorage::permuteSlots(const Array<zel::uint32>& permutation) {
    if (m_instancePtr == nullptr)
        return;
    zel::VectorPOD<EntityPtr> slots;
    slots.assign(m_instancePtr, m_instancePtr + m_size);
    for (zel::uint64 i = 0; i < m_size; ++i) {
        m_instancePtr[i] = slots[permutation[i]];
        m_idToIndexPtr[m_instancePtr[i].getId()] = static_cast<zel::uint32>(i);
    }
}

} // namespace zelData
