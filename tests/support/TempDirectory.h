#pragma once

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>

namespace zelTest {

/// A directory of the test's own, removed with all content at the end.
class TempDirectory {
public:
    TempDirectory() {
        std::string pattern = (std::filesystem::temp_directory_path() / "zelTest-XXXXXX").string();
        if (mkdtemp(pattern.data()) == nullptr)
            throw std::runtime_error("mkdtemp failed for " + pattern);
        m_path = pattern;
    }
    TempDirectory(const TempDirectory&) = delete;
    TempDirectory& operator=(const TempDirectory&) = delete;
    ~TempDirectory() {
        std::error_code ignored;
        std::filesystem::remove_all(m_path, ignored);
    }

    [[nodiscard]] const std::string& path() const { return m_path; }
    [[nodiscard]] std::string path(const std::string& name) const { return m_path + "/" + name; }
    [[nodiscard]] std::string operator/(const std::string& name) const { return m_path + "/" + name; }

    /// Writes a file, and the folders on the way to it.
    std::string write(const std::string& name, const std::string& content = "") const {
        const std::filesystem::path file = std::filesystem::path(m_path) / name;
        std::filesystem::create_directories(file.parent_path());
        std::ofstream stream(file, std::ios::binary);
        stream << content;
        stream.close();
        if (!stream)
            throw std::runtime_error("could not write " + file.string());
        return file.string();
    }

    [[nodiscard]] std::string read(const std::string& name) const {
        std::ifstream stream(path(name), std::ios::binary);
        return {std::istreambuf_iterator<char>(stream), {}};
    }

private:
    std::string m_path;
};

} // namespace zelTest
