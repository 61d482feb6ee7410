#include "ParameterFixture.h"

#include <zel/ArrayParameter.h>
#include <zel/EntityDataParameter.h>
#include <zel/GlobalResultStorage.h>
#include <zelData/EntityData.h>
#include <zelData/EntityStorageEvents.h>

using testing::ElementsAre;
using zel::ArrayParameter;
using zel::EntityDataParameter;
using zel::GlobalResult;
using zel::GlobalResultStorage;
using zel::ref_ptr;
using zelData::Buffer;
using zelData::EntityModel;
using zelData::EntityPtr;
using zelData::EntityStorage;
using zelData::getFormat;
using zelData::ScalarAttribute;
using zelData::ValueT;

namespace {

/// Tracks: an id, two numbers each, and a label with a default.
class GlobalResultStorageTest : public zelTest::ParameterFixture {
protected:
    void SetUp() override {
        ParameterFixture::SetUp();
        const ref_ptr<ValueT<double>> label(new ValueT<double>("label", 0.5));
        const ref_ptr<ValueT<zel::uint64>> two(new ValueT<zel::uint64>("two", 2));
        model = zelTest::makeEntity("Track",
                                    {new ScalarAttribute("number", getFormat("UInt:64bit")),
                                     new ScalarAttribute("ends", getFormat("Real:32bit"), nullptr, two.get()),
                                     new ScalarAttribute("label", getFormat("Real:64bit"), label.get()),
                                     new ScalarAttribute("name", getFormat("String"))});
        makeStorage();
    }
    void TearDown() override {
        parameter = nullptr;
        storage = nullptr;
        ParameterFixture::TearDown();
        model = nullptr;
    }
    void makeStorage() {
        if (parameter)
            task->removeObject(parameter.get());
        if (storage)
            top->removeObject(storage.get());
        storage = new EntityStorage(model.get(), "tracks");
        top->addObject(storage.get());
        parameter = add(new EntityDataParameter("p", model.get(), zelData::AccessMode::READ_WRITE, "tracks"));
    }
    void begin(zel::uint32 settings) {
        parameter->setGlobalResultMode(settings);
        beginAgain();
    }
    void beginAgain() {
        parameter->update();
        result = parameter->getGlobalResult();
    }
    Buffer* column(const char* name) { return storage->getBuffer(zel::Name(name)); }

    /// Appends tracks that are numbered from `first` on.
    void append(zel::uint64 first, size_t n, unsigned sortIndex = zel::InvalidIndex) {
        auto transaction = result->allocateResult(n);
        write(transaction, first);
        if (sortIndex != zel::InvalidIndex)
            result->setSortIndex(transaction, sortIndex);
        result->reportCompletedTransaction(&transaction);
    }
    void write(const GlobalResult::Transaction& transaction, zel::uint64 first) {
        auto* numbers = static_cast<zel::uint64*>(transaction.getElements(column("number")));
        auto* ends = static_cast<float*>(transaction.getElements(column("ends")));
        auto* names = static_cast<zel::String*>(transaction.getElements(column("name")));
        for (zel::uint64 i = 0; i < transaction.getRange().size(); ++i) {
            numbers[i] = first + i;
            ends[2 * i] = static_cast<float>(first + i);
            ends[2 * i + 1] = -static_cast<float>(first + i);
            names[i] = "the track with the number " + std::to_string(first + i);
        }
    }
    /// Whether all instances are whole, and those with the numbers, in that order.
    void expectTracks(const std::vector<zel::uint64>& numbers) {
        ASSERT_EQ(storage->size(), numbers.size());
        storage->verifyConsistency();
        EXPECT_FALSE(storage->isBatchOpen());
        EXPECT_EQ(storage->getSizeValue()->get(), numbers.size());
        EXPECT_EQ(storage->getCapacityValue()->get(), storage->capacity());
        EXPECT_EQ(storage->getData()->getNumElements(), numbers.size());
        for (const ref_ptr<Buffer>& buffer : storage->getBuffers()) {
            EXPECT_EQ(buffer->size(), numbers.size() * buffer->getElementArraySize()) << buffer->getName();
            EXPECT_GE(buffer->capacity(), storage->capacity()) << buffer->getName();
        }
        for (size_t i = 0; i < numbers.size(); ++i) {
            EXPECT_EQ(column("number")->data<zel::uint64>()[i], numbers[i]);
            EXPECT_EQ(column("ends")->data<float>()[2 * i], static_cast<float>(numbers[i]));
            EXPECT_EQ(column("ends")->data<float>()[2 * i + 1], -static_cast<float>(numbers[i]));
            EXPECT_EQ(column("label")->data<double>()[i], 0.5) << "nobody wrote it: " << i;
            EXPECT_EQ(column("name")->data<zel::String>()[i],
                      "the track with the number " + std::to_string(numbers[i]));
        }
    }
    static std::vector<zel::uint64> numbers(zel::uint64 first, zel::uint64 n) {
        std::vector<zel::uint64> result;
        for (zel::uint64 i = 0; i < n; ++i)
            result.push_back(first + i);
        return result;
    }

    ref_ptr<EntityModel> model;
    ref_ptr<EntityStorage> storage;
    ref_ptr<EntityDataParameter> parameter;
    GlobalResultStorage* result = nullptr;
};
using GlobalResultStorageDeathTest = GlobalResultStorageTest;

struct Events : EntityStorage::EventListener {
    using EntityStorage::EventListener::createInstancesCallback;
    using EntityStorage::EventListener::destroyInstancesCallback;
    void createInstancesCallback(EntityStorage*, zelData::EntityRange range) override {
        log.push_back("create " + std::to_string(range.begin()) + " " + std::to_string(range.end()));
    }
    void destroyInstancesCallback(EntityStorage*, zelData::EntityRange range) override {
        log.push_back("destroy " + std::to_string(range.begin()) + " " + std::to_string(range.end()));
    }
    void permuteCallback(EntityStorage*, zelData::Array<zel::uint32> permutation) override {
        log.push_back("permute " + std::to_string(permutation.size()));
    }
    std::vector<std::string> log;
};

} // namespace

TEST_F(GlobalResultStorageTest, AppendsInstances) {
    begin(GlobalResult::TRUNCATE);
    EXPECT_EQ(result->getCapacity(), 64U);
    append(1, 10);
    append(11, 5);
    parameter->commit();
    EXPECT_EQ(result->getNumOverflows(), 0U);
    expectTracks(numbers(1, 15));
}

TEST_F(GlobalResultStorageTest, OverflowIsInvisibleWhereverItComes) {
    const std::vector<std::vector<size_t>> runs = {
        {100}, {100, 1}, {30, 30, 30, 30}, {64, 1}, {63, 1, 1}, {10, 100, 1000, 3000}};
    for (const std::vector<size_t>& sizes : runs) {
        makeStorage();
        begin(GlobalResult::TRUNCATE);
        zel::uint64 n = 0;
        for (const size_t size : sizes) {
            append(1 + n, size);
            n += size;
        }
        EXPECT_GT(result->getNumOverflows(), 0U);
        parameter->commit();
        expectTracks(numbers(1, n));
    }
}

TEST_F(GlobalResultStorageTest, TruncateBeginsAnew) {
    begin(GlobalResult::TRUNCATE);
    append(1, 200);
    parameter->commit();
    for (const size_t n : {200U, 3U, 0U, 1000U}) {
        beginAgain();
        append(500, n);
        parameter->commit();
        expectTracks(numbers(500, n));
    }
}

TEST_F(GlobalResultStorageTest, AppendGoesOnAndKeepsHandles) {
    const EntityPtr first = storage->createInstance();
    const EntityPtr second = storage->createInstance();
    for (const zel::uint64 i : {0U, 1U}) {
        column("number")->data<zel::uint64>()[i] = 2 - i;
        column("ends")->data<float>()[2 * i] = static_cast<float>(2 - i);
        column("ends")->data<float>()[2 * i + 1] = -static_cast<float>(2 - i);
        column("name")->data<zel::String>()[i] = "the track with the number " + std::to_string(2 - i);
    }
    storage->swapInstances(0, 1); // the ids are not the indices
    begin(GlobalResult::APPEND);
    append(3, 100);
    append(103, 1000);
    EXPECT_GT(result->getNumOverflows(), 0U);
    parameter->commit();
    expectTracks(numbers(1, 1102));
    EXPECT_EQ(first.getIndex(), 1U);
    EXPECT_EQ(second.getIndex(), 0U);
    beginAgain();
    append(1103, 20);
    parameter->commit();
    expectTracks(numbers(1, 1122));
    storage->destroyInstance(first.getId());
    storage->verifyConsistency();
}

TEST_F(GlobalResultStorageTest, FreeIdsSurviveAnOverflow) {
    storage->createInstances(50);
    for (const zel::uint32 id : {3U, 40U, 7U})
        storage->destroyInstance(id);
    begin(GlobalResult::APPEND);
    append(1, 500);
    parameter->commit();
    storage->verifyConsistency();
    EXPECT_EQ(storage->size(), 547U);
    storage->clear();
    storage->createInstances(547);
    storage->verifyConsistency();
}

TEST_F(GlobalResultStorageTest, SizeStaysWhileJobsAppend) {
    storage->createInstances(10);
    begin(GlobalResult::APPEND);
    append(1, 300);
    EXPECT_EQ(storage->getSizeValue()->get(), 10U);
    EXPECT_EQ(storage->getData()->getNumElements(), 10U);
    parameter->commit();
    EXPECT_EQ(storage->getSizeValue()->get(), 310U);
    begin(GlobalResult::TRUNCATE);
    EXPECT_EQ(storage->getSizeValue()->get(), 0U);
    append(1, 310);
    parameter->commit();
    expectTracks(numbers(1, 310));
}

TEST_F(GlobalResultStorageTest, RoomyStorageKeepsItsIds) {
    storage->reserve(10'000);
    begin(GlobalResult::TRUNCATE);
    EXPECT_EQ(result->getCapacity(), 64U);
    append(1, 100);
    EXPECT_EQ(result->getCapacity(), 10'000U) << "never below what the storage has";
    parameter->commit();
    expectTracks(numbers(1, 100));
    EXPECT_EQ(storage->capacity(), 10'000U);
}

TEST_F(GlobalResultStorageTest, WritersThatWereCaughtByAMoveAreMended) {
    begin(GlobalResult::TRUNCATE);
    auto old = result->allocateResult(10);
    auto again = result->allocateResult(10);
    write(again, 900);
    append(21, 100);
    result->reportFailedTransaction(&again);
    write(again, 11);
    append(121, 1000);
    write(old, 1);
    result->reportCompletedTransaction(&old);
    result->reportCompletedTransaction(&again);
    parameter->commit();
    expectTracks(numbers(1, 1120));
}

TEST_F(GlobalResultStorageTest, SortsByTheIndexOfTheJob) {
    for (const size_t size : {10U, 100U}) { // without and with overflows
        makeStorage();
        begin(GlobalResult::TRUNCATE);
        parameter->prepareGlobalResultSorting(5);
        for (const unsigned job : {3U, 0U, 4U, 2U, 1U})
            append(1 + job * size, size, job);
        parameter->commit();
        expectTracks(numbers(1, 5 * size));
    }
}

TEST_F(GlobalResultStorageTest, CommitFillsOneColumn) {
    begin(GlobalResult::TRUNCATE);
    const ref_ptr<ArrayParameter> child(
        new ArrayParameter("number", getFormat("UInt:64bit"), zelData::AccessMode::WRITE));
    parameter->addChildParameter(child.get());
    std::vector<zel::uint64> data = numbers(1, 100);
    result->commit(child->getArray(), data.size(), data.data());
    parameter->commit();
    EXPECT_EQ(storage->size(), 100U);
    EXPECT_EQ(column("number")->data<zel::uint64>()[99], 100U);
    EXPECT_EQ(column("label")->data<double>()[99], 0.5);
    EXPECT_EQ(child->getArray().ptr(), column("number")->getPtr());
    EXPECT_EQ(child->getArray().size(), 100U);
    storage->verifyConsistency();
}

TEST_F(GlobalResultStorageTest, ListenersLearnOfTheInstancesAtTheEnd) {
    Events events;
    storage->addListener(&events);
    begin(GlobalResult::TRUNCATE);
    parameter->prepareGlobalResultSorting(2);
    append(1, 50, 1);
    append(51, 100, 0);
    EXPECT_TRUE(events.log.empty());
    parameter->commit();
    EXPECT_THAT(events.log, ElementsAre("create 0 150", "permute 150"));
    events.log.clear();
    beginAgain();
    append(1, 3);
    parameter->commit();
    EXPECT_THAT(events.log, ElementsAre("destroy 0 150", "create 0 3"));
    storage->removeListener(&events);
}

TEST_F(GlobalResultStorageTest, ViewsFollow) {
    begin(GlobalResult::APPEND);
    append(1, 1000);
    parameter->commit();
    const ref_ptr<ArrayParameter> child(new ArrayParameter("number", getFormat("UInt:64bit")));
    parameter->addChildParameter(child.get());
    EXPECT_EQ(child->getArray().size(), 1000U);
}

TEST_F(GlobalResultStorageTest, StorageWithoutHandlesTakesResultsToo) {
    storage->setUseInstanceTable(false);
    begin(GlobalResult::APPEND);
    append(1, 500);
    parameter->commit();
    ASSERT_EQ(storage->size(), 500U);
    EXPECT_EQ(column("number")->data<zel::uint64>()[499], 500U);
    EXPECT_GE(storage->capacity(), 500U);
}

TEST_F(GlobalResultStorageTest, StorageThatSharesItsColumnsTellsTheOther) {
    const ref_ptr<EntityStorage> shared(storage->createSharedStorage());
    begin(GlobalResult::APPEND);
    append(1, 500);
    parameter->commit();
    expectTracks(numbers(1, 500));
    EXPECT_EQ(shared->size(), 500U);
    shared->verifyConsistency();
}

TEST_F(GlobalResultStorageDeathTest, StorageOverTheColumnsOfAnotherIsRefused) {
    const ref_ptr<EntityStorage> shared(storage->createSharedStorage());
    parameter->unbind();
    parameter->setGlobalResultMode(GlobalResult::APPEND);
    EXPECT_DEATH(parameter->bind(shared.get()), "shows the columns of another one");
}

TEST_F(GlobalResultStorageDeathTest, SettingsAreOneOfTwo) {
    EXPECT_DEATH(parameter->setGlobalResultMode(3), "top.task.p: Can not use both TRUNCATE and APPEND!");
    EXPECT_DEATH(parameter->setGlobalResultMode(4), "top.task.p: Must specify either TRUNCATE or APPEND!");
}

TEST_F(GlobalResultStorageDeathTest, OpenTransactionEndsTheProcess) {
    begin(GlobalResult::TRUNCATE);
    static_cast<void>(result->allocateResult(1));
    EXPECT_DEATH(
        parameter->commit(),
        "top.task.p: All transactions where not successfully completed! \\(1 created, 0 completed\\)");
}
