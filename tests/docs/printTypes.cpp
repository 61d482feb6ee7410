// Prints the table of all types and formats for docs/types.md; see types_page.py.

#include <zelData/Format.h>
#include <zelData/Type.h>

#include <algorithm>
#include <cstdlib>
#include <iostream>
#include <string>
#include <utility>
#include <vector>

namespace {

/// Formats by width, and then those without one, by name.
std::pair<int, std::string> order(const zelData::Format* format) {
    const int width = std::atoi(format->getName().c_str());
    return {width == 0 ? 1000 : width, format->getName().str()};
}

void printType(const zelData::Type& type) {
    std::vector<const zelData::Format*> formats;
    for (const auto& entry : type.getFormats())
        formats.push_back(entry.value.get());
    std::sort(
        formats.begin(), formats.end(), [](const auto* a, const auto* b) { return order(a) < order(b); });
    std::cout << "| `" << type.getName() << "` |";
    const char* separator = " ";
    for (const zelData::Format* format : formats) {
        const char* mark = format == type.getDefaultFormat() ? "**" : "";
        std::cout << separator << mark << '`' << format->getName() << '`' << mark;
        if (format->getSwapFunction() != nullptr) // numbers
            std::cout << ' ' << format->getSize();
        separator = ", ";
    }
    std::cout << " |\n";
}

} // namespace

int main() {
    std::vector<const zelData::Type*> types;
    for (const auto& pair : zelData::getTypes())
        types.push_back(pair.value.get());
    std::sort(types.begin(), types.end(), [](const auto* a, const auto* b) {
        return a->getName().str() < b->getName().str();
    });
    std::cout
        << "| type | formats, with the size of numeric ones in bytes; the default is bold |\n|---|---|\n";
    for (const zelData::Type* type : types)
        printType(*type);
}
