#include "ForeignName.h"

#include "entities/EntityXml.h"

#include <zel/Path.h>

#include <algorithm>
#include <cctype>
#include <string_view>

namespace zelData {

EntityModel* findForeignEntity(const zel::Name& name) {
    const std::string_view text(name.c_str());
    const bool isPath = std::all_of(text.begin(), text.end(), [](unsigned char c) {
        return std::isalnum(c) != 0 || c == '_' || c == '.';
    });
    return isPath ? loadEntity(zel::Path(name)) : nullptr;
}

} // namespace zelData
