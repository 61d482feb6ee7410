#include "ParameterFixture.h"

#include <zel/ArrayParameter.h>
#include <zel/GlobalResultBuffer.h>

using testing::ElementsAre;
using zel::GlobalResult;
using zel::GlobalResultBuffer;
using zel::IndexRange;
using zel::ref_ptr;
using zelData::AbstractArray;
using zelData::Buffer;
using zelData::getFormat;

namespace {

/// A result that goes to a buffer of numbers, and what is expected there.
class GlobalResultTest : public testing::Test {
protected:
    void SetUp() override {
        testing::FLAGS_gtest_death_test_style = "threadsafe";
        zelCore::init();
        buffer = new Buffer("b", getFormat("UInt:64bit"));
        begin(GlobalResult::TRUNCATE);
    }
    void TearDown() override {
        result = nullptr;
        buffer = nullptr;
        zelCore::shutdown();
    }
    /// A fresh result over the buffer, in a run.
    void begin(zel::uint32 settings) {
        result = new GlobalResultBuffer(settings, "task.p", buffer.get());
        beginAgain();
    }
    void beginAgain() {
        result->prepare(nullptr);
        array.bind(buffer.get(), {0, 0});
        expected.clear();
    }
    /// Commits n numbers that have not been seen yet.
    void commit(size_t n, unsigned sortIndex = zel::InvalidIndex) {
        const std::vector<zel::uint64> data = fresh(n);
        result->commit(array, n, data.data(), sortIndex);
    }
    std::vector<zel::uint64> fresh(size_t n) {
        std::vector<zel::uint64> data(n);
        for (zel::uint64& number : data)
            expected.push_back(number = ++last);
        return data;
    }
    [[nodiscard]] std::vector<zel::uint64> content() const {
        return {buffer->data<zel::uint64>(), buffer->data<zel::uint64>() + buffer->size()};
    }
    void write(const GlobalResult::Transaction& transaction, const std::vector<zel::uint64>& data) const {
        std::copy(data.begin(), data.end(), static_cast<zel::uint64*>(transaction.getElements(array)));
    }

    ref_ptr<Buffer> buffer;
    ref_ptr<GlobalResultBuffer> result;
    AbstractArray array;
    std::vector<zel::uint64> expected;
    zel::uint64 last = 0;
};
using GlobalResultDeathTest = GlobalResultTest;

} // namespace

TEST_F(GlobalResultTest, CapacityGrowsByTwiceWhatIsNeeded) {
    EXPECT_EQ(GlobalResult::calculateIncreasedCapacity(0, 0), 0U);
    EXPECT_EQ(GlobalResult::calculateIncreasedCapacity(0, 1), 64U);
    EXPECT_EQ(GlobalResult::calculateIncreasedCapacity(64, 65), 256U);
    EXPECT_EQ(GlobalResult::calculateIncreasedCapacity(64, 64), 192U);
}

TEST_F(GlobalResultTest, CommitsAppend) {
    EXPECT_EQ(result->getCapacity(), 64U);
    commit(3);
    commit(0);
    commit(2);
    result->finalize();
    EXPECT_EQ(content(), expected);
    EXPECT_EQ(result->getNumOverflows(), 0U);
}

TEST_F(GlobalResultTest, RunWithoutCommitsIsEmpty) {
    result->finalize();
    EXPECT_TRUE(buffer->empty());
}

TEST_F(GlobalResultTest, OverflowIsInvisibleWhereverItComes) {
    const std::vector<std::vector<size_t>> runs = {
        {100},                    // the first commit
        {100, 1},                 //
        {30, 30, 30, 30},         // in the middle, across the end
        {64, 1},                  // behind a full one, the last commit
        {63, 1, 1},               //
        {10, 100, 1000, 10'000},  // several in a row
        {1, 200, 1, 800, 1, 3000} //
    };
    for (const std::vector<size_t>& sizes : runs) {
        buffer = new Buffer("b", getFormat("UInt:64bit"));
        begin(GlobalResult::TRUNCATE);
        for (const size_t n : sizes)
            commit(n);
        EXPECT_GT(result->getNumOverflows(), 0U);
        result->finalize();
        EXPECT_EQ(content(), expected);
    }
}

TEST_F(GlobalResultTest, OverflowMakesANewSet) {
    EXPECT_EQ(result->getSetIndex(), 0U);
    commit(65);
    EXPECT_EQ(result->getSetIndex(), 1U);
    EXPECT_EQ(result->getNumOverflows(), 1U);
    EXPECT_EQ(result->getCapacity(), 256U);
    result->finalize();
    EXPECT_EQ(buffer->capacity(), 256U);
    result->prepare(nullptr);
    EXPECT_EQ(result->getNumOverflows(), 0U);
    EXPECT_EQ(result->getSetIndex(), 0U);
    result->finalize();
}

TEST_F(GlobalResultTest, TruncateBeginsAnewAndAppendGoesOn) {
    commit(3);
    result->finalize();
    beginAgain();
    commit(2);
    result->finalize();
    EXPECT_EQ(content(), expected);
    const std::vector<zel::uint64> old = content();
    begin(GlobalResult::APPEND);
    expected = old;
    commit(200);
    commit(1);
    result->finalize();
    EXPECT_EQ(content(), expected);
    EXPECT_GT(result->getNumOverflows(), 0U);
}

TEST_F(GlobalResultTest, ElementsThatOwnMemorySurviveOverflows) {
    for (const zel::uint32 settings : {GlobalResult::TRUNCATE, GlobalResult::APPEND}) {
        const ref_ptr<Buffer> texts(new Buffer("t", getFormat("String")));
        texts->resize(2);
        const ref_ptr<GlobalResultBuffer> strings(new GlobalResultBuffer(settings, "p", texts.get()));
        std::vector<std::string> all(settings == GlobalResult::APPEND ? 2 : 0);
        strings->prepare(nullptr);
        const zelData::Array<zel::String> view(texts.get(), {0, 0});
        strings->prepareResultSorting(50);
        for (unsigned i = 0; i < 50; ++i) {
            const zel::String some[3] = {
                zel::String("a text that is too long for its object " + std::to_string(i)),
                zel::String("b"),
                zel::String(std::to_string(i))};
            strings->commit(view, 3, some, 49 - i);
            all.insert(all.begin() + (settings == GlobalResult::APPEND ? 2 : 0), some, some + 3);
        }
        EXPECT_GT(strings->getNumOverflows(), 0U);
        strings->finalize();
        ASSERT_EQ(texts->size(), all.size());
        for (size_t i = 0; i < all.size(); ++i)
            EXPECT_EQ(texts->data<zel::String>()[i], all[i]);
    }
}

// Transactions

TEST_F(GlobalResultTest, TransactionIsARangeToWrite) {
    auto transaction = result->allocateResult(5);
    EXPECT_EQ(transaction.getRange(), IndexRange(0, 5));
    EXPECT_EQ(transaction.getSetIndex(), 0U);
    EXPECT_EQ(transaction.getResult(), result.get());
    write(transaction, fresh(5));
    result->reportCompletedTransaction(&transaction);
    result->finalize();
    EXPECT_EQ(content(), expected);
}

TEST_F(GlobalResultTest, WriterThatWasCaughtByAMoveGoesOnInOldMemory) {
    auto early = result->allocateResult(10);
    const std::vector<zel::uint64> data = fresh(10);
    commit(100);
    commit(1000);
    EXPECT_EQ(result->getSetIndex(), 2U);
    EXPECT_EQ(early.getSetIndex(), 0U);
    write(early, data);
    result->reportCompletedTransaction(&early);
    result->finalize();
    EXPECT_EQ(content(), expected);
}

TEST_F(GlobalResultTest, FailedTransactionIsWrittenAgainInTheNewestMemory) {
    auto early = result->allocateResult(10);
    const std::vector<zel::uint64> data = fresh(10);
    write(early, std::vector<zel::uint64>(10, 999)); // what is given up
    commit(100);
    result->reportFailedTransaction(&early);
    EXPECT_EQ(early.getSetIndex(), 1U);
    write(early, std::vector<zel::uint64>(10, 888)); // and once more
    commit(1000);
    result->reportFailedTransaction(&early);
    EXPECT_EQ(early.getSetIndex(), 2U);
    write(early, data);
    result->reportFailedTransaction(&early); // nothing has moved
    EXPECT_EQ(early.getSetIndex(), 2U);
    result->reportCompletedTransaction(&early);
    result->finalize();
    EXPECT_EQ(content(), expected);
}

TEST_F(GlobalResultTest, FailedTransactionMayEndInAMiddleSet) {
    auto early = result->allocateResult(10);
    const std::vector<zel::uint64> data = fresh(10);
    write(early, std::vector<zel::uint64>(10, 999));
    commit(100);
    result->reportFailedTransaction(&early);
    write(early, data);
    commit(1000);
    commit(10'000);
    result->reportCompletedTransaction(&early);
    result->finalize();
    EXPECT_EQ(content(), expected);
}

TEST_F(GlobalResultTest, RangeAcrossTheEndLiesInTheNewMemory) {
    commit(60);
    auto across = result->allocateResult(8);
    EXPECT_EQ(across.getRange(), IndexRange(60, 68));
    EXPECT_EQ(across.getSetIndex(), 1U);
    write(across, fresh(8));
    result->reportCompletedTransaction(&across);
    commit(5000);
    result->finalize();
    EXPECT_EQ(content(), expected);
}

TEST_F(GlobalResultTest, CommitsDoNotCountAsTransactions) {
    commit(3);
    auto transaction = result->allocateResult(1);
    write(transaction, fresh(1));
    result->reportCompletedTransaction(&transaction);
    commit(100);
    result->finalize(); // would fail if they did
    EXPECT_EQ(content(), expected);
}

// Sorting

TEST_F(GlobalResultTest, SortsByTheIndexOfTheJob) {
    result->prepareResultSorting(4);
    const zel::uint64 a[] = {30, 31};
    const zel::uint64 b[] = {10};
    const zel::uint64 c[] = {0, 1, 2};
    result->commit(array, 2, a, 3);
    result->commit(array, 1, b, 1);
    result->commit(array, 3, c, 0);
    result->finalize();
    EXPECT_THAT(content(), ElementsAre(0U, 1U, 2U, 10U, 30U, 31U));
}

TEST_F(GlobalResultTest, SortingLeavesWhatWasThereAlone) {
    commit(2);
    result->finalize();
    begin(GlobalResult::APPEND);
    result->prepareResultSorting(2);
    const zel::uint64 second[] = {200};
    const zel::uint64 first[] = {100};
    result->commit(array, 1, second, 1);
    result->commit(array, 1, first, 0);
    result->finalize();
    EXPECT_THAT(content(), ElementsAre(1U, 2U, 100U, 200U));
}

TEST_F(GlobalResultTest, WithoutIndicesNothingIsSorted) {
    result->prepareResultSorting(2);
    commit(5);
    result->finalize();
    EXPECT_EQ(content(), expected);
}

TEST_F(GlobalResultTest, TransactionsAreSortedToo) {
    result->prepareResultSorting(2);
    auto late = result->allocateResult(1);
    write(late, {7});
    result->setSortIndex(late, 1);
    auto early = result->allocateResult(2);
    write(early, {3, 4});
    result->setSortIndex(early, 0);
    result->reportCompletedTransaction(&late);
    result->reportCompletedTransaction(&early);
    result->finalize();
    EXPECT_THAT(content(), ElementsAre(3U, 4U, 7U));
}

TEST_F(GlobalResultTest, EachRunIsSortedByItself) {
    for (const unsigned jobs : {10U, 100U, 3U}) {
        result->prepareResultSorting(jobs);
        for (unsigned i = jobs; i-- > 0;) {
            const zel::uint64 number = i;
            result->commit(array, 1, &number, i);
        }
        result->finalize();
        ASSERT_EQ(buffer->size(), jobs);
        for (unsigned i = 0; i < jobs; ++i)
            EXPECT_EQ(content()[i], i);
        result->prepare(nullptr);
    }
    result->finalize();
}

TEST_F(GlobalResultTest, EntriesOfSeveralElementsStayTogether) {
    const ref_ptr<Buffer> pairs(new Buffer("pairs", getFormat("UInt:64bit")));
    const zelData::ValueT<zel::uint64> two("two", 2);
    pairs->setElementArraySize(&two);
    const ref_ptr<GlobalResultBuffer> target(
        new GlobalResultBuffer(GlobalResult::TRUNCATE, "p", pairs.get()));
    target->prepare(nullptr);
    target->prepareResultSorting(100);
    AbstractArray view;
    view.bind(pairs.get(), {0, 0});
    for (unsigned i = 100; i-- > 0;) {
        const zel::uint64 pair[] = {i, 1000 + i};
        target->commit(view, 1, pair, i);
    }
    EXPECT_GT(target->getNumOverflows(), 0U);
    target->finalize();
    ASSERT_EQ(pairs->size(), 200U);
    for (unsigned i = 0; i < 100; ++i) {
        EXPECT_EQ(pairs->data<zel::uint64>()[2 * i], i);
        EXPECT_EQ(pairs->data<zel::uint64>()[2 * i + 1], 1000 + i);
    }
}

// Estimate

TEST_F(GlobalResultTest, RoomFollowsWhatTheLastRunNeeded) {
    commit(1000);
    EXPECT_EQ(result->getNumOverflows(), 1U);
    result->finalize();
    for (int i = 0; i < 3; ++i) {
        beginAgain();
        EXPECT_GE(result->getCapacity(), 1000U);
        EXPECT_EQ(result->getCapacity() % 64, 0U);
        commit(1000);
        EXPECT_EQ(result->getNumOverflows(), 0U);
        result->finalize();
        EXPECT_EQ(content(), expected);
    }
}

TEST_F(GlobalResultTest, EstimateIsAMeanTowards32ThatNeverFallsBelowWhatThereIs) {
    EXPECT_EQ(result->getCapacityEstimate(), 32.0);
    commit(1000);
    result->finalize();
    result->prepare(nullptr);
    EXPECT_EQ(result->getCapacityEstimate(), 1000.0);
    result->finalize();
    result->prepare(nullptr);
    EXPECT_DOUBLE_EQ(result->getCapacityEstimate(), 0.85 * 1000 + 4.8);
    result->finalize();
    for (int i = 0; i < 200; ++i) {
        result->prepare(nullptr);
        result->finalize();
    }
    EXPECT_NEAR(result->getCapacityEstimate(), 32.0, 1e-6);
}

TEST_F(GlobalResultTest, ListenersLearnOfTheFinalSizeOnly) {
    struct Sizes : Buffer::EventListener {
        void resizeCallback(Buffer*, unsigned int oldSize, unsigned int newSize) override {
            sizes.emplace_back(oldSize, newSize);
        }
        std::vector<std::pair<unsigned, unsigned>> sizes;
    } listener;
    buffer->addListener(&listener);
    commit(100);
    result->finalize();
    beginAgain();
    commit(7);
    result->finalize();
    EXPECT_THAT(listener.sizes, ElementsAre(std::pair(0U, 100U), std::pair(100U, 7U)));
    EXPECT_EQ(buffer->getNumElementsValue()->get(), 7U);
    buffer->removeListener(&listener);
}

TEST_F(GlobalResultTest, RunThatIsGivenUpLeaksNothing) {
    commit(100);
    result = nullptr; // with an overflow buffer
}

// Through the parameter

TEST_F(GlobalResultTest, ParameterRunsIt) {
    const ref_ptr<zel::SerialTask> task(new zel::SerialTask("task"));
    const ref_ptr<zel::ArrayParameter> parameter(
        new zel::ArrayParameter("p", getFormat("UInt:64bit"), zelData::AccessMode::WRITE));
    parameter->setTask(task.get(), 0);
    parameter->setGlobalResultMode(GlobalResult::TRUNCATE);
    parameter->bind(buffer.get());
    for (int run = 0; run < 3; ++run) {
        parameter->update();
        parameter->prepareGlobalResultSorting(2);
        const zel::uint64 late = 2;
        const zel::uint64 early[] = {0, 1};
        parameter->getGlobalResult()->commit(parameter->getArray(), 1, &late, 1);
        parameter->getGlobalResult()->commit(parameter->getArray(), 2, early, 0);
        parameter->commit();
        EXPECT_THAT(content(), ElementsAre(0U, 1U, 2U));
        EXPECT_EQ(parameter->getArray().size(), 3U);
        EXPECT_EQ(parameter->getArray().ptr(), buffer->getPtr());
    }
}

// What ends the process

TEST_F(GlobalResultDeathTest, SettingsAreOneOfTwo) {
    EXPECT_DEATH(GlobalResultBuffer(0, "task.p", buffer.get()),
                 "task.p: Must specify either TRUNCATE or APPEND!");
    EXPECT_DEATH(GlobalResultBuffer(0, "task.p", buffer.get()),
                 "zelVerify failed: `\\(\\(settings & TRUNCATE\\) \\|\\| \\(settings & APPEND\\)\\)'");
    EXPECT_DEATH(GlobalResultBuffer(3, "task.p", buffer.get()),
                 "task.p: Can not use both TRUNCATE and APPEND!");
    EXPECT_DEATH(GlobalResultBuffer(3, "task.p", buffer.get()),
                 "zelVerify failed: `!\\(\\(settings & TRUNCATE\\) && \\(settings & APPEND\\)\\)'");
}

TEST_F(GlobalResultDeathTest, OpenTransactionEndsTheProcess) {
    static_cast<void>(result->allocateResult(1));
    auto second = result->allocateResult(1);
    result->reportCompletedTransaction(&second);
    EXPECT_DEATH(result->finalize(),
                 "zelVerify failed: `m_numTransactions.load\\(\\) == m_numCompletedTransactions.load\\(\\)'.*"
                 "task.p: All transactions where not successfully completed! \\(2 created, 1 completed\\)");
}

TEST_F(GlobalResultDeathTest, SecondCommitOfAJobEndsTheProcess) {
    result->prepareResultSorting(1);
    commit(1, 0);
    commit(1, 0);
    EXPECT_DEATH(result->finalize(), "zelVerify failed: `offset == range.end\\(\\)'");
}

TEST_F(GlobalResultDeathTest, MisuseEndsTheProcess) {
    result->prepareResultSorting(1);
    EXPECT_DEATH(commit(1, 1), "task.p: The sort index 1 is not below the number of jobs, 1");
    const ref_ptr<Buffer> other(new Buffer("other", getFormat("UInt:64bit")));
    AbstractArray view;
    view.bind(other.get(), {0, 0});
    const zel::uint64 number = 1;
    EXPECT_DEATH(result->commit(view, 1, &number), "task.p: The buffer 'other' is no part of the result");
    unsigned wrong[] = {0};
    EXPECT_DEATH(result->sortResult(zelData::Array<unsigned>(wrong, 1)),
                 "zelVerify failed: `permutation.size\\(\\) == m_target->size\\(\\)'");
}
