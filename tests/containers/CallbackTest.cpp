#include <zel/Callback.h>

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <string>

namespace {

struct Recorder {
    int sum = 0;
    void nothing() { sum = -1; }
    void add(int a, int b) { sum += a + b; }
};
struct DerivedRecorder : Recorder {};

int s_called = 0;
void freeFunction() {
    ++s_called;
}

TEST(CallbackTest, CallsFunctionsAndLambdas) {
    zel::Callback callback(freeFunction);
    callback();
    EXPECT_EQ(s_called, 1);
    int value = 0;
    callback = [&value] { value = 7; };
    callback();
    EXPECT_EQ(value, 7);
}

TEST(CallbackTest, PassesItsArguments) {
    int sum = 0;
    const zel::Callback1<int> one([&sum](int a) { sum += a; });
    const zel::Callback2<int, int&> two([](int a, int& out) { out = a; });
    const zel::Callback3<int, const std::string&, int> three(
        [&sum](int a, const std::string& text, int b) { sum += a + b + static_cast<int>(text.size()); });
    one(1);
    three(10, "four", 100);
    int out = 0;
    two(5, out);
    EXPECT_EQ(sum, 115);
    EXPECT_EQ(out, 5);
}

TEST(CallbackTest, BindsAnOperationOfAnObject) {
    Recorder recorder;
    zel::Callback(&recorder, &Recorder::nothing)();
    EXPECT_EQ(recorder.sum, -1);
    DerivedRecorder derived;
    const zel::Callback2<int, int> add(&derived, &Recorder::add);
    add(2, 3);
    EXPECT_EQ(derived.sum, 5);
}

TEST(CallbackTest, AnEmptyOneIsFalseAndThrows) {
    const zel::Callback1<int> callback;
    EXPECT_FALSE(callback);
    EXPECT_THROW(callback(1), std::bad_function_call);
    EXPECT_FALSE(zel::Callback(std::function<void()>()));
    EXPECT_TRUE(zel::Callback(freeFunction));
}

TEST(CallbackTest, CopiesShareNothingButWhatTheyCapture) {
    auto counter = std::make_shared<int>(0);
    const zel::Callback first([counter] { ++*counter; });
    const zel::Callback second(first);
    first();
    second();
    EXPECT_EQ(*counter, 2);
    EXPECT_EQ(counter.use_count(), 3);
}

} // namespace
