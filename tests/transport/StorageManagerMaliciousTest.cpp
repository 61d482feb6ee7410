#include "transport/StorageManagerFixture.h"

#include <zelIO/FileSystem.h>

#include <gmock/gmock.h>

using namespace zelStream;
using testing::ElementsAre;
using testing::IsEmpty;
using zelTest::willTry;

// Names as an archive may hold them that somebody has made up. Each file that such a name could lead to is a
// library that can be loaded.

namespace {

struct StorageManagerMaliciousTest : zelTest::StorageManagerFixture {
    /// Looks for a class, which must load and say nothing.
    void expectNothing(const zel::String& name, const std::string& library) {
        EXPECT_EQ(find(name), nullptr) << name;
        EXPECT_FALSE(isLoaded(library)) << name;
        EXPECT_THAT(log.texts(), IsEmpty()) << name;
    }
};

} // namespace

TEST_F(StorageManagerMaliciousTest, APathIsNoNamespace) {
    const std::string library = put("x.so");
    expectNothing(directory.path("x") + "::C", library);
    expectNothing(directory.path("x.so") + "::C", library);
    path().setFilePath(directory.path("empty"));
    expectNothing("../x::C", library);
    expectNothing("./../x::C", library);
    expectNothing("/tmp/x::C", library);
}

TEST_F(StorageManagerMaliciousTest, AFolderBelowTheSearchPathIsNoNamespace) {
    expectNothing("sub/x::C", put("sub/x.so"));
    expectNothing("sub\\x::C", put("sub\\x.so"));
    expectNothing(".x::C", put(".x.so"));
}

TEST_F(StorageManagerMaliciousTest, APathBehindANamespaceLoadsNothing) {
    expectNothing("a::../b::C", put("a.so"));
    expectNothing("a::/b::C", put("b.so"));
    expectNothing("a::b::../C", put("C.so"));
    expectNothing("a::b c::C", put("liba.so"));
}

TEST_F(StorageManagerMaliciousTest, NamesWithEmptyPartsLoadNothing) {
    const std::string library = put("a.so");
    const std::string nameless = put("lib.so");
    for (const char* name : {"", "::", "::a", "::a::C", "a::", "a::::C", "a:: ::C", ":", "a:", "<a::C>"}) {
        expectNothing(name, library);
        expectNothing(name, nameless);
    }
}

TEST_F(StorageManagerMaliciousTest, NoNamespaceBeginsWithADigitOrHoldsForeignCharacters) {
    expectNothing("1a::C", put("1a.so"));
    expectNothing("a-b::C", put("a-b.so"));
    expectNothing("\xC3\xA4::C", put("\xC3\xA4.so"));
    expectNothing("a.so::C", put("a.so"));
    expectNothing(zel::String("a\0b::C", 6), put("liba.so"));
    expectNothing(zel::String("b::C\0", 5), put("libb.so"));
}

TEST_F(StorageManagerMaliciousTest, TheNamespacesOfThisLibraryAreNoLibraries) {
    for (const char* name : {"zel", "zelCore", "zelData", "zelIO", "zelNet", "zelStream"})
        expectNothing(std::string(name) + "::C", put(std::string("lib") + name + ".so"));
}

TEST_F(StorageManagerMaliciousTest, ALibraryOutsideOfTheSearchPathIsNotFound) {
    const std::string library = put("outside/libfleet.so");
    path().setFilePath(directory.path("inside"));
    // Where the loader of the system would look.
    const std::filesystem::path before = std::filesystem::current_path();
    std::filesystem::current_path(directory.path("outside"));
    EXPECT_EQ(find("fleet::Truck"), nullptr);
    std::filesystem::current_path(before);
    EXPECT_FALSE(isLoaded(library));
    EXPECT_THAT(log.texts(), ElementsAre(willTry("fleet::Truck", "fleet.so")));
}

TEST_F(StorageManagerMaliciousTest, LibrariesOfTheSystemAreNotFound) {
    EXPECT_EQ(find("m::C"), nullptr); // libm.so
    EXPECT_THAT(log.texts(), ElementsAre(willTry("m::C", "m.so")));
}

TEST_F(StorageManagerMaliciousTest, ANameLongerThanAFilesFindsNothing) {
    EXPECT_EQ(find(std::string(1 << 20, 'a')), nullptr);
    EXPECT_THAT(log.texts(), IsEmpty());
    expectNothing(std::string(1 << 20, 'a') + "::C", directory.path("a.so"));
    const std::string longest(249, 'a');
    const std::string library = put("lib" + longest + ".so");
    EXPECT_EQ(find(longest + "::C"), nullptr);
    EXPECT_TRUE(isLoaded(library));
}
