#include "Command.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <iostream>

namespace tool {

Arguments::Arguments(const std::vector<Option>& options, const std::vector<std::string>& words) {
    bool onlyPositional = false;
    for (auto word = words.begin(); word != words.end(); ++word) {
        if (onlyPositional || word->size() < 2 || word->front() != '-') {
            m_positional.push_back(*word);
            continue;
        }
        if (*word == "--") {
            onlyPositional = true;
            continue;
        }
        const auto equals = word->find('=');
        const std::string name = word->substr(0, equals);
        const auto option = std::find_if(
            options.begin(), options.end(), [&](const Option& each) { return each.name == name; });
        if (option == options.end())
            throw UsageError("unknown option " + name);
        if (option->valueName == nullptr) {
            if (equals != std::string::npos)
                throw UsageError(name + " takes no value");
            m_values[name].emplace_back();
        } else if (equals != std::string::npos) {
            m_values[name].push_back(word->substr(equals + 1));
        } else if (++word == words.end()) {
            throw UsageError(name + " needs a value");
        } else {
            m_values[name].push_back(*word);
        }
    }
}

std::string Arguments::get(const std::string& option, const std::string& byDefault) const {
    const auto values = m_values.find(option);
    return values == m_values.end() ? byDefault : values->second.back();
}

std::vector<std::string> Arguments::getAll(const std::string& option) const {
    const auto values = m_values.find(option);
    return values == m_values.end() ? std::vector<std::string>() : values->second;
}

unsigned long Arguments::number(const std::string& option, unsigned long byDefault) const {
    return has(option) ? parseNumber(option, get(option)) : byDefault;
}

double Arguments::real(const std::string& option, double byDefault) const {
    return has(option) ? parseReal(option, get(option)) : byDefault;
}

namespace {

template <typename Number>
bool parse(const std::string& text, Number& number) {
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    return error == std::errc() && end == text.data() + text.size();
}

} // namespace

unsigned long parseNumber(const std::string& name, const std::string& text) {
    unsigned long number = 0;
    if (!parse(text, number))
        throw UsageError(name + ": '" + text + "' is no whole number from 0 on");
    return number;
}

double parseReal(const std::string& name, const std::string& text) {
    double number = 0;
    if (!parse(text, number) || !std::isfinite(number) || number < 0)
        throw UsageError(name + ": '" + text + "' is no number from 0 on");
    return number;
}

std::string toText(double number) {
    std::array<char, 32> text{};
    return {text.data(), std::to_chars(text.data(), text.data() + text.size(), number).ptr};
}

std::string printable(const std::string& text, const std::string& kept) {
    std::string shown;
    for (const char c : text) {
        const bool isControl = static_cast<unsigned char>(c) < 32 || c == 127;
        shown += isControl && kept.find(c) == std::string::npos ? '?' : c;
    }
    return shown;
}

void flushOutput() {
    if (!std::cout.flush())
        throw std::runtime_error("could not write to the standard output");
}

} // namespace tool
