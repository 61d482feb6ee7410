#pragma once

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>

/// A directory of the test's own, removed with all its content.
class TestDirectory {
public:
    TestDirectory() {
        std::string path = (std::filesystem::temp_directory_path() / "zelTest.XXXXXX").string();
        if (mkdtemp(path.data()) == nullptr)
            throw std::runtime_error("no test directory");
        m_path = path;
    }
    TestDirectory(const TestDirectory&) = delete;
    TestDirectory& operator=(const TestDirectory&) = delete;
    ~TestDirectory() {
        std::error_code ignored;
        std::filesystem::remove_all(m_path, ignored);
    }

    [[nodiscard]] std::string path(const std::string& name = "") const {
        return name.empty() ? m_path.string() : (m_path / name).string();
    }

    /// Writes a file, and the directories above it.
    std::string write(const std::string& name, const std::string& content = "") const {
        std::filesystem::create_directories((m_path / name).parent_path());
        std::ofstream(m_path / name, std::ios::binary) << content;
        return path(name);
    }

    [[nodiscard]] std::string read(const std::string& name) const {
        std::ifstream stream(m_path / name, std::ios::binary);
        return {std::istreambuf_iterator<char>(stream), {}};
    }

private:
    std::filesystem::path m_path;
};
