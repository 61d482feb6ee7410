#pragma once

#include <zel/Object.h>
#include <zel/String.h>

/// The set-up of a run, an object of the tree: the tag "Solar.Settings" of a model file.
class Settings : public zel::Object {
public:
    explicit Settings(const zel::Name& name);

    /// Reads "step", "duration", "particles", "threads" and "data".
    /// @throws std::runtime_error with file and row for a missing or a bad value
    void configure(zel::TiXmlElement* element) override;

    [[nodiscard]] static zel::Object* load(zel::TiXmlElement* element, zel::Device* device);

    double step = 0;           ///< length of a step, seconds
    double duration = 0;       ///< length of the run, days
    zel::uint64 particles = 0; ///< number of test particles in the belt
    zel::uint32 threads = 0;   ///< 0 means one for each processor
    zel::String data;          ///< the table of bodies
};
