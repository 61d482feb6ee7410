// The solar system: loads the model, ticks its clock and prints what a physicist would check. What happens in
// a step is in the model files below Components, and in the plug-in that they name.
#include "Diagnostics.h"

#include <zel/Clock.h>
#include <zel/Component.h>
#include <zel/Log.h>
#include <zel/RealTimeClock.h>
#include <zel/Statistics.h>
#include <zel/Thread.h>
#include <zelCore/zelCore.h>
#include <zelData/EntityStorage.h>
#include <zelData/Recorder.h>
#include <zelData/Replay.h>
#include <zelData/ValueT.h>
#include <zelIO/Environment.h>
#include <zelIO/FilePathContainer.h>

#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <cmath>
#include <exception>
#include <filesystem>
#include <iostream>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <system_error>
#include <thread>

namespace {

const char* const Usage =
    "usage: solar [options]\n"
    "  --model PATH    model to load, such as solar.Solar (the default), or a file\n"
    "  --days D        length of the run\n"
    "  --step S        length of a step in seconds\n"
    "  --particles N   number of test particles in the belt\n"
    "  --threads N     0 means one for each processor\n"
    "  --real-time     keep pace with the wall clock: ten hours a second\n"
    "  --statistics    print what the tasks took\n"
    "  --record FILE   record the run, replay it at the end, and compare\n"
    "  --every N       record each N-th step alone (1)\n"
    "  --from FILE:N   go on from frame N of a recorded run\n"
    "  --log FILE      name of the log, which is numbered (solar.log)\n"
    "  -h, --help      print this\n"
    "Ctrl-C ends the run after the present step, with the summary; once more, at once.\n";

/// Frames a second at least: a real-time clock takes no step that is longer than 1/30 s.
constexpr double SlowestPace = 30;

/// What a shell tells of a program that a signal has ended.
constexpr int ExitBySignal = 128;

/// The signal that asks for an end; 0 while there is none. Any thread may get it; nothing else is published
/// by it.
constinit std::atomic<int> s_signal{0};
static_assert(std::atomic<int>::is_always_lock_free); // as a handler needs it

void askForEnd(int number) {
    s_signal.store(number, std::memory_order_relaxed);
}

/// The signal that has come; 0 for none.
int endSignal() {
    return s_signal.load(std::memory_order_relaxed);
}

/// Once: a second signal ends the program as it would without us.
void endOnSignals() {
    struct sigaction action {};
    action.sa_handler = &askForEnd;
    action.sa_flags = SA_RESTART | static_cast<int>(SA_RESETHAND);
    for (const int number : {SIGINT, SIGTERM})
        if (sigaction(number, &action, nullptr) != 0)
            throw std::system_error(errno, std::generic_category(), "sigaction");
}

/// What has been printed must have arrived: a full disk, or a closed pipe, is a failure.
void flushOutput() {
    if (!std::cout.flush())
        throw std::runtime_error("could not write to the standard output");
}

struct Options {
    std::string model = "solar.Solar";
    std::string log = "solar.log";
    std::optional<double> days;
    std::optional<double> step;
    std::optional<zel::uint64> particles;
    std::optional<zel::uint64> threads;
    std::string record;
    zel::uint64 every = 1;
    std::string from;
    bool realTime = false;
    bool statistics = false;
    bool help = false;
};

template <typename Number>
Number parse(std::string_view option, std::string_view text) {
    Number value{};
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc() || end != text.data() + text.size())
        throw std::invalid_argument(std::string(option) + ": '" + std::string(text) + "' is no " +
                                    (std::is_unsigned_v<Number> ? "whole number from 0 on" : "number"));
    if constexpr (std::is_floating_point_v<Number>)
        if (!(value > 0 && std::isfinite(value)))
            throw std::invalid_argument(std::string(option) + " must be above 0");
    return value;
}

Options parseOptions(int argc, char** argv) {
    constexpr std::array<std::string_view, 9> withValue{
        "--model", "--log", "--days", "--step", "--particles", "--threads", "--record", "--every", "--from"};
    Options options;
    for (int i = 1; i < argc; ++i) {
        const std::string_view option = argv[i];
        if (option == "--help" || option == "-h") {
            options.help = true;
            continue;
        }
        if (option == "--real-time" || option == "--statistics") {
            (option == "--real-time" ? options.realTime : options.statistics) = true;
            continue;
        }
        if (!option.starts_with('-'))
            throw std::invalid_argument("'" + std::string(option) + "' belongs to no option");
        if (std::find(withValue.begin(), withValue.end(), option) == withValue.end())
            throw std::invalid_argument("unknown option " + std::string(option));
        if (++i == argc)
            throw std::invalid_argument(std::string(option) + " needs a value");
        const std::string_view value = argv[i];
        if (option == "--model")
            options.model = value;
        else if (option == "--log")
            options.log = value;
        else if (option == "--days")
            options.days = parse<double>(option, value);
        else if (option == "--step")
            options.step = parse<double>(option, value);
        else if (option == "--particles")
            options.particles = parse<zel::uint64>(option, value);
        else if (option == "--record")
            options.record = value;
        else if (option == "--every")
            options.every = std::max<zel::uint64>(parse<zel::uint64>(option, value), 1);
        else if (option == "--from")
            options.from = value;
        else
            options.threads = parse<zel::uint64>(option, value);
    }
    return options;
}

zel::ref_ptr<zel::Component> loadModel(const std::string& model) {
    zel::ref_ptr<zel::Component> component(model.find('/') == std::string::npos
                                               ? zel::Component::load(zel::Path(model), nullptr)
                                               : zel::Component::loadFile(model, nullptr));
    if (!component)
        throw std::runtime_error("there is no model '" + model + "'");
    return component;
}

/// The object of the model with the name, of the class.
template <typename T>
T& find(zel::Component* model, const char* name, const char* tag) {
    auto* object = dynamic_cast<T*>(model->findObject(name));
    if (object == nullptr)
        throw std::runtime_error(std::string("the model has no ") + tag + " named '" + name + "'");
    return *object;
}

/// A number of the model, or what the options put in its place.
template <typename T>
T number(zel::Component* model, const char* name, const std::optional<T>& option) {
    auto& value = find<zelData::Value>(model, name, "Value");
    if (option)
        value.setExpression(std::to_string(*option));
    const zel::ref_ptr<zelData::ValueT<T>> number(new zelData::ValueT<T>);
    zelData::Value::copy(number.get(), &value); // converts
    return number->get();
}

/// Ticks through the whole run, or until a signal comes, with a line of progress if the terminal shows one.
/// @param realTime  whether to wait for each frame until its time has come
void run(zel::Clock& clock, double duration, bool realTime) {
    const bool terminal = isatty(STDERR_FILENO) != 0;
    const double end = duration * SecondsPerDay;
    const auto isAtEnd = [&clock, end] { return clock.getTime() >= end || endSignal() != 0; };
    const auto tick = [&clock, &isAtEnd, end, terminal] {
        if (isAtEnd())
            return;
        clock.tick();
        if (terminal && (clock.getFrame() % 512 == 0 || clock.getTime() >= end))
            std::cerr << zel::String::format("\r%5.1f %%  day %.1f",
                                             100.0 * clock.getTime() / end,
                                             clock.getTime() / SecondsPerDay)
                      << std::flush;
    };
    if (realTime) {
        zel::RealTimeClock* pacemaker = zel::RealTimeClock::instance();
        // A slow one steps in every n-th frame of the pacemaker.
        const double frequency = clock.getFrequency();
        const auto every = static_cast<zel::uint64>(std::max(1.0, std::ceil(SlowestPace / frequency)));
        pacemaker->setFrequency(frequency * static_cast<double>(every));
        const auto frame = pacemaker->postTick.connect([&tick, every](zel::Clock* paced) {
            if (paced->getFrame() % every == 0)
                tick();
        });
        while (!isAtEnd()) {
            pacemaker->tick();
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        pacemaker->postTick.disconnect(frame);
    }
    while (!isAtEnd())
        tick();
    if (terminal)
        std::cerr << '\n';
}

/// Puts the model back to a frame of a recorded run.
/// @param place  "FILE:N"
void goBackTo(const std::string& place, zel::Component* model) {
    const std::size_t colon = place.rfind(':');
    if (colon == std::string::npos)
        throw std::runtime_error("--from: '" + place + "' is not of the form FILE:N");
    const auto frame = parse<zel::uint64>("--from", std::string_view(place).substr(colon + 1));
    const zel::ref_ptr<zelData::Replay> replay(new zelData::Replay(place.substr(0, colon), model));
    if (!replay->applyFrame(frame))
        throw std::runtime_error("--from: there is no frame " + place.substr(colon + 1) + " in '" +
                                 place.substr(0, colon) + "'");
}

/// Replays the journal into a model of its own, goes on to where the run has ended, and compares.
void checkRecord(const Options& options, zel::uint64 lastFrame, zel::uint64 stateHash) {
    const zel::ref_ptr<zel::Component> model = loadModel(options.model);
    zel::root()->addObject(model.get());
    model->rebind();
    (void)number<zel::uint64>(model.get(), "numParticles", options.particles);
    const auto start = std::chrono::steady_clock::now();
    const zel::ref_ptr<zelData::Replay> replay(new zelData::Replay(options.record, model.get()));
    zel::uint64 numFrames = 0;
    while (replay->next())
        ++numFrames;
    const std::chrono::duration<double> elapsed = std::chrono::steady_clock::now() - start;
    auto& clock = find<zel::Clock>(model.get(), "clock", "Clock");
    while (clock.getFrame() < lastFrame)
        clock.tick();
    const Diagnostics diagnostics(find<zelData::EntityStorage>(model.get(), "bodies", "Entity.Storage"),
                                  find<zelData::EntityStorage>(model.get(), "particles", "Entity.Storage"));
    if (diagnostics.stateHash() != stateHash)
        throw std::runtime_error("the replay of '" + options.record + "' ends in another state than the run");
    std::cout << zel::String::format(
        "Replayed %llu frames in %.2f s (%.0f a second): the state at the end is that of the run\n",
        static_cast<unsigned long long>(numFrames),
        elapsed.count(),
        static_cast<double>(numFrames) / elapsed.count());
    zel::root()->removeObject(model.get());
}

void simulate(const Options& options) {
    if (!zel::Logger::instance()->openLogfile(options.log, false, true))
        throw std::runtime_error("could not open the log '" + options.log + "'");
    for (const auto type : {zelIO::Environment::PluginPath, zelIO::Environment::ResourcePath})
        for (const char* directory : {SOLAR_DIRECTORY, SOLAR_PLUGIN_DIRECTORY})
            zelIO::Environment::instance()->getFilePath(type).pushbackPath(directory);

    if (options.statistics) {
        // Ahead of the tasks, which register what they measure.
        zel::Statistics::setEnable(true);
        zel::Task::setProfilingMode(zel::Task::ProfilingFull);
    }
    const zel::ref_ptr<zel::Component> model = loadModel(options.model);
    zel::root()->addObject(model.get());
    model->rebind();
    const auto particles = number<zel::uint64>(model.get(), "numParticles", options.particles);
    const auto duration = number<double>(model.get(), "duration", options.days);
    // From here on: while there is one thread, what a task throws comes to this one.
    zel::setNumThreads(number<zel::uint64>(model.get(), "threads", options.threads));
    auto& clock = find<zel::Clock>(model.get(), "clock", "Clock");
    if (options.step)
        clock.setTimeStep(*options.step);

    if (!options.from.empty())
        goBackTo(options.from, model.get());
    zel::ref_ptr<zelData::Recorder> recorder;
    if (!options.record.empty()) {
        recorder = new zelData::Recorder;
        recorder->setClock(&clock);
        recorder->setRoot(model.get());
        recorder->setJournal(options.record);
        recorder->setReplace(true);
        recorder->setStride(options.every);
        recorder->start();
    }

    const auto& bodies = find<zelData::EntityStorage>(model.get(), "bodies", "Entity.Storage");
    Diagnostics diagnostics(bodies, find<zelData::EntityStorage>(model.get(), "particles", "Entity.Storage"));
    const auto observer = clock.postTick.connect(
        [&diagnostics](zel::Clock* ticked) { diagnostics.observe(ticked->getTime()); });
    ZEL_LOG_INFO("Steps of " << clock.getTimeStep() << " s on " << zel::getNumThreads() << " threads");

    const auto start = std::chrono::steady_clock::now();
    run(clock, duration, options.realTime);
    if (recorder)
        recorder->stop();
    const std::chrono::duration<double> elapsed = std::chrono::steady_clock::now() - start;
    clock.postTick.disconnect(observer);

    if (endSignal() != 0)
        std::cout << "Interrupted on the way: this is how far the run has come.\n\n";
    std::cout << bodies.size() << " bodies and " << particles << " particles over "
              << clock.getTime() / SecondsPerDay << " days in " << clock.getFrame() << " steps\n\n";
    diagnostics.print(std::cout);
    std::cout << zel::String::format("\nState hash 0x%016lx, the same for every number of threads\n",
                                     diagnostics.stateHash());
    if (options.statistics)
        zel::Statistics::instance()->print(std::cout, false);
    ZEL_LOG_INFO("Stepped in " << elapsed.count() << " s, state hash " << diagnostics.stateHash());
    std::cout << zel::String::format("%.2f s on %zu threads, log in %s\n",
                                     elapsed.count(),
                                     zel::getNumThreads(),
                                     zel::Logger::instance()->getLogFilename().c_str());
    const zel::uint64 stateHash = diagnostics.stateHash();
    zel::root()->removeObject(model.get());
    if (recorder) {
        constexpr double Mega = 1e6;
        const auto numBytes = static_cast<double>(std::filesystem::file_size(options.record));
        std::cout << zel::String::format(
            "Recorded %llu frames, %.1f MB, at %.1f MB a second, in %s; waited %.2f s for the disk\n",
            static_cast<unsigned long long>(recorder->getNumFrames()),
            numBytes / Mega,
            numBytes / Mega / elapsed.count(),
            options.record.c_str(),
            recorder->getWaitedSeconds());
        if (!recorder->getMessage().empty())
            throw std::runtime_error(recorder->getMessage());
        checkRecord(options, clock.getFrame(), stateHash);
    }
    flushOutput();
}

} // namespace

int main(int argc, char** argv) {
    Options options;
    try {
        options = parseOptions(argc, argv);
    } catch (const std::invalid_argument& error) {
        std::cerr << "solar: " << error.what() << '\n' << Usage;
        return 2;
    }
    zelCore::init();
    int result = 0;
    try {
        if (options.help) {
            std::cout << Usage;
            flushOutput();
        } else {
            endOnSignals();
            simulate(options);
            result = endSignal() == 0 ? 0 : ExitBySignal + endSignal();
        }
    } catch (const std::exception& error) {
        std::cerr << "solar: " << error.what() << '\n';
        result = 1;
    }
    zelCore::shutdown();
    return result;
}
