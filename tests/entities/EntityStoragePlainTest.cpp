#include "EntityFixture.h"

#include <zelData/Buffer.h>
#include <zelData/EntityData.h>
#include <zelData/EntityPtr.h>
#include <zelData/ValueT.h>

#include <cstring>
#include <random>
#include <string>
#include <vector>

// A storage of nothing but plain columns, at which nobody looks, takes shorter ways.

using zel::ref_ptr;
using zel::uint32;
using zel::uint64;
using zelData::Buffer;
using zelData::EntityPtr;
using zelData::EntityStorage;

namespace {

class EntityStoragePlainTest : public zelTest::EntityFixture {
protected:
    void SetUp() override {
        EntityFixture::SetUp();
        m_model = entity("Body",
                         "<Attribute.Scalar name='place' type='Vec3' format='64bit'/>"
                         "<Attribute.Scalar name='mass' type='Real' format='64bit' value='5'/>"
                         "<Attribute.Scalar name='flags' type='UInt' format='32bit'/>");
        ASSERT_NE(m_model, nullptr);
        m_storage = new EntityStorage(m_model);
    }
    void TearDown() override {
        m_storage->verifyConsistency();
        m_storage = nullptr;
        EntityFixture::TearDown();
    }

    static void fill(EntityStorage& storage, uint64 index, uint32 number) {
        auto* place = storage.getBuffer("place")->data<double>() + 4 * index;
        place[0] = number;
        place[2] = -1.0 * number;
        storage.getBuffer("mass")->data<double>()[index] = number + 0.5;
        storage.getBuffer("flags")->data<uint32>()[index] = number;
    }

    zelData::EntityModel* m_model = nullptr;
    ref_ptr<EntityStorage> m_storage;
};

} // namespace

TEST_F(EntityStoragePlainTest, DestroysAsAStorageThatIsWatched) {
    const ref_ptr<EntityStorage> watched(new EntityStorage(m_model, "watched"));
    uint64 told = 0;
    const uint64 id = watched->getSizeValue()->updateEvent.connect(
        [&](zelData::Value*) { told = watched->getSizeValue()->get(); });
    std::mt19937 random(5);
    for (uint32 step = 0; step < 2000; ++step) {
        const uint64 size = m_storage->size();
        if (size == 0 || random() % 5 < 3 - step / 1000) {
            const EntityPtr instance = m_storage->createInstance();
            ASSERT_EQ(watched->createInstance().getId(), instance.getId());
            fill(*m_storage, size, step);
            fill(*watched, size, step);
        } else {
            const uint32 victim = m_storage->getId(random() % 4 == 0 ? size - 1 : random() % size);
            m_storage->destroyInstance(victim);
            watched->destroyInstance(victim);
            ASSERT_FALSE(m_storage->isAlive(victim));
        }
        ASSERT_EQ(m_storage->size(), watched->size());
        ASSERT_EQ(m_storage->getSizeValue()->get(), told);
        ASSERT_EQ(m_storage->getData()->getNumElements(), m_storage->size());
    }
    for (uint64 i = 0; i < m_storage->capacity(); ++i)
        ASSERT_EQ(m_storage->getId(i), watched->getId(i));
    for (zel::size_t i = 0; i < m_storage->getBuffers().size(); ++i) {
        const Buffer* one = m_storage->getBuffers()[i].get();
        const Buffer* other = watched->getBuffers()[i].get();
        ASSERT_EQ(one == nullptr, other == nullptr);
        if (one == nullptr)
            continue;
        EXPECT_EQ(one->size(), other->size());
        EXPECT_EQ(one->getLogicalSize(), other->getLogicalSize());
        EXPECT_EQ(one->getRevision(), other->getRevision()) << one->getName().str();
        if (one == m_storage->getInstanceBuffer())
            continue;
        EXPECT_EQ(std::memcmp(one->getPtr(), other->getPtr(), one->size() * one->getElementSize()), 0)
            << one->getName().str();
    }
    EXPECT_EQ(m_storage->getIdToIndexBuffer()->getRevision(), watched->getIdToIndexBuffer()->getRevision());
    watched->getSizeValue()->updateEvent.disconnect(id);
    watched->verifyConsistency();
}

TEST_F(EntityStoragePlainTest, CallsTheInitializerAndTheDestructorThatAColumnWasGiven) {
    Buffer* const mass = m_storage->getBuffer("mass");
    std::vector<std::string> log;
    const auto noting = [&log](const char* what) {
        return [&log, what](Buffer* buffer, const Buffer::Range& range) {
            log.push_back(std::string(what) + std::to_string(range.begin()) + " of " +
                          std::to_string(buffer->size()));
        };
    };
    mass->setElementInitializer(noting("make "));
    const EntityPtr first = m_storage->createInstance();
    static_cast<void>(m_storage->createInstance());
    mass->setElementInitializer({});
    mass->setElementDestructor(noting("end "));
    m_storage->destroyInstance(first.getId());
    EXPECT_EQ(log, (std::vector<std::string>{"make 0 of 1", "make 1 of 2", "end 1 of 1"}));
    mass->setElementDestructor({}); // the log goes first
}

TEST_F(EntityStoragePlainTest, ShowsItselfWholeToListenersOfATable) {
    struct Listener : Buffer::EventListener {
        explicit Listener(EntityStorage& s) : storage(s) {}
        void updateCallback(Buffer*) override {
            sizes.push_back(storage.size());
            sizes.push_back(storage.getBuffer("mass")->size());
        }
        EntityStorage& storage;
        std::vector<uint64> sizes;
    };
    static_cast<void>(m_storage->createInstances(3));
    Listener listener(*m_storage);
    m_storage->getIdToIndexBuffer()->addListener(&listener);
    m_storage->destroyInstance(0);
    m_storage->getIdToIndexBuffer()->removeListener(&listener);
    EXPECT_EQ(listener.sizes, (std::vector<uint64>{3, 3}));
}
