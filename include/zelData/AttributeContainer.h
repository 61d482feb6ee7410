#pragma once

#include <zel/Export.h>
#include <zel/Referenced.h>
#include <zel/Vector.h>
#include <zel/ref_ptr.h>

namespace zelData {

class Attribute;

/// A small table from attribute to an object of any kind, for things that carry data under attributes of
/// which they know nothing.
/// @threads external lock
/// @cost O(number of attributes in the table)
class ZEL_CORE_API AttributeContainer {
public:
    /// The attribute's place, a null reference if nothing was stored yet. A new attribute grows the table and
    /// invalidates the references given before.
    [[nodiscard]] zel::ref_ptr<zel::Referenced>& getAttribute(const Attribute* attribute);
    /// Whether something is stored under the attribute. Never grows the table.
    [[nodiscard]] bool hasAttribute(const Attribute* attribute) const;

protected:
    AttributeContainer() = default;
    ~AttributeContainer() = default;

private:
    struct Entry {
        const Attribute* attribute;
        zel::ref_ptr<zel::Referenced> value;
        friend bool operator==(const Entry& entry, const Attribute* searched) {
            return entry.attribute == searched;
        }
    };
    zel::Vector<Entry> m_attributes;
};

} // namespace zelData
