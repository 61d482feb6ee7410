#pragma once

#include <zel/Notify.h>
#include <zelCore/zelCore.h>

#include <sys/mman.h>
#include <tinyxml.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

namespace zelFuzz {

/// Starts the library once, with a log that tells errors only.
inline void initQuietly() {
    static const bool ready = [] {
        zelCore::init();
        zel::Notify::instance()->setNotifyLevel(zel::Notify::Error);
        zel::Notify::instance()->setThrowOnError(true);
        return true;
    }();
    static_cast<void>(ready);
}

/// The input as a file.
class InputFile {
public:
    InputFile(const std::uint8_t* data, std::size_t size) : m_file(memfd_create("input", 0)) {
        if (m_file < 0 || write(m_file, data, size) != static_cast<ssize_t>(size))
            std::abort();
    }
    InputFile(const InputFile&) = delete;
    InputFile& operator=(const InputFile&) = delete;
    ~InputFile() { close(m_file); }
    [[nodiscard]] std::string path() const { return "/proc/self/fd/" + std::to_string(m_file); }

private:
    int m_file;
};

/// Whether an attribute of the element or below it names a container, such as "Array<Real>". Unknown ones are
/// told to end the process.
inline bool namesContainer(const TiXmlElement* element) {
    for (const auto* attribute = element->FirstAttribute(); attribute != nullptr;
         attribute = attribute->Next())
        if (attribute->ValueStr().find('<') != std::string::npos)
            return true;
    for (const auto* child = element->FirstChildElement(); child != nullptr;
         child = child->NextSiblingElement())
        if (namesContainer(child))
            return true;
    return false;
}

} // namespace zelFuzz
