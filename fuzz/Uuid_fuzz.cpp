// Uuids: a text gives what its digits say or zero, and what was written is read again.
#include <zel/Uuid.h>

#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

namespace {

void require(bool condition) {
    if (!condition)
        std::abort();
}

int digitOf(char c) {
    if (c >= '0' && c <= '9')
        return c - '0';
    if (c >= 'a' && c <= 'f')
        return c - 'a' + 10;
    return c >= 'A' && c <= 'F' ? c - 'A' + 10 : -1;
}

/// The reader's rules once more, over the text without its blanks.
zel::Uuid expected(std::string_view text) {
    std::string dense;
    for (const char c : text)
        if (std::string_view(" \t\n\v\f\r").find(c) == std::string_view::npos)
            dense += c;
    zel::Uuid uuid;
    std::size_t at = 0;
    const auto next = [&] { return at < dense.size() ? dense[at++] : '?'; };
    for (std::size_t i = 0; i < zel::Uuid::NumBytes; ++i) {
        const int high = digitOf(next());
        const int low = digitOf(next());
        if (high < 0 || low < 0)
            return {};
        uuid.data()[i] = static_cast<zel::uint8>(high * 16 + low);
        if ((i == 3 || i == 5 || i == 7 || i == 9) && next() != '-')
            return {};
    }
    return uuid;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    const zel::Uuid parsed(text);
    require(parsed == expected(text));
    require(parsed.str().size() == 36);
    require(zel::Uuid(parsed.str()) == parsed);

    const zel::Uuid generated = zel::Uuid::generateFromString(text);
    require(generated == zel::Uuid::generateFromString(text));
    require((generated.data()[1] & 0xF0) == 0x40 && (generated.data()[15] & 0xC0) == 0x80);
    require(zel::Uuid(generated.str()) == generated);
    return 0;
}
