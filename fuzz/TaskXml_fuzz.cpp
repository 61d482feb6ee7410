// Task, kernel, clock and parameter XML through the road that a file takes, added to a tree and looked up in
// it. What has been loaded is then run, if nothing of it is missing.
#include "Support.h"

#include <zel/Component.h>
#include <zel/Notify.h>
#include <zel/UnresolvedTask.h>
#include <zel/ref_ptr.h>
#include <zelCore/zelCore.h>
#include <zelData/ValueT.h>

#include <fcntl.h>
#include <sys/mman.h>
#include <tinyxml.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdlib>
#include <map>
#include <stdexcept>
#include <string>
#include <string_view>

namespace {

using std::string_view;

string_view attribute(const TiXmlElement* element, const char* name) {
    const char* const text = element->Attribute(name);
    return text == nullptr ? string_view() : string_view(text);
}

template <typename List>
bool isOneOf(string_view text, const List& list) {
    return std::find(std::begin(list), std::end(list), text) != std::end(list);
}

constexpr std::array<string_view, 3> Modes{"READ", "WRITE", "READ_WRITE"};
constexpr std::array<string_view, 3> Switches{"enable", "enabled", "repeating"};
constexpr std::array<string_view, 4> Literals{"PI", "INFINITY", "InvalidIndex", "nullptr"};
constexpr std::array<string_view, 2> Booleans{"true", "false"};

/// Tells the documents that end the process as they should: words that are no booleans, numbers without a
/// type, unknown modes and devices, bindings of the wrong kind, loops of tasks. Where that depends on what a
/// path leads to, a name that the document gives to anything counts as found.
class Filter {
public:
    explicit Filter(const TiXmlDocument& document) {
        for (const char* name :
             {"a", "top", "enable", "time", "frequency", "timeModulation", "timeStep", "frame"})
            m_names[name] = 2;
        collect(document.FirstChildElement());
        m_fatal = isFatal(document.FirstChildElement());
    }
    [[nodiscard]] bool isFatal() const noexcept { return m_fatal; }

private:
    void collect(const TiXmlElement* element) {
        for (; element != nullptr; element = element->NextSiblingElement()) {
            ++m_names[std::string(attribute(element, "name"))];
            m_runs = m_runs || element->ValueStr() == "Init" || element->Attribute("trigger") != nullptr;
            collect(element->FirstChildElement());
        }
    }

    /// Whether a part of the path names something.
    [[nodiscard]] bool leadsSomewhere(string_view path) const {
        while (!path.empty()) {
            const auto end = path.find('.');
            string_view part = path.substr(0, std::min(path.find(':'), end));
            while (!part.empty() && (part.front() == ' ' || part.front() == '@'))
                part.remove_prefix(1);
            while (!part.empty() && part.back() == ' ')
                part.remove_suffix(1);
            if (m_names.count(std::string(part)) != 0)
                return true;
            path = end == string_view::npos ? string_view() : path.substr(end + 1);
        }
        return false;
    }

    /// Whether the path is the name of one thing alone, which stands ahead of the element in its parent: what
    /// waits for it is in no loop.
    [[nodiscard]] bool leadsBack(string_view path, const TiXmlElement* element) const {
        const auto count = m_names.find(std::string(path));
        if (count == m_names.end() || count->second != 1)
            return false;
        for (const TiXmlNode* node = element->PreviousSibling(); node != nullptr;
             node = node->PreviousSibling())
            if (node->ToElement() != nullptr && attribute(node->ToElement(), "name") == path)
                return true;
        return false;
    }

    [[nodiscard]] bool mayLoop(const TiXmlElement* element) const {
        if (element->ValueStr() == "dependency") {
            const TiXmlElement* child = element->Parent()->FirstChildElement();
            const string_view name = attribute(element, "child");
            while (child != nullptr && (attribute(child, "name") != name || name.empty()))
                child = child->NextSiblingElement();
            const string_view parent = attribute(element, "parent");
            return leadsSomewhere(parent) && leadsSomewhere(name) &&
                   (child == nullptr || m_names.at(std::string(name)) != 1 || !leadsBack(parent, child));
        }
        const string_view depends = attribute(element, "depends");
        return leadsSomewhere(depends) &&
               (element->Attribute("instance") != nullptr || !leadsBack(depends, element));
    }

    /// Whether the text is read as a boolean and is none, or as a literal of no type.
    [[nodiscard]] static bool isFatalValue(const TiXmlElement* element) {
        if (element->Attribute("value") == nullptr)
            return false;
        const string_view type = attribute(element, "type");
        string_view text = attribute(element, "value");
        const string_view instance = attribute(element, "instance");
        if (type.find("Bool") != string_view::npos || text.find("Bool") != string_view::npos ||
            isOneOf(instance.substr(instance.rfind('.') + 1), Switches))
            return !isOneOf(text, Booleans);
        if (!type.empty() && type.find("Auto") == string_view::npos)
            return false;
        while (!text.empty() && (static_cast<unsigned char>(text.front()) <= ' ' || text.front() == '('))
            text.remove_prefix(1);
        return text.empty() || (text.front() >= '0' && text.front() <= '9') || text.front() == '-' ||
               isOneOf(text.substr(0, text.find_first_of(" \t\n\v\f\r)")), Literals) ||
               isOneOf(text.substr(0, text.find_first_of(" \t\n\v\f\r)")), Booleans);
    }

    /// Whether the parameter is bound to what may be there and of another kind.
    [[nodiscard]] bool isFatalBinding(const TiXmlElement* element) const {
        const std::string& tag = element->ValueStr();
        if (tag == "Pointer" || tag == "Parameter.Pointer" || tag == "Object" || tag == "Component")
            return false;
        const bool isOpen = (tag == "Value" || tag == "Parameter.Scalar" || tag == "Parameter.Unresolved") &&
                            element->Attribute("type") == nullptr;
        if (isOpen)
            return false;
        for (const char* name : {"bind", "source", "task"})
            if (leadsSomewhere(attribute(element, name)))
                return true;
        return false;
    }

    [[nodiscard]] bool isFatal(const TiXmlElement* element) const {
        for (; element != nullptr; element = element->NextSiblingElement()) {
            const std::string& tag = element->ValueStr();
            // These have targets of their own.
            if (tag.rfind("Entity.", 0) == 0 || tag.rfind("Attribute", 0) == 0 || tag == "Entity" ||
                tag.rfind("Shared.", 0) == 0 ||
                (tag == "Buffer" && element->Attribute("instance") == nullptr))
                return true;
            const bool isTask = tag == "Task" || tag == "TaskGroup" || tag == "Init" || tag == "Clock";
            const string_view enable = attribute(element, "enable");
            if ((tag == "Device" && attribute(element, "type") != "CPU" &&
                 element->Attribute("type") != nullptr) ||
                (element->Attribute("mode") != nullptr && !isOneOf(attribute(element, "mode"), Modes)) ||
                (!isOneOf(enable, Booleans) && leadsSomewhere(enable)) ||
                (m_runs &&
                 (leadsSomewhere(attribute(element, "dispatch")) || tag.rfind("Parameter", 0) == 0)) ||
                mayLoop(element) || isFatalValue(element) || (!isTask && isFatalBinding(element)) ||
                isFatal(element->FirstChildElement()))
                return true;
        }
        return false;
    }

    std::map<std::string, int> m_names; // and how often they are given
    bool m_runs = false;                // whether loading the document may run tasks
    bool m_fatal = false;
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    zelFuzz::initQuietly();
    const zelFuzz::InputFile file(data, size);
    try {
        const auto document = zel::Object::openDocument(file.path());
        if (Filter(*document).isFatal())
            return 0;
        for (TiXmlElement* element = document->FirstChildElement(); element != nullptr;
             element = element->NextSiblingElement()) {
            if (zelFuzz::namesContainer(element))
                continue;
            try {
                const zel::ref_ptr<zel::Component> top(new zel::Component("top"));
                top->addObject(new zelData::ValueT<double>("a", 1.5));
                const zel::ref_ptr<zel::Object> object(zel::Object::load(element, nullptr));
                top->addObject(object.get());
                if (auto* task = dynamic_cast<zel::UnresolvedTask*>(object.get()))
                    task->report();
            } catch (const std::runtime_error&) {
                // What a bad file gets.
            }
        }
    } catch (const std::runtime_error&) {
        // As above.
    }
    zel::UnresolvedTask::deleteAllConfiguredProxies();
    if (!zel::Object::getEnableRebind())
        std::abort();
    return 0;
}
