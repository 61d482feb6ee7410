// A small orchard: declares an entity, creates instances, streams over their columns, destroys some, and
// finds one again through its handle.
#include "AppleEntity.h"

#include <zel/Vector.h>
#include <zel/ref_ptr.h>
#include <zelCore/zelCore.h>
#include <zelData/EntityStorage.h>
#include <zelIO/Environment.h>
#include <zelIO/FilePathContainer.h>

#include <iostream>

namespace {

/// A day passes: apples ripen, the smaller the faster.
void ripen(AppleData& apples) {
    for (zel::uint32 i = 0; i < apples.ripeness.size(); ++i)
        apples.ripeness[i] += 0.001 / apples.diameter[i];
}

void harvest(zelData::EntityStorage& storage, const AppleData& apples) {
    zel::Vector<zelData::EntityPtr> ripe;
    for (zel::uint32 i = 0; i < apples.ripeness.size(); ++i)
        if (apples.ripeness[i] >= 1)
            ripe.push_back(storage.getInstance(i));
    storage.destroyInstances(ripe.data(), ripe.size());
}

} // namespace

int main() {
    zelCore::init();
    zelIO::Environment::instance()
        ->getFilePath(zelIO::Environment::PluginPath)
        .pushfrontPath(ENTITIES_DIRECTORY);
    {
        const zel::ref_ptr<zelData::EntityStorage> storage(
            new zelData::EntityStorage(AppleModel::instance(), "orchard"));
        auto& apples = static_cast<AppleData&>(*storage->getData());

        static_cast<void>(storage->createInstances(100));
        for (zel::uint32 i = 0; i < apples.diameter.size(); ++i)
            apples.diameter[i] = 0.01 + 0.001 * i;
        const ApplePtr largest(storage->getInstance(99));
        largest.setSort("Gravensteiner");

        for (int day = 0; day < 60; ++day) {
            ripen(apples);
            harvest(*storage, apples);
        }
        std::cout << storage->size() << " apples are left; the " << largest.getSort() << " on tree "
                  << largest.getTree() << " is " << largest.getRipeness() << " ripe and lies at index "
                  << largest.getIndex() << '\n';
        storage->verifyConsistency();
    }
    zelCore::shutdown();
    return 0;
}
