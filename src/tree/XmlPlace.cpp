#include "XmlPlace.h"

#include <zel/Log.h>

#include <tinyxml.h>

#include <string_view>

namespace zel {

String describePlace(const TiXmlElement* element, int row) {
    const TiXmlDocument* const document = element->GetDocument();
    return String::format(
        "file '%s', row %d", document == nullptr ? "" : document->Value(), row == 0 ? element->Row() : row);
}

void warnAt(const TiXmlElement* element, const std::string& message, int row) {
    ZEL_LOG_WARNING("In " << describePlace(element, row) << ": " << message);
}

bool tellsPlace(const std::exception& exception) {
    return std::string_view(exception.what()).find("] XML error: ") != std::string_view::npos;
}

} // namespace zel
