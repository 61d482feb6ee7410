// Writes the archive that the tests of the tool look at: writeArchive FILE [--big-endian | --value-first]
#include "Crew.h"

#include <zelCore/zelCore.h>
#include <zelStream/OutputArchive.h>

#include <exception>
#include <fstream>
#include <iostream>

namespace {

using zel::ref_ptr;

void write(const std::string& path, const std::string& option) {
    const ref_ptr<crew::Ship> ship(new crew::Ship);
    ship->log = {1, 2.5, -1e300};
    ship->captain.name = "Ada";
    ship->captain.age = 51;
    ship->cook = new crew::Sailor;
    ship->cook->name = "Bo\x1b";
    ship->cook->age = -1;
    ship->captain.mate = ship->cook.get();
    ship->cook->mate = ship->cook.get();
    zel::Uuid zero;
    for (zelStream::Serializable* const object :
         std::initializer_list<zelStream::Serializable*>{ship.get(), &ship->captain, ship->cook.get()})
        object->setUuid(zero);
    std::ofstream stream(path, std::ios::binary);
    zelStream::OutputArchive archive;
    archive.setUseCurrentDate(false);
    archive.setLittleEndian(option != "--big-endian");
    archive.addModification("0badcafe");
    archive.open(stream, "harbour");
    if (option == "--value-first")
        archive.write(7);
    archive.write(ship.get());
    archive.write(ship->cook.get());
    archive.write(static_cast<crew::Ship*>(nullptr));
    archive.close();
}

} // namespace

int main(int argc, char** argv) {
    if (argc < 2)
        return 2;
    zelCore::init();
    int result = 0;
    try {
        write(argv[1], argc > 2 ? argv[2] : "");
    } catch (const std::exception& exception) {
        std::cerr << exception.what() << '\n';
        result = 1;
    }
    zelCore::shutdown();
    return result;
}
