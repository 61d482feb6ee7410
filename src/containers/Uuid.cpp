#include <zel/Thread.h>
#include <zel/Uuid.h>

#include <array>
#include <cctype>
#include <istream>
#include <ostream>
#include <sstream>
#include <vector>

namespace zel {

namespace {

constexpr std::string_view UpperDigits = "0123456789ABCDEF";
constexpr std::string_view LowerDigits = "0123456789abcdef";

constexpr bool dashFollows(size_t index) {
    return index == 3 || index == 5 || index == 7 || index == 9;
}

/// The next non-blank character as a hexadecimal digit, or -1.
int readDigit(std::istream& stream) {
    char character = 0;
    if (!(stream >> character))
        return -1;
    const auto upper = static_cast<char>(std::toupper(static_cast<unsigned char>(character)));
    const size_t digit = UpperDigits.find(upper);
    return digit == std::string_view::npos ? -1 : static_cast<int>(digit);
}

bool readDash(std::istream& stream) {
    char character = 0;
    return (stream >> character) && character == '-';
}

bool readBytes(std::istream& stream, std::array<uint8, Uuid::NumBytes>& bytes) {
    for (size_t i = 0; i < bytes.size(); ++i) {
        const int high = readDigit(stream);
        const int low = high < 0 ? -1 : readDigit(stream);
        if (low < 0 || (dashFollows(i) && !readDash(stream)))
            return false;
        bytes[i] = static_cast<uint8>(high * 16 + low);
    }
    return true;
}

/// For threads that are no zel::Thread.
std::mt19937& threadGenerator() {
    thread_local std::mt19937 generator{std::random_device{}()};
    return generator;
}

} // namespace

Uuid::Uuid(const std::string& text) {
    std::istringstream stream(text);
    stream >> *this;
}

Uuid Uuid::generateFromString(std::string_view text) {
    std::vector<uint32> words;
    words.reserve(text.size());
    for (const char c : text)
        words.push_back(static_cast<uint32>(static_cast<signed char>(c))); // sign-extended to a word
    std::seed_seq seed(words.begin(), words.end());
    std::mt19937 generator(seed);
    return UuidGenerator().generate(generator);
}

Uuid Uuid::fromHalves(uint64 first, uint64 second) noexcept {
    first = (first & ~(uint64{0xF} << 12)) | (uint64{0x4} << 12);   // version, in the byte at index 1
    second = (second & ~(uint64{0x3} << 62)) | (uint64{0x2} << 62); // variant, in the byte at index 15
    Uuid uuid;
    for (size_t i = 0; i < 8; ++i) {
        uuid.m_bytes[i] = static_cast<uint8>(first >> (8 * i));
        uuid.m_bytes[8 + i] = static_cast<uint8>(second >> (8 * i));
    }
    return uuid;
}

std::string Uuid::str() const {
    std::string text;
    text.reserve(2 * NumBytes + 4);
    for (size_t i = 0; i < NumBytes; ++i) {
        text += LowerDigits[m_bytes[i] >> 4];
        text += LowerDigits[m_bytes[i] & 0xF];
        if (dashFollows(i))
            text += '-';
    }
    return text;
}

std::ostream& operator<<(std::ostream& stream, const Uuid& uuid) {
    return stream << uuid.str();
}

std::istream& operator>>(std::istream& stream, Uuid& uuid) {
    std::array<uint8, Uuid::NumBytes> bytes{};
    if (readBytes(stream, bytes))
        std::copy(bytes.begin(), bytes.end(), uuid.data());
    else
        stream.setstate(std::ios::failbit);
    return stream;
}

Uuid UuidGenerator::generate() {
    Thread* thread = Thread::getCurrentThread();
    return thread != nullptr ? thread->generateUuid() : generate(threadGenerator());
}

Uuid UuidGenerator::generate(std::mt19937& generator) {
    const uint64 first = m_distribution(generator);
    const uint64 second = m_distribution(generator);
    return Uuid::fromHalves(first, second);
}

} // namespace zel
