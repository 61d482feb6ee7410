#include "tree/PathNotes.h"

#include <zel/Exception.h>
#include <zel/XmlLoader.h>
#include <zelData/Recorder.h>

#include <tinyxml.h>

#include <stdexcept>

// Recorders of model files.

namespace zelData {

namespace {

zel::Object* loadRecorder(TiXmlElement* element, zel::Device* device) {
    return Recorder::load(element, device);
}

const zel::XmlLoaderRegistrator s_recorderLoader("Recorder", loadRecorder);

zel::Object* findRecordedClock(zel::Object& object, const zel::Path& path) {
    return object.getAutoScopedResource(path, zel::Clock::ClassModel());
}

/// A path that an element needs.
const char* requireAttribute(const TiXmlElement* element, const char* text, const char* name) {
    if (text == nullptr || *text == '\0')
        ZEL_XML_ERROR(element, zel::String::format("A recorder needs the attribute '%s'", name));
    return text;
}

} // namespace

Recorder* Recorder::load(TiXmlElement* element, zel::Device* device) {
    zel::ref_ptr<Recorder> recorder(new Recorder);
    if (element->Attribute("name") != nullptr)
        recorder->setName(zel::parseAttribute<zel::Name>(element, "name"));
    recorder->setDevice(device);
    recorder->configure(element);
    return recorder.release_nodelete();
}

void Recorder::configure(TiXmlElement* element) {
    const auto has = [element](const char* text) { return element->Attribute(text) != nullptr; };
    m_clockPath = zel::Path(requireAttribute(element, element->Attribute("clock"), "clock"));
    m_journalPath = requireAttribute(element, element->Attribute("journal"), "journal");
    zel::notePath(*this, element, "clock", m_clockPath, &findRecordedClock);
    if (const char* root = element->Attribute("root"))
        m_rootPath = zel::Path(root);
    if (const char* condition = element->Attribute("condition"))
        m_conditionPath = zel::Path(condition);
    if (has("keyFrameInterval"))
        m_keyFrameInterval = zel::parseAttribute<zel::uint64>(element, "keyFrameInterval");
    if (has("stride")) {
        m_stride = zel::parseAttribute<zel::uint64>(element, "stride");
        if (m_stride == 0)
            ZEL_XML_ERROR(element, "The attribute 'stride' must be larger than 0");
    }
    if (has("start"))
        m_start = zel::parseAttribute<double>(element, "start");
    if (has("end"))
        m_end = zel::parseAttribute<double>(element, "end");
    if (has("budget"))
        m_budget = zel::parseAttribute<zel::uint64>(element, "budget");
    if (has("maxJournalBytes"))
        m_maxJournalBytes = zel::parseAttribute<zel::uint64>(element, "maxJournalBytes");
    if (has("maxJournalTime"))
        m_maxJournalTime = zel::parseAttribute<double>(element, "maxJournalTime");
    if (has("minFreeBytes"))
        m_minFreeBytes = zel::parseAttribute<zel::uint64>(element, "minFreeBytes");
    if (has("resume"))
        m_resume = zel::parseAttribute<bool>(element, "resume");
    if (has("replace"))
        m_replace = zel::parseAttribute<bool>(element, "replace");
    if (has("sync"))
        m_sync = zel::parseAttribute<bool>(element, "sync");
    if (has("checksums"))
        m_writesChecksums = zel::parseAttribute<bool>(element, "checksums");
    m_bindings->loadDataBindings(element);
    m_startsByItself = !has("enable") || zel::parseAttribute<bool>(element, "enable");
    demandRebind();
}

void Recorder::rebind() {
    Component::rebind();
    if (m_clockPath.empty() || isDetaching() || isRecording())
        return;
    auto* clock = dynamic_cast<zel::Clock*>(getAutoScopedResource(m_clockPath, zel::Clock::ClassModel()));
    if (clock != nullptr)
        attach(clock);
}

} // namespace zelData
