#include <zel/Exception.h>
#include <zel/String.h>
#include <zelData/GenericFormat.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <mutex>
#include <stdexcept>
#include <utility>

namespace zelData {

namespace {

constexpr zel::size_t MaxSizes = 1024;

/// The sizes in use. A transform function does not learn of which format its elements are, so each size has a
/// copy function of its own. A size is written before the function that reads it is given out, and stays.
constinit std::array<zel::uint64, MaxSizes> s_sizes{};
constinit zel::size_t s_numSizes = 0; // guarded by the type-system mutex

void copyBytes(void* target, const void* source, zel::uint64 numBytes) {
    if (numBytes != 0)
        std::memmove(target, source, numBytes);
}

template <zel::size_t Index>
void copyBlocks(void* target, const void* source, zel::uint64 numElements) {
    copyBytes(target, source, numElements * s_sizes[Index]);
}

template <zel::size_t... Indices>
constexpr std::array<TransformFunction, MaxSizes> makeCopyFunctions(std::index_sequence<Indices...>) {
    return {&copyBlocks<Indices>...};
}
constexpr auto CopyFunctions = makeCopyFunctions(std::make_index_sequence<MaxSizes>());

TransformFunction copyFunctionOf(zel::uint64 size) {
    const std::lock_guard lock(detail::getTypeSystemMutex());
    zel::size_t i = 0;
    while (i < s_numSizes && s_sizes[i] != size)
        ++i;
    if (i == s_numSizes) {
        if (s_numSizes == MaxSizes)
            ZEL_THROW(std::runtime_error,
                      zel::String::format(
                          "No generic format of %lu bytes: there are %zu of other sizes", size, MaxSizes));
        s_sizes[s_numSizes++] = size;
    }
    return CopyFunctions[i];
}

zel::uint8* at(void* elements, zel::uint64 offset) {
    return static_cast<zel::uint8*>(elements) + offset;
}

} // namespace

GenericFormat::GenericFormat(zel::uint64 size)
    : GenericFormat(zel::String::format("%lu bytes", size), size) {}

GenericFormat::GenericFormat(const zel::Name& name, zel::uint64 size)
    : Format(name, zel::Name(), size, nullptr, copyFunctionOf(size)) {}

GenericFormat::~GenericFormat() = default;

void GenericFormat::initializeElement(void* target, const void* source) const {
    copyBytes(target, source, getSize());
}
void GenericFormat::initializeElements(void* target, const void* source, zel::uint64 n) const {
    for (zel::uint64 i = 0; i < n; ++i)
        copyBytes(at(target, i * getSize()), source, getSize());
}
void GenericFormat::constructElement(void* target) const {
    constructElements(target, 1);
}
void GenericFormat::constructElements(void* target, zel::uint64 n) const {
    if (n * getSize() != 0)
        std::memset(target, 0, n * getSize());
}
void GenericFormat::destroyElement(void*) const {}
void GenericFormat::destroyElements(void*, zel::uint64) const {}
void GenericFormat::copyElement(void* target, const void* source) const {
    copyBytes(target, source, getSize());
}
void GenericFormat::copyElements(void* target, const void* source, zel::uint64 n) const {
    copyBytes(target, source, n * getSize());
}
void GenericFormat::moveElement(void* target, void* source) const {
    copyBytes(target, source, getSize());
}
void GenericFormat::moveElements(void* target, void* source, zel::uint64 n) const {
    copyBytes(target, source, n * getSize());
}
void GenericFormat::permuteElements(void* target,
                                    void* source,
                                    const zel::uint32* permutation,
                                    zel::uint64 n) const {
    for (zel::uint64 i = 0; i < n; ++i)
        copyBytes(at(target, i * getSize()), at(source, permutation[i] * getSize()), getSize());
}
void GenericFormat::swapElements(void* a, void* b) const {
    std::swap_ranges(at(a, 0), at(a, getSize()), at(b, 0));
}

} // namespace zelData
