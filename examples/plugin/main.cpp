// Loads the garden, whose kernel is a plug-in, and lets thirty days pass.
#include <zel/Component.h>
#include <zel/Task.h>
#include <zel/ref_ptr.h>
#include <zelCore/zelCore.h>
#include <zelData/Buffer.h>
#include <zelData/EntityStorage.h>
#include <zelIO/Environment.h>

#include <cstdio>

int main() {
    zelCore::init();
    auto& plugins = zelIO::Environment::instance()->getFilePath(zelIO::Environment::PluginPath);
    plugins.pushfrontPath(PLUGIN_SOURCE_DIRECTORY); // the model files
    plugins.pushfrontPath(PLUGIN_BINARY_DIRECTORY); // the library
    {
        const zel::ref_ptr<zel::Component> garden(zel::Component::load("Garden", nullptr));
        zel::root()->addObject(garden.get());
        auto* grow = static_cast<zel::Task*>(garden->findObject("grow"));
        for (int day = 0; day < 30; ++day)
            grow->execute();
        const auto* beds = static_cast<zelData::EntityStorage*>(garden->findObject("beds"));
        std::printf("%lu plants are %.3f m high\n", beds->size(), *beds->getBuffer("height")->data<double>());
        zel::root()->removeObject(garden.get());
    }
    zelCore::shutdown();
    return 0;
}
