// The simulation that the tests of the page look into: bodies [CONTROL_PORT PAGE_PORT]. It prints the address
// of its page, and ends when its input does. The token is "secret"; with --read-only ahead of the ports
// nothing may be changed.
#include <zel/Clock.h>
#include <zel/Component.h>
#include <zel/Log.h>
#include <zel/Vec.h>
#include <zel/ref_ptr.h>
#include <zelCore/zelCore.h>
#include <zelData/Buffer.h>
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
#include <string>
#include <thread>

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

    /// Puts all to where the clock's time has them, if that is new.
    void move() {
        if (m_movedTo == m_clock->getTime())
            return;
        m_movedTo = m_clock->getTime();
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
        m_energy->set(-1 + 0.1 * std::sin(3 * m_movedTo));
    }
    [[nodiscard]] zel::Clock* getClock() const { return m_clock.get(); }

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

void run(zel::uint16 controlPort, int pagePort, bool isWritable) {
    Bodies bodies;
    const ref_ptr<zelNet::WebSocket::ControlChannel> channel(
        new zelNet::WebSocket::ControlChannel(controlPort, "secret"));
    const ref_ptr<zelNet::InspectionService> inspection(
        new zelNet::InspectionService(channel.get(), zel::root()));
    inspection->setWritable(isWritable);
    zelNet::zelWebServer::WebDebuggerServer page(pagePort, "");
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
        bodies.getClock()->tick();
        do {
            inspection->service();
            bodies.move();
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        } while (std::chrono::steady_clock::now() < next);
        next += std::chrono::duration_cast<std::chrono::steady_clock::duration>(
            std::chrono::duration<double>(1 / bodies.getClock()->getFrequency()));
    }
    input.join();
}

} // namespace

int main(int argc, char** argv) {
    zelCore::init();
    int result = 0;
    try {
        const bool isReadOnly = argc > 1 && std::string(argv[1]) == "--read-only";
        const int first = isReadOnly ? 2 : 1;
        const bool hasPorts = argc > first + 1;
        run(hasPorts ? static_cast<zel::uint16>(std::stoi(argv[first])) : zelNet::AnyPort,
            hasPorts ? std::stoi(argv[first + 1]) : 0,
            !isReadOnly);
    } catch (const std::exception& error) {
        std::cerr << error.what() << std::endl;
        result = 1;
    }
    zelCore::shutdown();
    return result;
}
