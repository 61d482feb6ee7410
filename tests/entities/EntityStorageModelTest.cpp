#include "EntityFixture.h"
#include "EntityStorageEventRow.h"

#include <zelData/Buffer.h>
#include <zelData/EntityData.h>
#include <zelData/EntityStorageEvents.h>
#include <zelData/ValueT.h>

#include <support/Soak.h>

#include <algorithm>
#include <numeric>
#include <random>
#include <unordered_map>
#include <utility>

// Random operations on a storage beside a plain model of what they mean.

using zel::ref_ptr;
using zel::uint32;
using zel::uint64;
using zelData::Array;
using zelData::EntityModel;
using zelData::EntityPtr;
using zelData::EntityRange;
using zelData::EntityStorage;
using enum zelTest::EventKind;
using zelTest::EventKind;
using zelTest::EventRow;

namespace {

/// The values of one instance.
struct Record {
    double mass = 5;
    uint32 flags = 0;
    uint32 triple[3] = {9, 9, 9};
    int title = -1; // stands for a text

    friend bool operator==(const Record& a, const Record& b) {
        return a.mass == b.mass && a.flags == b.flags && std::equal(a.triple, a.triple + 3, b.triple) &&
               a.title == b.title;
    }
};

std::string titleText(int title) {
    // Long enough for memory of its own.
    return title < 0 ? "a title of no number at all" : "a title with the number " + std::to_string(title);
}

/// What a storage promises, in the plainest form: which id stands at which index, which ids are free and in
/// which order, and the values by id.
class Reference {
public:
    explicit Reference(uint64 capacity) { grow(capacity); }

    [[nodiscard]] uint64 size() const { return m_size; }
    [[nodiscard]] uint64 capacity() const { return m_ids.size(); }
    [[nodiscard]] const std::vector<uint32>& ids() const { return m_ids; }
    [[nodiscard]] const std::unordered_map<uint32, Record>& records() const { return m_records; }
    [[nodiscard]] Record& at(uint64 index) { return m_records.at(m_ids[index]); }

    void grow(uint64 capacity) {
        while (m_ids.size() < capacity)
            m_ids.push_back(static_cast<uint32>(m_ids.size()));
    }
    void resize(uint64 n) {
        if (n > capacity())
            grow(static_cast<uint64>(static_cast<double>(n) * 1.5));
        for (uint64 i = m_size; i < n; ++i)
            m_records[m_ids[i]] = Record();
        for (uint64 i = n; i < m_size; ++i)
            m_records.erase(m_ids[i]);
        m_size = n;
    }
    void destroy(uint32 id) {
        const auto index = static_cast<uint64>(std::find(m_ids.begin(), m_ids.end(), id) - m_ids.begin());
        std::swap(m_ids[index], m_ids[m_size - 1]);
        resize(m_size - 1);
    }
    /// By descending index, each taking the last that is left.
    void destroyIndices(std::vector<uint64> indices) {
        std::sort(indices.begin(), indices.end(), std::greater<>());
        indices.erase(std::unique(indices.begin(), indices.end()), indices.end());
        for (uint64 k = 0; k < indices.size(); ++k)
            std::swap(m_ids[indices[k]], m_ids[m_size - 1 - k]);
        resize(m_size - indices.size());
    }
    void swap(uint64 i, uint64 j) { std::swap(m_ids[i], m_ids[j]); }
    void swapIds(uint64 i, uint64 j) {
        std::swap(m_records.at(m_ids[i]), m_records.at(m_ids[j]));
        std::swap(m_ids[i], m_ids[j]);
    }
    void reorder(const zel::VectorPOD<uint32>& permutation) {
        const std::vector<uint32> old(m_ids);
        for (uint64 i = 0; i < m_size; ++i)
            m_ids[i] = old[permutation[i]];
    }
    void reset() {
        resize(0);
        std::iota(m_ids.begin(), m_ids.end(), 0U);
    }

private:
    uint64 m_size = 0;
    std::vector<uint32> m_ids; // by index; those from size on are free
    std::unordered_map<uint32, Record> m_records;
};

/// A storage, its reference, and the events that it told and was to tell.
class Pair : EntityStorage::EventListener {
public:
    Pair(EntityModel* model, const char* name)
        : storage(new EntityStorage(model, name)), reference(storage->capacity()) {
        storage->addListener(this);
    }
    Pair(const Pair&) = delete;
    Pair& operator=(const Pair&) = delete;
    ~Pair() override { storage->removeListener(this); }

    [[nodiscard]] uint64 size() const { return reference.size(); }

    /// Gives the instance at the index values of its own, here and there.
    void fill(uint64 index, std::mt19937& random) {
        Record& record = reference.at(index);
        record.mass = static_cast<double>(random());
        record.flags = static_cast<uint32>(random());
        for (uint32& number : record.triple)
            number = static_cast<uint32>(random());
        record.title = static_cast<int>(random() % 1000);
        column<double>("mass")[index] = record.mass;
        column<uint32>("flags")[index] = record.flags;
        std::copy_n(record.triple, 3, column<uint32>("triple") + 3 * index);
        column<zel::String>("title")[index] = titleText(record.title);
    }

    void expect(EventRow event) { m_expected.push_back(std::move(event)); }

    /// Compares all that can be seen.
    void compare() {
        storage->verifyConsistency();
        ASSERT_EQ(storage->size(), reference.size());
        ASSERT_EQ(storage->capacity(), reference.capacity());
        ASSERT_EQ(storage->getSizeValue()->get(), reference.size());
        ASSERT_EQ(storage->getData()->getNumElements(), reference.size());
        for (const char* name : {"mass", "flags", "title"})
            ASSERT_EQ(storage->getBuffer(name)->size(), reference.size()) << name;
        for (uint64 i = 0; i < reference.capacity(); ++i) {
            const uint32 id = reference.ids()[i];
            ASSERT_EQ(storage->getId(i), id) << "at index " << i;
            ASSERT_EQ(storage->getIndex(id), i);
            if (i >= reference.size())
                continue;
            Record record;
            record.mass = column<double>("mass")[i];
            record.flags = column<uint32>("flags")[i];
            std::copy_n(column<uint32>("triple") + 3 * i, 3, record.triple);
            const Record& wanted = reference.records().at(id);
            record.title = wanted.title;
            ASSERT_EQ(record, wanted) << "at index " << i;
            ASSERT_EQ(column<zel::String>("title")[i], titleText(wanted.title)) << "at index " << i;
        }
        ASSERT_EQ(m_told, m_expected);
        m_told.clear();
        m_expected.clear();
    }
    /// The cheap part of it, for every operation.
    [[nodiscard]] bool agrees() const {
        return storage->size() == reference.size() && storage->capacity() == reference.capacity() &&
               m_told.size() == m_expected.size() && (m_told.empty() || m_told.back() == m_expected.back());
    }

    ref_ptr<EntityStorage> storage;
    Reference reference;

private:
    template <typename T>
    T* column(const char* name) {
        return storage->getBuffer(zel::Name(name))->data<T>();
    }

    void createInstanceCallback(EntityStorage*, EntityPtr instance) override {
        m_told.push_back({Create, instance.getId()});
    }
    void createInstancesCallback(EntityStorage*, EntityRange range) override {
        m_told.push_back({CreateRange, range.begin(), range.end()});
    }
    void createInstancesCallback(EntityStorage*, Array<EntityPtr> instances) override {
        m_told.push_back({CreateList, instances.size()}); // nobody does
    }
    void destroyInstanceCallback(EntityStorage* from, EntityPtr instance) override {
        m_told.push_back({Destroy, instance.getId(), from->size()});
    }
    void destroyInstancesCallback(EntityStorage* from, EntityRange range) override {
        m_told.push_back({DestroyRange, range.begin(), range.end(), from->size()});
    }
    void destroyInstancesCallback(EntityStorage* from, Array<EntityPtr> instances) override {
        EventRow row{DestroyList, from->size()};
        for (const EntityPtr& instance : instances)
            row.push_back(instance.getId());
        m_told.push_back(std::move(row));
    }
    void permuteCallback(EntityStorage*, Array<uint32> permutation) override {
        EventRow row{EventKind::Permute};
        row.insert(row.end(), permutation.begin(), permutation.end());
        m_told.push_back(std::move(row));
    }

    std::vector<EventRow> m_told;
    std::vector<EventRow> m_expected;
};

/// Drives two storages of one entity with random operations.
class Driver {
public:
    /// Most seeds stay small, where the rare cases are frequent; every fourth grows larger.
    Driver(EntityModel* model, unsigned seed)
        : m_random(seed), m_maximumSize(seed % 4 == 0 ? 700 : 64), m_pairs{{model, "a"}, {model, "b"}} {}

    void run(uint64 numOperations, uint64 compareEvery) {
        for (uint64 i = 0; i < numOperations; ++i) {
            Pair& pair = m_pairs[m_random() % 2];
            step(pair);
            ASSERT_TRUE(m_pairs[0].agrees() && m_pairs[1].agrees()) << "after operation " << i;
            if (i % compareEvery == 0) {
                for (Pair& compared : m_pairs) {
                    compared.compare();
                    if (testing::Test::HasFatalFailure())
                        FAIL() << "after operation " << i;
                }
            }
        }
        for (Pair& pair : m_pairs)
            pair.compare();
    }

private:
    [[nodiscard]] uint64 below(uint64 n) { return m_random() % n; }

    void step(Pair& pair) {
        EntityStorage& storage = *pair.storage;
        Reference& reference = pair.reference;
        const uint64 size = pair.size();
        const uint64 choice = below(1000);
        if (size > m_maximumSize || (choice < 5 && size > 0))
            return clear(pair);
        if (choice < 10)
            return reset(pair);
        if (choice < 430 || size == 0)
            return create(pair);
        if (choice < 470)
            return createMany(pair);
        if (choice < 800)
            return destroy(pair);
        if (choice < 860)
            return destroyList(pair);
        if (choice < 880)
            return destroyRange(pair);
        if (choice < 910)
            return batch(pair);
        if (choice < 940) {
            const uint64 i = below(size);
            const uint64 j = below(size);
            storage.swapInstances(i, j);
            reference.swap(i, j);
        } else if (choice < 950) {
            swapList(pair);
        } else if (choice < 960) {
            const uint64 i = below(size);
            const uint64 j = below(size);
            storage.swapInstanceIds(storage.getId(i), storage.getId(j));
            reference.swapIds(i, j);
        } else if (choice < 970) {
            reorder(pair);
        } else if (choice < 975) {
            const uint64 capacity = below(2 * m_maximumSize);
            storage.reserve(capacity);
            reference.grow(capacity);
        } else if (choice < 985) {
            resize(pair);
        } else {
            transfer(pair);
        }
    }

    void create(Pair& pair) {
        const uint64 index = pair.size();
        pair.reference.resize(index + 1);
        pair.expect({Create, pair.reference.ids()[index]});
        const EntityPtr instance = pair.storage->createInstance();
        EXPECT_EQ(instance.getId(), pair.reference.ids()[index]);
        if (below(4) != 0) // some keep the default values
            pair.fill(index, m_random);
    }

    void createMany(Pair& pair) {
        const uint64 begin = pair.size();
        const uint64 count = below(12);
        if (count != 0)
            pair.expect({CreateRange, begin, begin + count});
        pair.reference.resize(begin + count);
        EXPECT_EQ(pair.storage->createInstances(count),
                  EntityRange(pair.storage.get(), begin, begin + count));
        for (uint64 i = begin; i < begin + count; i += 2)
            pair.fill(i, m_random);
    }

    void destroy(Pair& pair) {
        const uint32 id = pair.reference.ids()[below(pair.size())];
        pair.expect({Destroy, id, pair.size()});
        pair.storage->destroyInstance(id);
        pair.reference.destroy(id);
    }

    void destroyList(Pair& pair) {
        const uint64 count = below(pair.size() + 3);
        std::vector<EntityPtr> instances;
        std::vector<uint64> indices;
        EventRow event{DestroyList, pair.size()};
        for (uint64 i = 0; i < count; ++i) {
            indices.push_back(below(pair.size()));
            instances.push_back(pair.storage->getInstance(indices.back()));
            event.push_back(instances.back().getId());
        }
        const bool tell = below(2) != 0;
        if (tell && count != 0)
            pair.expect(std::move(event));
        pair.storage->destroyInstances(instances.data(), count, tell);
        pair.reference.destroyIndices(indices);
    }

    void destroyRange(Pair& pair) {
        const uint64 begin = below(pair.size() + 1);
        const uint64 end = begin + below(pair.size() - begin + 1);
        std::vector<uint64> indices;
        for (uint64 i = begin; i < end; ++i)
            indices.push_back(i);
        if (begin != end)
            pair.expect({DestroyRange, begin, end, pair.size()});
        pair.storage->destroyInstances(EntityRange(pair.storage.get(), begin, end));
        pair.reference.destroyIndices(indices);
    }

    void batch(Pair& pair) {
        const uint64 begin = pair.size();
        const uint64 room = below(20);
        const uint64 used = room == 0 ? 0 : below(room + 1);
        if (below(2) == 0) {
            pair.storage->beginBatch();
            pair.storage->resize(begin + room);
            pair.reference.resize(begin + room);
        } else {
            pair.storage->getData()->presize(static_cast<uint32>(begin + room));
            pair.reference.resize((begin + room + 63) / 64 * 64);
            EXPECT_EQ(pair.storage->getData()->getNumElements(), begin);
        }
        for (uint64 i = begin; i < begin + used; ++i)
            pair.fill(i, m_random);
        if (used != 0)
            pair.expect({CreateRange, begin, begin + used});
        pair.storage->commitBatch(begin + used);
        pair.reference.resize(begin + used);
    }

    void swapList(Pair& pair) {
        zel::Vector<std::pair<uint32, uint32>> pairs;
        for (uint64 i = 0; i < 4; ++i)
            pairs.push_back(
                {static_cast<uint32>(below(pair.size())), static_cast<uint32>(below(pair.size()))});
        pair.storage->swapInstances(pairs);
        for (const auto& [i, j] : pairs)
            pair.reference.swap(i, j);
    }

    void reorder(Pair& pair) {
        zel::VectorPOD<uint32> permutation(pair.size());
        std::iota(permutation.begin(), permutation.end(), 0U);
        std::shuffle(permutation.begin(), permutation.end(), m_random);
        EventRow event{EventKind::Permute};
        event.insert(event.end(), permutation.begin(), permutation.end());
        pair.expect(std::move(event));
        pair.storage->reorder(permutation);
        pair.reference.reorder(permutation);
    }

    void resize(Pair& pair) {
        const uint64 old = pair.size();
        const uint64 n = below(m_maximumSize);
        if (n < old)
            pair.expect({DestroyRange, n, old, old});
        if (n > old)
            pair.expect({CreateRange, old, n});
        if (below(2) == 0)
            pair.storage->resize(n);
        else if (n != old)
            pair.storage->getSizeValue()->set(n);
        pair.reference.resize(n);
    }

    void transfer(Pair& pair) {
        Pair& target = m_pairs[&pair == &m_pairs[0] ? 1 : 0];
        const uint64 index = below(pair.size());
        const uint32 id = pair.reference.ids()[index];
        const Record record = pair.reference.at(index);
        const uint64 place = target.size();
        target.reference.resize(place + 1);
        target.reference.at(place) = record;
        target.expect({Create, target.reference.ids()[place]});
        pair.expect({Destroy, id, pair.size()});
        const EntityPtr moved = pair.storage->transferInstance(id, target.storage.get());
        EXPECT_EQ(moved, target.storage->getInstance(place));
        pair.reference.destroy(id);
    }

    void clear(Pair& pair) {
        if (pair.size() != 0)
            pair.expect({DestroyRange, 0, pair.size(), pair.size()});
        pair.storage->clear();
        pair.reference.resize(0);
    }

    void reset(Pair& pair) {
        if (pair.size() != 0)
            pair.expect({DestroyRange, 0, pair.size(), pair.size()});
        pair.storage->reset();
        pair.reference.reset();
    }

    std::mt19937 m_random;
    const uint64 m_maximumSize;
    Pair m_pairs[2];
};

class EntityStorageSoakTest : public zelTest::EntityFixture {
protected:
    EntityModel* loadModel() {
        EntityModel* model =
            entity("Body",
                   "<Attribute.Scalar name='mass' type='Real' value='5'/>"
                   "<Attribute.Scalar name='flags' type='UInt:32bit'/>"
                   "<Attribute.Scalar name='triple' type='UInt:32bit' value='9' numElements='3'/>"
                   "<Attribute.Scalar name='title' type='String'/>");
        const ref_ptr<zelData::Value> title(
            new zelData::Value("default", model->getAttribute("title")->getDefaultFormat()));
        const zel::String text = titleText(-1);
        title->set(&text);
        model->getAttribute("title")->setDefaultValue(title.get());
        return model;
    }
};

class EntityStorageModelTest : public EntityStorageSoakTest, public testing::WithParamInterface<unsigned> {};

} // namespace

TEST_P(EntityStorageModelTest, DoesWhatThePlainModelDoes) {
    // On one thread: the sanitizers find what there is in a fraction of the operations.
    const uint64 numOperations = 2'000'000 / (zelTest::StressDivisor * zelTest::StressDivisor);
    Driver(loadModel(), GetParam()).run(numOperations, 200);
}

INSTANTIATE_TEST_SUITE_P(Seeds, EntityStorageModelTest, testing::Range(1U, 21U));

TEST_F(EntityStorageSoakTest, DISABLED_DoesWhatThePlainModelDoes) {
    EntityModel* model = loadModel();
    zelTest::soak([model](unsigned seed) { Driver(model, seed).run(500'000, 250); });
}
