// The task that fills the storages of the solar system from the table: a plug-in beside the kernels.
#include "Bodies.h"
#include "Columns.h"
#include "Parameters.h"

#include <zel/Log.h>
#include <zel/SerialTask.h>
#include <zel/TaskPlugin.h>
#include <zelIO/Environment.h>
#include <zelIO/FilePathContainer.h>

#include <limits>

namespace {

using zelData::AccessMode::READ_WRITE;

constexpr size_t MaximumParticles = 10'000'000;

/// Makes the bodies of the table and as many particles as are wanted, with their states and accelerations at
/// the beginning.
class Setup : public zel::SerialTask {
public:
    Setup(const zel::Name& name, zel::Device* device)
        : SerialTask(name, device)
        , m_bodies(storageParameter(this, "targetBodies", "solar.Body", READ_WRITE))
        , m_particles(storageParameter(this, "targetParticles", "solar.Particle", READ_WRITE))
        , m_table(this, "file", "String")
        , m_numParticles(this, "count", "UInt") {}

    void run() override {
        const zel::String file =
            zelIO::Environment::instance()->getFilePath(zelIO::Environment::ResourcePath).find(m_table.get());
        if (file.empty())
            throw std::runtime_error("could not find '" + m_table.get() + "' through ZEL_FILE_PATH");
        const zel::Vector<Body> table = readBodies(file);
        makeBodies(*m_bodies->getStorage(), table);
        makeParticles(*m_particles->getStorage(), *m_bodies->getStorage(), table[0]);
        ZEL_LOG_INFO("Loaded " << table.size() << " bodies from " << file << " and " << m_numParticles.get()
                               << " particles");
    }

private:
    static void makeBodies(zelData::EntityStorage& storage, const zel::Vector<Body>& table) {
        storage.clear();
        storage.createInstances(table.size());
        const auto positions = column<Vec3d>(storage, "position", "Vec3:64bit");
        const auto velocities = column<Vec3d>(storage, "velocity", "Vec3:64bit");
        const auto accelerations = column<Vec3d>(storage, "acceleration", "Vec3:64bit");
        const auto gm = column<double>(storage, "gm", "Real:64bit");
        const auto names = column<zel::String>(storage, "name", "String:default");
        const auto parents = column<zel::uint32>(storage, "parent", "UInt:32bit");
        const auto knownPeriods = column<double>(storage, "knownPeriod", "Real:64bit");
        for (size_t i = 0; i < table.size(); ++i) {
            positions[i] = table[i].position;
            velocities[i] = table[i].velocity;
            gm[i] = table[i].gm;
            names[i] = table[i].name;
            parents[i] = static_cast<zel::uint32>(table[i].parent);
            knownPeriods[i] = table[i].knownPeriod;
        }
        for (size_t i = 0; i < table.size(); ++i)
            accelerations[i] = pull(positions.data(), gm.data(), table.size(), positions[i], i);
    }

    void makeParticles(zelData::EntityStorage& storage,
                       const zelData::EntityStorage& bodies,
                       const Body& centre) const {
        if (m_numParticles.get() > MaximumParticles)
            throw std::runtime_error(zel::String::format(
                "%lu particles are too many: at most %lu", m_numParticles.get(), MaximumParticles));
        storage.clear();
        storage.createInstances(m_numParticles.get());
        const auto positions = column<Vec3d>(storage, "position", "Vec3:64bit");
        const auto velocities = column<Vec3d>(storage, "velocity", "Vec3:64bit");
        const auto accelerations = column<Vec3d>(storage, "acceleration", "Vec3:64bit");
        const auto bodyPositions = column<Vec3d>(bodies, "position", "Vec3:64bit");
        const auto gm = column<double>(bodies, "gm", "Real:64bit");
        for (size_t i = 0; i < storage.size(); ++i) {
            beltState(i, centre, positions[i], velocities[i]);
            accelerations[i] = pull(bodyPositions.data(), gm.data(), bodies.size(), positions[i], NoBody);
        }
    }

    zel::EntityDataParameter* m_bodies;
    zel::EntityDataParameter* m_particles;
    Scalar<zel::String> m_table;
    Scalar<zel::uint64> m_numParticles;
};

zel::TaskPlugin s_plugin("solar.Setup", zel::Device::Type::Cpu);
const zel::TaskPluginImplementationT<Setup> s_setup(s_plugin, "Setup");

} // namespace
