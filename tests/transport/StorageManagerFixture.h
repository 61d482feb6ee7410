#pragma once

#include "support/LogCapture.h"
#include "support/TempDirectory.h"

#include <zelIO/Environment.h>
#include <zelStream/InputArchive.h>
#include <zelStream/OutputArchive.h>
#include <zelStream/StorageAgent.h>
#include <zelStream/StorageManager.h>

#include <dlfcn.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <string>

namespace zelTest {

/// A class that many agents make.
class Cargo final : public zelStream::Serializable {
public:
    void store(zelStream::OutputArchive& /*archive*/) const override {}
    void restore(zelStream::InputArchive& /*archive*/) override {}
};

using CargoAgent = zelStream::SerializableStorageAgent<Cargo>;

/// An archive with the modifications that a test wants.
class MarkedArchive final : public zelStream::InputArchive {
public:
    explicit MarkedArchive(const std::vector<std::string>& hashes = {}) : m_hashes(hashes) {}
    [[nodiscard]] bool hasModification(const zel::String& hash) const override {
        return std::find(m_hashes.begin(), m_hashes.end(), hash) != m_hashes.end();
    }

private:
    std::vector<std::string> m_hashes;
};

/// Looks for libraries in a directory of the test's own.
struct StorageManagerFixture : testing::Test {
    StorageManagerFixture() { path().setFilePath(directory.path()); }
    ~StorageManagerFixture() override {
        path().setFilePath("");
        manager().setLibraryLoadingEnabled(true);
    }

    static zelStream::StorageManager& manager() { return *zelStream::StorageManager::instance(); }
    static zelIO::FilePathContainer& path() {
        return zelIO::Environment::instance()->getFilePath(zelIO::Environment::PluginPath);
    }
    static const zelStream::StorageAgent* find(const zel::String& name,
                                               const zelStream::InputArchive* archive = nullptr) {
        return manager().find(name, archive);
    }

    /// Puts a copy of a library of the tests into the directory.
    /// @param library  that of the class "fleet::Truck", by default
    std::string put(const std::string& file, const std::string& library = "libfleet.so") const {
        const std::string copy = directory.path(file);
        std::filesystem::create_directories(std::filesystem::path(copy).parent_path());
        std::filesystem::copy_file(std::string(ZEL_TEST_PLUGIN_DIR) + "/" + library, copy);
        return copy;
    }
    static bool isLoaded(const std::string& file) {
        void* const handle = dlopen(file.c_str(), RTLD_NOW | RTLD_NOLOAD);
        if (handle != nullptr)
            dlclose(handle);
        return handle != nullptr;
    }

    const TempDirectory directory;
    const LogCapture log{zel::Notify::Info};
};

/// What the manager says before it looks for a library.
inline std::string willTry(const std::string& name, const std::string& library) {
    return "Failed to find class '" + name + "' from storage agent. Will try to find and load library '" +
           library + "' to initialize it.\n";
}

} // namespace zelTest
