#pragma once

#include <zel/Export.h>
#include <zel/Parameter.h>

namespace zelData {
/// What a parameter is bound to, as a kernel's implementation gets it: memory that the binding's format and
/// meta type describe.
using Data = void;
class Format;
} // namespace zelData

namespace zel {

/// What is known of one argument when an implementation of a task is chosen: see Task::matchParameters.
/// A plain record: keeps nothing alive.
/// @threads external lock
class ParameterBinding {
public:
    ParameterBinding() = default;

    void setValue(zelData::Data* value) noexcept { m_value = value; }
    void setFormat(const zelData::Format* format) noexcept { m_format = format; }
    void setMetaType(Parameter::MetaType metaType) noexcept { m_metaType = metaType; }
    void setWritable(bool writable) noexcept { m_writable = writable; }
    void setAllowFormatPromotion(bool allow) noexcept { m_allowFormatPromotion = allow; }

    [[nodiscard]] zelData::Data* getValue() const noexcept { return m_value; }
    [[nodiscard]] const zelData::Format* getFormat() const noexcept { return m_format; }
    [[nodiscard]] Parameter::MetaType getMetaType() const noexcept { return m_metaType; }
    /// Whether the argument may be written.
    [[nodiscard]] bool isWritable() const noexcept { return m_writable; }
    /// Whether the implementation may work in another format, see Task::matchParameters.
    [[nodiscard]] bool getAllowFormatPromotion() const noexcept { return m_allowFormatPromotion; }

private:
    zelData::Data* m_value = nullptr;
    const zelData::Format* m_format = nullptr;
    Parameter::MetaType m_metaType = Parameter::MetaType::Unresolved;
    bool m_writable = false;
    bool m_allowFormatPromotion = false;
};

} // namespace zel
