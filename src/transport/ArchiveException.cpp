#include <zelStream/ArchiveException.h>

namespace zelStream {

ArchiveException::ArchiveException(const std::string& message) : std::runtime_error(message) {}
ArchiveException::~ArchiveException() = default;

} // namespace zelStream
