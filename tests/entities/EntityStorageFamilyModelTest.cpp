#include "EntityStorageEventRow.h"
#include "Fragile.h"

#include <zelData/EntityData.h>
#include <zelData/EntityRange.h>
#include <zelData/ScalarAttribute.h>

#include <support/Soak.h>

#include <algorithm>
#include <memory>
#include <numeric>
#include <random>
#include <utility>
#include <vector>

// Random operations on storages that share their columns, beside a plain model of what they mean: columns of
// several elements an instance, texts, custom attributes of one of them; allocations, elements and
// constructors that fail; listeners that look around.

using zel::ref_ptr;
using zel::String;
using zel::uint32;
using zel::uint64;
using zelData::Array;
using zelData::Attribute;
using zelData::Buffer;
using zelData::EntityModel;
using zelData::EntityPtr;
using zelData::EntityRange;
using zelData::EntityStorage;
using zelTest::Fault;
using zelTest::Fragile;
using enum zelTest::EventKind;
using zelTest::EventKind;
using zelTest::EventRow;

namespace {

zelData::EntityModel::LoaderT<zelTest::FragileModel> s_familyLoader("FragileFamily");

String familyTitle(int title) {
    return title < 0 ? String("a title that has memory of its own")
                     : String("a title with the number " + std::to_string(title));
}

/// The values of one instance.
struct Row {
    double mass = 5;
    uint32 triple[3] = {9, 9, 9};
    int title = -1;
    int glass = 0;
    int pair[2] = {0, 0};
    double extra = 3; // a column of the first storage that came later
    double own = 4;   // a column that one of the others has for itself
};

/// One of the storages: which id stands at which index, those behind the size being free.
struct Member : EntityStorage::EventListener {
    Member(EntityStorage* s, uint64 capacity) : storage(s), ids(capacity) {
        std::iota(ids.begin(), ids.end(), 0U);
        storage->addListener(this);
    }
    Member(const Member&) = delete;
    Member& operator=(const Member&) = delete;
    ~Member() override { storage->removeListener(this); }

    [[nodiscard]] uint64 capacity() const { return ids.size(); }
    void grow(uint64 capacity) {
        while (ids.size() < capacity)
            ids.push_back(static_cast<uint32>(ids.size()));
    }

    /// What is told of is there, in all columns.
    static void look(EntityStorage* from, uint64 end) {
        EXPECT_GE(from->size(), end);
        for (const ref_ptr<Buffer>& buffer : from->getBuffers())
            EXPECT_TRUE(!buffer || buffer->size() >= end * buffer->getElementArraySize());
        EXPECT_EQ(from->getData()->getNumElements(), from->size());
    }
    void createInstanceCallback(EntityStorage* from, EntityPtr instance) override {
        look(from, instance.getIndex() + uint64{1});
        told.push_back({Create, instance.getId()});
    }
    void createInstancesCallback(EntityStorage* from, EntityRange range) override {
        look(from, range.end());
        told.push_back({CreateRange, range.begin(), range.end()});
    }
    void createInstancesCallback(EntityStorage*, Array<EntityPtr> instances) override {
        ADD_FAILURE() << "nobody creates lists, and here is one of " << instances.size();
    }
    void destroyInstanceCallback(EntityStorage* from, EntityPtr instance) override {
        look(from, instance.getIndex() + uint64{1});
        EXPECT_GE(from->getBuffer("glass")->data<Fragile>()[instance.getIndex()].number(), 0);
        told.push_back({Destroy, instance.getId()});
    }
    void destroyInstancesCallback(EntityStorage* from, EntityRange range) override {
        look(from, range.end());
        told.push_back({DestroyRange, range.begin(), range.end()});
    }
    void destroyInstancesCallback(EntityStorage* from, Array<EntityPtr> instances) override {
        EventRow row{DestroyList};
        for (const EntityPtr& instance : instances) {
            look(from, instance.getIndex() + uint64{1});
            row.push_back(instance.getId());
        }
        told.push_back(std::move(row));
    }
    void permuteCallback(EntityStorage* from, Array<uint32> permutation) override {
        from->verifyConsistency();
        told.push_back({EventKind::Permute, permutation.size()});
    }

    ref_ptr<EntityStorage> storage;
    std::vector<uint32> ids;
    std::vector<EventRow> told;
    std::vector<EventRow> expected;
};

class Family {
public:
    Family(EntityModel* model, unsigned seed) : m_random(seed), m_maximumSize(seed % 4 == 0 ? 300 : 50) {
        m_members.push_back(
            std::make_unique<Member>(new EntityStorage(model), EntityStorage::DefaultCapacity));
        addShare();
        addCustom(0, "extra", 3);
        addCustom(1, "own", 4);
    }

    void run(uint64 numOperations) {
        for (uint64 i = 0; i < numOperations; ++i) {
            step();
            for (const auto& member : m_members) {
                ASSERT_EQ(member->storage->size(), m_rows.size()) << "after operation " << i;
                ASSERT_EQ(member->told, member->expected) << "after operation " << i;
                member->told.clear();
                member->expected.clear();
            }
            if (i % 20 == 0)
                compare();
            if (testing::Test::HasFailure())
                FAIL() << "after operation " << i;
        }
    }

private:
    [[nodiscard]] uint64 below(uint64 n) { return m_random() % n; }
    [[nodiscard]] Member& any() { return *m_members[below(m_members.size())]; }
    template <typename T>
    T* column(const char* name) {
        // The second one has them all.
        return m_members[1]->storage->getBuffer(zel::Name(name))->data<T>();
    }

    void addCustom(size_t member, const char* name, double value) {
        const ref_ptr<zelData::Value> content(
            new zelData::Value("default", zelData::getFormat("Real:64bit")));
        content->set(&value);
        m_members[member]->storage->addCustomAttribute(
            new zelData::ScalarAttribute(name, zelData::getFormat("Real:64bit"), content.get()));
    }
    void addShare() {
        const uint64 capacity = std::max<uint64>(EntityStorage::DefaultCapacity, m_rows.size());
        m_members.push_back(std::make_unique<Member>(any().storage->createSharedStorage(), capacity));
    }

    // Sizes

    void growAll(uint64 capacity) {
        for (const auto& member : m_members)
            member->grow(capacity);
    }
    void makeRoom(const Member& first, uint64 n) {
        const auto room = static_cast<uint64>(static_cast<double>(n) * 1.5);
        if (first.capacity() < n)
            growAll(room);
        for (const auto& member : m_members)
            if (member->capacity() < n)
                growAll(room);
    }
    void setSize(const Member& first, uint64 n) {
        makeRoom(first, n);
        m_rows.resize(n);
    }
    void expectAll(const EventRow& event, const Member* except = nullptr) {
        for (const auto& member : m_members)
            if (member.get() != except)
                member->expected.push_back(event);
    }

    /// Does the work, which may be made to fail, in which case all is as it was.
    /// @return whether it has been done
    template <typename Work>
    bool attempt(const Work& work) {
        if (below(3) == 0)
            Fault::arm(below(2) == 0, below(30));
        try {
            work();
        } catch (const std::runtime_error& error) {
            EXPECT_FALSE(Fault::isArmed()) << error.what();
            Fault::disarm();
            for (const auto& member : m_members) {
                EXPECT_TRUE(member->told.empty());
                EXPECT_GE(member->storage->capacity(), member->capacity());
                member->grow(member->storage->capacity()); // room may have been made
            }
            compare();
            return false;
        }
        Fault::disarm();
        return true;
    }

    void step() {
        Member& member = any();
        EntityStorage& storage = *member.storage;
        const uint64 size = m_rows.size();
        const uint64 choice = below(1000);
        if (size > m_maximumSize || (choice < 10 && size > 0))
            return resize(member, below(2) * below(size));
        if (choice < 350 || size == 0)
            return create(member);
        if (choice < 430)
            return createMany(member);
        if (choice < 650)
            return destroy(member);
        if (choice < 720)
            return destroyList(member);
        if (choice < 760)
            return destroyRange(member);
        if (choice < 800)
            return swap(member);
        if (choice < 850)
            return reorder(member);
        if (choice < 880) {
            const uint64 capacity = below(2 * m_maximumSize);
            if (attempt([&] { storage.reserve(capacity); }) && capacity > member.capacity())
                growAll(capacity);
        } else if (choice < 930) {
            resize(member, below(m_maximumSize));
        } else if (choice < 960) {
            batch(member);
        } else if (choice < 970) {
            const uint64 capacity = size + below(100);
            if (attempt([&] { storage.presize(size, capacity); }))
                growAll(capacity);
        } else if (choice < 980) {
            keyFrame(member);
        } else if (choice < 990) {
            copy(member);
        } else if (m_members.size() < 4) {
            addShare();
        } else {
            m_members.erase(m_members.begin() + static_cast<long>(2 + below(m_members.size() - 2)));
        }
    }

    void fill(uint64 index) {
        Row& row = m_rows[index];
        row.mass = static_cast<double>(m_random());
        for (uint32& number : row.triple)
            number = static_cast<uint32>(m_random());
        row.title = static_cast<int>(below(1000));
        row.glass = static_cast<int>(below(1000));
        for (int& number : row.pair)
            number = static_cast<int>(below(1000));
        row.extra = static_cast<double>(m_random());
        row.own = static_cast<double>(m_random());
        column<double>("mass")[index] = row.mass;
        std::copy_n(row.triple, 3, column<uint32>("triple") + 3 * index);
        column<String>("title")[index] = familyTitle(row.title);
        column<Fragile>("glass")[index] = Fragile(row.glass);
        for (uint64 k = 0; k < 2; ++k)
            column<Fragile>("pair")[2 * index + k] = Fragile(row.pair[k]);
        column<double>("extra")[index] = row.extra;
        column<double>("own")[index] = row.own;
    }

    void create(Member& member) {
        const uint64 index = m_rows.size();
        EntityPtr instance;
        if (!attempt([&] { instance = member.storage->createInstance(); }))
            return;
        setSize(member, index + 1);
        EXPECT_EQ(instance.getId(), member.ids[index]);
        member.expected.push_back({Create, member.ids[index]});
        expectAll({CreateRange, index, index + 1}, &member);
        if (below(4) != 0)
            fill(index);
    }

    void createMany(Member& member) {
        const uint64 begin = m_rows.size();
        const uint64 end = begin + 1 + below(12);
        if (!attempt([&] { static_cast<void>(member.storage->createInstances(end - begin)); }))
            return;
        setSize(member, end);
        expectAll({CreateRange, begin, end});
        for (uint64 i = begin; i < end; i += 2)
            fill(i);
    }

    /// By descending index, each taking the last that is left.
    void drop(std::vector<uint64> indices) {
        std::sort(indices.begin(), indices.end(), std::greater<>());
        indices.erase(std::unique(indices.begin(), indices.end()), indices.end());
        for (const uint64 index : indices) {
            const uint64 last = m_rows.size() - 1;
            for (const auto& member : m_members)
                std::swap(member->ids[index], member->ids[last]);
            m_rows[index] = m_rows[last];
            m_rows.pop_back();
        }
    }

    void destroy(Member& member) {
        const uint64 index = below(m_rows.size());
        for (const auto& other : m_members)
            other->expected.push_back({Destroy, other->ids[index]});
        member.storage->destroyInstance(member.ids[index]);
        drop({index});
    }

    void destroyList(Member& member) {
        std::vector<EntityPtr> instances;
        std::vector<uint64> indices;
        for (uint64 i = below(m_rows.size() + 3); i-- > 0;) {
            indices.push_back(below(m_rows.size()));
            instances.push_back(member.storage->getInstance(indices.back()));
        }
        const bool tell = below(2) != 0;
        if (tell && !indices.empty())
            expectList(indices, nullptr);
        member.storage->destroyInstances(instances.data(), instances.size(), tell);
        drop(indices);
    }
    void expectList(const std::vector<uint64>& indices, const Member* except) {
        for (const auto& other : m_members) {
            EventRow row{DestroyList};
            for (const uint64 index : indices)
                row.push_back(other->ids[index]);
            if (other.get() != except)
                other->expected.push_back(std::move(row));
        }
    }

    void destroyRange(Member& member) {
        const uint64 begin = below(m_rows.size());
        const uint64 end = begin + 1 + below(m_rows.size() - begin);
        std::vector<uint64> indices(end - begin);
        std::iota(indices.begin(), indices.end(), begin);
        member.expected.push_back({DestroyRange, begin, end});
        expectList(indices, &member);
        member.storage->destroyInstances(EntityRange(member.storage.get(), begin, end));
        drop(indices);
    }

    void swap(Member& member) {
        const uint64 i = below(m_rows.size());
        const uint64 j = below(m_rows.size());
        member.storage->swapInstances(i, j);
        std::swap(m_rows[i], m_rows[j]);
        for (const auto& other : m_members)
            std::swap(other->ids[i], other->ids[j]);
    }

    void reorder(Member& member) {
        zel::VectorPOD<uint32> permutation(m_rows.size());
        std::iota(permutation.begin(), permutation.end(), 0U);
        std::shuffle(permutation.begin(), permutation.end(), m_random);
        if (!attempt([&] { member.storage->reorder(permutation); }))
            return;
        expectAll({EventKind::Permute, m_rows.size()});
        const std::vector<Row> rows(m_rows);
        for (const auto& other : m_members) {
            const std::vector<uint32> ids(other->ids);
            for (uint64 i = 0; i < rows.size(); ++i)
                other->ids[i] = ids[permutation[i]];
        }
        for (uint64 i = 0; i < rows.size(); ++i)
            m_rows[i] = rows[permutation[i]];
    }

    void resize(Member& member, uint64 n) {
        const uint64 old = m_rows.size();
        const bool direct = below(2) == 0;
        // What fails has told nobody, and a shrinking cannot fail.
        const auto work = [&] {
            if (direct)
                member.storage->resize(n);
            else if (n != old)
                member.storage->getSizeValue()->set(n);
        };
        if (n < old) {
            work();
            expectAll({DestroyRange, n, old});
        } else {
            if (!attempt(work))
                return;
            if (n > old)
                expectAll({CreateRange, old, n});
        }
        setSize(member, n);
    }

    void batch(Member& member) {
        const uint64 begin = m_rows.size();
        const uint64 n = begin + below(20);
        const uint64 rounded = (n + 63) / 64 * 64;
        if (!attempt([&] { member.storage->getData()->presize(static_cast<uint32>(n)); })) {
            EXPECT_FALSE(member.storage->isBatchOpen());
            return;
        }
        setSize(member, rounded);
        if (rounded != begin)
            expectAll({CreateRange, begin, rounded}, &member);
        if (n > begin)
            fill(begin);
        member.storage->commitBatch(n);
        if (n != rounded)
            expectAll({DestroyRange, n, rounded}, &member);
        if (n != begin)
            member.expected.push_back({CreateRange, begin, n});
        m_rows.resize(n);
    }

    void keyFrame(Member& member) {
        const uint64 capacity = m_rows.size() + below(100);
        if (m_rows.size() >= member.capacity() || capacity == member.capacity())
            return;
        member.storage->keyFrameResize(m_rows.size(), capacity);
        for (const auto& other : m_members) {
            const uint64 old = other->capacity();
            other->ids.resize(capacity);
            // Ids above a lower capacity are gone, so that all begin anew.
            for (uint64 i = capacity < old ? 0 : old; i < capacity; ++i)
                other->ids[i] = static_cast<uint32>(i);
        }
    }

    void copy(Member& member) {
        const uint64 from = below(m_rows.size());
        const uint64 to = below(m_rows.size());
        EntityStorage& storage = *member.storage;
        if (!attempt([&] { storage.copyInstance(storage.getId(from), &storage, storage.getId(to)); }))
            return;
        // The attributes that the storage has: only one has a column of its own.
        const double own = m_rows[to].own;
        m_rows[to] = m_rows[from];
        if (&member != m_members[1].get())
            m_rows[to].own = own;
    }

    void compare() {
        for (const auto& member : m_members) {
            EntityStorage& storage = *member->storage;
            storage.verifyConsistency();
            ASSERT_EQ(storage.size(), m_rows.size());
            ASSERT_EQ(storage.capacity(), member->capacity());
            ASSERT_EQ(storage.getSizeValue()->get(), m_rows.size());
            ASSERT_EQ(storage.getCapacityValue()->get(), member->capacity());
            ASSERT_EQ(storage.getData()->getNumElements(), m_rows.size());
            for (const ref_ptr<Buffer>& buffer : storage.getBuffers())
                ASSERT_TRUE(!buffer || buffer->size() == m_rows.size() * buffer->getElementArraySize());
            for (uint64 i = 0; i < member->capacity(); ++i)
                ASSERT_EQ(storage.getId(i), member->ids[i]) << "at index " << i;
        }
        for (uint64 i = 0; i < m_rows.size(); ++i) {
            const Row& row = m_rows[i];
            ASSERT_EQ(column<double>("mass")[i], row.mass) << "at index " << i;
            ASSERT_TRUE(std::equal(row.triple, row.triple + 3, column<uint32>("triple") + 3 * i));
            ASSERT_EQ(column<String>("title")[i], familyTitle(row.title)) << "at index " << i;
            ASSERT_EQ(column<Fragile>("glass")[i].number(), row.glass) << "at index " << i;
            for (uint64 k = 0; k < 2; ++k)
                ASSERT_EQ(column<Fragile>("pair")[2 * i + k].number(), row.pair[k]) << "at index " << i;
            ASSERT_EQ(column<double>("extra")[i], row.extra) << "at index " << i;
            ASSERT_EQ(column<double>("own")[i], row.own) << "at index " << i;
        }
    }

    std::mt19937 m_random;
    const uint64 m_maximumSize;
    std::vector<Row> m_rows;                        // by index
    std::vector<std::unique_ptr<Member>> m_members; // the first one has the columns
};

class EntityStorageFamilySoakTest : public zelTest::FragileFixture {
protected:
    EntityModel* loadFamily() { return loadModel("FragileFamily"); }

    static void drive(EntityModel* model, unsigned seed, uint64 numOperations) {
        static_cast<void>(
            ref_ptr<EntityStorage>(new EntityStorage(model))); // the default value of the format
        const zel::int64 numAlive = Fragile::numAlive();
        Family(model, seed).run(numOperations);
        EXPECT_EQ(Fragile::numAlive(), numAlive);
    }
};

class EntityStorageFamilyModelTest : public EntityStorageFamilySoakTest,
                                     public testing::WithParamInterface<unsigned> {};

} // namespace

TEST_P(EntityStorageFamilyModelTest, DoesWhatThePlainModelDoes) {
    drive(loadFamily(), GetParam(), 30'000 / zelTest::StressDivisor);
}

TEST_F(EntityStorageFamilySoakTest, DoesWhatThePlainModelDoesFromAFreshSeed) {
    drive(loadFamily(), zelTest::stressSeed(), 30'000 / zelTest::StressDivisor);
}

INSTANTIATE_TEST_SUITE_P(Seeds, EntityStorageFamilyModelTest, testing::Range(1U, 9U));

TEST_F(EntityStorageFamilySoakTest, DISABLED_DoesWhatThePlainModelDoes) {
    EntityModel* model = loadFamily();
    zelTest::soak([model](unsigned seed) { drive(model, seed, 50'000); });
}
