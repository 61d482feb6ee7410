// Entity models in XML: load, or are refused with a std::runtime_error; what loads has storages that work.
#include "Support.h"

#include <zel/Notify.h>
#include <zel/ref_ptr.h>
#include <zelCore/zelCore.h>
#include <zelData/EntityModel.h>
#include <zelData/EntityStorage.h>

#include <tinyxml.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <set>
#include <sstream>
#include <stdexcept>
#include <string>

namespace {

/// What ends the process as it should: unknown containers, sets, words that are no booleans, literals for
/// values without a type.
bool isFatal(const std::string& text) {
    for (const char* word : {"HashSet", "Bool", "Auto", "SpinMutex", "&#"})
        if (text.find(word) != std::string::npos)
            return true;
    // Sizes that fit in memory are none of the things to be found here.
    std::size_t digits = 0;
    for (const char c : text) {
        digits = c >= '0' && c <= '9' ? digits + 1 : 0;
        if (digits > 3 && digits < 16)
            return true;
    }
    return false;
}

/// Whether two attributes have one name, or that of the root's own attribute: a programming error.
bool hasDoubleNames(const TiXmlElement* model) {
    std::set<std::string> names{"instance"};
    for (const auto* child = model->FirstChildElement(); child != nullptr;
         child = child->NextSiblingElement())
        if (const char* name = child->Attribute("name"); name != nullptr && !names.insert(name).second)
            return true;
    return false;
}

void use(zelData::EntityModel* model) {
    const zel::ref_ptr<zelData::EntityStorage> storage(new zelData::EntityStorage(model, 2));
    storage->createInstances(3);
    const zelData::EntityPtr first = storage->getInstance(0);
    storage->createInstance();
    storage->destroyInstance(storage->getId(1));
    storage->verifyConsistency();
    std::ostringstream text;
    model->print(text);
    storage->print(text);
    first.print(text);
    if (storage->size() != 3 || !storage->isAlive(first.getId()))
        std::abort();
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    zelFuzz::initQuietly();
    const std::string text(reinterpret_cast<const char*>(data), size);
    if (isFatal(text))
        return 0;
    // Below another element, a model stays out of the model tree, which would keep it.
    TiXmlDocument document;
    document.Parse(("<Wrapper>" + text + "</Wrapper>").c_str());
    if (document.Error() || document.RootElement() == nullptr)
        return 0;
    for (auto* element = document.RootElement()->FirstChildElement("Entity.Model"); element != nullptr;
         element = element->NextSiblingElement("Entity.Model")) {
        if (hasDoubleNames(element) || zelFuzz::namesContainer(element))
            return 0;
        try {
            const zel::ref_ptr<zelData::EntityModel> model(zelData::EntityModel::load(element, nullptr));
            if (model)
                use(model.get());
        } catch (const std::runtime_error&) {
            // What a bad model gets.
        }
    }
    return 0;
}
