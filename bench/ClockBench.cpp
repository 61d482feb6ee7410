// A clock: ticks by how many events are due and how many are scheduled, and adding events. Beside a heap of
// callbacks by their frame.
#include <zel/Clock.h>
#include <zel/SerialTask.h>
#include <zel/Thread.h>
#include <zel/ref_ptr.h>

#include <benchmark/benchmark.h>

#include <cstdint>
#include <functional>
#include <queue>
#include <random>
#include <utility>
#include <vector>

using zel::Clock;
using zel::ref_ptr;
using zel::SerialTask;

namespace {

// Ticks of a clock with 10 tasks in each frame

ref_ptr<Clock> makeClock() {
    zel::setNumThreads(1);
    return new Clock("clock", 1000);
}

/// @param state  how many events are due in each frame
void tick(benchmark::State& state) {
    const ref_ptr<Clock> clock = makeClock();
    std::vector<ref_ptr<SerialTask>> tasks;
    for (int i = 0; i < 10; ++i) {
        tasks.push_back(new SerialTask("t", [] {}));
        clock->addFrameTask(tasks.back().get());
    }
    zel::Object::setEnableRebind(false);
    int64_t fired = 0;
    for (int64_t i = 0; i < state.range(0); ++i)
        clock->addEvent(new Clock::Event([&fired] { ++fired; }, clock->getTimeStep(), 0));
    zel::Object::setEnableRebind(true);
    clock->tick(false);
    for (auto _ : state)
        clock->tick(false);
    benchmark::DoNotOptimize(fired);
}
BENCHMARK(tick)->Name("BM_ClockTick/zel")->Arg(0)->Arg(10)->Arg(1000);

/// The cost of an event, by how many are scheduled; each fires every hundredth frame or so.
void events(benchmark::State& state) {
    const ref_ptr<Clock> clock = makeClock();
    zel::Object::setEnableRebind(false);
    std::mt19937 random(3);
    int64_t fired = 0;
    for (int64_t i = 0; i < state.range(0); ++i) {
        const double interval = clock->getTimeStep() * static_cast<double>(50 + random() % 100);
        clock->addEvent(new Clock::Event([&fired] { ++fired; }, interval, interval));
    }
    zel::Object::setEnableRebind(true);
    for (int i = 0; i < 200; ++i)
        clock->tick(false);
    fired = 0;
    for (auto _ : state)
        clock->tick(false);
    state.SetItemsProcessed(fired);
}
BENCHMARK(events)->Name("BM_ClockEvents/zel")->Arg(10)->Arg(1000)->Arg(10000);

// Events that happen once

constexpr double Far = 1e6; // seconds: never within a benchmark

Clock::Event* oneShot(int64_t& fired, double delay) {
    return new Clock::Event([&fired] { ++fired; }, -1, delay);
}

/// An event is made, due in the next frame, and gone, while others are scheduled for later.
/// @param state  how many others
void oneShotZel(benchmark::State& state) {
    const ref_ptr<Clock> clock = makeClock();
    int64_t fired = 0;
    for (int64_t i = 0; i < state.range(0); ++i)
        clock->addEvent(oneShot(fired, Far));
    for (auto _ : state) {
        clock->addEvent(oneShot(fired, 0));
        clock->tick(false);
    }
    benchmark::DoNotOptimize(fired);
}

/// What a program does that has no clock.
struct Heap {
    using Entry = std::pair<uint64_t, std::function<void()>>;
    struct Later {
        bool operator()(const Entry& a, const Entry& b) const { return a.first > b.first; }
    };
    void tick() {
        ++frame;
        while (!entries.empty() && entries.top().first <= frame) {
            const std::function<void()> callback = entries.top().second;
            entries.pop();
            callback();
        }
    }
    std::priority_queue<Entry, std::vector<Entry>, Later> entries;
    uint64_t frame = 0;
};

void oneShotHeap(benchmark::State& state) {
    Heap heap;
    int64_t fired = 0;
    for (int64_t i = 0; i < state.range(0); ++i)
        heap.entries.emplace(uint64_t{1} << 40, [&fired] { ++fired; });
    for (auto _ : state) {
        heap.entries.emplace(heap.frame + 1, [&fired] { ++fired; });
        heap.tick();
    }
    benchmark::DoNotOptimize(fired);
}
BENCHMARK(oneShotZel)->Name("BM_ClockOneShot/zel")->Arg(10)->Arg(10000)->Arg(1000000);
BENCHMARK(oneShotHeap)->Name("BM_ClockOneShot/std_priority_queue")->Arg(10)->Arg(10000)->Arg(1000000);

/// @param state  how many events are made, due in one frame, and gone
void oneFrame(benchmark::State& state) {
    const ref_ptr<Clock> clock = makeClock();
    int64_t fired = 0;
    for (auto _ : state) {
        for (int64_t i = 0; i < state.range(0); ++i)
            clock->addEvent(oneShot(fired, 0));
        clock->tick(false);
    }
    state.SetItemsProcessed(fired);
}
BENCHMARK(oneFrame)
    ->Name("BM_ClockOneShotsInAFrame/zel")
    ->Arg(100)
    ->Arg(10000)
    ->Unit(benchmark::kMicrosecond);

/// @param state  how many events a clock takes in, which are made before
void addEvents(benchmark::State& state) {
    int64_t fired = 0;
    for (auto _ : state) {
        state.PauseTiming();
        {
            const ref_ptr<Clock> clock = makeClock();
            std::vector<ref_ptr<Clock::Event>> made;
            for (int64_t i = 0; i < state.range(0); ++i)
                made.push_back(oneShot(fired, Far));
            state.ResumeTiming();
            for (const ref_ptr<Clock::Event>& event : made)
                clock->addEvent(event.get());
            state.PauseTiming();
        }
        state.ResumeTiming();
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(addEvents)->Name("BM_ClockAddEvents/zel")->Arg(10000)->Arg(1000000)->Unit(benchmark::kMillisecond);

} // namespace

BENCHMARK_MAIN();
