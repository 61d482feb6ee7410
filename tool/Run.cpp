#include "Command.h"
#include "Control.h"
#include "FrameStreams.h"
#include "Model.h"
#include "QuietScope.h"
#include "Signals.h"

#include <zel/Clock.h>
#include <zel/Statistics.h>
#include <zel/String.h>
#include <zel/Task.h>
#include <zel/Thread.h>
#include <zel/UnresolvedTask.h>
#include <zel/ref_ptr.h>
#include <zelData/Recorder.h>

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <iostream>
#include <limits>
#include <optional>
#include <stdexcept>
#include <thread>

// zel run.

namespace tool {

namespace {

/// The first clock below the component, depth first.
// NOLINTNEXTLINE(misc-no-recursion)
zel::Clock* findClock(const zel::Component* component) {
    for (std::size_t i = 0; i < component->getNumObjects(); ++i) {
        if (auto* clock = dynamic_cast<zel::Clock*>(component->getObject(i)))
            return clock;
        const auto* below = dynamic_cast<const zel::Component*>(component->getObject(i));
        zel::Clock* found = below == nullptr ? nullptr : findClock(below);
        if (found != nullptr)
            return found;
    }
    return nullptr;
}

/// The first task below the component that has no implementation, depth first.
// NOLINTNEXTLINE(misc-no-recursion)
const zel::Object* findUnresolved(const zel::Component* component) {
    for (std::size_t i = 0; i < component->getNumObjects(); ++i) {
        const zel::Object* object = component->getObject(i);
        if (dynamic_cast<const zel::UnresolvedTask*>(object) != nullptr)
            return object;
        const auto* below = dynamic_cast<const zel::Component*>(object);
        const zel::Object* found = below == nullptr ? nullptr : findUnresolved(below);
        if (found != nullptr)
            return found;
    }
    return nullptr;
}

zel::Clock& clockOf(const LoadedModel& model, const Arguments& arguments) {
    auto* clock = arguments.has("--clock") ? dynamic_cast<zel::Clock*>(model.find(arguments.get("--clock")))
                                           : findClock(model.get());
    if (clock == nullptr)
        throw std::runtime_error(arguments.has("--clock") ? "'" + arguments.get("--clock") + "' is no clock"
                                                          : std::string("the model has no clock"));
    return *clock;
}

/// A line on the terminal, if there is one, at most ten times a second.
class Progress {
public:
    void update(const zel::Clock& clock, double share) {
        const auto now = std::chrono::steady_clock::now();
        if (!m_isTerminal || now < m_next)
            return;
        m_next = now + std::chrono::milliseconds(100);
        print(clock, share);
    }
    void finish(const zel::Clock& clock, double share) const {
        if (m_isTerminal) {
            print(clock, share);
            std::cerr << '\n';
        }
    }

private:
    static void print(const zel::Clock& clock, double share) {
        std::cerr << (share >= 0 ? zel::String::format("\r%5.1f %%  ", 100 * share) : zel::String("\r"))
                  << "frame " << clock.getFrame() << ", time " << toText(clock.getTime()) << "        "
                  << std::flush;
    }

    bool m_isTerminal = isatty(STDERR_FILENO) != 0;
    std::chrono::steady_clock::time_point m_next;
};

/// Keeps a clock from going faster than its frequency, in seconds of the wall.
class Pace {
public:
    /// Waits until the next tick is due, and lets clients be served meanwhile. Time that was lost, in a long
    /// tick or while the clock was halted, is not made up for.
    void wait(const zel::Clock& clock, std::optional<Control>& control) {
        // Who is served may change the frequency.
        const auto due = [&] {
            const std::chrono::duration<double> step(std::min(1 / clock.getFrequency(), LongestStep));
            return m_last + std::chrono::duration_cast<Time::duration>(step);
        };
        for (auto now = Time::clock::now(); now < due() && endSignal() == 0; now = Time::clock::now()) {
            std::this_thread::sleep_for(std::min<Time::duration>(LongestSleep, due() - now));
            if (control)
                control->serviceIfDue();
        }
        m_last = std::max(due(), Time::clock::now() - LongestSleep);
    }

private:
    using Time = std::chrono::steady_clock::time_point;
    static constexpr std::chrono::milliseconds LongestSleep{1};
    static constexpr double LongestStep = 3600; // seconds

    Time m_last = Time::clock::now();
};

/// Each new journal makes the library tell of an old one that it removes, which there is none of: the
/// recorder refuses a file that is there.
zel::ref_ptr<zelData::Recorder> record(zel::Clock& clock, const std::string& file, zel::Component* model) {
    const QuietScope scope;
    return zelData::Recorder::record(&clock, file, model);
}

/// One tick of the clock, and what clients of the control ask for: ticks as well, while the clock is halted.
/// @return by how many frames the clock has gone on
unsigned long advance(zel::Clock& clock, std::optional<Control>& control, FrameStreams& streams) {
    const std::size_t frame = clock.getFrame();
    clock.tick();
    const bool isHalted = clock.getFrame() == frame;
    if (isHalted && !control)
        throw std::runtime_error("the clock does not go on: is it disabled?");
    if (isHalted)
        control->serviceAndRest();
    else if (control)
        control->serviceIfDue();
    if (clock.getFrame() == frame)
        return 0;
    streams.push();
    return clock.getFrame() > frame ? clock.getFrame() - frame : 0;
}

void tickThrough(zel::Clock& clock,
                 const Arguments& arguments,
                 std::optional<Control>& control,
                 FrameStreams& streams) {
    const unsigned long numFrames = arguments.number("--frames", std::numeric_limits<unsigned long>::max());
    const double endTime = arguments.real("--time", std::numeric_limits<double>::infinity());
    const double startTime = clock.getTime();
    const auto share = [&](unsigned long done) {
        if (arguments.has("--frames"))
            return numFrames == 0 ? 1.0 : static_cast<double>(done) / static_cast<double>(numFrames);
        return arguments.has("--time") ? (clock.getTime() - startTime) / (endTime - startTime) : -1.0;
    };
    Progress progress;
    Pace pace;
    const bool isPaced = arguments.has("--real-time");
    unsigned long done = 0;
    // Without an end, the time may go beyond all numbers.
    while (done < numFrames && (!arguments.has("--time") || clock.getTime() < endTime) && endSignal() == 0) {
        done += advance(clock, control, streams);
        progress.update(clock, share(done));
        if (isPaced)
            pace.wait(clock, control);
    }
    progress.finish(clock, share(done));
}

} // namespace

int runModel(const Arguments& arguments) {
    if (arguments.has("--frames") && arguments.has("--time"))
        throw UsageError("--frames and --time are two ways to tell the end");
    const unsigned long numThreads = arguments.number("--threads", 0);
    (void)arguments.number("--frames", 0); // told ahead of the model
    (void)arguments.real("--time", 0);
    Control::verifyOptions(arguments);
    FrameStreams streams(arguments); // ports that can not be had are told ahead of the model
    endOnSignals();
    if (arguments.has("--statistics")) {
        // Ahead of the tasks, which register what they measure.
        zel::Statistics::setEnable(true);
        zel::Task::setProfilingMode(zel::Task::ProfilingFull);
    }
    const LoadedModel model(arguments);
    if (const zel::Object* task = findUnresolved(model.get()))
        throw std::runtime_error("the task '" + task->getPath(zel::root()).str() + "' has no implementation");
    zel::setNumThreads(numThreads);
    zel::Clock& clock = clockOf(model, arguments);
    const std::size_t firstFrame = clock.getFrame();
    zel::ref_ptr<zelData::Recorder> recorder;
    if (arguments.has("--record"))
        recorder = record(clock, arguments.get("--record"), model.get());
    streams.start(clock, model.get());

    std::optional<Control> control;
    if (arguments.has("--control")) {
        control.emplace(arguments);
        control->show(streams);
        control->addRun(clock, model.get());
        if (arguments.has("--record"))
            control->addJournal(arguments.get("--record"), false);
    }

    const auto start = std::chrono::steady_clock::now();
    tickThrough(clock, arguments, control, streams);
    if (recorder)
        recorder->stop(); // all is written, and the journal is closed
    streams.stop();
    const std::chrono::duration<double> elapsed = std::chrono::steady_clock::now() - start;
    control.reset();

    if (endSignal() != 0)
        std::cout << "Ended by a signal.\n";
    std::cout << clock.getFrame() - firstFrame << " frames, up to time " << toText(clock.getTime()) << ", in "
              << zel::String::format("%.2f", elapsed.count()) << " s on " << zel::getNumThreads()
              << " threads\n";
    if (recorder)
        std::cout << "Recorded " << recorder->getNumFrames() << " frames in " << arguments.get("--record")
                  << '\n';
    streams.print();
    if (arguments.has("--statistics"))
        zel::Statistics::instance()->print(std::cout, false);
    if (recorder && !recorder->getMessage().empty())
        throw std::runtime_error(recorder->getMessage());
    streams.rethrow();
    return endSignal() == 0 ? static_cast<int>(Done) : BySignal + endSignal();
}

} // namespace tool
