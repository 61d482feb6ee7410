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
#include <zelData/ValueT.h>
#include <zelIO/Environment.h>
#include <zelIO/FilePathContainer.h>

#include <unistd.h>

#include <charconv>
#include <chrono>
#include <cmath>
#include <exception>
#include <iostream>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <thread>

namespace {

const char* const Usage = "usage: solar [options]\n"
                          "  --model PATH    model to load, such as solar.Solar (the default), or a file\n"
                          "  --days D        length of the run\n"
                          "  --step S        length of a step in seconds\n"
                          "  --particles N   number of test particles in the belt\n"
                          "  --threads N     0 means one for each processor\n"
                          "  --real-time     keep pace with the wall clock: ten hours a second\n"
                          "  --statistics    print what the tasks took\n"
                          "  --log FILE      name of the log, which is numbered (solar.log)\n";

struct Options {
    std::string model = "solar.Solar";
    std::string log = "solar.log";
    std::optional<double> days;
    std::optional<double> step;
    std::optional<zel::uint64> particles;
    std::optional<zel::uint64> threads;
    bool realTime = false;
    bool statistics = false;
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
    Options options;
    for (int i = 1; i < argc; ++i) {
        const std::string_view option = argv[i];
        if (option == "--help") {
            std::cout << Usage;
            std::exit(0);
        }
        if (option == "--real-time" || option == "--statistics") {
            (option == "--real-time" ? options.realTime : options.statistics) = true;
            continue;
        }
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
        else if (option == "--threads")
            options.threads = parse<zel::uint64>(option, value);
        else
            throw std::invalid_argument("unknown option " + std::string(option));
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

/// Ticks through the whole run, with a line of progress if the terminal shows one.
/// @param realTime  whether to wait for each frame until its time has come
void run(zel::Clock& clock, double duration, bool realTime) {
    const bool terminal = isatty(STDERR_FILENO) != 0;
    const double end = duration * SecondsPerDay;
    const auto tick = [&clock, end, terminal] {
        if (clock.getTime() >= end)
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
        pacemaker->setFrequency(clock.getFrequency());
        const auto frame = pacemaker->postTick.connect([&tick](zel::Clock*) { tick(); });
        while (clock.getTime() < end) {
            pacemaker->tick();
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        pacemaker->postTick.disconnect(frame);
    }
    while (clock.getTime() < end)
        tick();
    if (terminal)
        std::cerr << '\n';
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

    const auto& bodies = find<zelData::EntityStorage>(model.get(), "bodies", "Entity.Storage");
    Diagnostics diagnostics(bodies, find<zelData::EntityStorage>(model.get(), "particles", "Entity.Storage"));
    const auto observer = clock.postTick.connect(
        [&diagnostics](zel::Clock* ticked) { diagnostics.observe(ticked->getTime()); });
    ZEL_LOG_INFO("Steps of " << clock.getTimeStep() << " s on " << zel::getNumThreads() << " threads");

    const auto start = std::chrono::steady_clock::now();
    run(clock, duration, options.realTime);
    const std::chrono::duration<double> elapsed = std::chrono::steady_clock::now() - start;
    clock.postTick.disconnect(observer);

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
    zel::root()->removeObject(model.get());
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
        simulate(options);
    } catch (const std::exception& error) {
        std::cerr << "solar: " << error.what() << '\n';
        result = 1;
    }
    zelCore::shutdown();
    return result;
}
