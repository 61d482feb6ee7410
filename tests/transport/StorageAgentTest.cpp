#include <zelStream/InputArchive.h>
#include <zelStream/OutputArchive.h>
#include <zelStream/StorageAgent.h>
#include <zelStream/StorageManager.h>

#include <gtest/gtest.h>

#include <memory>

using namespace zelStream;

namespace harbour {

/// A class with nothing in it.
class Buoy final : public Serializable {
    ZEL_SERIALIZABLE(Buoy)

public:
    void store(OutputArchive& /*archive*/) const override {}
    void restore(InputArchive& /*archive*/) override {}
};

ZEL_REGISTER_SERIALIZABLE(Buoy)

namespace {

/// A class that no other source can name.
class Secret final : public Serializable {
    ZEL_SERIALIZABLE(Secret)

public:
    void store(OutputArchive& /*archive*/) const override {}
    void restore(InputArchive& /*archive*/) override {}
};

ZEL_REGISTER_SERIALIZABLE(Secret)

/// A class that asks the archive when it is made.
class Pilot final : public Serializable {
    ZEL_SERIALIZABLE(Pilot)

public:
    explicit Pilot(InputArchive& madeBy) : archive(&madeBy) {}
    void store(OutputArchive& /*archive*/) const override {}
    void restore(InputArchive& /*archive*/) override {}

    InputArchive* archive;
};

ZEL_REGISTER_SERIALIZABLE(Pilot)

/// An agent that has no other way to make an object than create().
struct PlainAgent final : StorageAgent {
    using StorageAgent::create;
    using StorageAgent::StorageAgent;
    [[nodiscard]] Serializable* create() const override { return new Buoy; }
};

} // namespace
} // namespace harbour

using namespace harbour;

TEST(StorageAgentTest, TheMacroNamesTheClassWithItsNamespace) {
    EXPECT_EQ(Buoy::storageAgent().getClassName(), "harbour::Buoy");
    EXPECT_EQ(Buoy().getStorageAgent(), &Buoy::storageAgent());
}

TEST(StorageAgentTest, TheMacroLeavesUnnamedNamespacesOut) {
    EXPECT_EQ(Secret::storageAgent().getClassName(), "harbour::Secret");
}

TEST(StorageAgentTest, TheMacroRegistersTheAgent) {
    EXPECT_EQ(StorageAgent::lookup("harbour::Buoy", nullptr), &Buoy::storageAgent());
    EXPECT_EQ(StorageAgent::lookup("harbour::Secret", nullptr), &Secret::storageAgent());
    EXPECT_EQ(StorageAgent::lookup("harbour::Raft", nullptr), nullptr);
}

TEST(StorageAgentTest, ItMakesObjectsThatKnowThatAnAgentMadeThem) {
    const zel::ref_ptr<Serializable> buoy(Buoy::storageAgent().create());
    ASSERT_NE(dynamic_cast<Buoy*>(buoy.get()), nullptr);
    EXPECT_TRUE(buoy->isDynamicallyAllocated());
    EXPECT_FALSE(Buoy().isDynamicallyAllocated());

    InputArchive archive;
    const zel::ref_ptr<Serializable> other(Buoy::storageAgent().create(archive));
    ASSERT_NE(dynamic_cast<Buoy*>(other.get()), nullptr);
    EXPECT_TRUE(other->isDynamicallyAllocated());
}

TEST(StorageAgentTest, AClassThatAsksTheArchiveIsMadeFromIt) {
    InputArchive archive;
    const zel::ref_ptr<Serializable> pilot(Pilot::storageAgent().create(archive));
    ASSERT_NE(dynamic_cast<Pilot*>(pilot.get()), nullptr);
    EXPECT_EQ(dynamic_cast<Pilot*>(pilot.get())->archive, &archive);
    EXPECT_TRUE(pilot->isDynamicallyAllocated());

    const SerializableStorageAgent<Pilot> agent("harbour::Pilot");
    const zel::ref_ptr<Pilot> typed(agent.createInstance(archive));
    EXPECT_EQ(typed->archive, &archive);
    // There is no archive to ask.
    EXPECT_EQ(agent.create(), nullptr);
}

TEST(StorageAgentTest, AnArchiveIsNotAskedByDefault) {
    const PlainAgent agent("harbour::Raft");
    InputArchive archive;
    const zel::ref_ptr<Serializable> made(agent.create(archive));
    EXPECT_NE(dynamic_cast<Buoy*>(made.get()), nullptr);
}

TEST(StorageAgentTest, AClassNameIsCutAtTheLastColonsAndTheLastBlank) {
    EXPECT_EQ(StorageAgent::stripClassName("void fleet::Wheel::roll()"), "fleet::Wheel");
    EXPECT_EQ(StorageAgent::stripClassName("static const int fleet::rail::Wagon::f()"), "fleet::rail::Wagon");
    EXPECT_EQ(StorageAgent::stripClassName("fleet::Wheel::Wheel()"), "fleet::Wheel");
    EXPECT_EQ(StorageAgent::stripClassName("int main()"), "main()");
    EXPECT_EQ(StorageAgent::stripClassName("Wheel"), "Wheel");
    EXPECT_EQ(StorageAgent::stripClassName("void Wheel::roll()"), "Wheel");
    EXPECT_EQ(StorageAgent::stripClassName(""), "");
}

TEST(StorageAgentTest, MarksOfReferencesAtAClassNameAreDropped) {
    EXPECT_EQ(StorageAgent::stripClassName("const Agent &fleet::Wheel::agent()"), "fleet::Wheel");
    EXPECT_EQ(StorageAgent::stripClassName("Agent **fleet::Wheel::agent()"), "fleet::Wheel");
    EXPECT_EQ(StorageAgent::stripClassName("Agent& fleet::Wheel::agent()"), "fleet::Wheel");
}

TEST(StorageAgentTest, NamesWithBlanksAndColonsOfTheirOwnGoWrong) {
    EXPECT_EQ(StorageAgent::stripClassName("void fleet::Box<unsigned int>::open()"), "int>");
    EXPECT_EQ(StorageAgent::stripClassName("void fleet::Wheel::join(fleet::Axle&)"),
              "fleet::Wheel::join(fleet");
}
