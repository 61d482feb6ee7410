#include "ParameterFixture.h"

#include <zel/HashTableComponent.h>

#include <map>
#include <random>

using testing::HasSubstr;
using zel::AbstractHashTableComponent;
using zel::Path;
using zel::ref_ptr;
using Table = zel::HashTableComponent<int, int, zel::HashFn<int>>;

namespace {

using HashTableComponentTest = zelTest::ParameterFixture;

} // namespace

TEST_F(HashTableComponentTest, ShowsItsContentAfterCommit) {
    const ref_ptr<Table> table(new Table("t"));
    table->insert(1, 10);
    table->insert(2, 20);
    table->insert(1, 11);
    EXPECT_EQ(table->getNumFilled(), 0U);
    table->commit();
    EXPECT_EQ(table->getNumFilled(), 2U);
    EXPECT_EQ(table->size(), 2U);
    EXPECT_EQ(*table->find(1), 11);
    EXPECT_EQ(table->find(3), nullptr);
    EXPECT_NE(table->getResource(Path("numFilled")), nullptr);
    EXPECT_NE(table->getResource(Path("maxProbeLength")), nullptr);
    EXPECT_EQ(table->getResource(Path("buckets")), table->getBuckets());
}

TEST_F(HashTableComponentTest, BucketsLieInTheBuffer) {
    const ref_ptr<Table> table(new Table("t"));
    for (int i = 0; i < 100; ++i)
        table->insert(i, i * i);
    table->commit();
    const zelData::Buffer* buffer = table->getBuckets();
    EXPECT_EQ(buffer->getElementSize(), sizeof(Table::Bucket));
    EXPECT_EQ(buffer->getFormat(), zelData::getGenericStructFormat(12));
    size_t filled = 0;
    for (zel::uint64 i = 0; i < buffer->size(); ++i) {
        const Table::Bucket& bucket = buffer->data<Table::Bucket>()[i];
        if (bucket.state == Table::Filled) {
            ++filled;
            EXPECT_EQ(bucket.value, bucket.key * bucket.key);
        }
    }
    EXPECT_EQ(filled, 100U);
}

TEST_F(HashTableComponentTest, SearchStaysWithinTheProbeLength) {
    const ref_ptr<Table> table(new Table("t"));
    for (int i = 0; i < 1000; ++i)
        table->insert(i * 64, i);
    table->commit();
    const zelData::Buffer* buffer = table->getBuckets();
    const auto* buckets = buffer->data<Table::Bucket>();
    for (int i = 0; i < 1000; ++i) {
        bool found = false;
        for (zel::uint64 k = 0; k <= table->getMaxProbeLength() && !found; ++k)
            found = buckets[(zel::HashFn<int>()(i * 64) + k) & (buffer->size() - 1)].key == i * 64;
        EXPECT_TRUE(found) << i;
    }
}

TEST_F(HashTableComponentTest, BehavesAsAMap) {
    std::mt19937 random(1);
    const ref_ptr<Table> table(new Table("t"));
    std::map<int, int> expected;
    for (int step = 0; step < 20'000; ++step) {
        const int key = static_cast<int>(random() % 500) - 250;
        switch (random() % 3) {
        case 0:
            EXPECT_EQ(table->erase(key), expected.erase(key) == 1);
            break;
        default:
            table->insert(key, step);
            expected[key] = step;
        }
        EXPECT_EQ(table->size(), expected.size());
    }
    for (int key = -250; key < 250; ++key) {
        const int* value = table->find(key);
        const auto position = expected.find(key);
        ASSERT_EQ(value != nullptr, position != expected.end()) << key;
        if (value != nullptr) {
            EXPECT_EQ(*value, position->second);
        }
    }
    table->clear();
    EXPECT_TRUE(table->empty());
    EXPECT_FALSE(table->contains(expected.begin()->first));
    table->insert(7, 8);
    EXPECT_EQ(*table->find(7), 8);
}

TEST_F(HashTableComponentTest, LoadsFromXml) {
    const ref_ptr<AbstractHashTableComponent> ints(AbstractHashTableComponent::load(
        parse("<Parameter.HashTable name='t' keyType='Int:32bit' valueType='Int:32bit'/>"), nullptr));
    auto* table = dynamic_cast<Table*>(ints.get());
    ASSERT_NE(table, nullptr);
    EXPECT_EQ(table->getName(), zel::Name("t"));
    table->insert(1, 2);
    const ref_ptr<AbstractHashTableComponent> other(AbstractHashTableComponent::load(
        parse("<Parameter.HashTable name='t' keyType='UInt:64bit' valueType='Vec3:32bit'/>"), nullptr));
    struct Bucket {
        zel::uint64 key;
        alignas(16) float value[4];
        zel::uint32 state;
    };
    EXPECT_EQ(other->getBuckets()->getElementSize(), sizeof(Bucket));
}

TEST_F(HashTableComponentTest, BadXmlFails) {
    const auto what = [this](const std::string& attributes) {
        return failure<AbstractHashTableComponent>("<Parameter.HashTable " + attributes + "/>");
    };
    EXPECT_THAT(what(""), HasSubstr("] XML error: Must specify a name for the hash table!. Error at row 2"));
    EXPECT_THAT(what("name='t'"),
                HasSubstr("] XML error: Must specify a key type for the hash table!. Error at row 2"));
    EXPECT_THAT(what("name='t' keyType='Int:32bit'"),
                HasSubstr("] XML error: Must specify a value type for the hash table!. Error at row 2"));
    EXPECT_THAT(what("name='t' keyType='Nonsense' valueType='Int:32bit'"),
                HasSubstr("] XML error: No format with name 'Nonsense'. Error at row 2"));
    EXPECT_THAT(what("name='t' keyType='Int:32bit' valueType='Odd&lt;Int&gt;'"),
                HasSubstr("] XML error: No format with name 'Odd<Int>'. Error at row 2"));
}
