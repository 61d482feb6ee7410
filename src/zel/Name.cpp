#include <zel/HashSet.h>
#include <zel/Name.h>
#include <zel/Verify.h>

#include <cstdlib>
#include <cstring>
#include <mutex>
#include <new>
#include <ostream>

namespace zel {

namespace {

/// Tells the destroyer of an array that it no longer owns the table entry.
constexpr uint32 Disowned = 0xFFFFFFFFU;

/// The set of all interned texts. It exists while any of them does. The mutex outlives it: a thread may wait for
/// it while another one removes the last text.
struct Cache {
    std::mutex mutex;
    HashSet<const char*>* texts = nullptr; // guarded by mutex
};
constinit Cache s_cache;

} // namespace

constinit Name::EmptyArray Name::s_emptyString{{{1}, 0}, {}};

Name::Name(const char* text) : m_text(intern(text == nullptr ? "" : text, text == nullptr ? 0 : std::strlen(text))) {}

// An interned text ends at its first zero, like the C text that stands for it in the table.
Name::Name(const std::string& text) : m_text(intern(text.c_str(), std::strlen(text.c_str()))) {}

bool Name::cacheExists() {
    const std::lock_guard lock(s_cache.mutex);
    return s_cache.texts != nullptr;
}

char* Name::allocate(const char* text, size_t length) {
    zelVerifyN(length < Disowned, "Name: a text of %lu bytes is too long", length);
    void* buf = std::malloc(length + sizeof(Header) + 1);
    zelVerifyN(buf, "Name: malloc could not allocate %lu bytes!", length + sizeof(Header) + 1);
    auto* array = ::new (buf) Header{{1}, static_cast<uint32>(length)};
    char* characters = reinterpret_cast<char*>(array + 1);
    std::memcpy(characters, text, length);
    characters[length] = '\0';
    return characters;
}

char* Name::intern(const char* text, size_t length) {
    if (length == 0) {
        reference(emptyText());
        return emptyText();
    }
    const std::lock_guard lock(s_cache.mutex);
    if (s_cache.texts == nullptr)
        s_cache.texts = new HashSet<const char*>;
    const auto position = s_cache.texts->find(text);
    if (position != s_cache.texts->end()) {
        char* found = const_cast<char*>(*position); // NOLINT: the table holds our own arrays as C texts
        if (header(found).count.fetch_add(1, std::memory_order_seq_cst) + 1 != 1)
            return found;
        // It had reached zero, and its destroyer waits for the mutex. Leave it the array and take the entry.
        header(found).count.store(Disowned, std::memory_order_seq_cst);
    }
    char* fresh = allocate(text, length);
    s_cache.texts->insert(fresh);
    return fresh;
}

void Name::destroy(char* text) noexcept {
    const std::lock_guard lock(s_cache.mutex);
    if (header(text).count.load(std::memory_order_seq_cst) < Disowned)
        s_cache.texts->erase(static_cast<const char*>(text));
    header(text).~Header();
    std::free(&header(text));
    if (s_cache.texts != nullptr && s_cache.texts->empty()) {
        delete s_cache.texts;
        s_cache.texts = nullptr;
    }
}

std::ostream& operator<<(std::ostream& stream, const Name& name) {
    return stream.write(name.c_str(), static_cast<std::streamsize>(name.length()));
}

} // namespace zel
