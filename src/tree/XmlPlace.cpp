#include "XmlPlace.h"

#include <zel/HashSet.h>
#include <zel/HashTable.h>
#include <zel/Log.h>
#include <zel/Model.h>

#include <tinyxml.h>

#include <mutex>
#include <string_view>

namespace zel {

namespace {

/// What has been told of each file. Guarded by the type-system mutex. Never destroyed: models may be loaded
/// by the last static objects.
HashTable<String, HashSet<String>>& messages() {
    static auto& table = *new HashTable<String, HashSet<String>>;
    return table;
}

} // namespace

String describePlace(const TiXmlElement* element, int row) {
    const TiXmlDocument* const document = element->GetDocument();
    return String::format(
        "file '%s', row %d", document == nullptr ? "" : document->Value(), row == 0 ? element->Row() : row);
}

void warnAt(const TiXmlElement* element, const std::string& message, int row) {
    ZEL_LOG_WARNING("In " << describePlace(element, row) << ": " << message);
}

void warnOnceAt(const TiXmlElement* element, const std::string& message, int row) {
    const TiXmlDocument* const document = element->GetDocument();
    if (isNewMessage(document == nullptr ? "" : document->Value(), describePlace(element, row) + message))
        warnAt(element, message, row);
}

bool isNewMessage(const String& file, const String& message) {
    const std::lock_guard lock(getTypeSystemMutex());
    auto position = messages().find(file);
    if (position == messages().end())
        position = messages().insert(file, HashSet<String>());
    if (position->value.contains(message))
        return false;
    position->value.insert(message);
    return true;
}

void forgetMessages(const String& file) {
    const std::lock_guard lock(getTypeSystemMutex());
    messages().erase(file);
}

bool tellsPlace(const std::exception& exception) {
    return std::string_view(exception.what()).find("] XML error: ") != std::string_view::npos;
}

} // namespace zel
