#include "support/LogCapture.h"
#include "support/StreamCapture.h"

#include <zel/Exception.h>
#include <zel/Notify.h>
#include <zelCore/zelCore.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <stdexcept>
#include <string>

using zelTest::LogCapture;
using zelTest::StreamCapture;
using namespace zel;
using testing::ElementsAre;

namespace {

struct ExceptionTest : testing::Test {
    void TearDown() override { setExceptionNotifyLevel(Notify::Warning); }
    StreamCapture quiet{std::cerr};
};

int s_throwLine = 0;

[[noreturn]] void throwSomething() {
    s_throwLine = __LINE__ + 1;
    ZEL_THROW(std::invalid_argument, "no such " + std::string("column"));
}

struct TwoPartError : std::runtime_error {
    TwoPartError(const std::string& what, int value) : std::runtime_error(what), code(value) {}
    int code;
};

} // namespace

TEST_F(ExceptionTest, AThrowIsLoggedWithItsPlaceAndThrown) {
    LogCapture log;
    try {
        throwSomething();
    } catch (const std::invalid_argument& error) {
        EXPECT_STREQ(error.what(), "no such column");
    }
    EXPECT_THAT(log.texts(),
                ElementsAre("Exception thrown from [tests/logging/ExceptionTest.cpp:" +
                            std::to_string(s_throwLine) + " (throwSomething)]:  \"no such column\"\n"));
    EXPECT_THAT(log.levels(), ElementsAre(Notify::Warning));
}

TEST_F(ExceptionTest, AThrowTakesTheArgumentsOfItsException) {
    LogCapture log;
    try {
        ZEL_THROW(TwoPartError, "two parts", 5);
    } catch (const TwoPartError& error) {
        EXPECT_EQ(error.code, 5);
    }
    EXPECT_EQ(log.texts().size(), 1U);
}

TEST_F(ExceptionTest, TheLevelOfTheMessageCanBeSet) {
    EXPECT_EQ(getExceptionNotifyLevel(), Notify::Warning);
    EXPECT_EQ(setExceptionNotifyLevel(Notify::Debug), Notify::Warning);
    EXPECT_EQ(getExceptionNotifyLevel(), Notify::Debug);
    LogCapture log;
    log_throw("here", "why");
    EXPECT_THAT(log.texts(), ElementsAre("Exception thrown from here:  \"why\"\n"));
    EXPECT_THAT(log.levels(), ElementsAre(Notify::Debug));
    EXPECT_EQ(setExceptionNotifyLevel(Notify::Info), Notify::Debug);
}

TEST_F(ExceptionTest, AtLevelErrorTheMessageItselfIsThrown) {
    setExceptionNotifyLevel(Notify::Error);
    Notify::instance()->setThrowOnError(true);
    EXPECT_THROW(log_throw("here", "why"), std::runtime_error);
}

TEST_F(ExceptionTest, CStrTakesBothKindsOfText) {
    const std::string text = "text";
    EXPECT_EQ(cStr(text), text.c_str());
    const char* plain = "plain";
    EXPECT_EQ(cStr(plain), plain);
}

TEST_F(ExceptionTest, AnInterruptCarriesItsMessageAsARuntimeError) {
    try {
        throw InterruptException("stop");
    } catch (const std::runtime_error& error) {
        EXPECT_STREQ(error.what(), "stop");
    }
}
