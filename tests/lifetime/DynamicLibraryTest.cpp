#include "support/FirstLife.h"
#include "support/LogCapture.h"
#include "support/StreamCapture.h"
#include "support/TempDirectory.h"

#include <zel/DynamicLibrary.h>
#include <zel/Singleton.h>
#include <zel/SingletonManager.h>
#include <zel/ref_ptr.h>
#include <zelCore/zelCore.h>
#include <zelIO/FilePathContainer.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <functional>
#include <string>

using namespace zel;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;
using zelIO::FilePathContainer;
using zelTest::LogCapture;
using zelTest::StreamCapture;
using zelTest::TempDirectory;

namespace {

const std::filesystem::path PluginFile = ZEL_TEST_PLUGIN;

struct DynamicLibraryTest : testing::Test {
    void SetUp() override { inits = unloads = 0; }

    /// Loads the test's plug-in, which counts from now on.
    DynamicLibrary* load() {
        DynamicLibrary* const library =
            DynamicLibrary::loadLibrary(PluginFile.filename().string(), directories);
        if (library != nullptr) {
            using Connect = void (*)(int*, int*);
            reinterpret_cast<Connect>(library->getProcAddress("zelTestConnect"))(&inits, &unloads);
        }
        return library;
    }

    FilePathContainer directories{FilePathContainer::StringList{PluginFile.parent_path().string()}};
    // A library may be unloaded as late as at process exit.
    static inline int inits = 0;
    static inline int unloads = 0;
    StreamCapture quiet{std::cerr};
    LogCapture log{Notify::Info};
};

/// Does something of the test's when it is shut down.
struct Service : Singleton {
    Service(int priority, std::function<void()> action) : Singleton(priority), m_action(std::move(action)) {}
    void shutdown() override { m_action(); }
    [[nodiscard]] std::string getClassName() const override { return "Service"; }

private:
    std::function<void()> m_action;
};

} // namespace

TEST_F(DynamicLibraryTest, SymbolsOfALoadedLibraryAreFound) {
    DynamicLibrary* const library = load();
    ASSERT_NE(library, nullptr);
    EXPECT_EQ(library->getPath(), std::filesystem::canonical(PluginFile).string());
    EXPECT_NE(library->getHandle(), nullptr);
    using Answer = int (*)();
    EXPECT_EQ(reinterpret_cast<Answer>(library->getProcAddress("zelTestAnswer"))(), 42);
    EXPECT_THAT(log.texts(), IsEmpty());
}

TEST_F(DynamicLibraryTest, TheSuffixIsAddedWhenItIsNotGiven) {
    EXPECT_NE(DynamicLibrary::loadLibrary(PluginFile.stem().string(), directories), nullptr);
    EXPECT_EQ(PluginFile.extension(), ".so");
}

TEST_F(DynamicLibraryTest, ALibraryThatIsNotFoundIsToldAndNull) {
    EXPECT_EQ(DynamicLibrary::loadLibrary("nothing", directories), nullptr);
    EXPECT_THAT(log.texts(),
                ElementsAre("[DynamicLibrary::loadLibrary()]: Could not find library 'nothing.so'\n"));
}

TEST_F(DynamicLibraryTest, AFileThatIsNoLibraryIsToldAndNull) {
    const TempDirectory directory;
    directory.write("text.so", "this is no library");
    directories.setFilePath(directory.path());
    EXPECT_EQ(DynamicLibrary::loadLibrary("text", directories), nullptr);
    ASSERT_EQ(log.texts().size(), 1U);
    EXPECT_THAT(log.texts()[0], StartsWith("[DynamicLibrary::loadLibrary()]: "));
    EXPECT_THAT(log.texts()[0], HasSubstr("text.so"));
    EXPECT_EQ(DynamicLibrary::getLibraryHandle(directory.path("text.so")), nullptr);
}

TEST_F(DynamicLibraryTest, AMissingSymbolIsToldAndNull) {
    DynamicLibrary* const library = load();
    ASSERT_NE(library, nullptr);
    EXPECT_EQ(library->getProcAddress("zelTestNothing"), nullptr);
    ASSERT_EQ(log.texts().size(), 2U);
    EXPECT_EQ(log.texts()[0], "Failed looking up zelTestNothing\n");
    EXPECT_THAT(log.texts()[1], StartsWith("Error "));
    EXPECT_THAT(log.texts()[1], HasSubstr("zelTestNothing"));
}

TEST_F(DynamicLibraryTest, WithoutAHandleThereAreNoSymbols) {
    auto* const library = new DynamicLibrary("none", nullptr);
    EXPECT_EQ(library->getProcAddress("printf"), nullptr);
    EXPECT_THAT(log.texts(), IsEmpty());
    SingletonManager::instance()->unregisterDynamicLibrary(library);
}

TEST_F(DynamicLibraryTest, TheManagerHoldsItAndUnregisteringUnloads) {
    DynamicLibrary* const library = load();
    ASSERT_NE(library, nullptr);
    EXPECT_EQ(library->referenceCount(), 1);
    SingletonManager::instance()->registerDynamicLibrary(library); // is there already
    EXPECT_EQ(library->referenceCount(), 1);
    SingletonManager::instance()->unregisterDynamicLibrary(library);
    EXPECT_EQ(unloads, 1);
    SingletonManager::instance()->unregisterDynamicLibrary(library); // unknown by now
}

TEST_F(DynamicLibraryTest, AnOwnerKeepsItBeyondTheManager) {
    ref_ptr<DynamicLibrary> library(load());
    ASSERT_NE(library.get(), nullptr);
    SingletonManager::instance()->unregisterDynamicLibrary(library.get());
    EXPECT_EQ(unloads, 0);
    library = nullptr;
    EXPECT_EQ(unloads, 1);
}

TEST_F(DynamicLibraryTest, LibrariesGoAfterTheLastService) {
    ZEL_FIRST_LIFE_ONLY();
    ASSERT_NE(load(), nullptr);
    int unloadsSeen = -1;
    new Service(-1000, [&] { unloadsSeen = unloads; });
    SingletonManager::instance()->shutdown();
    EXPECT_EQ(unloadsSeen, 0);
    EXPECT_EQ(unloads, 1);
}

TEST_F(DynamicLibraryTest, ItsInitCallbackRunsOnLoadingAndAtEachLaterInitWhileItIsLoaded) {
    zelCore::init();
    ref_ptr<DynamicLibrary> library(load());
    ASSERT_NE(library.get(), nullptr);
    EXPECT_EQ(inits, 1);
    zelCore::shutdown();
    zelCore::init();
    EXPECT_EQ(inits, 2);
    zelCore::shutdown();
    SingletonManager::instance()->unregisterDynamicLibrary(library.get()); // which it lets go of once only
    library = nullptr;
    EXPECT_EQ(unloads, 1);
    zelCore::init(); // would call into nowhere
    EXPECT_EQ(inits, 2);
    zelCore::shutdown();
}
