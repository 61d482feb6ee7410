// The model of a rover, whose objects archives store.
#pragma once

#include <zel/Vector.h>
#include <zel/ref_ptr.h>
#include <zelStream/StorageAgent.h>
#include <zelStream/StorageStream.h>

#include <string>

namespace mission {

class Rover;

// What has changed in the stored forms: hashes of the model's own, eight digits that nobody else uses.
constexpr char PowerInWatts[] = "5f3a09c1";
constexpr char BatteryTemperature[] = "e07b41d2";

/// To be called once, ahead of the first archive.
void registerModifications();

/// A motor, which several wheels may share.
class Motor : public zelStream::Serializable {
    ZEL_SERIALIZABLE(Motor)

public:
    explicit Motor(double power = 0) : m_power(power) {}
    [[nodiscard]] double getPower() const { return m_power; }

    void store(zelStream::OutputArchive& archive) const override;
    void restore(zelStream::InputArchive& archive) override;

protected:
    double m_power; // watts
};

/// A wheel knows its rover, which knows its wheels.
class Wheel : public zelStream::Serializable {
    ZEL_SERIALIZABLE(Wheel)

public:
    Wheel() = default;
    Wheel(Rover* rover, Motor* motor) : m_rover(rover), m_motor(motor) {}
    [[nodiscard]] const Rover* getRover() const { return m_rover; }
    [[nodiscard]] const Motor* getMotor() const { return m_motor.get(); }

    void store(zelStream::OutputArchive& archive) const override;
    void restore(zelStream::InputArchive& archive) override;

private:
    Rover* m_rover = nullptr; // owns the wheel
    zel::ref_ptr<Motor> m_motor;
};

/// A battery is a part of its rover.
class Battery : public zelStream::Serializable {
    ZEL_SERIALIZABLE(Battery)

public:
    double charge = 1;       // 0 to 1
    double temperature = 20; // degrees Celsius

    void store(zelStream::OutputArchive& archive) const override;
    void restore(zelStream::InputArchive& archive) override;
    void storeLightData(zelStream::StorageStream& stream) const override;
    void restoreLightData(zelStream::StorageStream& stream) override;
};

/// What a rover may carry. The classes behind it may lie in libraries of their own.
class Instrument : public zelStream::Serializable {
public:
    [[nodiscard]] virtual std::string describe() const = 0;
};

/// An instrument of the model itself.
class Camera : public Instrument {
    ZEL_SERIALIZABLE(Camera)

public:
    [[nodiscard]] std::string describe() const override { return "camera"; }
    void store(zelStream::OutputArchive& archive) const override;
    void restore(zelStream::InputArchive& archive) override;
};

class Rover : public zelStream::Serializable {
    ZEL_SERIALIZABLE(Rover)

public:
    Battery battery;
    zel::Vector<zel::ref_ptr<Wheel>> wheels;
    zel::Vector<zel::ref_ptr<Instrument>> instruments; // null where there is none
    zel::ref_ptr<Rover> trailer;                       // null if there is none

    void store(zelStream::OutputArchive& archive) const override;
    void restore(zelStream::InputArchive& archive) override;
};

/// A place on the way. Each knows the next one.
class Waypoint : public zelStream::Serializable {
    ZEL_SERIALIZABLE(Waypoint)

public:
    double x = 0;
    double y = 0;
    Waypoint* next = nullptr; // the route owns it

    void store(zelStream::OutputArchive& archive) const override;
    void restore(zelStream::InputArchive& archive) override;
};

class Route : public zelStream::Serializable {
    ZEL_SERIALIZABLE(Route)

public:
    zel::Vector<zel::ref_ptr<Waypoint>> waypoints;

    void store(zelStream::OutputArchive& archive) const override;
    void restore(zelStream::InputArchive& archive) override;
};

} // namespace mission
