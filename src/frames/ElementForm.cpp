#include "ElementForm.h"

#include <zelData/Format.h>
#include <zelData/Type.h>

#include <string_view>

namespace zelData {

ElementForm elementFormOf(const Format* format) {
    const Type* type = format->getType();
    // The other formats of these types hold no pointers, or are texts of their own.
    if (type != nullptr && type->getDefaultFormat() == format) {
        const std::string_view name(type->getName().c_str());
        if (name.starts_with("Array<"))
            return ElementForm::Array;
        if (name.starts_with("Vector<"))
            return ElementForm::Vector;
        if (name.ends_with("Ptr"))
            return ElementForm::Handle;
        if (name == "Name" || name == "String")
            return ElementForm::Text;
    }
    return format->hasPlainElements() ? ElementForm::Plain : ElementForm::None;
}

} // namespace zelData
