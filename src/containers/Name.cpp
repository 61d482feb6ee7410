#include "NameCache.h"

#include <zel/Name.h>

#include <cstring>
#include <ostream>
#include <string_view>

namespace zel {

namespace {

// Constant-initialised and never destroyed: names work in any static constructor and destructor.
constinit detail::NameCache s_cache;

} // namespace

constinit Name::EmptyArray Name::s_emptyString{{{1}, 0}, {}};

Name::Name(const char* text) : m_text(intern(text == nullptr ? "" : text)) {}

// An interned text ends at its first zero, like the C text that stands for it in the table.
Name::Name(const std::string& text) : m_text(intern(text.c_str())) {}

bool Name::cacheExists() {
    return s_cache.exists();
}

char* Name::intern(const char* text) {
    if (*text != '\0')
        return s_cache.intern(text);
    reference(emptyText());
    return emptyText();
}

void Name::destroy(char* text) noexcept {
    s_cache.destroy(text);
}

std::ostream& operator<<(std::ostream& stream, const Name& name) {
    return stream << std::string_view(name.c_str(), name.length());
}

} // namespace zel
