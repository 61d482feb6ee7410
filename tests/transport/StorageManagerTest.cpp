#include "transport/StorageManagerFixture.h"

#include <zel/DynamicLibrary.h>
#include <zel/SingletonManager.h>
#include <zelCore/zelCore.h>

#include <gmock/gmock.h>

#include <memory>
#include <thread>
#include <vector>

using namespace zelStream;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;
using testing::UnorderedElementsAreArray;
using zelTest::CargoAgent;
using zelTest::MarkedArchive;
using zelTest::willTry;

namespace {

using StorageManagerTest = zelTest::StorageManagerFixture;
using StorageManagerDeathTest = StorageManagerTest;

const CargoAgent s_static("depot::Static");
const StorageRegistration s_staticRegistration(s_static);

} // namespace

// Names

TEST_F(StorageManagerTest, AnAgentIsFoundByItsClassName) {
    const CargoAgent agent("depot::Crate");
    const StorageRegistration registration(agent);
    EXPECT_EQ(find("depot::Crate"), &agent);
    EXPECT_EQ(StorageAgent::lookup("depot::Crate", nullptr), &agent);
    EXPECT_EQ(find("Crate"), nullptr);
}

TEST_F(StorageManagerTest, AnAgentIsFoundByAnotherName) {
    const CargoAgent agent("depot::Crate");
    const StorageRegistration registration("depot::Box", agent);
    EXPECT_EQ(find("depot::Box"), &agent);
    manager().setLibraryLoadingEnabled(false);
    EXPECT_EQ(find("depot::Crate"), nullptr);
}

TEST_F(StorageManagerTest, AnEmptyNameFindsTheEntryOfTheEmptyKey) {
    EXPECT_EQ(find(""), nullptr);
    const CargoAgent agent("");
    const StorageRegistration registration(agent);
    EXPECT_EQ(find(""), &agent);
    EXPECT_THAT(log.texts(), IsEmpty());
}

TEST_F(StorageManagerTest, RemovingAnAgentTakesAllItsNamesAndNoOtherAgent) {
    const CargoAgent agent("Crate");
    const CargoAgent other("Crate");
    const StorageRegistration registration(other);
    StorageManager::add(&agent);
    StorageManager::add("Box", &agent);
    StorageManager::remove(&agent);
    EXPECT_EQ(find("Crate"), &other);
    EXPECT_EQ(find("Box"), nullptr);
    StorageManager::remove(&agent); // is out already
    EXPECT_EQ(find("Crate"), &other);
}

TEST_F(StorageManagerTest, ARegistrationEndsWithItsObject) {
    const CargoAgent agent("Crate");
    const CargoAgent oldAgent("OldCrate");
    {
        const StorageRegistration registration(agent, {"00000001"}, oldAgent);
        EXPECT_EQ(find("Crate"), &agent);
    }
    EXPECT_EQ(find("Crate"), nullptr);
    const MarkedArchive old;
    EXPECT_EQ(find("Crate", &old), nullptr);
}

TEST_F(StorageManagerTest, AnotherNameEndsWithItsRegistrationAndTheClassNameStays) {
    const CargoAgent agent("Crate");
    const CargoAgent other("Box");
    const StorageRegistration registration(agent);
    const StorageRegistration otherRegistration(other);
    {
        const StorageRegistration alias("Box", agent);
        const StorageRegistration again(agent);
        EXPECT_EQ(find("Box"), &other);
    }
    EXPECT_EQ(find("Crate"), &agent);
    EXPECT_EQ(find("Box"), &other);
}

TEST_F(StorageManagerTest, AnAgentIsTakenOutUnderOneName) {
    const CargoAgent agent("Crate");
    StorageManager::add(&agent);
    StorageManager::add("Box", &agent);
    StorageManager::remove("Box", &agent);
    StorageManager::remove("Chest", &agent); // has none
    EXPECT_EQ(find("Box"), nullptr);
    EXPECT_EQ(find("Crate"), &agent);
    StorageManager::remove(&agent);
}

// Several agents under one name

TEST_F(StorageManagerTest, OfTwoAgentsTheFirstThatFitsTheArchiveWins) {
    const CargoAgent agent("Crate");
    const CargoAgent oldAgent("OldCrate");
    const StorageRegistration registration(agent, {"00000001", "00000002"}, oldAgent);
    const MarkedArchive current({"00000002", "00000001"});
    const MarkedArchive between({"00000001"});
    const MarkedArchive old;
    EXPECT_EQ(find("Crate", &current), &agent);
    EXPECT_EQ(find("Crate", &between), &oldAgent);
    EXPECT_EQ(find("Crate", &old), &oldAgent);
    EXPECT_EQ(find("OldCrate", &old), nullptr);
}

TEST_F(StorageManagerTest, OfTwoAgentsThatFitTheFirstRegisteredWins) {
    const CargoAgent first("Crate");
    const CargoAgent second("Crate");
    const auto registration = std::make_unique<StorageRegistration>(first);
    const StorageRegistration later(second);
    const MarkedArchive archive;
    EXPECT_EQ(find("Crate", &archive), &first);
}

TEST_F(StorageManagerTest, WithoutAnArchiveTheFirstAgentIsTaken) {
    const CargoAgent agent("Crate");
    const CargoAgent oldAgent("OldCrate");
    const StorageRegistration registration(agent, {"00000001"}, oldAgent);
    EXPECT_EQ(find("Crate"), &agent);
}

TEST_F(StorageManagerTest, WhereNoAgentFitsThereIsNone) {
    const CargoAgent agent("Crate");
    const CargoAgent oldAgent("Crate");
    StorageManager::add(&agent, {"00000001"}, &oldAgent);
    StorageManager::remove(&oldAgent);
    const MarkedArchive old;
    EXPECT_EQ(find("Crate", &old), nullptr);
    EXPECT_EQ(find("Crate"), &agent);
    StorageManager::remove(&agent);
}

TEST_F(StorageManagerTest, ACallbackWithoutModificationsFitsEachArchive) {
    const MarkedArchive archive;
    EXPECT_TRUE(StorageManager::ModificationCallback()(&archive));
    EXPECT_TRUE(StorageManager::ModificationCallback({"00000001"})(nullptr));
    EXPECT_FALSE(StorageManager::ModificationCallback({"00000001"})(&archive));
}

// Old names

TEST_F(StorageManagerTest, AnOldArchiveFindsTheOldSpellingUnderTheCurrentOne) {
    const CargoAgent agent("deprecated::deprecatedCrate");
    const StorageRegistration registration(agent);
    const MarkedArchive old({"00000001"});
    EXPECT_EQ(find("depricated::depricatedCrate", &old), &agent);
    EXPECT_EQ(find("deprecated::deprecatedCrate", &old), &agent);
}

TEST_F(StorageManagerTest, WithoutAnArchiveTheOldSpellingIsFoundToo) {
    const CargoAgent agent("Crate_deprecated");
    const StorageRegistration registration(agent);
    EXPECT_EQ(find("Crate_depricated"), &agent);
}

TEST_F(StorageManagerTest, AnArchiveWithFinalNamesIsTakenAtItsWord) {
    const CargoAgent agent("Crate_deprecated");
    const StorageRegistration registration(agent);
    const MarkedArchive current({"904156fd"});
    EXPECT_EQ(find("Crate_depricated", &current), nullptr);
    EXPECT_EQ(find("Crate_deprecated", &current), &agent);
}

TEST_F(StorageManagerTest, AClassThatIsOnlyRegisteredAsDeprecatedIsFoundWithoutTheSuffix) {
    const CargoAgent agent("depot::Crate");
    const StorageRegistration registration("depot::Crate::deprecated", agent);
    const MarkedArchive current({"904156fd"});
    EXPECT_EQ(find("depot::Crate", &current), &agent);
    EXPECT_EQ(find("depot::Crate"), &agent);
    EXPECT_THAT(log.texts(), IsEmpty());
}

TEST_F(StorageManagerTest, TheNameItselfGoesAheadOfTheDeprecatedOne) {
    const CargoAgent deprecated("Crate");
    const CargoAgent agent("Crate");
    const StorageRegistration first("Crate::deprecated", deprecated);
    const StorageRegistration second(agent);
    EXPECT_EQ(find("Crate"), &agent);
}

TEST_F(StorageManagerTest, AClassThatMovedIntoANamespaceIsFoundByItsBareName) {
    EXPECT_EQ(find("Pallet"), nullptr);
    StorageManager::addMissingNamespace("Pallet", "depot::Pallet");
    const CargoAgent agent("depot::Pallet");
    {
        const StorageRegistration registration("depot::Pallet::deprecated", agent);
        EXPECT_EQ(find("Pallet"), &agent);
    }
    const CargoAgent bare("Pallet");
    const StorageRegistration registration(agent);
    const StorageRegistration own(bare);
    EXPECT_EQ(find("Pallet"), &bare); // it has not moved after all
}

TEST_F(StorageManagerTest, ABareNameThatMovedIsLookedForInItsLibrary) {
    put("libfleet.so");
    StorageManager::addMissingNamespace("Truck", "fleet::Truck");
    const StorageAgent* const agent = find("Truck");
    ASSERT_NE(agent, nullptr);
    EXPECT_EQ(agent->getClassName(), "fleet::Truck");
}

TEST_F(StorageManagerTest, ABareNameThatIsUnknownLooksForNoLibrary) {
    EXPECT_EQ(find("fleet"), nullptr);
    EXPECT_THAT(log.texts(), IsEmpty());
}

// Libraries

TEST_F(StorageManagerTest, AClassIsFoundInTheLibraryOfItsNamespace) {
    const std::string library = put("libfleet.so");
    const StorageAgent* const agent = find("fleet::Truck");
    ASSERT_NE(agent, nullptr);
    EXPECT_EQ(agent->getClassName(), "fleet::Truck");
    EXPECT_NE(zel::ref_ptr<Serializable>(agent->create()), nullptr);
    EXPECT_TRUE(isLoaded(library));
    EXPECT_THAT(log.texts(), ElementsAre(willTry("fleet::Truck", "fleet.so")));
    EXPECT_EQ(log.levels()[0], zel::Notify::Info);
    EXPECT_EQ(find("fleet::Truck"), agent);
}

TEST_F(StorageManagerTest, ALibraryNeedNotBearThePrefix) {
    const std::string library = put("fleet.so");
    EXPECT_NE(find("fleet::Truck"), nullptr);
    EXPECT_TRUE(isLoaded(library));
}

TEST_F(StorageManagerTest, TheNameWithThePrefixGoesAheadOfTheOneWithout) {
    const std::string plain = put("fleet.so");
    path().pushbackPath(directory.path("second"));
    const std::string prefixed = put("second/libfleet.so");
    EXPECT_NE(find("fleet::Truck"), nullptr);
    EXPECT_TRUE(isLoaded(prefixed));
    EXPECT_FALSE(isLoaded(plain));
}

TEST_F(StorageManagerTest, ALibraryWithoutTheClassIsTold) {
    const std::string library = put("libhollow.so", "libTested.Nothing.so");
    EXPECT_EQ(find("hollow::Truck"), nullptr);
    EXPECT_TRUE(isLoaded(library));
    EXPECT_THAT(
        log.texts(),
        ElementsAre(willTry("hollow::Truck", "hollow.so"),
                    "Failed to find class storage 'hollow::Truck' even though library 'hollow.so' was "
                    "found. Could not initialize class storage.\n"));
    EXPECT_EQ(log.levels()[1], zel::Notify::Warning);
}

TEST_F(StorageManagerTest, AFileThatIsNoLibraryIsTold) {
    directory.write("libfleet.so", "this is no library");
    EXPECT_EQ(find("fleet::Truck"), nullptr);
    ASSERT_EQ(log.texts().size(), 2U);
    EXPECT_EQ(log.texts()[0], willTry("fleet::Truck", "fleet.so"));
    EXPECT_THAT(log.texts()[1], StartsWith("[DynamicLibrary::loadLibrary()]: "));
    EXPECT_THAT(log.texts()[1], HasSubstr("libfleet.so"));
}

TEST_F(StorageManagerTest, ALibraryIsLookedForOnceUntilTheSearchPathChanges) {
    EXPECT_EQ(find("fleet::Truck"), nullptr);
    EXPECT_EQ(find("fleet::Truck"), nullptr);
    EXPECT_EQ(find("fleet::Trailer"), nullptr);
    EXPECT_THAT(log.texts(), ElementsAre(willTry("fleet::Truck", "fleet.so")));
    EXPECT_EQ(find("flotilla::Boat"), nullptr); // another namespace
    EXPECT_EQ(log.texts().size(), 2U);

    put("second/libfleet.so");
    EXPECT_EQ(find("fleet::Truck"), nullptr);
    path().pushbackPath(directory.path("second"));
    EXPECT_NE(find("fleet::Truck"), nullptr);
    EXPECT_EQ(log.texts().size(), 3U);
}

TEST_F(StorageManagerTest, LoadingOfLibrariesCanBeSwitchedOff) {
    const std::string library = put("libfleet.so");
    EXPECT_TRUE(manager().isLibraryLoadingEnabled());
    manager().setLibraryLoadingEnabled(false);
    EXPECT_FALSE(manager().isLibraryLoadingEnabled());
    EXPECT_EQ(find("fleet::Truck"), nullptr);
    EXPECT_FALSE(isLoaded(library));
    EXPECT_THAT(log.texts(), IsEmpty());

    manager().setLibraryLoadingEnabled(true); // it was not tried yet
    EXPECT_NE(find("fleet::Truck"), nullptr);
}

TEST_F(StorageManagerTest, TheLibraryOfAnOldNameIsThatOfTheCurrentOne) {
    const std::string library = put("libdeprecated.so");
    EXPECT_EQ(find("depricated::Truck"), nullptr);
    EXPECT_TRUE(isLoaded(library));
    ASSERT_FALSE(log.texts().empty());
    EXPECT_EQ(log.texts()[0], willTry("deprecated::Truck", "deprecated.so"));
}

TEST_F(StorageManagerTest, AClassOfATemplateIsLookedForInItsLibrary) {
    const std::string library = put("libfleet.so");
    EXPECT_EQ(find("fleet::Box<depot::Crate>"), nullptr);
    EXPECT_TRUE(isLoaded(library));
}

TEST_F(StorageManagerTest, AnUnloadedLibraryTakesItsAgentsAlong) {
    const std::string file = put("libfleet.so");
    ASSERT_EQ(find("absent::Truck"), nullptr); // there is a manager ahead of the library
    zel::DynamicLibrary* const library = zel::DynamicLibrary::loadLibrary(file, {});
    ASSERT_NE(library, nullptr);
    manager().setLibraryLoadingEnabled(false);
    EXPECT_NE(find("fleet::Truck"), nullptr);
    zel::SingletonManager::instance()->unregisterDynamicLibrary(library);
    EXPECT_FALSE(isLoaded(file));
    EXPECT_EQ(find("fleet::Truck"), nullptr);
    manager().cleanup();
    manager().setLibraryLoadingEnabled(false);
    EXPECT_EQ(find("fleet::Truck"), nullptr);
}

// Life

TEST_F(StorageManagerTest, StaticRegistrationsAreThereFromTheStart) {
    EXPECT_EQ(find("depot::Static"), &s_static);
}

TEST_F(StorageManagerTest, ItIsAServiceOfTheDefaultPriority) {
    EXPECT_EQ(manager().getPriority(), 1073741824);
    EXPECT_THAT(manager().getClassName(), HasSubstr("zelStream::StorageManager::getClassName"));
}

TEST_F(StorageManagerTest, CleanupEmptiesItAndTheNextOneIsFullAgain) {
    const CargoAgent agent("Crate");
    const StorageRegistration registration(agent);
    StorageManager& old = manager();
    ASSERT_EQ(old.find("Crate", nullptr), &agent);
    old.cleanup();
    EXPECT_EQ(old.find("Crate", nullptr), nullptr);
    EXPECT_EQ(old.find("depot::Static", nullptr), nullptr);
    EXPECT_NE(&manager(), &old);
    EXPECT_EQ(find("Crate"), &agent);
    EXPECT_EQ(find("depot::Static"), &s_static);
    old.cleanup(); // forgets itself alone
    EXPECT_EQ(find("Crate"), &agent);
}

TEST_F(StorageManagerTest, AgentsOutliveAManagerThatIsTakenOff) {
    ASSERT_EQ(find("depot::Static"), &s_static);
    zel::SingletonManager::instance()->unregisterSingleton(&manager());
    const CargoAgent agent("Crate");
    const StorageRegistration registration(agent);
    EXPECT_EQ(find("Crate"), &agent);
    EXPECT_EQ(find("depot::Static"), &s_static);
}

TEST_F(StorageManagerTest, AgentsOutliveAShutdown) {
    zelCore::init();
    const CargoAgent agent("Crate");
    const CargoAgent second("Crate");
    const CargoAgent late("Late");
    const StorageRegistration registration(agent);
    const StorageRegistration laterRegistration(second);
    ASSERT_EQ(find("Crate"), &agent);
    zelCore::shutdown();
    const StorageRegistration lateRegistration(late);
    zelCore::init();
    EXPECT_EQ(find("Crate"), &agent); // the order has outlived it too
    EXPECT_EQ(find("Late"), &late);
    EXPECT_EQ(find("depot::Static"), &s_static);
    zelCore::shutdown();
}

TEST_F(StorageManagerTest, AnAgentThatIsRemovedAfterAShutdownDoesNotComeBack) {
    zelCore::init();
    const CargoAgent agent("Crate");
    StorageManager::add(&agent);
    ASSERT_EQ(find("Crate"), &agent);
    zelCore::shutdown();
    StorageManager::remove(&agent);
    zelCore::init();
    EXPECT_EQ(find("Crate"), nullptr);
    zelCore::shutdown();
}

TEST_F(StorageManagerTest, LibrariesAreLoadedAgainInASecondLife) {
    put("libfleet.so");
    zelCore::init();
    ASSERT_NE(find("fleet::Truck"), nullptr);
    zelCore::shutdown();
    zelCore::init();
    path().setFilePath(directory.path()); // the first environment is gone
    const StorageAgent* const agent = find("fleet::Truck");
    ASSERT_NE(agent, nullptr);
    EXPECT_EQ(agent->getClassName(), "fleet::Truck");
    zelCore::shutdown();
}

TEST_F(StorageManagerTest, TwoThreadsThatAskFirstGetTheSame) {
    manager().cleanup();
    StorageManager* seen[2] = {};
    const StorageAgent* found[2] = {};
    const auto ask = [&](size_t i) {
        seen[i] = StorageManager::instance();
        found[i] = seen[i]->find("depot::Static", nullptr);
    };
    std::thread other(ask, 1);
    ask(0);
    other.join();
    EXPECT_EQ(seen[0], seen[1]);
    EXPECT_EQ(found[0], &s_static);
    EXPECT_EQ(found[1], &s_static);
}

TEST_F(StorageManagerTest, ThreadsThatSearchForWhatIsNotThereTryEachLibraryOnce) {
    constexpr int NumNames = 500;
    const auto search = [] {
        for (int i = 0; i < NumNames; ++i)
            EXPECT_EQ(find("nowhere" + std::to_string(i) + "::Truck"), nullptr);
    };
    std::vector<std::thread> others;
    for (int i = 0; i < 3; ++i)
        others.emplace_back(search);
    search();
    for (std::thread& other : others)
        other.join();
    std::vector<std::string> tried;
    for (int i = 0; i < NumNames; ++i) {
        const std::string name = "nowhere" + std::to_string(i);
        tried.push_back(zelTest::willTry(name + "::Truck", name + ".so"));
    }
    EXPECT_THAT(log.texts(), UnorderedElementsAreArray(tried));
}

TEST_F(StorageManagerDeathTest, AnAgentMustBeThere) {
    const CargoAgent agent("Crate");
    EXPECT_DEATH(StorageManager::add(nullptr), "zelVerify failed: `agent != nullptr'");
    EXPECT_DEATH(StorageManager::add("Crate", nullptr), "zelVerify failed: `agent != nullptr'");
    EXPECT_DEATH(StorageManager::add(&agent, {}, nullptr), "zelVerify failed: `oldAgent != nullptr'");
    EXPECT_DEATH(StorageManager::add(nullptr, {}, &agent), "zelVerify failed: `agent != nullptr'");
}

TEST_F(StorageManagerDeathTest, AClassMovesFromABareNameToAFullOne) {
    EXPECT_DEATH(StorageManager::addMissingNamespace("a::Crate", "b::Crate"),
                 "zelVerify failed: `className.find\\(\"::\"\\) == String::npos'");
    EXPECT_DEATH(StorageManager::addMissingNamespace("Crate", "Box"),
                 "zelVerify failed: `fullName.find\\(\"::\"\\) != String::npos'");
}
