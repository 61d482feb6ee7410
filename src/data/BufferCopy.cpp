#include "RestoreContent.h"
#include "ScatterElements.h"

#include <zel/Verify.h>
#include <zelData/ArrayFormat.h>
#include <zelData/Buffer.h>
#include <zelData/Format.h>

#include <cstring>
#include <numeric>

// How elements get from one buffer to another.

namespace zelData {

using zel::uint32;
using zel::uint64;

namespace {

void verifySameFormat(const Buffer* target, const Buffer* source) {
    zelVerifyN(target->getFormat() == source->getFormat(),
               "Format mismatch, target: '%s', source '%s'",
               target->getFormat()->fullName().c_str(),
               source->getFormat()->fullName().c_str());
}

void verifyRange(const Buffer* buffer, uint64 offset, uint64 n) {
    zelVerifyN(offset <= buffer->size() && n <= buffer->size() - offset,
               "%s: elements %lu to %lu of %lu",
               buffer->getPath().c_str(),
               offset,
               offset + n,
               buffer->size());
}

} // namespace

void Buffer::copy(Buffer* target, const Buffer* source) {
    verifySameFormat(target, source);
    if (target->size() < source->size())
        target->resize(target->inEntries(source->size()));
    copy(target, 0, source, 0, source->size());
}

void Buffer::copy(Buffer* target, uint64 targetOffset, const Buffer* source, uint64 sourceOffset, uint64 n) {
    verifySameFormat(target, source);
    verifyRange(target, targetOffset, n);
    verifyRange(source, sourceOffset, n);
    if (target == source && targetOffset > sourceOffset && targetOffset - sourceOffset < n) {
        // From the end, so that none is overwritten ahead of its copy.
        if (target->m_plain)
            std::memmove(target->getElement(targetOffset),
                         source->getElement(sourceOffset),
                         n * target->m_elementSize);
        else
            for (uint64 i = n; i-- > 0;)
                target->m_format->copyElement(target->getElement(targetOffset + i),
                                              source->getElement(sourceOffset + i));
    } else if (n != 0) {
        target->m_format->copyElements(target->getElement(targetOffset), source->getElement(sourceOffset), n);
    }
    target->commit(
        zel::IndexRangeT<uint32>(static_cast<uint32>(targetOffset), static_cast<uint32>(targetOffset + n)));
}

void Buffer::copyGather(Buffer* target, const Buffer* source, const Array<uint32>& indices) {
    verifySameFormat(target, source);
    verifyRange(target, 0, indices.size());
    if (target == source) {
        for (uint32 i = 0; i < indices.size(); ++i)
            target->m_format->copyElement(target->getElement(i), source->getElement(indices[i]));
    } else if (!indices.empty()) {
        target->m_format->permuteElements(target->m_ptr, source->m_ptr, indices.data(), indices.size());
    }
    target->commit(zel::IndexRangeT<uint32>(0, indices.size()));
}

void Buffer::copyScatter(Buffer* target, const Buffer* source, const Array<uint32>& indices) {
    verifySameFormat(target, source);
    verifyRange(source, 0, indices.size());
    scatterElements(
        target->m_ptr, source->m_ptr, indices.data(), indices.size(), target->getFormat(), target->m_plain);
    target->commit(indices);
}

/// Counts the elements of a fresh clone in entries, as its original does.
void Buffer::takeElementArraySize(const Buffer* other) {
    if (!other->m_elementArraySize)
        return;
    m_elementsPerEntry = other->m_elementsPerEntry;
    const ValueT<uint64> count("elementArraySize", m_elementsPerEntry);
    setElementArraySize(&count);
    // What there is stays: only the values count otherwise.
    restoreContent(*m_capacityValue, inEntries(m_capacity));
    restoreContent(*m_numElementsValue, inEntries(m_numElements));
}

/// A free buffer like this one with room for n elements, which are constructed unless they are plain.
Buffer* Buffer::makeClone(uint64 n) const {
    zel::ref_ptr<Buffer> clone(new Buffer(getName(), m_format.get()));
    clone->setDevice(getDevice());
    clone->m_defaultValue = m_defaultValue;
    clone->m_elementInitializer = m_elementInitializer;
    clone->m_elementDestructor = m_elementDestructor;
    clone->m_defaultInitializer = m_defaultInitializer;
    clone->m_defaultDestructor = m_defaultDestructor;
    clone->setOriginalBuffer(const_cast<Buffer*>(this)); // NOLINT: a link for others to follow
    clone->reserve(n);
    clone->resize(n, !m_plain || !m_defaultInitializer);
    if (!m_plain && !m_elementInitializer)
        m_format->constructElements(clone->m_ptr, n); // for the copies to be assigned to
    return clone.release_nodelete();
}

Buffer* Buffer::clone() const {
    zel::ref_ptr<Buffer> clone(makeClone(m_numElements));
    if (m_numElements != 0)
        m_format->copyElements(clone->m_ptr, m_ptr, m_numElements);
    clone->takeElementArraySize(this);
    if (m_elementBuffer) {
        clone->setElementBuffer(zel::ref_ptr<Buffer>(m_elementBuffer->clone()).get());
        if (dynamic_cast<const ArrayFormat*>(m_format.get()) != nullptr)
            clone->rebaseArrays(m_elementBuffer.get(), clone->m_elementBuffer.get());
    }
    return clone.release_nodelete();
}

Buffer* Buffer::clone(const Range& range) const {
    zelVerifyNAs(!m_elementBuffer,
                 "!this->getElementBuffer()",
                 "%s: TODO: Support element buffer in subset cloning!",
                 getPath().c_str());
    verifyRange(this, range.begin(), range.size());
    zel::ref_ptr<Buffer> clone(makeClone(range.size()));
    if (!range.empty())
        m_format->copyElements(clone->m_ptr, getElement(range.begin()), range.size());
    return clone.release_nodelete();
}

Buffer* Buffer::clone(const Array<uint32>& indices) const {
    zelVerifyNAs(!m_elementBuffer,
                 "!this->getElementBuffer()",
                 "%s: TODO: Support element buffer in subset cloning!",
                 getPath().c_str());
    for (const uint32 index : indices)
        verifyRange(this, index, 1);
    zel::ref_ptr<Buffer> clone(makeClone(indices.size()));
    if (!indices.empty())
        m_format->permuteElements(clone->m_ptr, m_ptr, indices.data(), indices.size());
    return clone.release_nodelete();
}

Buffer* Buffer::clone(const zel::VectorPOD<uint32>& indices) const {
    // Only read through.
    return clone(Array<uint32>(const_cast<uint32*>(indices.data()), // NOLINT
                               static_cast<uint32>(indices.size())));
}

} // namespace zelData
