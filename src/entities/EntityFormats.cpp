#include <zel/Verify.h>
#include <zelData/EntityData.h>
#include <zelData/EntityFormats.h>
#include <zelData/EntityStorage.h>
#include <zelData/FormatInitializer.h>

#include <cstdlib>

namespace zelData {

namespace {

zel::String handleText(const EntityStorage* storage, zel::uint32 index) {
    return zel::String::format("%p:%u", static_cast<const void*>(storage), index);
}

void writeEntityPtrs(void* target, const void* source, zel::uint64 numElements) {
    auto* to = static_cast<zel::String*>(target);
    const auto* from = static_cast<const EntityPtr*>(source);
    for (zel::uint64 i = 0; i < numElements; ++i)
        to[i] = handleText(from[i].getStorage(), from[i].getIndex());
}

void writeEntityInstances(void* target, const void* source, zel::uint64 numElements) {
    auto* to = static_cast<zel::String*>(target);
    const auto* from = static_cast<const EntityInstance*>(source);
    for (zel::uint64 i = 0; i < numElements; ++i)
        to[i] = handleText(from[i].getStorage(), from[i].getIndex());
}

/// A storage and an index as they stand in a text. An address is taken only if a storage lives there, and an
/// index only if an instance does; anything else is null.
struct HandleText {
    explicit HandleText(const zel::String& text) {
        char* end = nullptr;
        const void* address = reinterpret_cast<void*>(std::strtoul(text.c_str(), &end, 16)); // NOLINT
        const zel::size_t colon = text.find(':');
        if (colon == std::string::npos)
            return;
        index = static_cast<zel::uint32>(std::strtoul(text.c_str() + colon + 1, nullptr, 10));
        storage = address == nullptr ? nullptr : EntityStorage::find(address);
        if (storage != nullptr && index >= storage->size())
            storage = nullptr;
    }

    EntityStorage* storage = nullptr;
    zel::uint32 index = zel::InvalidIndex;
};

void readEntityPtrs(void* target, const void* source, zel::uint64 numElements) {
    auto* to = static_cast<EntityPtr*>(target);
    const auto* from = static_cast<const zel::String*>(source);
    for (zel::uint64 i = 0; i < numElements; ++i) {
        const HandleText read(from[i]);
        to[i] = read.storage == nullptr ? EntityPtr() : read.storage->getInstance(read.index);
    }
}

void readEntityInstances(void* target, const void* source, zel::uint64 numElements) {
    auto* to = static_cast<EntityInstance*>(target);
    const auto* from = static_cast<const zel::String*>(source);
    for (zel::uint64 i = 0; i < numElements; ++i) {
        const HandleText read(from[i]);
        to[i] =
            read.storage == nullptr ? EntityInstance() : EntityInstance(read.storage->getData(), read.index);
    }
}

/// Indices alone say nothing about the storage: there must be only one.
void toIndices(void* target, const void* source, zel::uint64 numElements) {
    auto* to = static_cast<zel::uint32*>(target);
    const auto* from = static_cast<const EntityPtr*>(source);
    const EntityStorage* storage = nullptr;
    for (zel::uint64 i = 0; i < numElements; ++i) {
        const EntityStorage* other = from[i].getStorage();
        if (storage == nullptr)
            storage = other;
        if (other != nullptr && other != storage)
            zelAbort(
                "Index-only format of EntityPtrs requires that all EntityPtrs points to the same Storage, "
                "got %s",
                (storage->getPath().str() + " and " + other->getPath().str()).c_str());
        to[i] = from[i].getIndex();
    }
}

void writeIndices(void* target, const void* source, zel::uint64 numElements) {
    auto* to = static_cast<zel::String*>(target);
    const auto* from = static_cast<const zel::uint32*>(source);
    for (zel::uint64 i = 0; i < numElements; ++i)
        to[i] = handleText(nullptr, from[i]);
}

void readIndices(void* target, const void* source, zel::uint64 numElements) {
    auto* to = static_cast<zel::uint32*>(target);
    const auto* from = static_cast<const zel::String*>(source);
    for (zel::uint64 i = 0; i < numElements; ++i)
        to[i] = HandleText(from[i]).index;
}

void addText(Type* type, TransformFunction write, TransformFunction read) {
    auto* ascii = new FormatT<zel::String>("ascii");
    type->addFormat(ascii);
    registerTransformer(write, ascii, type->getDefaultFormat());
    registerTransformer(read, type->getDefaultFormat(), ascii);
}

void createEntityPtrType() {
    createEntityPtrFormats<EntityPtr>("EntityPtr");
    Type* type = getType("EntityPtr");
    auto* indexOnly = new FormatT<zel::uint32>("IndexOnly");
    type->addFormat(indexOnly);
    registerTransformer(&toIndices, indexOnly, type->getDefaultFormat());
    registerTransformer(&writeIndices, type->getFormat("ascii"), indexOnly);
    registerTransformer(&readIndices, indexOnly, type->getFormat("ascii"));
}

void createEntityInstanceType() {
    createEntityInstanceFormats<EntityInstance>("EntityInstance");
}

const FormatInitializer s_entityPtr("EntityPtr", &createEntityPtrType);
const FormatInitializer s_entityInstance("EntityInstance", &createEntityInstanceType);

} // namespace

void detail::addEntityPtrText(Type* type) {
    addText(type, &writeEntityPtrs, &readEntityPtrs);
}

void detail::addEntityInstanceText(Type* type) {
    addText(type, &writeEntityInstances, &readEntityInstances);
}

} // namespace zelData
