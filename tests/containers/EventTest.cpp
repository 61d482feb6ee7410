#include <zel/Event.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pthread.h>

#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace {

using testing::ElementsAre;

/// Collects the letters of the callbacks in the order of their calls.
class EventTest : public testing::Test {
protected:
    zel::Callback noting(char letter) {
        return [this, letter] { m_calls += letter; };
    }
    std::string fire() {
        m_calls.clear();
        m_event.fire();
        return m_calls;
    }

    zel::Event m_event;
    std::string m_calls;
};

TEST_F(EventTest, CallsInTheOrderOfConnection) {
    for (const char letter : {'a', 'b', 'c'})
        m_event.connect(noting(letter));
    EXPECT_EQ(fire(), "abc");
    EXPECT_EQ(fire(), "abc");
}

TEST_F(EventTest, AnEmptyEventFiresWithoutEffect) {
    EXPECT_TRUE(m_event.empty());
    EXPECT_EQ(fire(), "");
}

TEST_F(EventTest, DisconnectedCallbacksAreNotCalled) {
    m_event.connect(noting('a'));
    const auto id = m_event.connect(noting('b'));
    m_event.connect(noting('c'));
    EXPECT_TRUE(m_event.disconnect(id));
    EXPECT_FALSE(m_event.disconnect(id));
    EXPECT_FALSE(m_event.disconnect(12345));
    EXPECT_EQ(m_event.size(), 2U);
    EXPECT_EQ(fire(), "ac");
}

TEST_F(EventTest, AnInactiveEntryIsReplacedByTheLastOne) {
    const auto id = m_event.connect(noting('a'));
    for (const char letter : {'b', 'c', 'd'})
        m_event.connect(noting(letter));
    m_event.find(id)->active = false;
    EXPECT_EQ(m_event.size(), 4U);
    EXPECT_EQ(fire(), "dbc");
    EXPECT_EQ(m_event.size(), 3U);
    EXPECT_EQ(m_event.find(id), nullptr);
    EXPECT_EQ(fire(), "dbc");
}

TEST_F(EventTest, AnInactiveLastEntryIsJustRemoved) {
    m_event.connect(noting('a'));
    const auto id = m_event.connect(noting('b'));
    m_event.find(id)->active = false;
    EXPECT_EQ(fire(), "a");
    EXPECT_EQ(m_event.size(), 1U);
}

TEST_F(EventTest, AllEntriesMayBeInactive) {
    std::vector<zel::uint64> ids;
    for (const char letter : {'a', 'b', 'c'})
        ids.push_back(m_event.connect(noting(letter)));
    for (const auto id : ids)
        m_event.find(id)->active = false;
    EXPECT_EQ(fire(), "");
    EXPECT_TRUE(m_event.empty());
}

TEST_F(EventTest, AOneShotIsCalledOnceAndReplacedByTheLastOne) {
    m_event.connect(noting('a'), true);
    m_event.connect(noting('b'));
    m_event.connect(noting('c'));
    EXPECT_EQ(fire(), "acb");
    EXPECT_EQ(fire(), "cb");
}

TEST_F(EventTest, OneShotsAloneEmptyTheEvent) {
    for (const char letter : {'a', 'b', 'c'})
        m_event.connect(noting(letter), true);
    EXPECT_EQ(fire(), "acb");
    EXPECT_TRUE(m_event.empty());
}

TEST_F(EventTest, ACallbackMayDisconnectItself) {
    zel::uint64 id = 0;
    id = m_event.connect([&] {
        m_calls += 'a';
        EXPECT_TRUE(m_event.disconnect(id));
    });
    m_event.connect(noting('b'));
    m_event.connect(noting('c'));
    EXPECT_EQ(fire(), "abc");
    EXPECT_EQ(fire(), "cb");
}

TEST_F(EventTest, ACallbackMayDisconnectALaterOne) {
    zel::uint64 later = 0;
    m_event.connect([&] {
        m_calls += 'a';
        m_event.disconnect(later);
    });
    later = m_event.connect(noting('b'));
    m_event.connect(noting('c'));
    EXPECT_EQ(fire(), "ac");
    EXPECT_EQ(m_event.size(), 2U);
}

TEST_F(EventTest, ACallbackMayDisconnectAnEarlierOne) {
    const auto earlier = m_event.connect(noting('a'));
    m_event.connect([&] {
        m_calls += 'b';
        m_event.disconnect(earlier);
    });
    m_event.connect(noting('c'));
    EXPECT_EQ(fire(), "abc");
    EXPECT_EQ(fire(), "cb");
}

TEST_F(EventTest, ACallbackConnectedDuringTheWalkIsCalledInIt) {
    m_event.connect([&] {
        m_calls += 'a';
        // Enough to make the list move.
        for (const char letter : {'b', 'c', 'd', 'e', 'f', 'g', 'h', 'i'})
            m_event.connect(noting(letter), true);
    });
    EXPECT_EQ(fire(), "abihgfedc");
    EXPECT_EQ(m_event.size(), 1U);
}

TEST_F(EventTest, EachCallbackIsCalledWhereSomeThrowAndTheFirstExceptionComesOut) {
    m_event.connect([] { throw std::runtime_error("first"); });
    m_event.connect(noting('a'));
    m_event.connect([] { throw std::logic_error("second"); }, true);
    m_event.connect(noting('b'));
    EXPECT_THROW(m_event.fire(), std::runtime_error);
    EXPECT_EQ(m_calls, "ab");
    EXPECT_EQ(m_event.size(), 3U);
}

TEST_F(EventTest, AThreadThatEndsWithinACallbackIsNotHeldUp) {
    m_event.connect([] { pthread_exit(nullptr); });
    m_event.connect(noting('a'));
    std::thread([this] { m_event.fire(); }).join();
    EXPECT_EQ(m_calls, "");
}

TEST_F(EventTest, AnExceptionLeavesTheEventUsable) {
    bool armed = true;
    m_event.connect(noting('a'));
    m_event.connect([&] {
        if (armed)
            throw std::runtime_error("callback");
        m_calls += 'b';
    });
    const auto last = m_event.connect(noting('c'));
    EXPECT_THROW(m_event.fire(), std::runtime_error);
    EXPECT_EQ(m_calls, "ac");
    armed = false;
    EXPECT_EQ(fire(), "abc");
    m_event.disconnect(last);
    EXPECT_EQ(m_event.size(), 2U); // removed at once: no walk is under way
}

TEST_F(EventTest, AOneShotThatThrowsIsGone) {
    m_event.connect([] { throw std::runtime_error("callback"); }, true);
    EXPECT_THROW(m_event.fire(), std::runtime_error);
    EXPECT_TRUE(m_event.empty());
}

TEST_F(EventTest, ANestedFiringWalksTheWholeListOnceMore) {
    int depth = 0;
    m_event.connect(noting('a'));
    m_event.connect([&] {
        m_calls += 'b';
        if (depth++ == 0)
            m_event.fire();
    });
    m_event.connect(noting('c'));
    EXPECT_EQ(fire(), "ababcc");
}

TEST_F(EventTest, ANestedFiringTakesNoEntryFromTheOuterWalk) {
    int depth = 0;
    zel::uint64 first = 0;
    first = m_event.connect(noting('a'));
    m_event.connect([&] {
        m_calls += 'b';
        if (depth++ == 0) {
            m_event.disconnect(first);
            m_event.fire();
            m_calls += '|';
        }
    });
    m_event.connect(noting('c'));
    m_event.connect(noting('d'));
    EXPECT_EQ(fire(), "abbcd|cd");
    EXPECT_EQ(m_event.size(), 4U);
    EXPECT_EQ(fire(), "dbc");
    EXPECT_EQ(m_event.size(), 3U);
}

TEST_F(EventTest, ANestedFiringCallsAOneShotOnceAlone) {
    int depth = 0;
    m_event.connect([&] {
        m_calls += 'a';
        if (depth++ == 0)
            m_event.fire();
    });
    m_event.connect(noting('b'), true);
    EXPECT_EQ(fire(), "aab");
    EXPECT_EQ(m_event.size(), 1U);
}

TEST_F(EventTest, AOneShotMayFireTheEventAgain) {
    m_event.connect(
        [&] {
            m_calls += 'a';
            m_event.fire();
        },
        true);
    m_event.connect(noting('b'));
    EXPECT_EQ(fire(), "abb");
}

TEST(EventNameTest, CarriesItsNameAndSource) {
    int source = 0;
    const zel::Event event("StorageCreationEvent", &source);
    EXPECT_EQ(event.getName(), zel::Name("StorageCreationEvent"));
    EXPECT_EQ(event.getSource(), &source);
    EXPECT_EQ(zel::Event().getName(), zel::Name());
    EXPECT_EQ(zel::Event().getSource(), nullptr);
}

TEST(EventArgumentsTest, PassesItsArgumentsToEachCallback) {
    zel::Event2<const std::string&, int&> event;
    std::string text;
    for (int i = 0; i < 2; ++i)
        event.connect([&text](const std::string& t, int& count) {
            text += t;
            ++count;
        });
    int count = 0;
    event.fire(std::string("x"), count);
    EXPECT_EQ(text, "xx");
    EXPECT_EQ(count, 2);
}

} // namespace
