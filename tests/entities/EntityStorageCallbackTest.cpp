#include "Fragile.h"

#include <zelData/EntityData.h>
#include <zelData/ScalarAttribute.h>

#include <algorithm>
#include <functional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

// Callbacks that change the storage which calls them, let go of it, or throw.

using zel::int64;
using zel::ref_ptr;
using zel::uint32;
using zel::uint64;
using zelData::Array;
using zelData::Buffer;
using zelData::EntityPtr;
using zelData::EntityRange;
using zelData::EntityStorage;
using zelData::Value;
using zelTest::whatOf;

namespace {

/// Writes down what it hears, with the numbers in the column "a", and does something at it.
struct Listener : EntityStorage::EventListener {
    using Work = std::function<void(EntityStorage&)>;

    explicit Listener(EntityStorage* s) : storage(s) { s->addListener(this); }
    Listener(const Listener&) = delete;
    Listener& operator=(const Listener&) = delete;
    ~Listener() override { detach(); }
    void detach() {
        if (storage != nullptr)
            storage->removeListener(this);
        storage = nullptr;
    }

    void createInstanceCallback(EntityStorage* from, EntityPtr instance) override {
        note("create", *from, {instance});
    }
    void createInstancesCallback(EntityStorage* from, EntityRange range) override {
        note("create range", *from, handles(range));
    }
    void createInstancesCallback(EntityStorage* from, Array<EntityPtr> instances) override {
        note("create list", *from, {instances.begin(), instances.end()});
    }
    void destroyInstanceCallback(EntityStorage* from, EntityPtr instance) override {
        note("destroy", *from, {instance});
    }
    void destroyInstancesCallback(EntityStorage* from, EntityRange range) override {
        note("destroy range", *from, handles(range));
    }
    void destroyInstancesCallback(EntityStorage* from, Array<EntityPtr> instances) override {
        note("destroy list", *from, {instances.begin(), instances.end()});
    }
    void permuteCallback(EntityStorage* from, Array<uint32>) override { note("permute", *from, {}); }

    EntityStorage* storage;
    Work work; // once
    Work always;
    std::vector<std::string> heard;

private:
    static std::vector<EntityPtr> handles(const EntityRange& range) {
        std::vector<EntityPtr> list;
        for (uint64 i = 0; i < range.size(); ++i)
            list.push_back(range[i]);
        return list;
    }
    void note(std::string text, EntityStorage& from, const std::vector<EntityPtr>& instances) {
        for (const EntityPtr& instance : instances) {
            EXPECT_EQ(instance.getStorage(), &from);
            EXPECT_TRUE(from.isAlive(instance.getId())) << text;
            text += " " + std::to_string(from.getBuffer("a")->data<int64>()[instance.getIndex()]);
        }
        heard.push_back(text);
        if (const Work now = std::exchange(work, nullptr))
            now(from);
        if (const Work now = always) // it may let go of this listener
            now(from);
    }
};

struct ColumnListener : Buffer::EventListener {
    void updateCallback(Buffer* buffer) override {
        ++numUpdates;
        if (work)
            work(buffer);
    }
    void resizeCallback(Buffer* buffer, unsigned int, unsigned int) override {
        ++numResizes;
        if (work)
            work(buffer);
    }
    std::function<void(Buffer*)> work;
    int numUpdates = 0;
    int numResizes = 0;
};

class EntityStorageCallbackTest : public zelTest::EntityFixture {
protected:
    using Texts = std::vector<std::string>;

    void SetUp() override {
        EntityFixture::SetUp();
        model = entity("Numbered", "<Attribute.Scalar name='a' type='Int:64bit' value='-1'/>");
        storage = make(5);
    }
    /// A storage of that many instances, which are numbered in the column.
    ref_ptr<EntityStorage> make(uint64 n) {
        ref_ptr<EntityStorage> made(new EntityStorage(model));
        static_cast<void>(made->createInstances(n));
        for (uint64 i = 0; i < n; ++i)
            made->getBuffer("a")->data<int64>()[i] = static_cast<int64>(i);
        return made;
    }
    static std::vector<int64> numbers(EntityStorage& of) {
        EXPECT_EQ(of.getSizeValue()->get(), of.size());
        EXPECT_EQ(of.getCapacityValue()->get(), of.capacity());
        EXPECT_EQ(of.getData()->getNumElements(), of.size());
        for (const ref_ptr<Buffer>& buffer : of.getBuffers())
            EXPECT_EQ(buffer->size(), of.size());
        of.verifyConsistency();
        const auto* first = of.getBuffer("a")->data<int64>();
        return {first, first + of.size()};
    }

    zelData::EntityModel* model = nullptr;
    ref_ptr<EntityStorage> storage;
};

using Numbers = std::vector<int64>;

} // namespace

// Those who are faster

TEST_F(EntityStorageCallbackTest, ARangeIsDestroyedOfWhichAShareHasDestroyedOne) {
    const ref_ptr<EntityStorage> share(storage->createSharedStorage());
    Listener listener(share.get());
    listener.work = [](EntityStorage& from) { from.destroyInstance(from.getId(uint64{0})); };
    storage->destroyInstances(EntityRange(storage.get(), 0, 2));
    EXPECT_EQ(listener.heard, (Texts{"destroy list 0 1", "destroy 0"}));
    Numbers left = numbers(*storage);
    std::sort(left.begin(), left.end());
    EXPECT_EQ(left, (Numbers{2, 3, 4}));
}

TEST_F(EntityStorageCallbackTest, ARangeIsDestroyedAfterAShareHasDestroyedAll) {
    const ref_ptr<EntityStorage> share(storage->createSharedStorage());
    Listener listener(share.get());
    listener.work = [](EntityStorage& from) { from.clear(); };
    storage->destroyInstances(EntityRange(storage.get(), 0, 5));
    EXPECT_EQ(numbers(*storage), Numbers{});
}

TEST_F(EntityStorageCallbackTest, AShareHearsOfWhatIsLeft) {
    const ref_ptr<EntityStorage> share(storage->createSharedStorage());
    Listener own(storage.get());
    Listener second(storage.get());
    Listener others(share.get());
    own.work = [](EntityStorage& from) { from.destroyInstance(1); };
    storage->destroyInstance(1);
    EXPECT_EQ(others.heard, (Texts{"destroy 1"}));
    EXPECT_EQ(second.heard, (Texts{"destroy 1"}));
    others.heard.clear();
    own.work = [](EntityStorage& from) { from.destroyInstance(0); };
    const EntityPtr list[] = {EntityPtr(storage.get(), 0), EntityPtr(storage.get(), 3)};
    storage->destroyInstances(list, 2);
    EXPECT_EQ(others.heard, (Texts{"destroy 0", "destroy list 3"}));
    EXPECT_EQ(numbers(*storage), (Numbers{2, 4}));
}

TEST_F(EntityStorageCallbackTest, AnInstanceThatTakesTheIdOfAVictimStays) {
    Listener listener(storage.get());
    listener.work = [](EntityStorage& from) {
        from.destroyInstance(1);
        EXPECT_EQ(from.createInstance().getId(), 1U);
    };
    storage->destroyInstance(1);
    EXPECT_EQ(numbers(*storage), (Numbers{0, 4, 2, 3, -1}));
    listener.work = [](EntityStorage& from) {
        from.destroyInstance(0);
        EXPECT_EQ(from.createInstance().getId(), 0U);
    };
    const EntityPtr list[] = {EntityPtr(storage.get(), 0), EntityPtr(storage.get(), 2)};
    storage->destroyInstances(list, 2);
    EXPECT_EQ(storage->size(), 4U);
    EXPECT_TRUE(storage->isAlive(0));
    EXPECT_FALSE(storage->isAlive(2));
}

TEST_F(EntityStorageCallbackTest, AListenerMayReorderWhatIsToGo) {
    Listener listener(storage.get());
    listener.work = [](EntityStorage& from) { from.reorder(zel::VectorPOD<uint32>{4, 3, 2, 1, 0}); };
    storage->destroyInstances(EntityRange(storage.get(), 0, 2));
    Numbers left = numbers(*storage);
    std::sort(left.begin(), left.end());
    EXPECT_EQ(left, (Numbers{2, 3, 4}));
}

TEST_F(EntityStorageCallbackTest, ASizeIsReachedWhateverListenersCreate) {
    Listener listener(storage.get());
    const ref_ptr<zelData::ValueT<uint64>> follower(new zelData::ValueT<uint64>("n", 0));
    follower->bind(storage->getSizeValue());
    listener.work = [](EntityStorage& from) { static_cast<void>(from.createInstance()); };
    storage->resize(2);
    EXPECT_EQ(listener.heard, (Texts{"destroy range 2 3 4", "create -1", "destroy range -1"}));
    EXPECT_EQ(numbers(*storage), (Numbers{0, 1}));
    EXPECT_EQ(follower->get(), 2U);
    listener.always = [](EntityStorage& from) {
        if (from.size() < 40)
            static_cast<void>(from.createInstance());
    };
    storage->clear();
    EXPECT_EQ(numbers(*storage), Numbers{});
    EXPECT_EQ(follower->get(), 0U);
}

TEST_F(EntityStorageCallbackTest, ASizeIsReachedWhateverListenersDestroy) {
    Listener listener(storage.get());
    listener.work = [](EntityStorage& from) { from.resize(1); };
    storage->resize(3);
    EXPECT_EQ(numbers(*storage), (Numbers{0, -1, -1}));
}

TEST_F(EntityStorageCallbackTest, WhatMovesTheMemoryMayCreate) {
    bool once = true;
    storage->getBuffer("a")->reallocationEvent.connect([&](Buffer*) {
        if (std::exchange(once, false))
            static_cast<void>(storage->createInstances(3));
    });
    const EntityRange range = storage->createInstances(100);
    EXPECT_EQ(range.size(), 100U);
    EXPECT_EQ(range.begin(), 8U);
    EXPECT_EQ(numbers(*storage).size(), 108U);
    once = true;
    storage->reserve(5000);
    EXPECT_EQ(numbers(*storage).size(), 111U);
    EXPECT_EQ(storage->capacity(), 5000U);
}

TEST_F(EntityStorageCallbackTest, WhatMovesTheMemoryMayReserve) {
    bool once = true;
    storage->getBuffer("a")->reallocationEvent.connect([&](Buffer*) {
        if (std::exchange(once, false))
            storage->reserve(1000);
    });
    static_cast<void>(storage->createInstances(100));
    EXPECT_EQ(storage->capacity(), 1000U);
    EXPECT_EQ(numbers(*storage).size(), 105U);
}

TEST_F(EntityStorageCallbackTest, ListenersOfColumnsMayCreateAndDestroy) {
    ColumnListener listener;
    const ref_ptr<Buffer> column(storage->getBuffer("a"));
    column->addListener(&listener);
    bool busy = false;
    listener.work = [&](Buffer*) {
        if (std::exchange(busy, true))
            return;
        static_cast<void>(storage->createInstances(2));
        storage->destroyInstance(storage->getId(uint64{0}));
        busy = false;
    };
    // It hears of the move, of the one which that makes necessary, and of the size: one more each time.
    storage->destroyInstance(1);
    EXPECT_EQ(numbers(*storage).size(), 7U);
    EXPECT_THAT(numbers(*storage), testing::Not(testing::Contains(1)));
    column->data<int64>()[1] = 100;
    column->data<int64>()[2] = 101;
    const EntityPtr victims[] = {storage->getInstance(1), storage->getInstance(2)};
    storage->destroyInstances(victims, 2);
    EXPECT_EQ(numbers(*storage).size(), 8U);
    EXPECT_THAT(numbers(*storage), testing::Each(testing::Lt(100)));
    const EntityPtr instance = storage->createInstance();
    EXPECT_EQ(numbers(*storage).size(), 10U);
    EXPECT_TRUE(storage->isAlive(instance.getId()));
    storage->swapInstances(0, 7);
    EXPECT_EQ(numbers(*storage).size(), 11U);
    storage->reorder(zel::VectorPOD<uint32>{10, 9, 8, 7, 6, 5, 4, 3, 2, 1, 0});
    EXPECT_EQ(numbers(*storage).size(), 12U);
    column->removeListener(&listener);
}

TEST_F(EntityStorageCallbackTest, ACopyThatAListenerDestroysIsAnError) {
    const ref_ptr<EntityStorage> target = make(1);
    Listener listener(target.get());
    bool destroys = false;
    listener.always = [&destroys](EntityStorage& from) {
        if (!std::exchange(destroys, true)) // not when it hears of that
            from.destroyInstance(from.getId(uint64{1}));
        destroys = false;
    };
    EXPECT_THAT(whatOf([&] { static_cast<void>(storage->copyInstance(3, target.get())); }),
                testing::HasSubstr(
                    "Numbered: a listener has destroyed the copy of the instance with id 3 of Numbered"));
    EXPECT_NE(whatOf([&] { static_cast<void>(storage->transferInstance(3, target.get())); }), "no exception");
    EXPECT_EQ(numbers(*target), Numbers{0});
    EXPECT_EQ(numbers(*storage).size(), 5U); // where it was
    listener.always = [this](EntityStorage&) {
        if (storage->isAlive(3))
            storage->destroyInstance(3);
    };
    EXPECT_THAT(
        whatOf([&] { static_cast<void>(storage->copyInstance(3, target.get())); }),
        testing::HasSubstr(
            "Numbered: a listener has destroyed the instance with id 3, which was to be copied to Numbered"));
    EXPECT_EQ(numbers(*target), Numbers{0});
}

// Those who let go

TEST_F(EntityStorageCallbackTest, AListenerMayLetGoOfTheStorage) {
    using Work = void (*)(EntityStorage*);
    const Work works[] = {
        [](EntityStorage* s) { static_cast<void>(s->createInstance()); },
        [](EntityStorage* s) { static_cast<void>(s->createInstances(2)); },
        [](EntityStorage* s) { static_cast<void>(s->createInstances(2000)); },
        [](EntityStorage* s) { s->destroyInstance(0); },
        [](EntityStorage* s) { s->destroyInstances(EntityRange(s, 0, 2)); },
        [](EntityStorage* s) {
            const EntityPtr instance = s->getInstance(1);
            s->destroyInstances(&instance, 1);
        },
        [](EntityStorage* s) { s->resize(1); },
        [](EntityStorage* s) { s->resize(90); },
        [](EntityStorage* s) { s->getSizeValue()->set(1); },
        [](EntityStorage* s) { s->clear(); },
        [](EntityStorage* s) { s->reset(); },
        [](EntityStorage* s) { s->keyFrameResize(3, 400); },
        [](EntityStorage* s) {
            s->reorder(zel::VectorPOD<uint32>{4, 3, 2, 1, 0});
        },
        [](EntityStorage* s) { s->getInstance(0).destroy(); },
        [](EntityStorage* s) {
            s->getData()->presize(10);
            s->commitBatch(10);
        },
        [](EntityStorage* s) { static_cast<void>(s->getInstance(0).copy()); },
        [](EntityStorage* s) {
            const ref_ptr<EntityStorage> target(new EntityStorage(s->getEntityModel()));
            s->getInstance(0).transfer(target.get());
            EXPECT_EQ(target->size(), 1U);
        },
    };
    for (const bool shared : {false, true})
        for (const Work work : works) {
            ref_ptr<EntityStorage> only = make(5);
            ref_ptr<EntityStorage> share(shared ? only->createSharedStorage() : nullptr);
            Listener listener(only.get());
            Listener second(only.get());
            int numGone = 0;
            struct End : EntityStorage::EventListener {
                void destroyCallback(EntityStorage*) override { ++*count; }
                int* count = nullptr;
            } end;
            end.count = &numGone;
            only->addListener(&end);
            listener.always = [&](EntityStorage&) {
                listener.detach();
                second.detach();
                only = nullptr;
                share = nullptr;
            };
            work(only.get());
            EXPECT_EQ(numGone, 1);
        }
}

TEST_F(EntityStorageCallbackTest, WhoeverHearsOfAColumnMayLetGoOfTheStorage) {
    using Work = void (*)(EntityStorage*);
    const Work works[] = {
        [](EntityStorage* s) { static_cast<void>(s->createInstance()); },
        [](EntityStorage* s) { s->destroyInstance(0); },
        [](EntityStorage* s) { s->destroyInstances(EntityRange(s, 0, 2)); },
        [](EntityStorage* s) { s->resize(1); },
        [](EntityStorage* s) { s->swapInstances(0, 1); },
        [](EntityStorage* s) { s->preDestroy(s->getInstance(0)); },
        [](EntityStorage* s) {
            s->reorder(zel::VectorPOD<uint32>{4, 3, 2, 1, 0});
        },
        [](EntityStorage* s) { static_cast<void>(s->getInstance(0).copy()); },
    };
    for (const char* name : {"a", "instance", "_idToIndex"})
        for (const Work work : works) {
            ref_ptr<EntityStorage> only = make(5);
            Buffer* const column =
                std::string(name) == "instance" ? only->getInstanceBuffer() : only->getBuffer(name);
            ASSERT_NE(column, nullptr) << name;
            ColumnListener listener;
            column->addListener(&listener);
            listener.work = [&](Buffer* buffer) {
                buffer->removeListener(&listener);
                only = nullptr;
            };
            work(only.get());
            EXPECT_LE(listener.numUpdates + listener.numResizes, 1);
        }
    // Who follows the size, and the memory.
    ref_ptr<EntityStorage> only = make(5);
    only->getSizeValue()->updateEvent.connect([&](Value*) { only = nullptr; });
    static_cast<void>(only->createInstance());
    EXPECT_FALSE(only);
    only = make(5);
    only->getBuffer("a")->reallocationEvent.connect([&](Buffer*) { only = nullptr; });
    static_cast<void>(only->createInstances(300));
    EXPECT_FALSE(only);
}

TEST_F(EntityStorageCallbackTest, AShareMayGoWhileItsMasterTellsTheOthers) {
    ref_ptr<EntityStorage> first(storage->createSharedStorage());
    const ref_ptr<EntityStorage> second(storage->createSharedStorage());
    Listener listener(first.get());
    Listener other(second.get());
    listener.always = [&](EntityStorage&) {
        listener.detach();
        first = nullptr;
    };
    static_cast<void>(storage->createInstances(2));
    EXPECT_FALSE(first);
    EXPECT_EQ(other.heard, (Texts{"create range -1 -1"}));
    EXPECT_EQ(numbers(*second).size(), 7U);
}

// Those who throw

TEST_F(EntityStorageCallbackTest, AllHearWhereOneThrows) {
    Listener first(storage.get());
    Listener second(storage.get());
    first.always = [](EntityStorage&) { throw std::runtime_error("first"); };
    const auto heard = [&second] { return std::exchange(second.heard, {}); };
    EXPECT_EQ(whatOf([&] { static_cast<void>(storage->createInstance()); }), "first");
    EXPECT_EQ(heard(), (Texts{"create -1"}));
    EXPECT_EQ(whatOf([&] { static_cast<void>(storage->createInstances(2)); }), "first");
    EXPECT_EQ(heard(), (Texts{"create range -1 -1"}));
    EXPECT_EQ(whatOf([&] { storage->destroyInstance(0); }), "first");
    EXPECT_EQ(heard(), (Texts{"destroy 0"}));
    EXPECT_EQ(storage->size(), 7U);
    const EntityPtr instance(storage.get(), 1);
    EXPECT_EQ(whatOf([&] { storage->destroyInstances(&instance, 1); }), "first");
    EXPECT_EQ(heard(), (Texts{"destroy list 1"}));
    EXPECT_EQ(storage->size(), 6U);
    EXPECT_EQ(whatOf([&] { storage->destroyInstances(EntityRange(storage.get(), 2, 4)); }), "first");
    EXPECT_EQ(heard().size(), 1U);
    EXPECT_EQ(storage->size(), 4U);
    EXPECT_EQ(whatOf([&] { storage->resize(3); }), "first");
    EXPECT_EQ(heard().size(), 1U);
    EXPECT_EQ(storage->size(), 3U);
    EXPECT_EQ(whatOf([&] { storage->reorder(zel::VectorPOD<uint32>{2, 1, 0}); }), "first");
    EXPECT_EQ(heard(), (Texts{"permute"}));
    EXPECT_EQ(whatOf([&] { storage->reset(); }), "first");
    EXPECT_EQ(heard().size(), 1U);
    EXPECT_EQ(numbers(*storage), Numbers{});
    EXPECT_EQ(storage->getId(uint64{0}), 0U);
}

TEST_F(EntityStorageCallbackTest, AListenerHearsWhereOneOfTheSizeThrows) {
    Listener listener(storage.get());
    storage->getSizeValue()->updateEvent.connect([](Value*) { throw std::runtime_error("size"); });
    EXPECT_EQ(whatOf([&] { static_cast<void>(storage->createInstance()); }), "size");
    EXPECT_EQ(whatOf([&] { static_cast<void>(storage->createInstances(2)); }), "size");
    storage->beginBatch();
    EXPECT_EQ(whatOf([&] { storage->commitBatch(9); }), "size");
    EXPECT_FALSE(storage->isBatchOpen());
    EXPECT_EQ(whatOf([&] { storage->resize(10); }), "size");
    EXPECT_EQ(listener.heard,
              (Texts{"create -1", "create range -1 -1", "create range -1", "create range -1"}));
    EXPECT_EQ(numbers(*storage).size(), 10U);
}

TEST_F(EntityStorageCallbackTest, AListenerHearsWhereOneOfAShareThrows) {
    const ref_ptr<EntityStorage> share(storage->createSharedStorage());
    Listener listener(storage.get());
    Listener others(share.get());
    others.always = [](EntityStorage&) { throw std::runtime_error("share"); };
    EXPECT_EQ(whatOf([&] { static_cast<void>(storage->createInstance()); }), "share");
    EXPECT_EQ(whatOf([&] { static_cast<void>(storage->createInstances(1)); }), "share");
    EXPECT_EQ(listener.heard, (Texts{"create -1", "create range -1"}));
    EXPECT_EQ(whatOf([&] { storage->destroyInstance(1); }), "share");
    EXPECT_EQ(storage->size(), 6U);
}

TEST_F(EntityStorageCallbackTest, AGrowthStaysWhereOneOfTheMemoryThrows) {
    Listener listener(storage.get());
    storage->getBuffer("a")->reallocationEvent.connect([](Buffer*) { throw std::runtime_error("memory"); });
    EXPECT_EQ(whatOf([&] { static_cast<void>(storage->createInstances(100)); }), "memory");
    EXPECT_EQ(numbers(*storage).size(), 105U);
    EXPECT_EQ(listener.heard.size(), 1U);
}

TEST_F(EntityStorageCallbackTest, ASizeThatFollowedAValueStaysWhereAListenerThrows) {
    const ref_ptr<zelData::ValueT<uint64>> wanted(new zelData::ValueT<uint64>("wanted", 5));
    storage->getSizeValue()->bind(wanted.get());
    Listener listener(storage.get());
    listener.always = [](EntityStorage&) { throw std::runtime_error("listener"); };
    EXPECT_EQ(whatOf([&] { storage->resize(8); }), "listener");
    EXPECT_EQ(numbers(*storage).size(), 8U);
    EXPECT_EQ(storage->getSizeValue()->getBinding(), nullptr);
}

TEST_F(EntityStorageCallbackTest, ACopyStaysWhereAListenerThrows) {
    const ref_ptr<EntityStorage> target = make(0);
    Listener listener(target.get());
    listener.always = [](EntityStorage&) { throw std::runtime_error("target"); };
    EXPECT_EQ(whatOf([&] { static_cast<void>(storage->copyInstance(3, target.get())); }), "target");
    EXPECT_EQ(numbers(*target), Numbers{3});
    EXPECT_EQ(whatOf([&] { static_cast<void>(storage->transferInstance(3, target.get())); }), "target");
    EXPECT_EQ(numbers(*target), (Numbers{3, 3}));
    EXPECT_EQ(numbers(*storage), (Numbers{0, 1, 2, 4}));
}

// The order that the user sees

TEST_F(EntityStorageCallbackTest, TheViewOfTheOrderShowsWhatThereIs) {
    const Buffer* order = storage->getOrCreateGlobalOrderBuffer();
    const Array<uint32>& view = storage->getData()->getGlobalOrder();
    storage->resize(100); // the order is left behind
    EXPECT_EQ(order->size(), 5U);
    ASSERT_EQ(view.size(), 5U);
    uint64 sum = 0;
    for (const uint32 index : view)
        sum += index;
    EXPECT_EQ(sum, 10U);
    storage->resize(3);
    EXPECT_EQ(view.size(), 3U);
    storage->resize(5);
    static_cast<void>(storage->createInstance());
    EXPECT_EQ(view.size(), 6U);
    EXPECT_EQ(view[5], 5U);
}

// Columns

TEST_F(EntityStorageCallbackTest, AFreeBufferThatIsRegisteredFollowsTheStorage) {
    zelData::Attribute* attribute = model->getAttribute("a");
    const ref_ptr<Buffer> old(storage->getBuffer("a"));
    storage->unregisterBuffer(old.get());
    const ref_ptr<Buffer> buffer(new Buffer("a", zelData::getFormat("Int:64bit")));
    buffer->setAttribute(attribute);
    storage->registerBuffer(buffer.get());
    EXPECT_EQ(buffer->getStorage(), storage.get());
    EXPECT_EQ(buffer->size(), 5U);
    static_cast<void>(storage->createInstances(40));
    EXPECT_EQ(numbers(*storage).size(), 45U);
    storage->destroyInstance(0);
    EXPECT_EQ(numbers(*storage).size(), 44U);
}

using EntityStorageCallbackDeathTest = EntityStorageCallbackTest;
TEST_F(EntityStorageCallbackDeathTest, AColumnOfAnotherStorageIsRefused) {
    const ref_ptr<EntityStorage> other = make(2);
    const ref_ptr<Buffer> old(storage->getBuffer("a"));
    storage->unregisterBuffer(old.get());
    EXPECT_DEATH(storage->registerBuffer(other->getBuffer("a")),
                 "Numbered: the buffer 'a' is a column of Numbered");
}

TEST_F(EntityStorageCallbackTest, AColumnThatIsHeldOutlivesAStorageThatFails) {
    ref_ptr<Buffer> held;
    const uint64 id = model->storageCreationEvent.connect([&held](EntityStorage* made) {
        held = made->getBuffer("a");
        throw std::runtime_error("no");
    });
    EXPECT_EQ(whatOf([this] { static_cast<void>(new EntityStorage(model)); }), "no");
    model->storageCreationEvent.disconnect(id);
    EXPECT_EQ(held->getStorage(), nullptr);
    EXPECT_EQ(held->getPath().str(), "a");
    held->resize(10);
    EXPECT_EQ(held->size(), 10U);
}
