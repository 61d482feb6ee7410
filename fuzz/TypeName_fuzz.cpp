// Looking types and formats up by text: an unknown name gives null, a known one the same object each time.
// Names of containers that do not exist, and arrays of formats that do not exist, end the process by design
// and are kept out.
#include <zel/String.h>
#include <zelData/ArrayFormat.h>
#include <zelData/Format.h>
#include <zelData/Type.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <stdexcept>
#include <string>

namespace {

void require(bool condition) {
    if (!condition)
        std::abort();
}

/// Whether a look-up of the name is answered: by null at worst.
bool isAnswered(const std::string& name) {
    const std::size_t bracket = name.find('<');
    if (bracket == std::string::npos || std::count(name.begin(), name.end(), '<') > 64)
        return true;
    const std::string container = name.substr(0, bracket);
    if (container == "Vector" || container == "HashSet")
        return true;
    if (container != "Array" || name.size() < bracket + 2)
        return false;
    const std::string element = name.substr(bracket + 1, name.size() - bracket - 2);
    return isAnswered(element) && zelData::getFormat(element) != nullptr;
}

void lookUp(const std::string& name) {
    // Types stay: later ones are not to fill the memory.
    if (!isAnswered(name) || (name.find('<') != std::string::npos && zelData::getTypes().size() > 4096))
        return;
    zelData::Type* const type = zelData::getType(name);
    require(zelData::getType(name) == type);
    if (type != nullptr) {
        require(type->getName().str() == name);
        require(zelData::getType(type->getId()) == type);
    }
    zelData::Format* const format = zelData::getFormat(name);
    require(zelData::getFormat(name) == format);
    if (format != nullptr) {
        require(type == nullptr || format == type->getDefaultFormat());
        require(zelData::getTransformer(format, format) != nullptr);
        if (const auto* array = dynamic_cast<const zelData::ArrayFormat*>(format))
            require(array->getElementFormat() != nullptr && array->getSize() == 24);
        else
            require(zelData::getFormat(format->fullName()) == format);
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    std::string name(reinterpret_cast<const char*>(data), size);
    // Names end at the first zero.
    name.erase(std::min(name.find('\0'), name.size()));
    try {
        lookUp(name);
    } catch (const std::length_error&) {
        // Thousands of types made so that the hashes of their names lie side by side: refused by the tables.
    }
    return 0;
}
