#pragma once

#include <zel/HashSet.h>
#include <zel/LockRank.h>
#include <zel/Name.h>
#include <zel/Verify.h>

#include <cstdlib>
#include <cstring>
#include <mutex>
#include <new>
#include <string_view>

namespace zel::detail {

/// The interned texts of a process. The set exists while any of them does; the mutex outlives it, for a
/// thread may wait for it while another one removes the last text.
///
/// A text is released outside the mutex. Between its count's fall to zero and its destroyer's taking the
/// mutex, another thread may ask for the same text: it finds the entry, sees that its own count is the only
/// one, leaves the array to the destroyer by way of the Disowned mark and enters a fresh array in its place.
/// @threads any thread
class NameCache {
public:
    /// A count that tells the destroyer of an array that it no longer owns the table entry.
    static constexpr uint32 Disowned = 0xFFFFFFFFU;

    constexpr NameCache() noexcept = default;

    /// @param text  zero-terminated, not empty, without a zero inside
    /// @return the array of this text, counted once for the caller
    [[nodiscard]] char* intern(std::string_view text) {
        const uint32 hash = hashText(text.data(), text.size());
        const std::lock_guard lock(m_mutex);
        if (m_texts == nullptr)
            m_texts = new HashSet<const char*>;
        const auto position = m_texts->findHashed(text.data(), hash);
        if (position != m_texts->end()) {
            char* found = const_cast<char*>(*position); // NOLINT: the table holds our own arrays as C texts
            if (NameHeader::of(found).count.fetch_add(1, std::memory_order_seq_cst) + 1 != 1)
                return found;
            NameHeader::of(found).count.store(Disowned, std::memory_order_seq_cst);
        }
        char* fresh = allocate(text);
        try {
            m_texts->insertHashed(static_cast<const char*>(fresh), hash);
        } catch (...) {
            std::free(&NameHeader::of(fresh));
            throw;
        }
        return fresh;
    }

    /// Frees an array whose count has reached zero. Called once for each array, by whoever took the count
    /// there.
    void destroy(char* text) noexcept {
        const std::lock_guard lock(m_mutex);
        NameHeader& header = NameHeader::of(text);
        if (header.count.load(std::memory_order_seq_cst) < Disowned)
            m_texts->erase(static_cast<const char*>(text));
        header.~NameHeader();
        std::free(&header);
        if (m_texts != nullptr && m_texts->empty()) {
            delete m_texts;
            m_texts = nullptr;
        }
    }

    /// Whether any text is interned.
    [[nodiscard]] bool exists() {
        const std::lock_guard lock(m_mutex);
        return m_texts != nullptr;
    }

private:
    [[nodiscard]] static char* allocate(std::string_view text) {
        zelVerifyN(text.size() < Disowned, "Name: a text of %lu bytes is too long", text.size());
        const size_t size = sizeof(NameHeader) + text.size() + 1;
        void* buf = std::malloc(size);
        zelVerifyN(buf, "Name: malloc could not allocate %lu bytes!", size);
        auto* header = ::new (buf) NameHeader{{1}, static_cast<uint32>(text.size())};
        char* characters = reinterpret_cast<char*>(header + 1);
        std::memcpy(characters, text.data(), text.size());
        characters[text.size()] = '\0';
        return characters;
    }

    RankedMutex<LockRank::Names> m_mutex;
    HashSet<const char*>* m_texts = nullptr; // guarded by m_mutex
};

} // namespace zel::detail
