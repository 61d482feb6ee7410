// The simulation that the tests of the page look into: bodies [OPTIONS] [CONTROL_PORT PAGE_PORT]. It prints
// the address of its page, and ends when its input does. The token is "secret". Options:
//
//     --read-only          nothing may be changed
//     --recordings FOLDER  makes recordings there, "heavy" of ten seconds and "light" of eight, and offers
//     them
//     --record             also one of this run, in the same folder, "now", that grows
//     --alone              the recordings, open, and nothing that runs
#include <zel/Clock.h>
#include <zel/Component.h>
#include <zel/Log.h>
#include <zel/Vec.h>
#include <zel/ref_ptr.h>
#include <zelCore/zelCore.h>
#include <zelData/Buffer.h>
#include <zelData/Recorder.h>
#include <zelData/Type.h>
#include <zelData/ValueT.h>
#include <zelNet/ControlChannel.h>
#include <zelNet/InspectionService.h>
#include <zelNet/WebDebuggerServer.h>

#include <atomic>
#include <chrono>
#include <cmath>
#include <exception>
#include <iostream>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace {

using zel::ref_ptr;
using zelData::Buffer;

constexpr zel::uint32 NumBodies = 400;
constexpr int NumSensors = 1500;
constexpr double Frequency = 60;

/// Bodies on circles around a centre, the outer ones slower, as functions of the time.
class Bodies {
public:
    Bodies()
        : m_simulation(new zel::Component("Simulation", zel::Component::ClassModel()))
        , m_clock(new zel::Clock("clock", Frequency))
        , m_gravity(new zelData::ValueT<double>("gravity", 9.81))
        , m_energy(new zelData::ValueT<double>("energy", -1.0))
        , m_bodies(new zel::Component("bodies", zel::Component::ClassModel()))
        , m_position(new Buffer("position", zelData::getFormat("Vec3:64bit")))
        , m_velocity(new Buffer("velocity", zelData::getFormat("Vec3:64bit")))
        , m_mass(new Buffer("mass", zelData::getFormat("Real:64bit")))
        , m_name(new Buffer("name", zelData::getFormat("String"))) {
        zel::root()->addObject(m_simulation.get());
        m_simulation->addObject(m_clock.get());
        m_simulation->addObject(m_gravity.get());
        m_simulation->addObject(m_energy.get());
        m_simulation->addObject(new zelData::ValueT<zel::Vec3d>("wind", zel::Vec3d(1, 2, 3)));
        m_simulation->addObject(m_bodies.get());
        for (const auto& buffer : {m_position, m_velocity, m_mass, m_name}) {
            m_bodies->addObject(buffer.get());
            buffer->resize(NumBodies);
        }
        const ref_ptr<zel::Component> sensors(new zel::Component("sensors", zel::Component::ClassModel()));
        m_simulation->addObject(sensors.get());
        for (int i = 0; i < NumSensors; ++i)
            sensors->addObject(new zelData::ValueT<double>(zel::Name("sensor" + std::to_string(i)), i));
        for (zel::uint32 i = 0; i < NumBodies; ++i) {
            m_mass->data<double>()[i] = 1 + i % 7;
            m_name->data<zel::String>()[i] = "body " + std::to_string(i);
        }
        move();
    }
    ~Bodies() { zel::root()->removeObject(m_simulation.get()); }
    Bodies(const Bodies&) = delete;
    Bodies& operator=(const Bodies&) = delete;

    /// Puts all to where the clock's time has them.
    void move() { moveTo(m_clock->getTime()); }
    void moveTo(double time) {
        if (m_movedTo == time)
            return;
        m_movedTo = time;
        // Whoever may set values may change the sizes.
        m_position->resize(NumBodies);
        m_velocity->resize(NumBodies);
        for (zel::uint32 i = 0; i < NumBodies; ++i) {
            const double radius = 1 + 0.01 * i;
            const double speed = std::sqrt(m_gravity->get() / radius);
            const double angle = i + m_movedTo * speed / radius;
            m_position->data<zel::Vec3d>()[i] =
                zel::Vec3d(radius * std::cos(angle), radius * std::sin(angle), 0.2 * std::sin(3.0 * i));
            m_velocity->data<zel::Vec3d>()[i] =
                zel::Vec3d(-speed * std::sin(angle), speed * std::cos(angle), 0);
        }
        m_position->commit();
        m_velocity->commit();
        m_energy->set(-1 + 0.01 * m_gravity->get() * std::sin(3 * m_movedTo));
    }
    [[nodiscard]] zel::Clock* getClock() const { return m_clock.get(); }
    [[nodiscard]] zel::Component* getSimulation() const { return m_simulation.get(); }
    void setGravity(double gravity) { m_gravity->set(gravity); }

private:
    ref_ptr<zel::Component> m_simulation;
    ref_ptr<zel::Clock> m_clock;
    ref_ptr<zelData::ValueT<double>> m_gravity;
    ref_ptr<zelData::ValueT<double>> m_energy;
    ref_ptr<zel::Component> m_bodies;
    ref_ptr<Buffer> m_position;
    ref_ptr<Buffer> m_velocity;
    ref_ptr<Buffer> m_mass;
    ref_ptr<Buffer> m_name;
    double m_movedTo = -1;
};

struct Options {
    bool isWritable = true;
    bool isAlone = false;
    bool isRecorded = false;
    std::string recordings;
    zel::uint16 controlPort = zelNet::AnyPort;
    int pagePort = 0;
};

struct Run {
    const char* name;
    double gravity;
    int numTicks;
};
constexpr Run Runs[] = {{"heavy", 10, 600}, {"light", 5, 480}};

zel::String journalOf(const Options& options, const Run& run) {
    return options.recordings + "/" + run.name + ".journal";
}

/// The state of each frame is that of its time.
void record(const zel::String& file, const Run& run) {
    Bodies bodies;
    bodies.setGravity(run.gravity);
    bodies.moveTo(0);
    zel::Clock* const clock = bodies.getClock();
    const ref_ptr<zelData::Recorder> recorder = zelData::Recorder::record(clock, file);
    for (int tick = 1; tick <= run.numTicks; ++tick) {
        bodies.moveTo(tick / Frequency);
        clock->tick();
    }
    recorder->stop();
}

void run(const Options& options) {
    if (!options.recordings.empty())
        for (const Run& each : Runs)
            record(journalOf(options, each), each);
    const std::unique_ptr<Bodies> bodies(options.isAlone ? nullptr : new Bodies);
    const ref_ptr<zelNet::WebSocket::ControlChannel> channel(
        new zelNet::WebSocket::ControlChannel(options.controlPort, "secret"));
    const ref_ptr<zelNet::InspectionService> inspection(
        new zelNet::InspectionService(channel.get(), zel::root()));
    inspection->setWritable(options.isWritable);
    if (!options.recordings.empty())
        for (const Run& each : Runs) {
            const zel::uint64 id = inspection->addJournal(journalOf(options, each), zel::Name(each.name));
            if (options.isAlone)
                inspection->openJournal(id);
        }
    ref_ptr<zelData::Recorder> recorder;
    if (options.isRecorded && bodies) {
        const zel::String file = options.recordings + "/now.journal";
        recorder = zelData::Recorder::record(bodies->getClock(), file, bodies->getSimulation());
        inspection->addJournal(file, zel::Name("now"));
    }
    zelNet::zelWebServer::WebDebuggerServer page(options.pagePort, "");
    if (!page.start())
        throw std::runtime_error("The page can not be served");
    std::cout << "http://127.0.0.1:" << page.getPort() << "/#control=" << channel->getPort()
              << "&token=secret" << std::endl;

    std::atomic<bool> isDone{false};
    std::thread input([&isDone] {
        std::string line;
        while (std::getline(std::cin, line))
            ZEL_LOG_WARNING(line);                     // for the page to show
        isDone.store(true, std::memory_order_relaxed); // nothing else is handed over
    });
    auto next = std::chrono::steady_clock::now();
    while (!isDone.load(std::memory_order_relaxed)) {
        if (bodies)
            bodies->getClock()->tick();
        do {
            inspection->service();
            if (bodies)
                bodies->move();
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        } while (std::chrono::steady_clock::now() < next);
        next += std::chrono::duration_cast<std::chrono::steady_clock::duration>(
            std::chrono::duration<double>(1 / (bodies ? bodies->getClock()->getFrequency() : Frequency)));
    }
    input.join();
}

Options optionsOf(const std::vector<std::string>& arguments) {
    Options options;
    std::vector<std::string> ports;
    for (auto argument = arguments.begin(); argument != arguments.end(); ++argument) {
        if (*argument == "--read-only")
            options.isWritable = false;
        else if (*argument == "--record")
            options.isRecorded = true;
        else if (*argument == "--alone")
            options.isAlone = true;
        else if (*argument == "--recordings" && argument + 1 != arguments.end())
            options.recordings = *++argument;
        else
            ports.push_back(*argument);
    }
    if (ports.size() == 2) {
        options.controlPort = static_cast<zel::uint16>(std::stoi(ports[0]));
        options.pagePort = std::stoi(ports[1]);
    }
    return options;
}

} // namespace

int main(int argc, char** argv) {
    zelCore::init();
    int result = 0;
    try {
        run(optionsOf({argv + 1, argv + argc}));
    } catch (const std::exception& error) {
        std::cerr << error.what() << std::endl;
        result = 1;
    }
    zelCore::shutdown();
    return result;
}
