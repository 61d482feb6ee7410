#pragma once

#include <zel/Name.h>
#include <zel/Path.h>
#include <zelData/Array.h>
#include <zelData/Buffer.h>
#include <zelData/EntityStorage.h>
#include <zelData/Format.h>

#include <stdexcept>
#include <string>

/// The column of an attribute, whose elements must be of the format.
/// @throws std::runtime_error if the storage has no such column
template <typename T>
[[nodiscard]] zelData::Array<T>
column(const zelData::EntityStorage& storage, const char* name, const char* format) {
    zelData::Buffer* buffer = storage.getBuffer(zel::Name(name));
    if (buffer == nullptr || buffer->getFormat()->fullName() != format)
        throw std::runtime_error("the storage '" + storage.getPath().str() + "' has no column '" + name +
                                 "' of " + format + "\n");
    return {buffer, {0, static_cast<zel::uint32>(storage.size())}};
}
