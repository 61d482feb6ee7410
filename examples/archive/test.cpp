// What the model tests of its archives: that today's come back whole, and that old ones are read as they were
// meant. A file is kept of each program that was given away.
#include "Rover.h"

#include <zelCore/zelCore.h>
#include <zelStream/InputArchive.h>
#include <zelStream/OutputArchive.h>

#include <cmath>
#include <exception>
#include <fstream>
#include <iostream>
#include <sstream>
#include <stdexcept>
#include <string>

namespace {

using namespace mission;
using zel::ref_ptr;

void expect(bool holds, const char* what) {
    if (!holds)
        throw std::runtime_error(std::string("This does not hold: ") + what);
}

ref_ptr<Rover> load(std::istream& stream) {
    zelStream::InputArchive archive;
    archive.open(stream);
    ref_ptr<Rover> rover;
    archive.read(rover);
    expect(archive.isAtEnd(), "restore reads all that store writes");
    archive.close();
    return rover;
}

void restoreWhatIsStored() {
    const ref_ptr<Rover> rover(new Rover);
    rover->battery.charge = 0.3; // no value that a new object has
    rover->battery.temperature = -40;
    rover->wheels.push_back(new Wheel(rover.get(), new Motor(60)));
    std::stringstream stream;
    zelStream::OutputArchive archive;
    archive.open(stream);
    archive.write(rover.get());
    archive.close();

    const ref_ptr<Rover> restored = load(stream);
    expect(restored->battery.charge == 0.3, "the charge is stored");
    expect(restored->battery.temperature == -40, "the temperature is stored");
    expect(restored->wheels.front()->getMotor()->getPower() == 60, "the power is stored");
}

void restoreOldArchive() {
    std::ifstream stream(ARCHIVE_SOURCE_DIRECTORY "/old.archive", std::ios::binary);
    const ref_ptr<Rover> rover = load(stream);
    expect(rover->battery.charge == 0.5, "the charge is where it was");
    expect(rover->battery.temperature == 20, "a battery of old is warm");
    expect(std::abs(rover->wheels.front()->getMotor()->getPower() - 75) < 1e-4, "the power was in kilowatts");
}

} // namespace

int main() {
    zelCore::init();
    registerModifications();
    int result = 0;
    try {
        restoreWhatIsStored();
        restoreOldArchive();
    } catch (const std::exception& error) {
        std::cerr << "archiveTest: " << error.what() << '\n';
        result = 1;
    }
    zelCore::shutdown();
    return result;
}
