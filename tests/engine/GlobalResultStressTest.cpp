// Many threads append to one target that overflows again and again.
#include "ParameterFixture.h"

#include <zel/EntityDataParameter.h>
#include <zel/GlobalResultBuffer.h>
#include <zel/GlobalResultStorage.h>

#include <support/Stress.h>

#include <algorithm>
#include <atomic>

using zel::GlobalResult;
using zel::GlobalResultBuffer;
using zel::ref_ptr;
using zel::uint64;
using zelData::Buffer;
using zelData::getFormat;
using zelTest::onThreads;

namespace {

using GlobalResultStressTest = zelTest::ParameterFixture;

constexpr unsigned NumJobs = 300;

/// What a job brings: as many numbers as the seed and the job say, all of them different.
std::vector<uint64> resultOf(unsigned job, unsigned seed) {
    std::mt19937 random(seed ^ (job * 2654435761U));
    std::vector<uint64> data(random() % 100);
    for (size_t i = 0; i < data.size(); ++i)
        data[i] = (uint64{job} << 32U) | i;
    return data;
}

std::vector<uint64> expectedResult(unsigned seed) {
    std::vector<uint64> all;
    for (unsigned job = 0; job < NumJobs; ++job) {
        const std::vector<uint64> part = resultOf(job, seed);
        all.insert(all.end(), part.begin(), part.end());
    }
    return all;
}

/// Runs work(job) once for each job, on so many threads.
template <typename Work>
void runJobs(size_t numThreads, const Work& work) {
    std::atomic<unsigned> next{0};
    onThreads(numThreads, 1, [&](size_t, std::mt19937&) {
        for (unsigned job = next.fetch_add(1); job < NumJobs; job = next.fetch_add(1))
            work(job);
    });
}

std::vector<uint64> contentOf(const Buffer* buffer) {
    return {buffer->data<uint64>(), buffer->data<uint64>() + buffer->size()};
}

} // namespace

TEST_F(GlobalResultStressTest, NothingIsLostAndSortedResultsAreEqualForAnyNumberOfThreads) {
    const unsigned seed = zelTest::stressSeed();
    const std::vector<uint64> expected = expectedResult(seed);
    for (size_t round = 0; round < 10 / zelTest::StressDivisor; ++round)
        for (const size_t numThreads : {1U, 2U, 4U, 16U})
            for (const bool sorted : {false, true}) {
                const ref_ptr<Buffer> buffer(new Buffer("b", getFormat("UInt:64bit")));
                const ref_ptr<GlobalResultBuffer> result(
                    new GlobalResultBuffer(GlobalResult::TRUNCATE, "p", buffer.get()));
                result->prepare(nullptr);
                result->prepareResultSorting(NumJobs);
                zelData::AbstractArray array;
                array.bind(buffer.get(), {0, 0});
                runJobs(numThreads, [&](unsigned job) {
                    const std::vector<uint64> data = resultOf(job, seed);
                    result->commit(array, data.size(), data.data(), sorted ? job : zel::InvalidIndex);
                });
                EXPECT_GT(result->getNumOverflows(), 1U);
                result->finalize();
                std::vector<uint64> content = contentOf(buffer.get());
                if (!sorted)
                    std::sort(content.begin(), content.end());
                ASSERT_EQ(content, expected) << numThreads << " threads";
            }
}

TEST_F(GlobalResultStressTest, TwoThreadsOverflowAtOnce) {
    for (size_t round = 0; round < 300 / zelTest::StressDivisor; ++round) {
        const ref_ptr<Buffer> buffer(new Buffer("b", getFormat("UInt:64bit")));
        const ref_ptr<GlobalResultBuffer> result(
            new GlobalResultBuffer(GlobalResult::APPEND, "p", buffer.get()));
        result->prepare(nullptr);
        zelData::AbstractArray array;
        array.bind(buffer.get(), {0, 0});
        std::atomic<unsigned> ready{0};
        onThreads(2, 1, [&](size_t thread, std::mt19937&) {
            const std::vector<uint64> data(70, thread); // more than there is room for
            ready.fetch_add(1);
            while (ready.load() < 2) {
            }
            result->commit(array, data.size(), data.data());
        });
        result->finalize();
        std::vector<uint64> content = contentOf(buffer.get());
        ASSERT_EQ(content.size(), 140U);
        EXPECT_EQ(std::count(content.begin(), content.end(), 0U), 70);
        EXPECT_TRUE(std::is_sorted(content.begin(), content.end()) ||
                    std::is_sorted(content.rbegin(), content.rend()))
            << "each in one piece";
    }
}

TEST_F(GlobalResultStressTest, TransactionsOverSeveralColumnsOfAStorage) {
    const unsigned seed = zelTest::stressSeed();
    const std::vector<uint64> expected = expectedResult(seed);
    const auto model = zelTest::makeEntity("Track",
                                           {new zelData::ScalarAttribute("number", getFormat("UInt:64bit")),
                                            new zelData::ScalarAttribute("half", getFormat("Real:64bit"))});
    for (const size_t numThreads : {1U, 2U, 4U, 16U}) {
        const ref_ptr<zelData::EntityStorage> storage(new zelData::EntityStorage(model.get(), "tracks"));
        const ref_ptr<zel::GlobalResultStorage> result(
            new zel::GlobalResultStorage(GlobalResult::TRUNCATE, "p", storage.get()));
        const Buffer* numbers = storage->getBuffer(zel::Name("number"));
        const Buffer* halves = storage->getBuffer(zel::Name("half"));
        for (int run = 0; run < 2; ++run) { // with and without overflows
            result->prepare(nullptr);
            result->prepareResultSorting(NumJobs);
            runJobs(numThreads, [&](unsigned job) {
                const std::vector<uint64> data = resultOf(job, seed);
                auto transaction = result->allocateResult(data.size());
                const auto write = [&] {
                    auto* number = static_cast<uint64*>(transaction.getElements(numbers));
                    auto* half = static_cast<double*>(transaction.getElements(halves));
                    for (size_t i = 0; i < data.size(); ++i) {
                        number[i] = data[i];
                        half[i] = static_cast<double>(data[i]) / 2;
                    }
                };
                write();
                if (job % 3 == 0) { // changes its mind
                    result->reportFailedTransaction(&transaction);
                    write();
                }
                result->setSortIndex(transaction, job);
                result->reportCompletedTransaction(&transaction);
            });
            EXPECT_EQ(result->getNumOverflows() > 0, run == 0);
            result->finalize();
            storage->verifyConsistency();
            ASSERT_EQ(contentOf(numbers), expected) << numThreads << " threads";
            for (size_t i = 0; i < expected.size(); ++i)
                ASSERT_EQ(halves->data<double>()[i], static_cast<double>(expected[i]) / 2);
        }
    }
}
