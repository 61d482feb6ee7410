#pragma once

#include <zel/Integers.h>

namespace zelData {

/// Where the elements of a serialized frame come from, if not from memory.
class ElementSource {
public:
    ElementSource() = default;
    ElementSource(const ElementSource&) = delete;
    ElementSource& operator=(const ElementSource&) = delete;
    virtual ~ElementSource() = default;

    /// Copies bytes of the data segment; the caller has held them against its size.
    virtual void read(zel::uint64 offset, void* target, zel::uint64 numBytes) = 0;
};

} // namespace zelData
