#include "support/WhatOf.h"
#include "transport/StorageManagerFixture.h"

#include <gmock/gmock.h>

#include <sstream>

// Which classes the names in archives lead to.

using namespace zelStream;
using testing::HasSubstr;
using testing::IsEmpty;
using zel::ref_ptr;
using zelTest::whatOf;

namespace {

using StorageManagerArchiveTest = zelTest::StorageManagerFixture;

constexpr char FinalNames[] = "904156fd";
constexpr char NewForm[] = "00c0ffee";

/// An object that is stored under any name.
class Parcel : public Serializable {
public:
    explicit Parcel(const StorageAgent* agent = nullptr) : m_agent(agent) {}
    [[nodiscard]] const StorageAgent* getStorageAgent() const override { return m_agent; }
    void store(OutputArchive& archive) const override { archive.write(weight); }
    void restore(InputArchive& archive) override { archive.read(weight); }

    double weight = 0;

private:
    const StorageAgent* m_agent;
};

/// A parcel of the time when weights were whole grams.
class OldParcel final : public Parcel {
public:
    void restore(InputArchive& archive) override {
        zel::int32 grams = 0;
        archive.read(grams);
        weight = grams / 1000.0;
    }
};

using ParcelAgent = SerializableStorageAgent<Parcel>;

/// The archive of one object.
std::string stored(const Serializable& object, const zel::String& modification = FinalNames) {
    std::ostringstream stream;
    OutputArchive archive;
    archive.addModification(modification);
    archive.open(stream);
    archive.write(&object);
    archive.close();
    return stream.str();
}

/// The archive of one object of a class of the name.
std::string storedAs(const zel::String& className, double weight = 2) {
    const ParcelAgent agent(className);
    const ref_ptr<Parcel> parcel(new Parcel(&agent));
    parcel->weight = weight;
    return stored(*parcel);
}

/// The archive, as a library wrote it that did not know the modification.
std::string without(const zel::String& modification, std::string bytes) {
    return bytes.replace(bytes.find(modification), modification.size(), "00000001");
}

ref_ptr<Serializable> restored(const std::string& bytes) {
    std::istringstream stream(bytes);
    InputArchive archive;
    archive.open(stream);
    return ref_ptr<Serializable>(archive.readObjectByRef());
}

double weightOf(const ref_ptr<Serializable>& object) {
    return dynamic_cast<const Parcel&>(*object).weight;
}

} // namespace

TEST_F(StorageManagerArchiveTest, AnArchiveFromBeforeTheFinalNamesHasTheOldSpelling) {
    const ParcelAgent agent("depot::Parcel_deprecated");
    const StorageRegistration registration(agent);
    const std::string current = storedAs("depot::Parcel_depricated");
    EXPECT_EQ(weightOf(restored(without(FinalNames, current))), 2);
    EXPECT_THAT(whatOf([&] { (void)restored(current); }),
                HasSubstr("Unable to get StorageAgent for a referenced object: 'depot::Parcel_depricated'"));
}

TEST_F(StorageManagerArchiveTest, AClassThatOnlyReadsOldArchivesIsFoundUnderItsOldName) {
    const ParcelAgent agent("depot::Parcel");
    const StorageRegistration registration("depot::Parcel::deprecated", agent);
    EXPECT_EQ(weightOf(restored(storedAs("depot::Parcel"))), 2);
}

TEST_F(StorageManagerArchiveTest, AClassThatMovedIntoANamespaceIsFoundUnderItsBareName) {
    StorageManager::addMissingNamespace("Parcel", "depot::Parcel");
    const ParcelAgent agent("depot::Parcel");
    const StorageRegistration registration(agent);
    EXPECT_EQ(weightOf(restored(storedAs("Parcel"))), 2);
}

TEST_F(StorageManagerArchiveTest, EachFormOfAClassIsReadByItsOwnAgent) {
    const ParcelAgent agent("depot::Parcel");
    const SerializableStorageAgent<OldParcel> oldAgent("depot::Parcel");
    const StorageRegistration registration(agent, {NewForm}, oldAgent);

    const ref_ptr<Parcel> parcel(new Parcel(&agent));
    parcel->weight = 0.5;
    EXPECT_EQ(weightOf(restored(stored(*parcel, NewForm))), 0.5);

    // The object of an old program.
    struct Grams final : Serializable {
        [[nodiscard]] const StorageAgent* getStorageAgent() const override { return agent; }
        void store(OutputArchive& archive) const override { archive.write(zel::int32{1500}); }
        void restore(InputArchive& /*archive*/) override {}
        const StorageAgent* agent = nullptr;
    };
    const ref_ptr<Grams> grams(new Grams);
    grams->agent = &agent;
    EXPECT_EQ(weightOf(restored(stored(*grams))), 1.5);
}

TEST_F(StorageManagerArchiveTest, AClassComesFromTheLibraryOfItsNamespace) {
    const std::string library = put("libfleet.so");
    const std::string bytes = storedAs("fleet::Truck", 7.5);
    const ref_ptr<Serializable> truck = restored(bytes);
    EXPECT_EQ(truck->getClassName(), "fleet::Truck");
    EXPECT_TRUE(isLoaded(library));
    // It holds what was stored, as it stores the same.
    truck->setUuid({});
    std::string body = stored(*truck);
    EXPECT_EQ(body.substr(body.size() - 9), bytes.substr(bytes.size() - 9));
}

TEST_F(StorageManagerArchiveTest, AClassThatNobodyKnowsIsNamed) {
    EXPECT_EQ(
        whatOf([] { (void)restored(storedAs("fleet::Truck")); }),
        "Current scope: 'Archive/Object/TypeHeader'. Unable to get StorageAgent for a referenced object: "
        "'fleet::Truck'");
}

TEST_F(StorageManagerArchiveTest, NoNameInAnArchiveLeadsOutOfTheSearchPath) {
    const std::string library = put("x.so");
    path().setFilePath(directory.path("empty"));
    for (const std::string& name :
         {directory.path("x") + "::C", std::string("../x::C"), std::string("x::../x::C")})
        EXPECT_THAT(whatOf([&] { (void)restored(storedAs(name)); }),
                    HasSubstr("Unable to get StorageAgent for a referenced object: '" + name + "'"));
    EXPECT_FALSE(isLoaded(library));
    EXPECT_THAT(log.texts(), IsEmpty());
}
