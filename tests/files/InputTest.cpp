#include <zelIO/Input.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <utility>
#include <vector>

using namespace zelIO;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

struct InputTest : testing::Test {
    using Key = std::pair<int, EventType>;
    std::vector<Key> keys;
    KeyboardCallback keyboard{[this](int key, EventType type) { keys.emplace_back(key, type); }};
};

} // namespace

TEST_F(InputTest, AnUnregisteredKeyDoesNothing) {
    registerKeyboardCallback(1, &keyboard);
    triggerKeyboardEvent(2, EventType::Press);
    EXPECT_THAT(keys, IsEmpty());
    EXPECT_TRUE(unregisterKeyboardCallback(1, &keyboard));
}

TEST_F(InputTest, AKeyReachesItsCallbacks) {
    EXPECT_EQ(static_cast<int>(EventType::Press), 0);
    registerKeyboardCallback(65, &keyboard);
    registerKeyboardCallback(65, &keyboard);
    triggerKeyboardEvent(65, EventType::Release);
    EXPECT_THAT(keys, ElementsAre(Key(65, EventType::Release), Key(65, EventType::Release)));
    EXPECT_TRUE(unregisterKeyboardCallback(65, &keyboard));
    EXPECT_TRUE(unregisterKeyboardCallback(65, &keyboard));
    EXPECT_FALSE(unregisterKeyboardCallback(65, &keyboard));
    EXPECT_FALSE(unregisterKeyboardCallback(66, &keyboard));
    triggerKeyboardEvent(65, EventType::Press);
    EXPECT_EQ(keys.size(), 2U);
}

TEST_F(InputTest, TheKeyMinusOneIsNotSpecial) {
    registerKeyboardCallback(-1, &keyboard);
    triggerKeyboardEvent(-1, EventType::Press);
    triggerKeyboardEvent(5, EventType::Press);
    EXPECT_THAT(keys, ElementsAre(Key(-1, EventType::Press)));
    EXPECT_TRUE(unregisterKeyboardCallback(-1, &keyboard));
}

TEST_F(InputTest, ACallbackMayRegisterKeysAndGo) {
    std::vector<KeyboardCallback> more(50, keyboard);
    KeyboardCallback growing([&](int key, EventType) {
        for (int i = 0; i < 50; ++i)
            registerKeyboardCallback(1000 + i, &more[static_cast<size_t>(i)]);
        unregisterKeyboardCallback(key, &growing);
    });
    registerKeyboardCallback(7, &growing);
    triggerKeyboardEvent(7, EventType::Press);
    triggerKeyboardEvent(7, EventType::Press);
    triggerKeyboardEvent(1049, EventType::Press);
    EXPECT_THAT(keys, ElementsAre(Key(1049, EventType::Press)));
    for (int i = 0; i < 50; ++i)
        EXPECT_TRUE(unregisterKeyboardCallback(1000 + i, &more[static_cast<size_t>(i)]));
}

TEST_F(InputTest, MouseEventsReachAllCallbacksUntilTheyAreUnregistered) {
    std::vector<std::pair<double, double>> positions;
    MouseCallback mouse([&positions](MouseButton button, EventType type, zel::Vec2T<double> position) {
        EXPECT_EQ(button, MouseButton::Left);
        EXPECT_EQ(type, EventType::Press);
        positions.emplace_back(position.x(), position.y());
    });
    registerMouseCallback(&mouse);
    triggerMouseEvent(MouseButton::Left, EventType::Press, zel::Vec2T<double>(1.5, -2.0));
    EXPECT_TRUE(unregisterMouseCallback(&mouse));
    EXPECT_FALSE(unregisterMouseCallback(&mouse));
    triggerMouseEvent(MouseButton::Left, EventType::Press, zel::Vec2T<double>(3, 4));
    EXPECT_THAT(positions, ElementsAre(std::pair(1.5, -2.0)));
}
