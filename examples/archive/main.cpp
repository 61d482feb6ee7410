// Archives: a model with shared objects, a cycle, parts and a plug-in is stored and restored, in both forms;
// an archive of an older program is read; light data is saved and brought back; and a chain of a million
// objects is stored.
#include "Rover.h"

#include <zelCore/zelCore.h>
#include <zelIO/Environment.h>
#include <zelStream/InputArchive.h>
#include <zelStream/OutputArchive.h>
#include <zelStream/XMLInputArchive.h>
#include <zelStream/XMLOutputArchive.h>

#include <cstdio>
#include <exception>
#include <fstream>
#include <iostream>
#include <set>
#include <sstream>
#include <stdexcept>

namespace {

using namespace mission;
using zel::ref_ptr;

/// Makes an object of a class that the program knows by its name alone.
ref_ptr<Instrument> makeInstrument(const char* name) {
    const zelStream::StorageAgent* const agent = zelStream::StorageAgent::lookup(name, nullptr);
    if (agent == nullptr)
        throw std::runtime_error(std::string("There is no class ") + name);
    const ref_ptr<zelStream::Serializable> object(agent->create());
    return ref_ptr<Instrument>(dynamic_cast<Instrument*>(object.get()));
}

ref_ptr<Rover> makeRover() {
    const ref_ptr<Rover> rover(new Rover);
    rover->battery.charge = 0.8;
    const ref_ptr<Motor> front(new Motor(60));
    const ref_ptr<Motor> rear(new Motor(40));
    for (const ref_ptr<Motor>& motor : {front, front, rear, rear})
        rover->wheels.push_back(new Wheel(rover.get(), motor.get()));
    rover->instruments.push_back(makeInstrument("instruments::Spectrometer"));
    rover->instruments.push_back(new Camera);
    rover->instruments.back()->setEnableSerialization(false); // is mounted anew each time
    return rover;
}

void print(const char* title, const Rover& rover) {
    std::set<const Motor*> motors;
    double power = 0;
    bool isWhole = true;
    for (const ref_ptr<Wheel>& wheel : rover.wheels) {
        isWhole = isWhole && wheel->getRover() == &rover;
        if (motors.insert(wheel->getMotor()).second)
            power += wheel->getMotor()->getPower();
    }
    std::printf("%s: %lu wheels %s, %lu motor(s) of %.0f W, battery at %.0f %% and %.0f C\n",
                title,
                rover.wheels.size(),
                isWhole ? "of this rover" : "astray",
                motors.size(),
                power,
                100 * rover.battery.charge,
                rover.battery.temperature);
    for (const ref_ptr<Instrument>& instrument : rover.instruments)
        std::printf("  %s\n", instrument ? instrument->describe().c_str() : "an empty place");
}

template <typename Archive>
void store(std::ostream& stream, const zelStream::Serializable* object) {
    Archive archive;
    archive.open(stream, "archive example");
    archive.write(object);
    archive.close(); // throws if the stream has not taken all
}

template <typename Archive, typename T>
ref_ptr<T> restore(std::istream& stream) {
    Archive archive;
    archive.open(stream);
    ref_ptr<T> object;
    archive.read(object);
    archive.close();
    return object;
}

template <typename Archive>
void save(const char* file, const Rover& rover) {
    std::ofstream stream(file, std::ios::binary);
    store<Archive>(stream, &rover);
}

template <typename Archive>
ref_ptr<Rover> load(const char* file) {
    std::ifstream stream(file, std::ios::binary);
    if (!stream)
        throw std::runtime_error(std::string(file) + " can not be read");
    return restore<Archive, Rover>(stream);
}

void takeBackByLightData(Rover& rover) {
    zelStream::StorageStream before;
    rover.battery.storeLightData(before);
    rover.battery.charge = 0.1; // a manoeuvre that turns out too dear
    rover.battery.restoreLightData(before);
    std::printf(
        "Light data: %lu bytes, battery at %.0f %% again\n", before.size(), 100 * rover.battery.charge);
}

void storeAndRestoreRoute() {
    zelStream::Serializable::setEnableUuidGeneration(false); // nobody asks for those of so many places
    const ref_ptr<Route> route(new Route);
    for (int i = 0; i < 300000; ++i) {
        const ref_ptr<Waypoint> waypoint(new Waypoint);
        waypoint->x = i;
        if (i > 0)
            route->waypoints.back()->next = waypoint.get();
        route->waypoints.push_back(waypoint);
    }
    std::stringstream stream;
    store<zelStream::OutputArchive>(stream, route.get());
    const auto restored = restore<zelStream::InputArchive, Route>(stream);
    const Waypoint* last = restored->waypoints.front().get();
    zel::size_t n = 1;
    for (; last->next != nullptr; ++n)
        last = last->next;
    std::printf("Route: %lu places, the last one at %.0f m\n", n, last->x);
}

} // namespace

int main() {
    zelCore::init();
    zelIO::Environment::instance()
        ->getFilePath(zelIO::Environment::PluginPath)
        .pushfrontPath(ARCHIVE_BINARY_DIRECTORY); // the library of the instruments
    registerModifications();
    int result = 0;
    try {
        const ref_ptr<Rover> rover = makeRover();
        print("Made", *rover);
        save<zelStream::OutputArchive>("rover.archive", *rover);
        print("Restored", *load<zelStream::InputArchive>("rover.archive"));
        save<zelStream::XMLOutputArchive>("rover.xml", *rover);
        print("From XML", *load<zelStream::XMLInputArchive>("rover.xml"));
        print("From an older program",
              *load<zelStream::InputArchive>(ARCHIVE_SOURCE_DIRECTORY "/old.archive"));
        takeBackByLightData(*rover);
        storeAndRestoreRoute();
    } catch (const std::exception& error) {
        std::cerr << "archive: " << error.what() << '\n';
        result = 1;
    }
    zelCore::shutdown(); // unloads the library, of which no object may be left
    return result;
}
