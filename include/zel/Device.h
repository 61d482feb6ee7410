#pragma once

#include <zel/Component.h>
#include <zel/Export.h>
#include <zel/HashTable.h>
#include <zel/SyncTag.h>
#include <zel/ref_ptr.h>

#include <bit>

namespace zelData {
class Buffer;
class Format;
class Type;
} // namespace zelData

namespace zel {

/// A place where buffers live and tasks run.
/// @threads owner thread
class ZEL_CORE_API Device : public Component, public Object::EventListener {
public:
    /// The kinds of device; 0 is the CPU.
    enum class Type : uint32 { Cpu = 0 };
    enum class ByteOrder : uint32 { LittleEndian = 0, BigEndian = 1 };
    /// That of the processor that runs the program.
    static constexpr ByteOrder NativeByteOrder =
        std::endian::native == std::endian::big ? ByteOrder::BigEndian : ByteOrder::LittleEndian;

    Device(const Name& name, Type type, const String& typeName, ByteOrder byteOrder);
    ~Device() override;

    /// @return a new buffer without owner, on this device
    [[nodiscard]] virtual zelData::Buffer* createBuffer(const zelData::Format* format) = 0;
    /// Copies elements to a buffer of this device.
    /// @param source    elements of the buffer's format, in this device's byte order; must stay as they are
    ///                  until the tag is ready
    /// @param index     of the first element in the buffer
    /// @param blocking  whether to return only when the device is done
    /// @return what tells when the device is done; null for a blocking call
    virtual ref_ptr<SyncTag>
    sendData(const void* source, zelData::Buffer* buffer, size_t index, size_t count, bool blocking) = 0;
    /// Copies elements from a buffer of this device, as sendData.
    virtual ref_ptr<SyncTag>
    receiveData(void* target, zelData::Buffer* buffer, size_t index, size_t count, bool blocking) = 0;
    /// Called when a buffer dies of which this device has a copy: lets go of the copy.
    void destroyCallback(Object* object) override;

    [[nodiscard]] Type getType() const noexcept { return m_type; }
    [[nodiscard]] const String& getTypeName() const noexcept { return m_typeName; }
    [[nodiscard]] ByteOrder getByteOrder() const noexcept { return m_byteOrder; }
    void setByteOrder(ByteOrder byteOrder) noexcept { m_byteOrder = byteOrder; }

    /// Sets the format that this device uses for elements of a type; null goes back to the type's default.
    void setTypeFormat(const zelData::Type* type, const zelData::Format* format);
    /// The same by name, the format without its type's. Unknown names are failed verifications.
    void setTypeFormat(const String& typeName, const String& formatName);
    [[nodiscard]] const zelData::Format* getTypeFormat(const zelData::Type* type) const;

    /// A new buffer without owner in the device's format for the type.
    [[nodiscard]] zelData::Buffer* createBuffer(const zelData::Type* type);
    /// This device's copy of a buffer; the buffer itself if it lives here. Made at the first call, without
    /// the content, and kept until the original or the device dies; it does not keep the device alive.
    [[nodiscard]] zelData::Buffer* getBuffer(zelData::Buffer* original);

    [[nodiscard]] static Model* ClassModel();
    /// Makes a device from an element of the tag "Device": of the type "CPU". Another type ends the process.
    /// @return a new device without owner
    /// @throws std::runtime_error with file and row
    [[nodiscard]] static Device* load(TiXmlElement* element, Device* device);

private:
    static void detach(zelData::Buffer* copy, Device* device);

    Type m_type;
    String m_typeName;
    ByteOrder m_byteOrder;
    HashTable<const zelData::Type*, const zelData::Format*> m_typeFormats;
    // The copies, by the original. They do not own the device, as other buffers on it do.
    HashTable<Object*, ref_ptr<zelData::Buffer>> m_bufferTable;
};

} // namespace zel
