#include <zel/Referenced.h>
#include <zel/observer_ptr.h>
#include <zel/ref_ptr.h>

#include <gtest/gtest.h>
#include <support/Stress.h>

#include <array>
#include <atomic>
#include <barrier>
#include <vector>

namespace {

using zel::observer_ptr;
using zel::ref_ptr;

/// Counts its deaths, and carries plain data that a death too early would tear.
class Shared : public zel::Referenced {
public:
    Shared() = default;
    Shared(const Shared&) = delete;
    Shared& operator=(const Shared&) = delete;
    ~Shared() override { s_deaths.fetch_add(1, std::memory_order_relaxed); }
    [[nodiscard]] int value() const { return m_value; }

    static inline std::atomic<int> s_deaths{0};

private:
    int m_value = 42;
};

class ReferencedStressTest : public testing::TestWithParam<size_t> {
protected:
    void SetUp() override { Shared::s_deaths = 0; }
};

TEST_P(ReferencedStressTest, CopiesOnManyThreadsKeepTheCountExact) {
    const size_t numThreads = GetParam();
    const size_t operations = 2'000'000 / zelTest::StressDivisor / numThreads;
    const ref_ptr<Shared> shared(new Shared);
    zelTest::onThreads(numThreads, zelTest::stressSeed(), [&](size_t, std::mt19937& random) {
        std::array<ref_ptr<Shared>, 8> slots;
        for (size_t i = 0; i < operations; ++i) {
            auto& slot = slots[random() % slots.size()];
            switch (random() % 3) {
            case 0:
                slot = shared;
                break;
            case 1:
                slot = ref_ptr<Shared>(shared);
                break;
            default:
                slot = nullptr;
            }
            if (slot) {
                ASSERT_EQ(slot->value(), 42);
            }
        }
    });
    EXPECT_EQ(shared->referenceCount(), 1);
    EXPECT_EQ(Shared::s_deaths, 0);
}

TEST_P(ReferencedStressTest, TheLastOfManyOwnersDeletesOnce) {
    const size_t numThreads = GetParam();
    const size_t rounds = 4'000 / zelTest::StressDivisor;
    std::vector<ref_ptr<Shared>> owners(numThreads);
    const auto refill = [&owners]() noexcept {
        const ref_ptr<Shared> fresh(new Shared);
        for (auto& owner : owners)
            owner = fresh;
    };
    refill();
    // All threads let go at the same time; the barrier's completion deals out the next object.
    std::barrier round(static_cast<std::ptrdiff_t>(numThreads), refill);
    zelTest::onThreads(numThreads, zelTest::stressSeed(), [&](size_t index, std::mt19937&) {
        for (size_t i = 0; i < rounds; ++i) {
            ASSERT_EQ(owners[index]->value(), 42);
            owners[index] = nullptr;
            round.arrive_and_wait();
        }
    });
    owners.clear();
    EXPECT_EQ(Shared::s_deaths, static_cast<int>(rounds) + 1);
}

TEST_P(ReferencedStressTest, ObserversComeAndGoOnManyThreads) {
    const size_t numThreads = GetParam();
    const size_t operations = 200'000 / zelTest::StressDivisor / numThreads;
    ref_ptr<Shared> shared(new Shared);
    std::vector<std::vector<observer_ptr<Shared>>> left(numThreads);
    zelTest::onThreads(numThreads, zelTest::stressSeed(), [&](size_t index, std::mt19937& random) {
        std::array<observer_ptr<Shared>, 8> slots;
        for (size_t i = 0; i < operations; ++i) {
            auto& slot = slots[random() % slots.size()];
            slot = random() % 2 == 0 ? shared.get() : nullptr;
            if (slot) {
                ASSERT_EQ(slot->value(), 42);
            }
        }
        left[index].assign(slots.begin(), slots.end());
    });
    shared = nullptr;
    EXPECT_EQ(Shared::s_deaths, 1);
    for (const auto& ofThread : left)
        for (const auto& observer : ofThread)
            EXPECT_EQ(observer.get(), nullptr);
}

TEST_P(ReferencedStressTest, ObserversOfObjectsThatDieElsewhereReadNull) {
    const size_t numThreads = GetParam();
    const size_t rounds = 4'000 / zelTest::StressDivisor / numThreads;
    // Each thread watches the objects of its right neighbour, who destroys them between the barriers.
    std::vector<ref_ptr<Shared>> objects(numThreads);
    std::barrier sync(static_cast<std::ptrdiff_t>(numThreads));
    zelTest::onThreads(numThreads, zelTest::stressSeed(), [&](size_t index, std::mt19937&) {
        for (size_t i = 0; i < rounds; ++i) {
            objects[index] = new Shared;
            sync.arrive_and_wait();
            observer_ptr<Shared> watched(objects[(index + 1) % numThreads].get());
            sync.arrive_and_wait();
            objects[index] = nullptr;
            sync.arrive_and_wait();
            ASSERT_EQ(watched.get(), nullptr);
        }
    });
    EXPECT_EQ(Shared::s_deaths, static_cast<int>(rounds * numThreads));
}

INSTANTIATE_TEST_SUITE_P(Threads,
                         ReferencedStressTest,
                         testing::Values(1, 2, 8),
                         testing::PrintToStringParamName());

} // namespace
