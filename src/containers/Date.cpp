#include <zel/Date.h>

#include <array>
#include <chrono>

namespace zel {

Date Date::now() noexcept {
    namespace chrono = std::chrono;
    const auto elapsed = chrono::floor<chrono::microseconds>(chrono::system_clock::now().time_since_epoch());
    const auto whole = chrono::floor<chrono::seconds>(elapsed);
    return {whole.count(), (elapsed - whole).count()};
}

std::tm Date::localTime() const {
    const auto time = static_cast<std::time_t>(m_seconds);
    std::tm result{};
    localtime_r(&time, &result); // fails for years beyond the type alone, and then leaves zeros
    return result;
}

std::string Date::toStringDateAndTime() const {
    const std::tm local = localTime();
    std::array<char, 64> text{};
    const size_t length = std::strftime(text.data(), text.size(), "%Y-%m-%d %H:%M:%S", &local);
    return {text.data(), length};
}

} // namespace zel
