#pragma once

#include <zel/Export.h>
#include <zelData/ContainerFormat.h>
#include <zelData/FormatT.h>

#include <array>

namespace zelData {

namespace detail {
/// An array view, as far as its format looks at it.
using ArrayWords = std::array<zel::uint64, 3>;
} // namespace detail

/// The format of array views, which own nothing: an element is three words that are copied bitwise, and
/// destroying one does nothing.
/// @threads concurrent reads, once the format is set up
class ZEL_CORE_API ArrayFormat : public ElementOperations<detail::ArrayWords, ContainerFormat> {
public:
    explicit ArrayFormat(Format* elementFormat);
    ~ArrayFormat() override;
};

} // namespace zelData
