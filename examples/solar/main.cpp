// The solar system: loads its set-up from a model file, steps it as jobs on all cores and prints what a
// physicist would check.
#include "Bodies.h"
#include "Diagnostics.h"
#include "Settings.h"
#include "Simulation.h"

#include <zel/Component.h>
#include <zel/Log.h>
#include <zel/Thread.h>
#include <zelCore/zelCore.h>
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

namespace {

const char* const Usage = "usage: solar [options]\n"
                          "  --model PATH    model to load, such as solar.Solar (the default), or a file\n"
                          "  --days D        length of the run\n"
                          "  --step S        length of a step in seconds\n"
                          "  --particles N   number of test particles in the belt\n"
                          "  --threads N     0 means one for each processor\n"
                          "  --log FILE      name of the log, which is numbered (solar.log)\n";

struct Options {
    std::string model = "solar.Solar";
    std::string log = "solar.log";
    std::optional<double> days;
    std::optional<double> step;
    std::optional<zel::uint64> particles;
    std::optional<zel::uint32> threads;
};

template <typename Number>
Number parse(std::string_view option, std::string_view text) {
    Number value{};
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc() || end != text.data() + text.size())
        throw std::invalid_argument(std::string(option) + ": '" + std::string(text) + "' is no number");
    if constexpr (std::is_floating_point_v<Number>)
        if (!(value > 0 && std::isfinite(value)))
            throw std::invalid_argument(std::string(option) + " must be above 0");
    return value;
}

Options parseOptions(int argc, char** argv) {
    Options options;
    for (int i = 1; i < argc; i += 2) {
        const std::string_view option = argv[i];
        if (option == "--help") {
            std::cout << Usage;
            std::exit(0);
        }
        if (i + 1 >= argc)
            throw std::invalid_argument(std::string(option) + " needs a value");
        const std::string_view value = argv[i + 1];
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
            options.threads = parse<zel::uint32>(option, value);
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
        throw std::runtime_error("there is no model '" + model + "'\n");
    return component;
}

Settings* findSettings(zel::Component* component) {
    auto* settings = dynamic_cast<Settings*>(component->findObject("settings"));
    if (settings == nullptr)
        throw std::runtime_error("the model has no Solar.Settings named 'settings'\n");
    return settings;
}

zelData::EntityStorage& findStorage(zel::Component* component, const char* name) {
    auto* storage = dynamic_cast<zelData::EntityStorage*>(component->findObject(name));
    if (storage == nullptr)
        throw std::runtime_error(std::string("the model has no Entity.Storage named '") + name + "'\n");
    return *storage;
}

/// Steps through the whole run, with a line of progress if the terminal shows one.
void run(Simulation& simulation, Diagnostics& diagnostics, zel::uint64 steps) {
    const bool terminal = isatty(STDERR_FILENO) != 0;
    for (zel::uint64 i = 0; i < steps; ++i) {
        simulation.advance();
        diagnostics.observe();
        if (terminal && (i % 512 == 0 || i + 1 == steps))
            std::cerr << zel::String::format("\r%5.1f %%  day %.1f",
                                             100.0 * static_cast<double>(i + 1) / static_cast<double>(steps),
                                             simulation.time() / SecondsPerDay)
                      << std::flush;
    }
    if (terminal)
        std::cerr << '\n';
}

void simulate(const Options& options) {
    if (!zel::Logger::instance()->openLogfile(options.log, false, true))
        throw std::runtime_error("could not open the log '" + options.log + "'\n");
    for (const auto type : {zelIO::Environment::PluginPath, zelIO::Environment::ResourcePath})
        zelIO::Environment::instance()->getFilePath(type).pushbackPath(SOLAR_DIRECTORY);

    const zel::ref_ptr<zel::Component> component = loadModel(options.model);
    zel::root()->addObject(component.get());
    Settings* settings = findSettings(component.get());
    settings->duration = options.days.value_or(settings->duration);
    settings->step = options.step.value_or(settings->step);
    settings->particles = options.particles.value_or(settings->particles);
    settings->threads = options.threads.value_or(settings->threads);
    zel::setNumThreads(settings->threads);

    const zel::String table =
        zelIO::Environment::instance()->getFilePath(zelIO::Environment::ResourcePath).find(settings->data);
    if (table.empty())
        throw std::runtime_error("could not find '" + settings->data + "' through ZEL_FILE_PATH\n");
    const zel::Vector<Body> bodies = readBodies(table);
    Simulation simulation(findStorage(component.get(), "bodies"),
                          findStorage(component.get(), "particles"),
                          bodies,
                          settings->particles,
                          settings->step);
    Diagnostics diagnostics(bodies, simulation);
    const auto steps =
        static_cast<zel::uint64>(std::ceil(settings->duration * SecondsPerDay / settings->step));
    ZEL_LOG_INFO("Loaded " << bodies.size() << " bodies from " << table << ", " << settings->particles
                           << " particles, " << steps << " steps of " << settings->step << " s on "
                           << zel::getNumThreads() << " threads");

    const auto start = std::chrono::steady_clock::now();
    run(simulation, diagnostics, steps);
    const std::chrono::duration<double> elapsed = std::chrono::steady_clock::now() - start;

    std::cout << bodies.size() << " bodies and " << settings->particles << " particles over "
              << simulation.time() / SecondsPerDay << " days in " << steps << " steps\n\n";
    diagnostics.print(std::cout);
    std::cout << zel::String::format("\nState hash 0x%016lx, the same for every number of threads\n",
                                     diagnostics.stateHash());
    ZEL_LOG_INFO("Stepped in " << elapsed.count() << " s, state hash " << diagnostics.stateHash());
    std::cout << zel::String::format("%.2f s on %zu threads, log in %s\n",
                                     elapsed.count(),
                                     zel::getNumThreads(),
                                     zel::Logger::instance()->getLogFilename().c_str());
    zel::root()->removeObject(component.get());
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
