#include <zelData/Buffer.h>

namespace zelData {

Buffer* Buffer::getOriginalBuffer() const noexcept {
    return m_isOwnOriginal ? const_cast<Buffer*>(this) : m_originalBuffer.get(); // NOLINT: this one itself
}

void Buffer::setOriginalBuffer(Buffer* original) {
    m_isOwnOriginal = original == this;
    m_originalBuffer = m_isOwnOriginal ? nullptr : original;
}

} // namespace zelData
