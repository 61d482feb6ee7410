#pragma once

#include <zel/Export.h>
#include <zel/Integers.h>

#include <array>
#include <compare>
#include <iosfwd>
#include <random>
#include <string>
#include <string_view>
#include <type_traits>

namespace zel {

/// An identity of 16 bytes; all zero by default. The version bits stand in the high half of the byte at index
/// 1 and the variant bits at the top of the byte at index 15.
/// @threads external lock
class ZEL_CORE_API Uuid {
public:
    static constexpr size_t NumBytes = 16;

    constexpr Uuid() noexcept = default;
    /// From the form that str() writes. Blanks between the digits and capital digits are accepted, and what
    /// follows the last digit is not read. A malformed text gives the zero value.
    explicit Uuid(const std::string& text);

    /// The same text always gives the same value.
    [[nodiscard]] static Uuid generateFromString(std::string_view text);

    /// Two lower-case hexadecimal digits for each byte in index order, with a '-' after the bytes at the
    /// indices 3, 5, 7 and 9: 36 characters.
    [[nodiscard]] std::string str() const;

    [[nodiscard]] constexpr uint8* data() noexcept { return m_bytes.data(); }
    [[nodiscard]] constexpr const uint8* data() const noexcept { return m_bytes.data(); }

    friend constexpr bool operator==(const Uuid&, const Uuid&) noexcept = default;
    /// Orders by the bytes.
    friend constexpr std::strong_ordering operator<=>(const Uuid&, const Uuid&) noexcept = default;

private:
    friend class UuidGenerator;
    /// The halves in order, each little-endian, with version and variant set.
    static Uuid fromHalves(uint64 first, uint64 second) noexcept;

    std::array<uint8, NumBytes> m_bytes{};
};

static_assert(sizeof(Uuid) == 16 && std::is_trivially_copyable_v<Uuid>);

/// Writes str().
ZEL_CORE_API std::ostream& operator<<(std::ostream& stream, const Uuid& uuid);
/// Reads the form of str() as the constructor does. A fault sets the stream's failbit and leaves `uuid`
/// alone.
ZEL_CORE_API std::istream& operator>>(std::istream& stream, Uuid& uuid);

/// Makes random values of Uuid from two draws of 64 bits each.
/// @threads external lock
class ZEL_CORE_API UuidGenerator {
public:
    /// From the generator of the calling zel::Thread or, on any other thread, from one of that thread's own;
    /// each is seeded once from the system's random device.
    [[nodiscard]] Uuid generate();
    /// From a generator of the caller's.
    [[nodiscard]] Uuid generate(std::mt19937& generator);

private:
    /// Over the whole range of the type.
    std::uniform_int_distribution<uint64> m_distribution{0, ~uint64{0}};
};

} // namespace zel
