#include <zel/Referenced.h>
#include <zel/observer_ptr.h>
#include <zel/ref_ptr.h>

#include <gtest/gtest.h>

#include <memory>
#include <thread>
#include <vector>

using namespace zel;

namespace {
struct Target : Referenced {
    int value = 3;
};
} // namespace

TEST(ObserverPtrTest, ReadsNullAfterItsTargetIsGone) {
    ref_ptr<Target> target(new Target);
    const observer_ptr<Target> observer(target.get());
    EXPECT_EQ(observer->value, 3);
    EXPECT_EQ((*observer).value, 3);
    EXPECT_EQ(target->referenceCount(), 1); // it does not own
    target = nullptr;
    EXPECT_EQ(observer.get(), nullptr);
    EXPECT_FALSE(static_cast<bool>(observer));
    // Its destruction now touches nothing; the sanitizer would tell.
}

TEST(ObserverPtrTest, LeavesItsTargetWhenItGoesFirst) {
    const ref_ptr<Target> target(new Target);
    auto first = std::make_unique<observer_ptr<Target>>(target.get());
    auto second = std::make_unique<observer_ptr<Target>>(target.get());
    first.reset();
    EXPECT_EQ(second->get(), target.get());
}

TEST(ObserverPtrTest, ACopyObservesToo) {
    ref_ptr<Target> target(new Target);
    observer_ptr<Target> a(target.get());
    const observer_ptr<Target> b(a);
    observer_ptr<Target> c;
    c = b;
    c = c.get(); // the target already observed
    EXPECT_TRUE(c == target.get());
    a = nullptr;
    EXPECT_EQ(b.get(), target.get());
    target = nullptr;
    EXPECT_EQ(b.get(), nullptr);
    EXPECT_EQ(c.get(), nullptr);
}

TEST(ObserverPtrTest, ReattachingLeavesTheOldTarget) {
    ref_ptr<Target> first(new Target);
    const ref_ptr<Target> second(new Target);
    observer_ptr<Target> observer(first.get());
    observer = second.get();
    first = nullptr;
    EXPECT_EQ(observer.get(), second.get());
}

TEST(ObserverPtrStressTest, ObserversComeAndGoOnManyThreads) {
    const ref_ptr<Target> target(new Target);
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([&target] {
            for (int i = 0; i < 2000; ++i) {
                const observer_ptr<Target> a(target.get());
                const observer_ptr<Target> b(a);
                ASSERT_EQ(b.get(), target.get());
            }
        });
    for (std::thread& thread : threads)
        thread.join();
    const observer_ptr<Target> last(target.get());
    EXPECT_EQ(last->value, 3);
}
