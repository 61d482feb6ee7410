#include "tree/PathHint.h"
#include "tree/PathNotes.h"

#include <zel/Clock.h>
#include <zel/Exception.h>
#include <zel/XmlLoader.h>

#include <tinyxml.h>

#include <memory>
#include <stdexcept>

namespace zel {

namespace {

/// Of a clock whose element names none.
constexpr double DefaultFrequency = 1;

Object* loadClock(TiXmlElement* element, Device* device) {
    return Clock::load(element, device);
}

const XmlLoaderRegistrator s_clockLoader("Clock", loadClock);

Object* findClock(Object& object, const Path& path) {
    return object.getAutoScopedResource(path, Clock::ClassModel());
}

double parsePositive(TiXmlElement* element, const char* name) {
    const auto number = parseAttribute<double>(element, name);
    if (!(number > 0))
        ZEL_XML_ERROR(element, String::format("The attribute '%s' must be larger than 0", name));
    return number;
}

} // namespace

Clock* Clock::load(TiXmlElement* element, Device* device) {
    const char* name = element->Attribute("name");
    if (name == nullptr)
        ZEL_XML_ERROR(element, "Must specify a name for the clock!");
    ref_ptr<Clock> clock(new Clock(name, DefaultFrequency));
    clock->setDevice(device);
    clock->configure(element);
    return clock.release_nodelete();
}

void Clock::configure(TiXmlElement* element) {
    Task::configure(element, false);
    if (const char* path = element->Attribute("synchronize")) {
        bind(Path(path));
        notePath(*this, element, "synchronize", Path(path), &findClock);
    }
    if (element->Attribute("time") != nullptr)
        setTime(parseAttribute<double>(element, "time"));
    if (element->Attribute("frequency") != nullptr)
        setFrequency(parsePositive(element, "frequency"));
    if (element->Attribute("timeModulation") != nullptr)
        setTimeModulation(parsePositive(element, "timeModulation"));
    configureChildren(element);
}

void Clock::configureChildren(TiXmlElement* element) {
    for (TiXmlElement* child = element->FirstChildElement(); child != nullptr;
         child = child->NextSiblingElement()) {
        const std::string& tag = child->ValueStr();
        const char* instance = child->Attribute("instance");
        if (tag == "Value") {
            configureValue(child);
        } else if (tag == "Event" && instance == nullptr) {
            const ref_ptr<Event> event(new Event(parseAttribute<Name>(child, "name")));
            event->configure(child);
            addEvent(event.get());
        } else {
            configureChildElement(child);
        }
    }
}

void Clock::configureValue(TiXmlElement* child) {
    const char* instance = child->Attribute("instance");
    if (instance == nullptr)
        ZEL_XML_ERROR(child, "Can not add new values to a clock!");
    auto* value = dynamic_cast<zelData::Value*>(findObject(instance));
    if (value == nullptr)
        ZEL_XML_ERROR(child,
                      String::format("No value with name '%s'!", instance) + hintOfPath(this, instance));
    value->configure(child);
}

void Clock::Event::configure(TiXmlElement* element) {
    Component::configure(element);
    if (element->Attribute("interval") != nullptr)
        setInterval(parseAttribute<double>(element, "interval"));
    if (element->Attribute("repeating") != nullptr)
        setRepeating(parseAttribute<bool>(element, "repeating"));
    if (element->Attribute("enabled") != nullptr)
        setEnable(parseAttribute<bool>(element, "enabled"));
    if (element->Attribute("startDelay") != nullptr)
        setStartDelay(parseAttribute<double>(element, "startDelay"));
}

void Clock::save(TiXmlElement* element) const {
    auto clock = std::make_unique<TiXmlElement>("Clock");
    clock->SetAttribute("name", getName().str());
    clock->SetAttribute("enable", isEnabled() ? "true" : "false");
    if (!m_masterPath.empty())
        clock->SetAttribute("synchronize", m_masterPath.str());
    clock->SetAttribute("time", m_time.toString());
    clock->SetAttribute("frequency", m_frequency.toString());
    clock->SetAttribute("timeModulation", m_timeModulation.toString());
    for (const Event* event : m_events) {
        if (event->getName().empty())
            continue; // is made by code, which makes it again
        auto child = std::make_unique<TiXmlElement>("Event");
        child->SetAttribute("name", event->getName().str());
        child->SetAttribute("startDelay", event->m_startDelay.toString());
        child->SetAttribute("interval", event->m_interval.toString());
        child->SetAttribute("repeating", event->isRepeating() ? "true" : "false");
        child->SetAttribute("enabled", event->isEnabled() ? "true" : "false");
        clock->LinkEndChild(child.release());
    }
    element->LinkEndChild(clock.release());
}

} // namespace zel
