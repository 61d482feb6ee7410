// What archives hold of the model, and how older ones are read.
#include "Rover.h"

#include <zelStream/InputArchive.h>
#include <zelStream/OutputArchive.h>

namespace mission {

using zelStream::InputArchive;
using zelStream::OutputArchive;

namespace {

/// The number of objects, and each of them.
template <typename T>
void storeList(OutputArchive& archive, const zel::Vector<zel::ref_ptr<T>>& list) {
    archive.write(list.size());
    for (const zel::ref_ptr<T>& object : list)
        archive.write(object.get());
}

template <typename T>
void restoreList(InputArchive& archive, zel::Vector<zel::ref_ptr<T>>& list) {
    zel::size_t size = 0;
    archive.read(size);
    list.clear();
    while (list.size() < size) { // makes no room ahead: the number may be anything in a damaged file
        zel::ref_ptr<T> object;
        archive.read(object);
        list.push_back(object);
    }
}

/// A motor as it was stored before PowerInWatts: in kilowatts. It is stored as any other motor.
class OldMotor final : public Motor {
public:
    void restore(InputArchive& archive) override {
        float kilowatts = 0;
        archive.read(kilowatts);
        m_power = 1000.0 * kilowatts;
    }
};

// Both under one name: archives with the modification get the first, all others the second.
const zelStream::SerializableStorageAgent<OldMotor> s_oldMotor("mission::Motor");
const zelStream::StorageRegistration s_motors(Motor::storageAgent(), {PowerInWatts}, s_oldMotor);

} // namespace

const zelStream::StorageAgent& Motor::storageAgent() {
    static const zelStream::SerializableStorageAgent<Motor> agent("mission::Motor");
    return agent;
}
ZEL_REGISTER_SERIALIZABLE(Wheel)
ZEL_REGISTER_SERIALIZABLE(Battery)
ZEL_REGISTER_SERIALIZABLE(Camera)
ZEL_REGISTER_SERIALIZABLE(Rover)
ZEL_REGISTER_SERIALIZABLE(Waypoint)
ZEL_REGISTER_SERIALIZABLE(Route)

void registerModifications() {
    zelStream::Archive::registerModification(PowerInWatts);
    zelStream::Archive::registerModification(BatteryTemperature);
}

void Motor::store(OutputArchive& archive) const {
    archive.write(m_power);
}

void Motor::restore(InputArchive& archive) {
    archive.read(m_power);
}

void Wheel::store(OutputArchive& archive) const {
    archive.write(m_rover); // known by then: its number is stored
    archive.write(m_motor.get());
}

void Wheel::restore(InputArchive& archive) {
    archive.read(m_rover); // not complete yet
    archive.read(m_motor);
}

void Battery::store(OutputArchive& archive) const {
    archive.write(charge);
    archive.write(temperature);
}

void Battery::restore(InputArchive& archive) {
    archive.read(charge);
    temperature = 20;
    if (archive.hasModification(BatteryTemperature))
        archive.read(temperature);
}

void Battery::storeLightData(zelStream::StorageStream& stream) const {
    stream.write(charge);
    stream.write(temperature);
}

void Battery::restoreLightData(zelStream::StorageStream& stream) {
    stream.read(charge);
    stream.read(temperature);
}

void Camera::store(OutputArchive& /*archive*/) const {}
void Camera::restore(InputArchive& /*archive*/) {}

void Rover::store(OutputArchive& archive) const {
    archive.write(battery); // by value, as an object and not a pointer is given
    storeList(archive, wheels);
    storeList(archive, instruments);
    archive.write(trailer.get());
}

void Rover::restore(InputArchive& archive) {
    archive.read(battery);
    restoreList(archive, wheels);
    restoreList(archive, instruments);
    archive.read(trailer);
}

void Waypoint::store(OutputArchive& archive) const {
    archive.write(x);
    archive.write(y);
    archive.writeDeferred(next); // its body comes later, and not within this one
}

void Waypoint::restore(InputArchive& archive) {
    archive.read(x);
    archive.read(y);
    archive.readDeferred(next);
}

void Route::store(OutputArchive& archive) const {
    storeList(archive, waypoints);
}

void Route::restore(InputArchive& archive) {
    restoreList(archive, waypoints);
}

} // namespace mission
