#pragma once

#include <zel/Referenced.h>

namespace zelStream {

class InputArchive;

namespace detail {

/// Lies between an archive and the objects that it restored: one for them all, emptied when the archive ends.
class ArchiveLink : public zel::Referenced {
public:
    explicit ArchiveLink(InputArchive* archive) noexcept : m_archive(archive) {}
    [[nodiscard]] InputArchive* get() const noexcept { return m_archive; }
    void clear() noexcept { m_archive = nullptr; }

private:
    InputArchive* m_archive;
};

} // namespace detail

} // namespace zelStream
