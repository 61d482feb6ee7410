// Splits a text into directories, and searches the first line of the input in them.

#include <zel/Verify.h>
#include <zelIO/FilePathContainer.h>
#include <zelIO/FileSystem.h>

#include <cstddef>
#include <cstdint>
#include <string>

using zel::String;
using zelIO::FilePathContainer;
using zelIO::FileSystem;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    std::string input(data, data + size);
    input = input.substr(0, input.find('\0'));
    const size_t lineEnd = input.find('\n');
    const String file = input.substr(0, lineEnd);
    const String text = lineEnd == std::string::npos ? "" : input.substr(lineEnd + 1);

    FilePathContainer::StringList list;
    FilePathContainer::convertStringToList(text, list);
    size_t characters = 0;
    for (const String& directory : list) {
        zelVerify(!directory.empty());
        zelVerify(directory.find(FilePathContainer::ListSeparator) == String::npos);
        zelVerify(text.find(directory) != String::npos);
        characters += directory.size();
    }
    for (const char c : text)
        characters += c == FilePathContainer::ListSeparator ? 1 : 0;
    zelVerify(characters == text.size()); // nothing is lost and nothing is added

    const FilePathContainer container(list);
    const String found = container.find(file);
    zelVerify(found.empty() || FileSystem::exists(found));

    FilePathContainer reduced(list);
    reduced.removeDuplicates();
    zelVerify(reduced.find(file) == found);
    return 0;
}
