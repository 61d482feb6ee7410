#pragma once

#include <zel/Component.h>
#include <zel/Export.h>

namespace zel {

/// A place where buffers live and tasks run.
/// @threads owner thread
class ZEL_CORE_API Device : public Component {
public:
    /// The kinds of device; 0 is the CPU.
    enum class Type : uint32 { Cpu = 0 };
    enum class ByteOrder : uint32 { LittleEndian = 0, BigEndian = 1 };

    Device(const Name& name, Type type, const String& typeName, ByteOrder byteOrder);

    [[nodiscard]] Type getType() const noexcept { return m_type; }
    [[nodiscard]] const String& getTypeName() const noexcept { return m_typeName; }
    [[nodiscard]] ByteOrder getByteOrder() const noexcept { return m_byteOrder; }
    void setByteOrder(ByteOrder byteOrder) noexcept { m_byteOrder = byteOrder; }

    [[nodiscard]] static Model* ClassModel();

private:
    Type m_type;
    String m_typeName;
    ByteOrder m_byteOrder;
};

} // namespace zel
