#pragma once

#include <zel/Export.h>
#include <zel/HashTable.h>
#include <zel/HashVector.h>
#include <zel/Integers.h>
#include <zel/Model.h>
#include <zel/Name.h>
#include <zel/String.h>
#include <zel/Xml.h>
#include <zel/ref_ptr.h>
#include <zelData/Format.h>

namespace zel {
class Device;
} // namespace zel

namespace zelData {

/// A named kind of data, such as "Real" or "Vec3": owns the formats in which such data can be stored, and
/// knows its default. The registry owns the types, until it is shut down.
/// @threads look-ups of types and formats by text any thread; changes the thread that creates formats
class ZEL_CORE_API Type : public zel::Model {
public:
    /// Enters the type in the registry. A name that is there already ends the process.
    explicit Type(const zel::Name& name);
    ~Type() override;

    /// Takes the format in, in the place of one of the same name. A format that is replaced stays alive.
    void addFormat(Format* format, bool makeDefault = false);
    void setDefaultFormat(Format* format);
    /// The format that is meant when none is named; may be null.
    [[nodiscard]] Format* getDefaultFormat() const noexcept { return m_defaultFormat.get(); }
    /// @return null if there is none of that name
    [[nodiscard]] Format* getFormat(const zel::Name& name) const;
    /// By name; iterates in slot order.
    [[nodiscard]] const zel::HashTable<zel::Name, zel::ref_ptr<Format>>& getFormats() const noexcept {
        return m_formats;
    }

    /// The position in the type table.
    [[nodiscard]] zel::uint64 getId() const noexcept { return m_id; }

    [[nodiscard]] static zel::Model* ClassModel();

private:
    zel::uint64 m_id;
    zel::ref_ptr<Format> m_defaultFormat;
    zel::HashTable<zel::Name, zel::ref_ptr<Format>> m_formats;
};

using TypeTable = zel::HashVector<zel::Name, zel::ref_ptr<Type>>;

// The first look-up of any kind creates the formats of all types.
// All of them lock the type-system mutex, and are safe in static constructors.

/// The type of the name, which may be that of a container such as "Array<Real:32bit>", made at first use.
/// @return null if there is none; an unknown container ends the process
[[nodiscard]] ZEL_CORE_API Type* getType(const zel::String& name);
/// The type at a position of the type table; null beyond its end.
[[nodiscard]] ZEL_CORE_API Type* getType(zel::uint64 id);
/// All types in order of their creation. Grows while other threads create types: read it when none do.
[[nodiscard]] ZEL_CORE_API const TypeTable& getTypes();
/// The type of the name; a plain new one, without formats, if there is none.
ZEL_CORE_API Type* getOrCreateType(const zel::String& name);

/// The format of a full name such as "Real:64bit"; for the name of a type alone, or of a container, the
/// default format.
/// @return null if there is none; an unknown container ends the process
[[nodiscard]] ZEL_CORE_API Format* getFormat(const zel::String& name);
/// Reads a format from the attributes of an element: the type, or type and format, in "type" or else in
/// "value", and the format in "format".
/// @param device  chooses the format of a type where none is named; null for the type's default
/// @throws std::runtime_error with file and row
[[nodiscard]] ZEL_CORE_API const Format* getFormat(zel::TiXmlElement* element, zel::Device* device);
/// The opaque format of elements of so many bytes; one for each size.
/// @throws std::runtime_error  for the 1,025th size of a process
[[nodiscard]] ZEL_CORE_API Format* getGenericStructFormat(zel::uint64 size);

/// Writes the name of each type on a line of the standard output stream, followed by a line for each of its
/// formats, indented by two blanks.
ZEL_CORE_API void printAllTypesAndFormats();

} // namespace zelData
