#include <zel/FloatingPoint.h>
#include <zel/SerialTask.h>
#include <zel/Thread.h>
#include <zel/ref_ptr.h>
#include <zelCore/zelCore.h>

#include <unistd.h>
#include <xmmintrin.h>

#include <csignal>
#include <limits>
#include <thread>

using zel::DenormalizationGuard;
using zel::FloatingPointExceptions;

namespace {

double halfOfTheSmallestNormal() {
    volatile double smallest = std::numeric_limits<double>::min();
    return smallest / 2;
}

double divide(double a, double b) {
    volatile double numerator = a;
    volatile double denominator = b;
    volatile double quotient = numerator / denominator;
    return quotient;
}

} // namespace

TEST(FloatingPointTest, GuardFlushesDenormalsUntilItIsDisabled) {
    EXPECT_GT(halfOfTheSmallestNormal(), 0);
    const zel::uint32 old = DenormalizationGuard::enable();
    EXPECT_EQ(_mm_getcsr() & 0x8040U, 0x8040U);
    EXPECT_EQ(halfOfTheSmallestNormal(), 0);
    DenormalizationGuard::disable(old);
    EXPECT_EQ(_mm_getcsr(), old);
    EXPECT_GT(halfOfTheSmallestNormal(), 0);
}

TEST(FloatingPointTest, AllThreadsOfTheSystemFlushDenormals) {
    zelCore::init();
    zel::setNumThreads(2);
    EXPECT_EQ(halfOfTheSmallestNormal(), 0);
    double onWorker = 1;
    const zel::ref_ptr<zel::SerialTask> task(
        new zel::SerialTask("t", [&] { onWorker = halfOfTheSmallestNormal(); }));
    task->execute();
    EXPECT_EQ(onWorker, 0);
    std::thread([] {
        DenormalizationGuard::disable(_mm_getcsr() &
                                      ~DenormalizationGuard::Mask); // inherited from its creator
        zel::Thread::registerAsZelThread();
        EXPECT_EQ(halfOfTheSmallestNormal(), 0);
        zel::Thread::unregisterAsZelThread();
        EXPECT_GT(halfOfTheSmallestNormal(), 0);
    }).join();
    zelCore::shutdown();
    EXPECT_GT(halfOfTheSmallestNormal(), 0) << "the main thread has its old state back";
}

TEST(FloatingPointTest, NothingTrapsByDefault) {
    EXPECT_EQ(FloatingPointExceptions::getMask(), 0U);
    FloatingPointExceptions::apply();
    EXPECT_EQ(divide(1, 0), std::numeric_limits<double>::infinity());
}

TEST(FloatingPointDeathTest, MaskedExceptionsTrap) {
    EXPECT_EXIT(
        {
            std::signal(SIGFPE, SIG_DFL); // a sanitizer has a handler of its own
            FloatingPointExceptions::setMask(FloatingPointExceptions::DivideByZero);
            divide(1, 0);
        },
        testing::KilledBySignal(SIGFPE),
        "");
    EXPECT_EXIT(
        {
            FloatingPointExceptions::setMask(FloatingPointExceptions::DivideByZero);
            divide(0, 0);
            _exit(7);
        },
        testing::ExitedWithCode(7),
        "");
}
