#include "support/LogCapture.h"

#include <zel/Statistics.h>
#include <zelCore/zelCore.h>
#include <zelData/Type.h>
#include <zelData/Value.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace {

using testing::HasSubstr;
using zel::ref_ptr;
using zel::Statistics;
using zelTest::LogCapture;
using Provider = Statistics::ProviderHandle;

class StatisticsTest : public ::testing::Test {
protected:
    StatisticsTest() { zelCore::init(); }
    ~StatisticsTest() override { zelCore::shutdown(); }

    static Statistics& statistics() { return *Statistics::instance(); }
    static Provider* add(void* provider, const char* name, void* parent = nullptr) {
        return statistics().registerDataProvider(provider, name, parent);
    }
    static std::string report(bool includeEmpty = true) { return statistics().printed(includeEmpty); }

    /// Addresses to register.
    int a = 0;
    int b = 0;
    int c = 0;
};

/// Shows the bookkeeping that no call from outside can bring into disorder.
struct OpenStatistics : Statistics {
    using Statistics::createNameBinding;
    using Statistics::decayBranch;
    using Statistics::getOrCreateParentNode;
    using Statistics::removeNameBinding;
};

/// Data of a type that has no text.
struct Textless : zel::StatisticsData {
    using StatisticsData::StatisticsData;
    [[nodiscard]] zelData::Value* toValue() const override {
        return new zelData::Value("textless", zelData::getType("SpinMutex"));
    }
    void clear(bool) override {}
    [[nodiscard]] const void* valuePtr() const override { return &number; }
    [[nodiscard]] const void* accumulatedPtr() const override { return &number; }
    int number = 0;
};

// The switch and the instance

TEST_F(StatisticsTest, IsOffAtFirst) {
    EXPECT_FALSE(Statistics::getEnable());
    Statistics::setEnable(true);
    EXPECT_TRUE(Statistics::getEnable());
    EXPECT_TRUE(statistics().isEnabled());
}

TEST_F(StatisticsTest, AfterShutdownTheNextUseMakesAFreshObject) {
    add(&a, "a");
    Statistics* old = Statistics::instance();
    old->shutdown();
    EXPECT_FALSE(Statistics::hasInstance());
    EXPECT_NE(Statistics::instance(), old);
    EXPECT_TRUE(Statistics::hasInstance());
    EXPECT_EQ(report(), "No statistics.");
}

TEST_F(StatisticsTest, ItsPlaceAmongTheServicesIsTold) {
    EXPECT_EQ(statistics().getPriority(), 10000);
    EXPECT_THAT(statistics().getClassName(), HasSubstr("Statistics::getClassName"));
}

TEST_F(StatisticsTest, SharesTheMutexOfTheTypeSystem) {
    EXPECT_EQ(&Statistics::getTypeSystemMutex(), &zelData::detail::getTypeSystemMutex());
}

// Data

TEST_F(StatisticsTest, DataAddsUp) {
    auto* data = add(&a, "a")->getOrCreateData<double>("x");
    data->add(2);
    data->add(3);
    EXPECT_EQ(data->getValue(), 5);
    EXPECT_EQ(data->getAccumulated(), 5);
    EXPECT_EQ(data->getCount(), 2);
    data->clear(false);
    EXPECT_EQ(data->getValue(), 0);
    EXPECT_EQ(data->getAccumulated(), 5);
    EXPECT_EQ(data->getCount(), 2);
    data->clear(true);
    EXPECT_EQ(data->getAccumulated(), 0);
    EXPECT_EQ(data->getCount(), 0);
    data->set(7);
    EXPECT_EQ(*static_cast<const double*>(data->valuePtr()), 7);
    EXPECT_EQ(*static_cast<const double*>(data->accumulatedPtr()), 0);
}

TEST_F(StatisticsTest, DataGivesAValueOfTypeReal) {
    auto* data = add(&a, "a")->getOrCreateData<unsigned long>("number");
    data->set(3);
    const ref_ptr<zelData::Value> value(data->toValue());
    EXPECT_EQ(value->getName(), "number");
    EXPECT_EQ(value->getFormat()->fullName(), "Real:64bit");
    EXPECT_EQ(value->toString(), "3");
}

TEST_F(StatisticsTest, ASlotIsMadeOnce) {
    Provider* provider = add(&a, "a");
    auto* data = provider->getOrCreateData<float>("x");
    EXPECT_EQ(provider->getOrCreateData<float>("x"), data);
    EXPECT_EQ(provider->getData("x"), data);
    EXPECT_EQ(provider->getOrCreateData<double>("x"), nullptr); // of another type
    EXPECT_EQ(provider->getData("y"), nullptr);
}

TEST_F(StatisticsTest, NamesAreCopied) {
    std::string name = "provider";
    std::string dataName = "data";
    auto* data = add(&a, name.c_str())->getOrCreateData<double>(dataName.c_str());
    name = "xxxxxxxx";
    dataName = "yyyy";
    EXPECT_EQ(statistics().getData("provider", "data"), data);
    EXPECT_EQ(zel::copyString(nullptr), nullptr);
}

TEST_F(StatisticsTest, ProvidersOfOneNameAreCounted) {
    auto* first = add(&a, "same")->getOrCreateData<double>("x");
    auto* second = add(&b, "same")->getOrCreateData<double>("x");
    EXPECT_EQ(statistics().getData("same", "x", 0), first);
    EXPECT_EQ(statistics().getData("same", "x", 1), second);
    EXPECT_EQ(statistics().getData("none", "x"), nullptr);
    statistics().unregisterDataProvider(&a);
    EXPECT_EQ(statistics().getData(zel::String("same"), zel::String("x")), second);
    statistics().unregisterDataProvider(&b);
    EXPECT_EQ(statistics().getData("same", "x"), nullptr);
}

TEST_F(StatisticsTest, ClearReachesTheWholeTree) {
    auto* upper = add(&a, "a")->getOrCreateData<double>("x");
    auto* lower = add(&b, "b", &a)->getOrCreateData<double>("x");
    upper->add(1);
    lower->add(1);
    statistics().clearCurrent();
    EXPECT_EQ(upper->getValue() + lower->getValue(), 0);
    EXPECT_EQ(upper->getAccumulated() + lower->getAccumulated(), 2);
    statistics().clear();
    EXPECT_EQ(upper->getAccumulated() + lower->getAccumulated(), 0);
}

// Registration

TEST_F(StatisticsTest, RefusesNullProvidersAndNames) {
    const LogCapture log(zel::Notify::Warning);
    EXPECT_EQ(add(nullptr, "x"), nullptr);
    EXPECT_EQ(add(&a, nullptr), nullptr);
    EXPECT_EQ(statistics().registerTaskTimerProvider(nullptr, "x", nullptr), nullptr);
    EXPECT_EQ(statistics().registerTaskTimerProvider(&a, nullptr, nullptr), nullptr);
    statistics().unregisterDataProvider(nullptr);
    statistics().setContext(nullptr, &a);
    EXPECT_EQ(
        log.text(),
        "Statistics: Trying to register a nullptr provider. This is not allowed. Doing nothing.\n"
        "Statistics: Trying to register a provider with a nullptr name. This is not allowed. Doing nothing.\n"
        "Trying to register a nullptr provider. This is not allowed. Doing nothing.\n"
        "Trying to register a provider with a nullptr name. This is not allowed. Doing nothing.\n"
        "Asked to unregister the nullptr provider. Doing nothing.\n"
        "Tried to change the context of a nullptr provider, and nullptr providers are not supported.\n");
}

TEST_F(StatisticsTest, RefusesASecondRegistration) {
    add(&a, "old");
    const LogCapture log(zel::Notify::Warning);
    EXPECT_EQ(add(&a, "new"), nullptr);
    std::ostringstream expected;
    expected << "Trying to register provider " << static_cast<void*>(&a)
             << " multiple times. Doing nothing. Old name: 'old', new name: 'new'.\n";
    EXPECT_EQ(log.text(), expected.str());
}

TEST_F(StatisticsTest, AChildMayComeBeforeItsParent) {
    add(&b, "child", &a);
    EXPECT_EQ(report(), "Root\n- Children:\n  <Implicit node>\n  - Children:\n    child\n");
    add(&a, "parent");
    const std::string late = report();
    statistics().unregisterDataProvider(&b);
    statistics().unregisterDataProvider(&a);
    add(&a, "parent");
    add(&b, "child", &a);
    EXPECT_EQ(report(), late);
    EXPECT_EQ(late, "Root\n- Children:\n  parent\n  - Children:\n    child\n");
}

TEST_F(StatisticsTest, AnImplicitParentMovesToItsRealPlace) {
    add(&c, "c", &b);
    add(&a, "a");
    statistics().registerTaskTimerProvider(&b, "b", &a);
    const zel::String text = report();
    EXPECT_THAT(text, HasSubstr("  a\n  - Children:\n    b\n"));
    EXPECT_THAT(text, HasSubstr("    - Children:\n      c\n"));
    EXPECT_THAT(text, testing::Not(HasSubstr("<Implicit node>")));
}

TEST_F(StatisticsTest, AParentThatGoesLeavesANodeForItsChildren) {
    add(&a, "a");
    add(&b, "b", &a);
    add(&c, "c", &b);
    const LogCapture log(zel::Notify::Warning);
    statistics().unregisterDataProvider(&b);
    EXPECT_EQ(report(), "Root\n- Children:\n  a\n  <Implicit node>\n  - Children:\n    c\n");
    statistics().unregisterDataProvider(&c); // and with it the node without a name
    EXPECT_EQ(report(), "Root\n- Children:\n  a\n");
    EXPECT_NE(add(&b, "again"), nullptr);
    EXPECT_EQ(log.text(), "");
}

TEST_F(StatisticsTest, AParentThatGoesKeepsItsDataForItsReturn) {
    Provider* const parent = add(&a, "a");
    parent->getOrCreateData<double>("x")->add(3);
    add(&b, "b", &a);
    const LogCapture log(zel::Notify::Warning);
    statistics().unregisterDataProvider(&a);
    EXPECT_EQ(statistics().getData("a", "x"), nullptr); // the name is gone
    EXPECT_EQ(report(), "Root\n- Children:\n  <Implicit node>\n  - Data:\n    x: 3\n  - Children:\n    b\n");
    EXPECT_EQ(add(&a, "again"), parent);
    EXPECT_EQ(statistics().getTimingInfo("again", "x").value, 3);
    EXPECT_EQ(log.text(), "");
}

TEST_F(StatisticsTest, ATaskThatReturnsBeginsWithTimersOfItsOwn) {
    statistics().registerTaskTimerProvider(&a, "a", nullptr)->getWallTime()->add(3);
    add(&b, "b", &a);
    statistics().unregisterDataProvider(&a);
    EXPECT_EQ(statistics().registerTaskTimerProvider(&a, "a", nullptr)->getWallTime()->getValue(), 0);
    EXPECT_EQ(statistics().getData(&a, zel::Path("b.none")), nullptr);
    EXPECT_THAT(report(), testing::Not(HasSubstr("<Implicit node>")));
}

TEST_F(StatisticsTest, AProviderMovesWithAllBelow) {
    add(&b, "b", &a); // below a node without a name, which goes with its last child
    add(&c, "c", &b);
    int d = 0;
    add(&d, "d");
    statistics().setContext(&b, &d);
    EXPECT_EQ(report(), "Root\n- Children:\n  d\n  - Children:\n    b\n    - Children:\n      c\n");
}

TEST_F(StatisticsTest, AProviderDoesNotMoveBelowItself) {
    add(&a, "a");
    add(&b, "b", &a);
    const LogCapture log(zel::Notify::Warning);
    statistics().setContext(&a, &b);
    statistics().setContext(&c, &b);
    EXPECT_EQ(log.text(),
              "Tried to move provider 'a' below itself.\n"
              "Tried to change the context of a provider that hasn't been registered yet.\n");
    EXPECT_EQ(report(), "Root\n- Children:\n  a\n  - Children:\n    b\n");
}

TEST_F(StatisticsTest, AProviderIsNotItsOwnParent) {
    const LogCapture log(zel::Notify::Warning);
    EXPECT_EQ(add(&a, "a", &a), nullptr);
    EXPECT_EQ(report(), "Root\n");
    add(&b, "b", &a);
    EXPECT_EQ(add(&a, "a", &a), nullptr);
    const std::string text = "Trying to register provider 'a' below itself. Doing nothing.\n";
    EXPECT_EQ(log.text(), text + text);
    EXPECT_NE(add(&a, "a"), nullptr);
    EXPECT_EQ(report(), "Root\n- Children:\n  a\n  - Children:\n    b\n");
}

TEST_F(StatisticsTest, AProviderDoesNotRegisterBelowItself) {
    add(&b, "b", &a);
    const LogCapture log(zel::Notify::Warning);
    EXPECT_EQ(add(&a, "a", &b), nullptr);
    EXPECT_EQ(log.text(), "Trying to register provider 'a' below itself. Doing nothing.\n");
}

TEST_F(StatisticsTest, ABrokenTreeIsReported) {
    Provider* parent = add(&a, "a");
    Provider* child = add(&b, "b", &a);
    const ref_ptr<Provider> implicit(new Provider(&c));
    const ref_ptr<Provider> stray(new Provider(&c, "stray"));
    const ref_ptr<Provider> other(new Provider(&c, "other"));
    const LogCapture log(zel::Notify::Warning);
    parent->addChild(implicit.get());
    stray->addChild(other.get());
    EXPECT_EQ(
        log.text(),
        "Internal error: Trying to add an implicit ProviderHandle to a parent that isn't the root node.\n"
        "Internal Error: Found a root that isn't the same is the Statistics root node. This should not "
        "happen?\n");
    const LogCapture again(zel::Notify::Warning);
    stray->addChild(child);
    EXPECT_THAT(again.text(),
                HasSubstr("Internal error: Trying to give away a child that already have a parent.\n"));
    parent->removeChild(child); // leaves the child in the stray's list, without a parent
    EXPECT_FALSE(parent->removeChild(child));
    stray->removeChild(child);
}

TEST_F(StatisticsTest, ABrokenLinkIsReported) {
    Provider* child = add(&b, "b", &a);
    const ref_ptr<Provider> stray(new Provider(&c, "stray"));
    Provider* parent = child->getParent();
    stray->addChild(child); // now in two lists, with the stray for a parent
    EXPECT_TRUE(stray->removeChild(child));
    stray->addChild(child);
    ref_ptr<Provider> keep(child);
    parent->removeChild(child);
    const LogCapture log(zel::Notify::Warning);
    statistics().setContext(&b, &c);
    EXPECT_THAT(log.text(),
                HasSubstr("Internal error: Failed to disconnect a moved ProviderHandle from its parent.\n"));
}

TEST_F(StatisticsTest, BrokenTablesAreReported) {
    auto* open = new OpenStatistics; // owned by the manager of singletons
    const LogCapture log(zel::Notify::Warning);
    EXPECT_EQ(open->getOrCreateParentNode(&a), nullptr);
    open->createNameBinding(nullptr);
    open->removeNameBinding(nullptr);
    const ref_ptr<Provider> unknown(new Provider(&a, "unknown"));
    open->removeNameBinding(unknown.get());
    const ref_ptr<Provider> implicit(new Provider(&a));
    open->decayBranch(implicit.get());
    EXPECT_EQ(log.text(),
              "Internal error: Tried to get the ProviderHandle root node, but it didn't exist. \n"
              "Cached root node is 0 root.\n"
              "Internal error: Got nullptr when creating name binding.\n"
              "Internal error: Got nullptr to provider when removing name binding.\n"
              "Internal error: Tried to remove a name binding that doesn't exist.\n"
              "Internal error: Found an implicit node that hasn't been registered in the providers table.\n");
}

TEST_F(StatisticsTest, AHandleOutlivesItsRegistration) {
    const ref_ptr<Provider> handle(add(&a, "a"));
    add(&b, "b", &a);
    auto* data = handle->getOrCreateData<double>("x");
    statistics().unregisterDataProvider(&a);
    data->add(1);
    EXPECT_EQ(data->getValue(), 1);
    EXPECT_TRUE(handle->isImplicit());
    EXPECT_STREQ(handle->getParent()->getName(), "Root"); // for the sake of its child
}

// Reading

TEST_F(StatisticsTest, PathsLeadDownFromAProvider) {
    add(&a, "a");
    add(&b, "b", &a);
    auto* data = add(&c, "c", &b)->getOrCreateData<double>("x");
    EXPECT_EQ(statistics().getData(&a, zel::Path("b.c.x")), data);
    EXPECT_EQ(statistics().getData(&c, zel::Path("x")), data);
    const LogCapture log(zel::Notify::Warning);
    EXPECT_EQ(statistics().getData(&a, zel::Path("b.c.y")), nullptr);
    EXPECT_EQ(log.text(), "");
    EXPECT_EQ(statistics().getData(nullptr, zel::Path("x")), nullptr);
    int unknown = 0;
    EXPECT_EQ(statistics().getData(&unknown, zel::Path("x")), nullptr);
    EXPECT_EQ(statistics().getData(&a, zel::Path("b.d.x")), nullptr);
    std::ostringstream expected;
    expected << "Statistics asked to get data from a nullptr instance. This is not supported.\n"
             << "Statistics asked to get data from an instance that hasn't been registered yet.\n"
             << "While searching for statistics provider 'b.d.x' from provider a (" << static_cast<void*>(&a)
             << "). Did not find node 'd'.\n";
    EXPECT_EQ(log.text(), expected.str());
}

TEST_F(StatisticsTest, AMissingNodeBelowAnImplicitOneIsNamedSo) {
    add(&b, "b", &a);
    const LogCapture log(zel::Notify::Warning);
    EXPECT_EQ(statistics().getData(&a, zel::Path("d.x")), nullptr);
    EXPECT_THAT(log.text(), HasSubstr("from provider <Implicit node> ("));
}

TEST_F(StatisticsTest, TimingInfoReadsEachKindOfNumber) {
    Provider* provider = add(&a, "a");
    provider->getOrCreateData<double>("d")->add(1.5);
    provider->getOrCreateData<float>("f")->add(2.5F);
    provider->getOrCreateData<unsigned long>("u")->add(3);
    statistics().clearCurrent();
    provider->getOrCreateData<double>("d")->set(0.5);
    EXPECT_EQ(statistics().getTimingInfo("a", "d").value, 0.5);
    EXPECT_EQ(statistics().getTimingInfo("a", "d").accumulated, 1.5);
    EXPECT_EQ(statistics().getTimingInfo("a", "f").accumulated, 2.5);
    EXPECT_EQ(statistics().getTimingInfo("a", "u").accumulated, 3);
    EXPECT_EQ(statistics().getTimingString("a", "d"), "0.5 (accumulated: 1.5)");
    EXPECT_EQ(statistics().getTimingString("a", "none"), "");
}

TEST_F(StatisticsTest, DataOutlivesItsProviderForWhoeverHoldsIt) {
    add(&a, "a")->getOrCreateData<double>("x")->add(3);
    const ref_ptr<zel::StatisticsData> byName(statistics().getData("a", "x"));
    const ref_ptr<zel::StatisticsData> byPath(statistics().getData(&a, zel::Path("x")));
    statistics().unregisterDataProvider(&a);
    EXPECT_EQ(byName, byPath);
    EXPECT_EQ(byName->referenceCount(), 2);
    EXPECT_EQ(*static_cast<const double*>(byName->valuePtr()), 3);
    EXPECT_EQ(statistics().getData("a", "x"), nullptr);
}

TEST_F(StatisticsTest, ThreadsReadWhileProvidersGo) {
    constexpr int Rounds = 3000;
    std::atomic<bool> over{false};
    std::thread reader([&over] {
        while (!over.load(std::memory_order_acquire)) {
            const double value = statistics().getTimingInfo("a", "x").value;
            EXPECT_TRUE(value == 0 || value == 3) << value;
            const std::string text = statistics().getTimingString("a", "x");
            EXPECT_TRUE(text.empty() || text.find("(accumulated: ") != std::string::npos) << text;
        }
    });
    for (int i = 0; i < Rounds; ++i) {
        const ref_ptr<Provider> handle(add(&a, "a"));
        handle->getOrCreateData<double>("x")->add(3);
        statistics().unregisterDataProvider(&a);
    }
    over.store(true, std::memory_order_release);
    reader.join();
}

TEST_F(StatisticsTest, TimingInfoOfAnUnknownProviderIsZeroWithoutAWarning) {
    const LogCapture log(zel::Notify::Warning);
    EXPECT_EQ(statistics().getTimingInfo("none", "x").value, 0);
    EXPECT_EQ(statistics().getTimingInfo("none", "x").accumulated, 0);
    EXPECT_EQ(log.text(), "");
}

TEST_F(StatisticsTest, DataWithoutTextIsReported) {
    add(&a, "a")->addData(new Textless("odd"));
    const LogCapture log(zel::Notify::Warning);
    EXPECT_EQ(statistics().getTimingInfo("a", "odd").value, 0);
    EXPECT_EQ(statistics().getTimingString("a", "odd"), " (accumulated: )");
    EXPECT_EQ(log.text(),
              "Statistics asked to get timing info for 'a:odd' with an unknown type.\n"
              "Can not print value of type 'SpinMutex' to String, no ascii format available\n"
              "Can not print value of type 'SpinMutex' to String, no ascii format available\n");
}

// The report

TEST_F(StatisticsTest, ReportsTimingsDataAndChildren) {
    Provider* provider = add(&a, "engine");
    provider->getOrCreateData<double>("short", true)->add(1);
    provider->getOrCreateData<double>("long", true)->add(10);
    provider->getOrCreateData<unsigned long>("few")->add(2);
    provider->getOrCreateData<unsigned long>("many")->add(20);
    provider->addData(new zel::StatisticsDataT<double>(nullptr));
    zel::TaskTimingReportHandle* task = statistics().registerTaskTimerProvider(&b, "task", &a);
    task->getWallTime()->add(3);
    task->getOverhead()->add(1);
    task->getComputeCost()->add(2);
    task->getOrCreateData<double>("phase", true)->add(0.5);
    EXPECT_EQ(report(false),
              "Root\n"
              "- Children:\n"
              "  engine\n"
              "  - Timings:\n"
              "    long: 10 (10)\n"
              "    short: 1 (1)\n"
              "  - Data:\n"
              "    many: 20\n"
              "    few: 2\n"
              "    <nullptr>: 0\n"
              "  - Children:\n"
              "    task\n"
              "    - Timings:\n"
              "      phase: 0.5 (0.5)\n"
              "      Wall time: 3 (3)\n"
              "      Overhead: 1 (1)\n"
              "      Compute cost: 2 (2)\n");
    EXPECT_TRUE(task->isTaskTimer(task->getWallTime()));
    EXPECT_FALSE(task->isTaskTimer(task->getData("phase").get()));
    EXPECT_FALSE(provider->isTaskTimer(provider->getData("long").get()));
}

TEST_F(StatisticsTest, AnEmptyTreePrintsNothing) {
    EXPECT_EQ(report(), "No statistics.");
    add(&a, "a")->getOrCreateData<double>("x");
    EXPECT_EQ(report(false), "");
    EXPECT_EQ(report(true), "Root\n- Children:\n  a\n  - Data:\n    x: 0\n");
}

TEST_F(StatisticsTest, AChildThatIsNotEmptyEndsTheSearch) {
    add(&a, "full")->getOrCreateData<double>("x")->add(1);
    add(&b, "empty");
    EXPECT_EQ(report(false), "Root\n- Children:\n  full\n  - Data:\n    x: 1\n  empty\n");
}

TEST_F(StatisticsTest, ShowsAVisitorAllProvidersAParentFirst) {
    std::string seen;
    const auto look = [&seen](const Provider& provider, zel::uint32 depth) {
        seen += std::string(depth, ' ') + (provider.getName() == nullptr ? "-" : provider.getName()) + ":";
        for (const bool timing : {true, false})
            for (const auto* data : provider.getAllData(timing))
                seen += std::string(" ") + data->getName();
        seen += "\n";
    };
    statistics().visit(look);
    EXPECT_EQ(seen, "");
    add(&b, "below", &a)->getOrCreateData<unsigned long>("count");
    auto* task = statistics().registerTaskTimerProvider(&c, "task", &b);
    task->getOrCreateData<double>("phase", true);
    statistics().visit(look);
    EXPECT_EQ(seen, "-:\n below: count\n  task: WallTime Overhead ComputeCost phase\n");
}

TEST_F(StatisticsTest, ThreadsRegisterWriteAndReport) {
    std::vector<std::thread> threads;
    std::vector<int> providers(400);
    for (size_t t = 0; t < 4; ++t)
        threads.emplace_back([&providers, t] {
            for (size_t i = t; i < providers.size(); i += 4) {
                const std::string name = "p" + std::to_string(i);
                void* parent = i < 4 ? nullptr : &providers[i / 4];
                const ref_ptr<Provider> handle(add(&providers[i], name.c_str(), parent));
                handle->getOrCreateData<double>("x")->add(1);
                static_cast<void>(report(false));
                if (i % 3 == 0)
                    statistics().unregisterDataProvider(&providers[i]);
            }
        });
    for (std::thread& thread : threads)
        thread.join();
    double sum = 0;
    for (size_t i = 0; i < providers.size(); ++i)
        sum += statistics().getTimingInfo("p" + std::to_string(i), "x").value;
    EXPECT_EQ(sum, 266);
}

} // namespace
