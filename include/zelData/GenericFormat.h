#pragma once

#include <zel/Export.h>
#include <zelData/Format.h>

namespace zelData {

/// An opaque block of bytes: copied bitwise, constructed as zero. Its bytes have no order to reverse.
///
/// At most 1,024 different sizes can be in use in a process, since each needs a copy function of its own.
/// @threads concurrent reads, once the format is set up
class ZEL_CORE_API GenericFormat : public Format {
public:
    /// Named "SIZE bytes".
    /// @throws std::runtime_error  if the size is one too many; so does the other constructor
    explicit GenericFormat(zel::uint64 size);
    GenericFormat(const zel::Name& name, zel::uint64 size);
    ~GenericFormat() override;

    void initializeElement(void* target, const void* source) const override;
    void initializeElements(void* target, const void* source, zel::uint64 n) const override;
    void constructElement(void* target) const override;
    void constructElements(void* target, zel::uint64 n) const override;
    /// Does nothing.
    void destroyElement(void* element) const override;
    /// Does nothing.
    void destroyElements(void* elements, zel::uint64 n) const override;
    void copyElement(void* target, const void* source) const override;
    void copyElements(void* target, const void* source, zel::uint64 n) const override;
    void moveElement(void* target, void* source) const override;
    void moveElements(void* target, void* source, zel::uint64 n) const override;
    void
    permuteElements(void* target, void* source, const zel::uint32* permutation, zel::uint64 n) const override;
    void swapElements(void* a, void* b) const override;
};

} // namespace zelData
