#pragma once

#include <zel/Export.h>

#include <stdexcept>
#include <string>

namespace zelStream {

/// An archive that can not be written, read or understood. The text begins with the open sections, where any
/// are open.
class ZEL_CORE_API ArchiveException : public std::runtime_error {
public:
    explicit ArchiveException(const std::string& message);
    ~ArchiveException() override;
};

} // namespace zelStream
