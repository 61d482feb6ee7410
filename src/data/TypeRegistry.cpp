#include "TypeRegistry.h"

#include "FormatLookup.h"
#include "containers/NearName.h"

#include <zel/Device.h>
#include <zel/Exception.h>
#include <zel/Vector.h>
#include <zel/Verify.h>
#include <zel/XmlLoader.h>
#include <zelData/ArrayFormat.h>
#include <zelData/FormatInitializer.h>
#include <zelData/GenericFormat.h>
#include <zelData/TypeBinding.h>
#include <zelData/TypeManager.h>

#include <tinyxml.h>

#include <algorithm>
#include <atomic>
#include <iostream>
#include <mutex>
#include <string_view>

namespace zelData {

namespace {

/// Deeper names are refused: each level of nesting is a level of recursion.
constexpr zel::size_t MaxNesting = 64;

// Written at shutdown, when nobody else looks types up; it publishes nothing.
constinit std::atomic<zel::uint64> s_generation{1};

Type* findType(const zel::Name& name) {
    const auto* pair = TypeRegistry::instance().types.find(name);
    return pair == nullptr ? nullptr : pair->value.get();
}

/// Makes the type of a container, such as "Array<Real:32bit>". The last character is taken for the closing
/// bracket and not read.
Type* getTemplatedType(const zel::String& name) {
    const std::lock_guard lock(detail::getTypeSystemMutex());
    if (Type* type = findType(name))
        return type;
    if (std::count(name.begin(), name.end(), '<') > static_cast<std::ptrdiff_t>(MaxNesting))
        return nullptr;
    const zel::size_t bracket = name.find('<');
    const zel::String container = name.substr(0, bracket);
    const zel::size_t begin = bracket + 1;
    const zel::String element = name.substr(begin, std::max(name.size(), begin + 1) - begin - 1);
    Type* type = getOrCreateType(name);
    if (container == "Array")
        type->addFormat(new ArrayFormat(getFormat(element)), true);
    else if (container != "Vector" && container != "HashSet")
        zelAbort("Unsupported container type %s", container.c_str());
    return type;
}

bool isTemplated(const zel::String& name) {
    return name.find('<') != zel::String::npos;
}

/// For a message about a name that is in no table: the one that is beside it.
template <typename Table>
std::string hintOfName(const zel::String& name, const Table& table) {
    zel::NearName near(name);
    for (const auto& entry : table)
        near.consider(entry.key.str());
    return near.hint();
}

/// Where the name of a format begins behind that of its type. Within the brackets of a container the sign
/// belongs to the element's format.
zel::size_t formatColon(const zel::String& name) {
    if (!isTemplated(name))
        return name.find(':');
    const zel::size_t bracket = name.rfind('>');
    return bracket == zel::String::npos ? bracket : name.find(':', bracket);
}

/// Whether getType() takes the name of a container without ending the process.
bool namesContainer(const zel::String& name) {
    const std::lock_guard lock(detail::getTypeSystemMutex());
    if (findType(name) != nullptr)
        return true;
    const zel::size_t bracket = name.find('<');
    const std::string_view text(name);
    const std::string_view container = text.substr(0, bracket);
    if (container == "Vector" || container == "HashSet")
        return true;
    return container == "Array" && text.size() > bracket + 1 &&
           findFormat(text.substr(bracket + 1, text.size() - bracket - 2)) != nullptr;
}

} // namespace

TypeRegistry& TypeRegistry::instance() {
    static TypeRegistry& registry = *new TypeRegistry;
    return registry;
}

void TypeRegistry::clear() {
    genericStructFormats.clear();
    genericType = nullptr;
    // Values, columns and attributes that outlive the registry still refer to formats, without counting.
    static auto& retired = *new zel::Vector<zel::ref_ptr<Type>>;
    for (const auto& pair : types)
        retired.push_back(pair.value);
    types.clear();
    s_generation.fetch_add(1, std::memory_order_relaxed);
}

Type* getType(const zel::String& name) {
    const std::lock_guard lock(detail::getTypeSystemMutex());
    TypeManager::initialize();
    Type* type = findType(name);
    if (type == nullptr && FormatInitializer::isCreatingFormats()) {
        if (FormatInitializer* initializer = FormatInitializer::find(name.c_str())) {
            initializer->init();
            type = findType(name);
        }
    }
    return type == nullptr && isTemplated(name) ? getTemplatedType(name) : type;
}

Type* getType(zel::uint64 id) {
    const std::lock_guard lock(detail::getTypeSystemMutex());
    const TypeTable& types = getTypes();
    return id < types.size() ? types[id].value.get() : nullptr;
}

const TypeTable& getTypes() {
    TypeManager::initialize();
    return TypeRegistry::instance().types;
}

Type* getOrCreateType(const zel::String& name) {
    const std::lock_guard lock(detail::getTypeSystemMutex());
    if (Type* type = findType(name))
        return type;
    TypeManager::initialize();
    // The creation of the formats may have made the type.
    if (Type* type = findType(name))
        return type;
    const zel::ref_ptr<Type> created(new Type(name)); // the registry owns it too
    return created.get();
}

Format* getFormat(const zel::String& name) {
    const std::lock_guard lock(detail::getTypeSystemMutex()); // the table of the type's formats grows too
    const zel::size_t colon = formatColon(name);
    const Type* type = getType(name.substr(0, colon));
    if (type == nullptr)
        return nullptr;
    return colon == zel::String::npos ? type->getDefaultFormat() : type->getFormat(name.substr(colon + 1));
}

const Format* getFormat(zel::TiXmlElement* element, zel::Device* device) {
    const char* text = element->Attribute("type");
    if (text == nullptr)
        text = element->Attribute("value");
    if (text == nullptr)
        ZEL_XML_ERROR(element, "Must specify a type!");

    zel::String typeName = text;
    const char* const formatAttribute = element->Attribute("format");
    zel::String formatName = formatAttribute == nullptr ? "" : formatAttribute;
    const zel::size_t colon = formatColon(typeName);
    if (colon != zel::String::npos) {
        if (formatAttribute != nullptr)
            ZEL_XML_ERROR(element, "Can not have both type:format declaration and separate format attribute");
        formatName = typeName.substr(colon + 1);
        typeName.resize(colon);
    }

    Type* type = isTemplated(typeName) && !namesContainer(typeName) ? nullptr : getType(typeName);
    if (type == nullptr)
        ZEL_XML_ERROR(element, "No type named '" + typeName + "'" + hintOfName(typeName, getTypes()));
    if (colon == zel::String::npos && formatAttribute == nullptr) {
        const Format* const usual = type->getDefaultFormat();
        return device == nullptr ? usual : device->getTypeFormat(type);
    }
    const Format* format = type->getFormat(formatName);
    if (format == nullptr)
        ZEL_XML_ERROR(element,
                      "No format named '" + typeName + ":" + formatName + "'" +
                          hintOfName(formatName, type->getFormats()));
    return format;
}

Format* getGenericStructFormat(zel::uint64 size) {
    const std::lock_guard lock(detail::getTypeSystemMutex());
    TypeRegistry& registry = TypeRegistry::instance();
    const auto position = registry.genericStructFormats.find(size);
    if (position != registry.genericStructFormats.end())
        return position->value.get();
    if (!registry.genericType)
        registry.genericType = getOrCreateType("GenericData");
    auto* const format = new GenericFormat(size);
    registry.genericType->addFormat(format, false);
    registry.genericStructFormats.insert(size, format);
    return format;
}

void printAllTypesAndFormats() {
    const std::lock_guard lock(detail::getTypeSystemMutex());
    for (const auto& pair : getTypes()) {
        std::cout << pair.key << '\n';
        for (const auto& entry : pair.value->getFormats())
            std::cout << "  " << entry.key << '\n';
    }
    std::cout.flush();
}

namespace detail {

zel::uint64 getTypeRegistryGeneration() noexcept {
    return s_generation.load(std::memory_order_relaxed);
}

Type* lookUpBoundType(const char* name) {
    Type* const type = getType(name);
    zelVerifyN(type != nullptr, "There is no type '%s'", name);
    return type;
}

} // namespace detail

} // namespace zelData
