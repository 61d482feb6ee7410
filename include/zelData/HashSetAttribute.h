#pragma once

#include <zel/Export.h>
#include <zel/Xml.h>
#include <zelData/ContainerAttribute.h>

namespace zelData {

/// A set per instance. Not supported: the XML tag "Attribute.HashSet" is known, and loading it ends the
/// process.
class ZEL_CORE_API HashSetAttribute : public ContainerAttribute {
public:
    HashSetAttribute() = delete;

    [[noreturn]] static HashSetAttribute* load(zel::TiXmlElement* element);
};

} // namespace zelData
