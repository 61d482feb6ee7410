#include "Settings.h"

#include <zel/Exception.h>
#include <zel/XmlLoader.h>
#include <zel/ref_ptr.h>

#include <cmath>
#include <stdexcept>

namespace {

const zel::XmlLoaderRegistrator s_settingsLoader("Solar.Settings", Settings::load);

} // namespace

Settings::Settings(const zel::Name& name) : Object(name, Object::ClassModel()) {}

void Settings::configure(zel::TiXmlElement* element) {
    Object::configure(element);
    step = zel::parseAttribute<double>(element, "step");
    duration = zel::parseAttribute<double>(element, "duration");
    particles = zel::parseAttribute<zel::uint64>(element, "particles");
    threads = zel::parseAttribute<zel::uint32>(element, "threads");
    data = zel::parseAttribute<zel::String>(element, "data");
    // Written so that NaN is refused as well.
    if (!(step > 0 && std::isfinite(step)))
        ZEL_XML_ERROR(element, "The step must be above 0 seconds");
    if (!(duration > 0 && std::isfinite(duration)))
        ZEL_XML_ERROR(element, "The duration must be above 0 days");
    if (particles > 10'000'000)
        ZEL_XML_ERROR(element, "At most 10000000 particles");
}

zel::Object* Settings::load(zel::TiXmlElement* element, zel::Device*) {
    zel::ref_ptr<Settings> settings(new Settings(zel::parseAttribute<zel::Name>(element, "name")));
    settings->configure(element);
    return settings.release_nodelete();
}
