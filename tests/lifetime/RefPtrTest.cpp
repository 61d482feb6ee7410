#include <zel/HashSet.h>
#include <zel/Referenced.h>
#include <zel/ref_ptr.h>
#include <zelCore/zelCore.h>

#include <gtest/gtest.h>

#include <thread>
#include <utility>
#include <vector>

using namespace zel;

namespace {

struct Base : Referenced {
    explicit Base(int* counter = nullptr) : deletions(counter) {}
    ~Base() override {
        if (deletions != nullptr)
            ++*deletions;
    }
    int* deletions;
    int value = 7;
};
struct Derived : Base {
    using Base::Base;
};

} // namespace

TEST(RefPtrTest, OwnsFromConstructionToDestruction) {
    int deletions = 0;
    {
        const ref_ptr<Base> a(new Base(&deletions));
        EXPECT_EQ(a->referenceCount(), 1);
        EXPECT_EQ((*a).value, 7);
        const ref_ptr<Base> b(a);
        EXPECT_EQ(a->referenceCount(), 2);
        EXPECT_EQ(a, b);
        EXPECT_TRUE(static_cast<bool>(a));
    }
    EXPECT_EQ(deletions, 1);
}

TEST(RefPtrTest, NullOwnsNothing) {
    ref_ptr<Base> a;
    const ref_ptr<Base> b(nullptr);
    EXPECT_FALSE(static_cast<bool>(a));
    EXPECT_EQ(a, b);
    a = nullptr;
    EXPECT_EQ(a.get(), nullptr);
    EXPECT_EQ(a.release_nodelete(), nullptr);
}

TEST(RefPtrTest, AssigningTheObjectAlreadyHeldDoesNothing) {
    int deletions = 0;
    ref_ptr<Base> a(new Base(&deletions));
    a = a.get();
    const ref_ptr<Base>& alias = a;
    a = alias;
    EXPECT_EQ(a->referenceCount(), 1);
    EXPECT_EQ(deletions, 0);
}

TEST(RefPtrTest, ReassignmentLetsGoOfTheOldObject) {
    int deletions = 0;
    ref_ptr<Base> a(new Base(&deletions));
    a = new Base(&deletions);
    EXPECT_EQ(deletions, 1);
    a = nullptr;
    EXPECT_EQ(deletions, 2);
}

TEST(RefPtrTest, ConvertsToABaseAndMovesWithoutCounting) {
    ref_ptr<Derived> derived(new Derived);
    ref_ptr<Base> base(derived);
    EXPECT_EQ(base->referenceCount(), 2);
    ref_ptr<Base> moved(std::move(base));
    EXPECT_EQ(moved->referenceCount(), 2);
    ref_ptr<Base> target(new Base);
    target = std::move(moved);
    EXPECT_EQ(target.get(), derived.get());
    EXPECT_EQ(derived->referenceCount(), 2);
}

TEST(RefPtrTest, ReleaseNodeleteHandsTheObjectOver) {
    int deletions = 0;
    ref_ptr<Base> a(new Base(&deletions));
    Base* object = a.release_nodelete();
    EXPECT_EQ(a.get(), nullptr);
    EXPECT_EQ(object->referenceCount(), 0);
    EXPECT_EQ(deletions, 0);
    delete object;
}

TEST(RefPtrTest, IsFoundInATableByThePlainPointer) {
    HashSet<ref_ptr<Base>> set;
    auto* object = new Base;
    set.insert(object);
    EXPECT_TRUE(set.contains(object));
    EXPECT_TRUE(set.contains(ref_ptr<Base>(object)));
}

TEST(RefPtrTest, StaysValidAfterShutdown) {
    zelCore::init();
    const ref_ptr<Base> object(new Base);
    zelCore::shutdown();
    EXPECT_EQ(object->value, 7);
    EXPECT_EQ(object->referenceCount(), 1);
}

TEST(RefPtrStressTest, OwnersOnManyThreadsDeleteOnce) {
    int deletions = 0;
    {
        const ref_ptr<Base> object(new Base(&deletions));
        std::vector<std::thread> threads;
        for (int t = 0; t < 4; ++t)
            threads.emplace_back([object] {
                for (int i = 0; i < 10000; ++i) {
                    const ref_ptr<Base> copy(object);
                    ASSERT_EQ(copy->value, 7);
                }
            });
        for (std::thread& thread : threads)
            thread.join();
        threads.clear();
        EXPECT_EQ(object->referenceCount(), 1);
    }
    EXPECT_EQ(deletions, 1);
}
