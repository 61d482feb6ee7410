#include "ArchiveFixture.h"

#include <zelStream/ClassInformation.h>
#include <zelStream/StorageManager.h>
#include <zelStream/StorageStream.h>

namespace fleet {

ZEL_REGISTER_SERIALIZABLE(Wheel)
ZEL_REGISTER_SERIALIZABLE(Motor)
ZEL_REGISTER_SERIALIZABLE(Vehicle)
ZEL_REGISTER_SERIALIZABLE(Scripted)
ZEL_REGISTER_SERIALIZABLE(Permit)
ZEL_REGISTER_SERIALIZABLE(Wagon)
ZEL_REGISTER_SERIALIZABLE(Barge)

std::function<void(const Scripted&, zelStream::OutputArchive&)> Scripted::s_store;
std::function<void(Scripted&, zelStream::InputArchive&)> Scripted::s_restore;
int Scripted::s_numLiving = 0;

void Motor::store(zelStream::OutputArchive& archive) const {
    archive.write(power);
    archive.write(drives.get());
}

void Motor::restore(zelStream::InputArchive& archive) {
    archive.read(power);
    archive.read(drives);
}

void Vehicle::store(zelStream::OutputArchive& archive) const {
    archive.write(name);
    archive.write(leader);
    archive.write(spare.get());
    archive.write(motor);
}

void Vehicle::restore(zelStream::InputArchive& archive) {
    archive.read(name);
    archive.read(leader);
    archive.read(spare);
    archive.read(motor);
}

void Vehicle::storeLightData(zelStream::StorageStream& stream) const {
    stream.write(fuel);
}

void Vehicle::restoreLightData(zelStream::StorageStream& stream) {
    stream.read(fuel);
}

} // namespace fleet
