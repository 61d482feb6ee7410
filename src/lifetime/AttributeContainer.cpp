#include <zelData/AttributeContainer.h>

namespace zelData {

zel::ref_ptr<zel::Referenced>& AttributeContainer::getAttribute(const Attribute* attribute) {
    Entry* entry = m_attributes.find(attribute);
    if (entry == m_attributes.end())
        entry = &m_attributes.emplace_back(Entry{attribute, nullptr});
    return entry->value;
}

bool AttributeContainer::hasAttribute(const Attribute* attribute) const {
    const Entry* entry = m_attributes.find(attribute);
    return entry != m_attributes.end() && entry->value;
}

} // namespace zelData
