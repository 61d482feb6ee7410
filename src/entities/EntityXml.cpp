#include "EntityXml.h"

#include "tree/SearchPlaces.h"
#include "tree/XmlPlace.h"

#include <zel/Exception.h>
#include <zel/Log.h>
#include <zel/Model.h>
#include <zel/XmlLoader.h>
#include <zelData/EntityModel.h>

#include <pystring/pystring.h>
#include <tinyxml.h>

#include <cctype>
#include <charconv>
#include <stdexcept>
#include <system_error>

namespace zelData {

void checkCount(const zel::TiXmlElement* element,
                const char* name,
                zel::uint64 minimum,
                zel::uint64 maximum) {
    const std::string text = pystring::strip(element->Attribute(name));
    if (text.empty() || (text[0] != '-' && std::isdigit(static_cast<unsigned char>(text[0])) == 0))
        return;
    zel::uint64 count = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), count);
    if (error != std::errc() || end != text.data() + text.size() || count < minimum || count > maximum)
        ZEL_XML_ERROR(element, zel::String::format("Unable to parse attribute %s", name));
}

EntityModel* loadEntity(const zel::Path& path) {
    if (path.empty())
        return nullptr;
    const std::lock_guard lock(zel::getTypeSystemMutex());
    // So that the base of all is found by its name as well.
    if (path.str() == "Entity")
        return EntityModel::getRootModel();
    try {
        return dynamic_cast<EntityModel*>(zel::Model::getModel(path.base(), path.back()));
    } catch (const std::exception& error) {
        if (!zel::tellsPlace(error))
            ZEL_LOG_WARNING(error.what());
        return nullptr;
    }
}

EntityModel* findEntity(zel::TiXmlElement* element, const zel::Path& path) {
    const zel::Path here = zel::Model::getPath(element);
    if (!here.empty())
        if (EntityModel* model = loadEntity(here + path))
            return model;
    return loadEntity(path);
}

std::string explainMissingEntity(zel::TiXmlElement* element, const zel::Path& path) {
    const char* const extension = "zelEntity";
    const zel::Path here = zel::Model::getPath(element);
    zel::String file;
    zel::Path remainder;
    if ((!here.empty() && zel::Model::getDiskPath(here + path, file, remainder, extension)) ||
        zel::Model::getDiskPath(path, file, remainder, extension))
        return ": the file '" + file + "' gives no such entity, or can not be read" +
               zel::hintOfModel(path.base(), path.back());
    return ": " + zel::explainMissingFile(path, extension, here);
}

} // namespace zelData
