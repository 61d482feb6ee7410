#pragma once

#include <zel/Verify.h>
#include <zelData/Format.h>

#include <array>
#include <cstddef>
#include <cstdlib>

namespace zelData {

/// A constructed element of a format, which lives as long as this object; on the stack if it is small.
class FormatElement {
public:
    explicit FormatElement(const Format* format) : m_format(format) {
        if (format->getSize() > m_inline.size()) {
            m_data = std::malloc(format->getSize());
            zelVerifyN(m_data != nullptr, "no memory for %lu bytes", format->getSize());
        }
        m_format->constructElement(m_data);
    }
    FormatElement(const FormatElement&) = delete;
    FormatElement& operator=(const FormatElement&) = delete;
    ~FormatElement() {
        m_format->destroyElement(m_data);
        if (m_data != m_inline.data())
            std::free(m_data);
    }

    [[nodiscard]] void* data() const noexcept { return m_data; }

private:
    const Format* m_format;
    alignas(64) std::array<std::byte, 256> m_inline;
    void* m_data = m_inline.data();
};

} // namespace zelData
