#pragma once

#include <zel/Export.h>
#include <zel/ref_ptr.h>
#include <zelData/Format.h>

namespace zelData {

/// The format of elements that are containers of elements of another format. Derived classes implement the
/// operations.
/// @threads concurrent reads, once the format is set up
class ZEL_CORE_API ContainerFormat : public Format {
public:
    /// @param elementFormat  of the elements of a container; not null, which is verified; kept alive
    /// @param size           of a container, in bytes
    /// @param copyFunction   copies containers; null for a class that registers its own transformer to itself
    ContainerFormat(const zel::Name& name,
                    Format* elementFormat,
                    zel::uint64 size,
                    TransformFunction copyFunction = nullptr);
    ~ContainerFormat() override;

    [[nodiscard]] Format* getElementFormat() const noexcept { return m_elementFormat.get(); }

private:
    zel::ref_ptr<Format> m_elementFormat;
};

} // namespace zelData
