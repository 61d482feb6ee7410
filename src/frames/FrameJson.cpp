#include <zel/String.h>
#include <zelData/Buffer.h>
#include <zelData/Format.h>
#include <zelData/SerializedFrame.h>
#include <zelData/Type.h>
#include <zelData/Value.h>

#include <json/value.h>

#include <cstring>
#include <iostream>

// Values and buffers as JSON.

namespace zelData {

namespace {

template <typename T>
T read(const void* element) {
    T value;
    std::memcpy(&value, element, sizeof(T));
    return value;
}

Json::Value numberOf(const zel::String& type, zel::uint64 size, const void* element) {
    if (type == "Real")
        return size == 4 ? Json::Value(static_cast<double>(read<float>(element)))
                         : Json::Value(read<double>(element));
    const bool isSigned = type == "Int";
    switch (size) {
    case 1:
        return isSigned ? Json::Value(read<zel::int8>(element)) : Json::Value(read<zel::uint8>(element));
    case 2:
        return isSigned ? Json::Value(read<zel::int16>(element)) : Json::Value(read<zel::uint16>(element));
    case 4:
        return isSigned ? Json::Value(read<zel::int32>(element)) : Json::Value(read<zel::uint32>(element));
    default:
        return isSigned ? Json::Value(static_cast<Json::Int64>(read<zel::int64>(element)))
                        : Json::Value(static_cast<Json::UInt64>(read<zel::uint64>(element)));
    }
}

/// How a format stands in JSON.
class JsonForm {
public:
    explicit JsonForm(const Format* format) {
        const Type* type = format == nullptr ? nullptr : format->getType();
        if (type == nullptr)
            return;
        m_name = type->getName().str();
        m_size = format->getSize();
        // Those in text forms are texts of their own, which nothing is said about.
        const bool isDefault = type->getDefaultFormat() == format;
        const bool isNumber = format->hasPlainElements();
        if (m_name == "String" || m_name == "Bool")
            m_isKnown = isDefault;
        else if (m_name == "Int" || m_name == "UInt" || m_name == "Real")
            m_isKnown = isNumber;
        else if (m_name == "Vec3" || m_name == "Quat") {
            m_isKnown = isNumber;
            m_count = m_name == "Vec3" ? 3 : 4;
        }
    }

    [[nodiscard]] bool isKnown() const noexcept { return m_isKnown; }

    [[nodiscard]] Json::Value of(const void* element) const {
        if (m_name == "String")
            return static_cast<const zel::String*>(element)->c_str();
        if (m_name == "Bool")
            return read<zel::uint8>(element) != 0;
        if (m_count == 0)
            return numberOf(m_name, m_size, element);
        // Four components in memory, whether or not the last one counts.
        Json::Value json(Json::arrayValue);
        for (Json::ArrayIndex i = 0; i < m_count; ++i)
            json.append(numberOf("Real", m_size / 4, static_cast<const char*>(element) + i * (m_size / 4)));
        return json;
    }

private:
    zel::String m_name;
    zel::uint64 m_size = 0;
    Json::ArrayIndex m_count = 0; // of components
    bool m_isKnown = false;
};

bool isKnown(const JsonForm& form, const Format* format) {
    if (!form.isKnown())
        std::cout << "Unknown format: " << (format == nullptr ? zel::String() : format->fullName())
                  << std::endl;
    return form.isKnown();
}

} // namespace

void writeJson(Json::Value& json, const Value* value) {
    const JsonForm form(value->getFormat());
    const void* element = const_cast<Value*>(value)->getData(); // NOLINT: only read
    json = isKnown(form, value->getFormat()) && element != nullptr ? form.of(element) : Json::Value();
}

void writeJson(Json::Value& json, const Buffer* buffer) {
    const JsonForm form(buffer->getFormat());
    json = Json::Value(Json::arrayValue);
    if (!isKnown(form, buffer->getFormat()))
        return;
    for (zel::uint64 i = 0; i < buffer->size(); ++i)
        json.append(form.of(buffer->getElement(i)));
}

} // namespace zelData
