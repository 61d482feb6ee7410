#include <zelData/Array.h>
#include <zelData/Buffer.h>

namespace zelData {

void AbstractArray::bind(Buffer* buffer, const zel::IndexRangeT<zel::uint32>& range) {
    m_buffer = buffer;
    m_range = buffer == nullptr ? zel::IndexRangeT<zel::uint32>() : range;
    m_ptr = nullptr;
    sync();
}

void AbstractArray::sync() {
    if (m_buffer != nullptr)
        m_ptr = m_buffer->getPtr() == nullptr ? nullptr : m_buffer->getElement(m_range.begin());
}

} // namespace zelData
