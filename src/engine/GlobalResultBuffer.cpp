#include <zel/GlobalResultBuffer.h>
#include <zel/Verify.h>
#include <zelData/Format.h>

#include <algorithm>
#include <utility>

namespace zel {

GlobalResultBuffer::GlobalResultBuffer(uint32 settings, const Path& path, zelData::Buffer* target)
    : GlobalResult(settings, path), m_target(target) {
    zelVerify(target);
    zelVerifyN(target->getStorage() == nullptr,
               "%s: The column '%s' can not be a result without its storage",
               path.c_str(),
               target->getPath().c_str());
}

GlobalResultBuffer::~GlobalResultBuffer() = default;

uint64 GlobalResultBuffer::arraySize() const {
    return std::max(m_target->getElementArraySize(), uint64{1});
}

void GlobalResultBuffer::prepare(Task*) {
    const uint64 numEntries = m_target->size() / arraySize();
    const uint64 begin = getSettings() == APPEND ? numEntries : 0;
    uint64 capacity = estimateCapacity(numEntries, begin);
    resetOverflows();
    m_oldSize = m_target->size();
    if (m_target->hasPlainElements()) {
        // Raw memory, all that there is: jobs write what they take.
        capacity = std::max(capacity, m_target->capacity() / arraySize());
        m_target->presize(capacity * arraySize(), capacity * arraySize());
    } else {
        m_target->resize(begin);
        m_target->resize(capacity);
    }
    init({begin, capacity});
    addTarget(m_target.get());
}

void GlobalResultBuffer::finalize() {
    const uint64 size = getCursor();
    const uint64 capacity = getCapacity();
    finalizeTransactions();
    const bool plain = m_target->hasPlainElements();
    if (plain) // as if the elements had come one by one
        m_target->presize(capacity * arraySize(), m_oldSize);
    m_target->reserve(capacity);
    m_target->resize(size, !plain);
    finalizeResultSorting({getBegin(), size});
}

void GlobalResultBuffer::handleOverflow(size_t newCapacity) {
    createNewSet(newCapacity);
    moveTarget(m_target.get(), newCapacity * arraySize());
}

void GlobalResultBuffer::sortResult(const zelData::Array<unsigned>& permutation) {
    const uint64 count = arraySize();
    zelVerifyAs(permutation.size() * count == m_target->size(), "permutation.size() == m_target->size()");
    const zelData::Format* const format = m_target->getFormat();
    const uint64 size = m_target->getElementSize();
    if (!m_target->hasPlainElements() || count != 1) {
        // In place: elements that own something are exchanged along the cycles of the permutation.
        m_order.assign(permutation.begin(), permutation.end());
        for (unsigned i = 0; i < m_order.size(); ++i) {
            unsigned target = i;
            while (m_order[target] != i) {
                const unsigned next = std::exchange(m_order[target], target);
                for (uint64 k = 0; k < count; ++k)
                    format->swapElements(m_target->getElement(target * count + k),
                                         m_target->getElement(next * count + k));
                target = next;
            }
            m_order[target] = target;
        }
        return;
    }
    m_scratch.resize(permutation.size() * size);
    format->permuteElements(m_scratch.data(), m_target->getPtr(), permutation.data(), permutation.size());
    format->copyElements(m_target->getPtr(), m_scratch.data(), permutation.size());
}

} // namespace zel
