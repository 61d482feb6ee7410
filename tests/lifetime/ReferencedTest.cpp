#include "support/LogCapture.h"
#include "support/StreamCapture.h"

#include <zel/Notify.h>
#include <zel/Observer.h>
#include <zel/Referenced.h>
#include <zel/Vector.h>
#include <zel/observer_ptr.h>
#include <zel/ref_ptr.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <sstream>
#include <stdexcept>
#include <vector>

using zelTest::LogCapture;
using zelTest::StreamCapture;
using namespace zel;
using testing::ElementsAre;
using testing::HasSubstr;

namespace {

struct Counted : Referenced {
    explicit Counted(int* counter) : deletions(counter) {}
    ~Counted() override { ++*deletions; }
    int* deletions;
};

struct Recorder : Observer {
    Recorder(std::vector<int>* list, int value) : log(list), id(value) {}
    void objectDeleted(void*) override { log->push_back(id); }
    std::vector<int>* log;
    int id;
};

/// Keeps what it is asked to delete.
struct DeferringHandler : DeleteHandler {
    explicit DeferringHandler(int* counter = nullptr) : deletions(counter) {}
    ~DeferringHandler() override {
        for (const Referenced* object : objects)
            delete object;
        if (deletions != nullptr)
            ++*deletions;
    }
    void requestDelete(const Referenced* object) override { objects.push_back(object); }
    std::vector<const Referenced*> objects;
    int* deletions;
};

struct ReferencedTest : testing::Test {
    void TearDown() override { Referenced::setDeleteHandler(nullptr); }
    int deletions = 0;
};

} // namespace

TEST_F(ReferencedTest, StartsWithoutOwnersAndGoesWithTheLast) {
    auto* object = new Counted(&deletions);
    EXPECT_EQ(object->referenceCount(), 0);
    object->reference();
    object->reference();
    EXPECT_EQ(object->referenceCount(), 2);
    object->unreference();
    EXPECT_EQ(deletions, 0);
    object->unreference();
    EXPECT_EQ(deletions, 1);
}

TEST_F(ReferencedTest, UnreferenceNodeleteNeverDeletes) {
    auto* object = new Counted(&deletions);
    object->reference();
    object->unreference_nodelete();
    EXPECT_EQ(object->referenceCount(), 0);
    EXPECT_EQ(deletions, 0);
    delete object;
}

TEST_F(ReferencedTest, OnlyAnOldCountOfOneDisposes) {
    auto* object = new Counted(&deletions);
    object->unreference(); // 0 to -1
    EXPECT_EQ(deletions, 0);
    EXPECT_EQ(object->referenceCount(), -1);
    object->setReferenceCount(1);
    object->unreference();
    EXPECT_EQ(deletions, 1);
}

TEST_F(ReferencedTest, ACopyHasNoOwnersAndNoObservers) {
    std::vector<int> log;
    Recorder observer(&log, 1);
    Counted original(&deletions);
    original.reference();
    original.addObserver(&observer);
    {
        Counted copy(original);
        EXPECT_EQ(copy.referenceCount(), 0);
        copy = original;
        EXPECT_EQ(copy.referenceCount(), 0);
    }
    EXPECT_TRUE(log.empty());
    original.setReferenceCount(0);
}

TEST_F(ReferencedTest, TellsItsObserversInOrderOfAdding) {
    std::vector<int> log;
    Recorder a(&log, 1);
    Recorder b(&log, 2);
    Recorder c(&log, 3);
    Recorder d(&log, 4);
    auto* object = new Counted(&deletions);
    for (Recorder* recorder : {&a, &b, &c, &d})
        object->addObserver(recorder);
    object->removeObserver(&b);
    object->removeObserver(&b); // absent by now
    delete object;
    EXPECT_THAT(log, ElementsAre(1, 3, 4));
}

TEST_F(ReferencedTest, AnObserverThatIsAddedTwiceIsToldTwice) {
    std::vector<int> log;
    Recorder a(&log, 1);
    auto* object = new Counted(&deletions);
    object->addObserver(&a);
    object->addObserver(&a);
    delete object;
    EXPECT_THAT(log, ElementsAre(1, 1));
}

TEST_F(ReferencedTest, AllocateObserverVectorTellsNobody) {
    auto* object = new Counted(&deletions);
    object->allocateObserverVector();
    object->allocateObserverVector();
    Observer observer; // the base operation does nothing
    object->addObserver(&observer);
    delete object;
    EXPECT_EQ(deletions, 1);
}

TEST_F(ReferencedTest, NotificationHoldsNoLock) {
    // An observer that takes itself off the list would wait forever for a lock that is held.
    struct Leaving : Observer {
        void objectDeleted(void* object) override {
            static_cast<const Referenced*>(object)->removeObserver(this);
            ++calls;
        }
        int calls = 0;
    };
    Leaving leaving;
    auto* object = new Counted(&deletions);
    object->addObserver(&leaving);
    delete object;
    EXPECT_EQ(leaving.calls, 1);
}

TEST_F(ReferencedTest, AnObserverThatGoesDuringNotificationIsNotCalled) {
    std::vector<int> log;
    auto* second = new Recorder(&log, 2);
    struct Killer : Observer {
        explicit Killer(Recorder* recorder) : victim(recorder) {}
        void objectDeleted(void* object) override {
            static_cast<const Referenced*>(object)->removeObserver(victim);
            delete victim;
        }
        Recorder* victim;
    };
    Killer killer(second);
    auto* object = new Counted(&deletions);
    object->addObserver(&killer);
    object->addObserver(second);
    delete object;
    EXPECT_TRUE(log.empty());
}

TEST_F(ReferencedTest, EachObserverThatStaysIsToldOnceWhoeverLeavesMeanwhile) {
    // Each one takes itself, one ahead of it and one behind it off the list, or not, as the bits of the case
    // say.
    struct Leaver : Observer {
        void objectDeleted(void* object) override {
            ++calls;
            for (const Observer* other : leaves)
                static_cast<const Referenced*>(object)->removeObserver(const_cast<Observer*>(other));
        }
        std::vector<const Observer*> leaves;
        int calls = 0;
    };
    for (unsigned bits = 0; bits < 64; ++bits) {
        std::array<Leaver, 5> observers;
        auto* object = new Counted(&deletions);
        for (Leaver& observer : observers)
            object->addObserver(&observer);
        std::array<int, 5> expected{1, 1, 1, 1, 1};
        for (const size_t leaver : {size_t{1}, size_t{3}}) {
            const unsigned choice = bits >> (leaver == 1 ? 0U : 3U);
            for (unsigned i = 0; i < 3; ++i)
                if ((choice >> i & 1U) != 0)
                    observers[leaver].leaves.push_back(&observers[leaver - 1 + i]);
        }
        if ((bits >> 2 & 1U) != 0)
            expected[2] = 0; // taken off by the one ahead of it
        if ((bits >> 5 & 1U) != 0)
            expected[4] = 0;
        delete object;
        for (size_t i = 0; i < observers.size(); ++i)
            EXPECT_EQ(observers[i].calls, expected[i]) << i << " in case " << bits;
    }
}

TEST_F(ReferencedTest, AWeakPointerBehindAnObserverThatLeavesIsSetToNull) {
    struct Leaving : Observer {
        void objectDeleted(void* object) override {
            static_cast<const Referenced*>(object)->removeObserver(this);
        }
    };
    Leaving leaving;
    auto* object = new Counted(&deletions);
    object->addObserver(&leaving);
    const observer_ptr<Counted> weak(object);
    delete object;
    EXPECT_EQ(weak.get(), nullptr);
}

TEST_F(ReferencedTest, AnObserverThatIsAddedDuringNotificationDisturbsNobody) {
    std::vector<int> log;
    Recorder added(&log, 3);
    struct Adder : Observer {
        explicit Adder(Observer* observer) : other(observer) {}
        void objectDeleted(void* object) override {
            const auto* dying = static_cast<const Referenced*>(object);
            dying->addObserver(other);
            dying->removeObserver(this);
            dying->removeObserver(other);
        }
        Observer* other;
    };
    Adder adder(&added);
    Recorder last(&log, 2);
    auto* object = new Counted(&deletions);
    object->addObserver(&adder);
    object->addObserver(&last);
    delete object;
    EXPECT_THAT(log, ElementsAre(2));
}

TEST_F(ReferencedTest, WithoutAHandlerDeletionByHandlerIsDirect) {
    (new Counted(&deletions))->deleteUsingDeleteHandler();
    EXPECT_EQ(deletions, 1);
}

TEST(ReferencedDeathTest, AHandlerThatThrowsEndsTheProcess) {
    struct Throwing : DeleteHandler {
        void requestDelete(const Referenced*) override { throw std::runtime_error("not now"); }
    };
    EXPECT_DEATH(
        {
            Referenced::setDeleteHandler(new Throwing);
            try {
                const ref_ptr<Referenced> object(new Referenced);
            } catch (...) {
            }
        },
        "not now");
}

TEST_F(ReferencedTest, ADeleteHandlerDecidesAtEachUnreference) {
    auto* before = new Counted(&deletions);
    before->reference();
    auto* handler = new DeferringHandler;
    Referenced::setDeleteHandler(handler);
    EXPECT_EQ(Referenced::getDeleteHandler(), handler);
    before->unreference(); // created before the handler was installed
    EXPECT_EQ(deletions, 0);
    EXPECT_THAT(handler->objects, ElementsAre(before));
    before->deleteUsingDeleteHandler();
    EXPECT_EQ(handler->objects.size(), 2U);
    handler->objects.pop_back();
    Referenced::setDeleteHandler(nullptr);
    EXPECT_EQ(deletions, 1);
}

TEST_F(ReferencedTest, SettingAHandlerDeletesTheOldOneUnlessItIsTheSame) {
    int handlersGone = 0;
    auto* first = new DeferringHandler(&handlersGone);
    Referenced::setDeleteHandler(first);
    Referenced::setDeleteHandler(first);
    EXPECT_EQ(handlersGone, 0);
    Referenced::setDeleteHandler(new DeferringHandler(&handlersGone));
    EXPECT_EQ(handlersGone, 1);
    Referenced::setDeleteHandler(nullptr);
    EXPECT_EQ(handlersGone, 2);
}

TEST_F(ReferencedTest, TheBaseHandlerDeletesAtOnceAndIgnoresNull) {
    Referenced::setDeleteHandler(new DeleteHandler);
    auto* object = new Counted(&deletions);
    object->reference();
    object->unreference();
    EXPECT_EQ(deletions, 1);
    DeleteHandler().requestDelete(nullptr);
}

TEST_F(ReferencedTest, DeletingAnOwnedObjectIsLoggedAsAnError) {
    LogCapture log;
    Notify::instance()->setThrowOnError(false);
    const StreamCapture quiet(std::cerr);
    auto* object = new Counted(&deletions);
    std::ostringstream expected;
    expected << "Deleting still referenced object " << static_cast<const void*>(object)
             << " of type 'PN3zel10ReferencedE'\n"
             << "         the final reference count was 2, memory corruption possible.\n";
    object->setReferenceCount(2);
    delete object;
    EXPECT_THAT(log.texts(), ElementsAre(expected.str()));
    EXPECT_THAT(log.levels(), ElementsAre(Notify::Error));
}

TEST_F(ReferencedTest, ANegativeCountPassesSilently) {
    LogCapture log;
    auto* object = new Counted(&deletions);
    object->setReferenceCount(-1);
    delete object;
    EXPECT_TRUE(log.texts().empty());
}

TEST(ReferencedDeathTest, DeletingAnOwnedObjectTerminatesWhenErrorsThrow) {
    EXPECT_DEATH(
        {
            Notify::instance()->setThrowOnError(true);
            auto* object = new Referenced;
            object->reference();
            delete object;
        },
        HasSubstr("the final reference count was 1, memory corruption possible."));
}
