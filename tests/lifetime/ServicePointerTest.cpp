#include <zel/ComponentManager.h>
#include <zel/CpuDevice.h>
#include <zel/RealTimeClock.h>
#include <zel/ReferencedEntity.h>
#include <zel/ServicePointer.h>
#include <zel/Statistics.h>
#include <zel/TaskManager.h>
#include <zel/ref_ptr.h>
#include <zelCore/zelCore.h>
#include <zelData/Buffer.h>
#include <zelData/EntityStorage.h>
#include <zelIO/Environment.h>
#include <zelIO/ResourceManager.h>

#include <gtest/gtest.h>
#include <support/Stress.h>

#include <algorithm>
#include <array>
#include <functional>
#include <latch>

using zel::ServicePointer;

namespace {

struct Counter {
    int number = 0;
};

constinit ServicePointer<Counter> s_pointer;

} // namespace

TEST(ServicePointerTest, MakesTheServiceAtFirstUseAndNeverAgain) {
    Counter first{1}, second{2};
    EXPECT_EQ(s_pointer.find(), nullptr);
    EXPECT_EQ(s_pointer.get([&first] { return &first; }), &first);
    EXPECT_EQ(s_pointer.get([&second] { return &second; }), &first);
    EXPECT_EQ(s_pointer.find(), &first);
    s_pointer.forget(&first);
}

TEST(ServicePointerTest, ForgetsOnlyTheServiceThatIsNamed) {
    Counter first{1}, second{2};
    ASSERT_EQ(s_pointer.get([&first] { return &first; }), &first);
    s_pointer.forget(&second);
    EXPECT_EQ(s_pointer.find(), &first);
    s_pointer.forget(&first);
    EXPECT_EQ(s_pointer.find(), nullptr);
    EXPECT_EQ(s_pointer.get([&second] { return &second; }), &second);
    s_pointer.forget(&second);
}

TEST(ServicePointerTest, AMakerThatThrowsLeavesNothing) {
    Counter service;
    const auto fail = []() -> Counter* { throw std::runtime_error("no service"); };
    EXPECT_THROW(static_cast<void>(s_pointer.get(fail)), std::runtime_error);
    EXPECT_EQ(s_pointer.get([&service] { return &service; }), &service);
    s_pointer.forget(&service);
}

/// Each road to a service takes the locks of those that it needs: here all are taken at once, for the first
/// time, by threads that begin at different ends.
TEST(ServicePointerStressTest, FirstUsesFromManyThreadsMakeOneOfEach) {
    const unsigned seed = zelTest::stressSeed();
    constexpr unsigned NumThreads = 4;
    for (unsigned life = 0; life < 10; ++life) {
        zelCore::init();
        const std::array<std::function<const void*()>, 8> services = {
            [] { return zelIO::Environment::instance(); },
            [] { return zelIO::ResourceManager::instance(); },
            [] { return zel::ComponentManager::instance(); },
            [] { return zel::TaskManager::instance(); },
            [] { return zel::Statistics::instance(); },
            [] { return zel::CpuDevice::instance(); },
            [] { return zel::RealTimeClock::instance(); },
            // Its making asks for the device under the type system's mutex.
            []() -> const void* {
                const zel::ref_ptr<zelData::EntityStorage> storage(
                    new zelData::EntityStorage(zel::ReferencedModel::instance(), "storage"));
                return storage->getBuffer(zel::Name("referenceCount"))->getDevice();
            }};
        std::array<std::array<const void*, services.size()>, NumThreads> seen{};
        std::latch start(NumThreads);
        zelTest::onThreads(NumThreads, seed + life * NumThreads, [&](size_t thread, std::mt19937& random) {
            std::array<size_t, services.size()> order{};
            for (size_t i = 0; i < order.size(); ++i)
                order[i] = i;
            std::shuffle(order.begin(), order.end(), random);
            start.arrive_and_wait();
            for (const size_t i : order)
                seen[thread][i] = services[i]();
        });
        for (size_t i = 0; i < services.size(); ++i)
            for (size_t thread = 0; thread < NumThreads; ++thread) {
                EXPECT_NE(seen[thread][i], nullptr) << i;
                EXPECT_EQ(seen[thread][i], seen[0][i]) << i;
            }
        zelCore::shutdown();
    }
}
