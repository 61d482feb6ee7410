#include <zel/ref_ptr.h>
#include <zelStream/InputArchive.h>
#include <zelStream/OutputArchive.h>
#include <zelStream/StorageAgent.h>

#include <gtest/gtest.h>

#include <sstream>

namespace uuids {

/// Has parts that archives do not know, made ahead of its own base and behind it.
class Part : public zelStream::Serializable {
public:
    void store(zelStream::OutputArchive&) const override {}
    void restore(zelStream::InputArchive&) override {}
};

struct EarlyPart {
    Part early;
};

class Whole : public zelStream::Serializable {
    ZEL_SERIALIZABLE(Whole)

public:
    void store(zelStream::OutputArchive&) const override {}
    void restore(zelStream::InputArchive&) override {}
    Part late;
};

class EarlyWhole : public EarlyPart, public zelStream::Serializable {
    ZEL_SERIALIZABLE(EarlyWhole)

public:
    void store(zelStream::OutputArchive&) const override {}
    void restore(zelStream::InputArchive&) override {}
};

class Failing : public zelStream::Serializable {
    ZEL_SERIALIZABLE(Failing)

public:
    Failing() {
        if (s_fails)
            throw std::runtime_error("no such object");
    }
    void store(zelStream::OutputArchive&) const override {}
    void restore(zelStream::InputArchive&) override {}
    static inline bool s_fails = false;
};

ZEL_REGISTER_SERIALIZABLE(Whole)
ZEL_REGISTER_SERIALIZABLE(EarlyWhole)
ZEL_REGISTER_SERIALIZABLE(Failing)

namespace {

template <typename T>
std::string stored(const T& object) {
    std::ostringstream stream;
    zelStream::OutputArchive archive;
    archive.open(stream);
    archive.write(&object);
    archive.close();
    return stream.str();
}

template <typename T>
zel::ref_ptr<T> restored(const std::string& bytes) {
    std::istringstream stream(bytes);
    zelStream::InputArchive archive;
    archive.open(stream);
    zel::ref_ptr<T> object;
    archive.read(object);
    return object;
}

} // namespace

TEST(SerializableUuidTest, AnObjectThatAnArchiveMakesHasTheStoredUuidAndItsPartsHaveTheirOwn) {
    const zel::ref_ptr<Whole> whole(new Whole);
    const zel::ref_ptr<Whole> back = restored<Whole>(stored(*whole));
    EXPECT_EQ(back->getUuid(), whole->getUuid());
    EXPECT_NE(back->late.getUuid(), zel::Uuid());
    EXPECT_NE(back->late.getUuid(), whole->late.getUuid());
}

TEST(SerializableUuidTest, PartsThatAreMadeAheadOfTheObjectHaveUuidsOfTheirOwnToo) {
    const zel::ref_ptr<EarlyWhole> whole(new EarlyWhole);
    const zel::ref_ptr<EarlyWhole> back = restored<EarlyWhole>(stored(*whole));
    EXPECT_EQ(back->getUuid(), whole->getUuid());
    EXPECT_NE(back->early.getUuid(), zel::Uuid());
    EXPECT_NE(back->early.getUuid(), whole->early.getUuid());
}

TEST(SerializableUuidTest, AnObjectThatIsMadeAfterOneThatCouldNotBeHasAUuid) {
    const zel::ref_ptr<Failing> object(new Failing);
    const std::string bytes = stored(*object);
    Failing::s_fails = true;
    EXPECT_THROW((void)restored<Failing>(bytes), std::runtime_error);
    Failing::s_fails = false;
    const zel::ref_ptr<Failing> next(new Failing);
    EXPECT_NE(next->getUuid(), zel::Uuid());
}

} // namespace uuids
