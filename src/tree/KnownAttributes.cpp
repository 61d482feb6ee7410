#include "KnownAttributes.h"

#include "XmlPlace.h"
#include "containers/NearName.h"

#include <zel/HashSet.h>

#include <tinyxml.h>

#include <algorithm>
#include <iterator>
#include <string>
#include <string_view>

namespace zel {

namespace {

/// The attributes of a tag, separated by blanks. "instance" may stand at any tag.
struct KnownTag {
    std::string_view tag;
    std::string_view attributes;
};

constexpr std::string_view BindingAttributes =
    "name type format mode value bind source task required localSize";
constexpr std::string_view ColumnAttributes = "name type format value numElements defaultValue";
// A task with a source may stand for a kernel, and takes its attributes, too.
constexpr std::string_view TaskAttributes =
    "name source device implementation enable depends dispatch trigger resolve bindContext wait "
    "numJobsPerThread minJobSize maxJobSize costPerElement";
constexpr std::string_view KernelAttributes = "name device dispatch numJobsPerThread minJobSize maxJobSize "
                                              "costPerElement enable depends trigger resolve "
                                              "bindContext wait";

// docs/model-files.md tells what they mean; a test compares the two.
constexpr KnownTag KnownTags[] = {
    {"Component", "name source implementation"},
    {"Object", "name"},
    {"Device", "name type"},
    {"Value", "name type format value literal bind fn mode source task required"},
    {"Buffer", "name type format numElements data value bind source task required mode localSize"},
    {"Entity.Storage", "name entity numElements capacity"},
    {"Entity.Model", "name source useInstanceTable hasConstructor"},
    {"Entity", "name source useInstanceTable hasConstructor"},
    {"Attribute", ColumnAttributes},
    {"Attribute.Scalar", ColumnAttributes},
    {"Attribute.Array", ColumnAttributes},
    {"Attribute.Vector", ColumnAttributes},
    {"Attribute.HashSet", ColumnAttributes},
    {"Attribute.Pointer", "name"},
    {"Attribute.Shared", "name type format value"},
    {"Shared.Buffer", "name type format"},
    {"Shared.Storage", "name entity"},
    {"Parameter", "name type format mode required bind value source task"},
    {"Parameter.Scalar", "name type format mode required bind value source task"},
    {"Parameter.Array", "name type format mode required bind localSize source task"},
    {"Parameter.Pointer", "name required bind source task"},
    {"Parameter.EntityData", "name type mode required bind source task"},
    {"Parameter.EntityPtr", "name type required bind source task"},
    {"Parameter.EntityInstance", "name type required bind source task"},
    {"Parameter.Unresolved", "type format value required bind source task"},
    {"Parameter.HashTable", "name keyType valueType"},
    {"Pointer", BindingAttributes},
    {"Storage", BindingAttributes},
    {"HashTable", BindingAttributes},
    {"EntityPtr", BindingAttributes},
    {"EntityInstance", BindingAttributes},
    {"Clock",
     "name frequency time timeModulation synchronize enable depends dispatch trigger resolve bindContext "
     "wait"},
    {"Event", "name startDelay interval repeating enabled"},
    {"Task", TaskAttributes},
    {"Init", TaskAttributes},
    {"TaskGroup", "name sequential implementation enable depends dispatch trigger resolve bindContext wait"},
    {"dependency", "parent child"},
    {"Kernel", KernelAttributes},
    {"Kernel.Scalar", KernelAttributes},
    {"SolveKernel", KernelAttributes},
    {"RandomGenerator", "name seed"},
    {"Recorder",
     "name clock journal root condition keyFrameInterval stride start end budget maxJournalBytes "
     "maxJournalTime minFreeBytes resume replace sync checksums enable"},
    {"DataBinding", "path internal external recursive"},
};

/// Calls `visit` with each of the words that blanks separate.
template <typename Visit>
void forEachWord(std::string_view list, const Visit& visit) {
    for (size_t begin = 0; begin <= list.size();) {
        const size_t end = std::min(list.find(' ', begin), list.size());
        visit(list.substr(begin, end - begin));
        begin = end + 1;
    }
}

/// Whether the text is one of those that blanks separate.
bool holds(std::string_view list, std::string_view text) {
    bool found = false;
    forEachWord(list, [&found, text](std::string_view word) { found = found || word == text; });
    return found;
}

/// The tags whose child elements nobody reads.
constexpr std::string_view LeafTags =
    "Object Device Value Attribute Attribute.Scalar Attribute.Array Attribute.Vector Attribute.HashSet "
    "Attribute.Pointer Attribute.Shared Shared.Buffer Shared.Storage Parameter Parameter.Scalar "
    "Parameter.Array "
    "Parameter.Pointer Parameter.EntityPtr Parameter.EntityInstance Pointer EntityPtr EntityInstance "
    "dependency DataBinding";

const KnownTag* findTag(const TiXmlElement& element) {
    const auto* const known =
        std::find_if(std::begin(KnownTags), std::end(KnownTags), [&element](const KnownTag& entry) {
            return element.ValueStr() == entry.tag;
        });
    return known == std::end(KnownTags) ? nullptr : known;
}

/// Whether a class of the program's may stand behind the element, which may read what it likes.
bool mayBeOfTheProgram(const TiXmlElement& element) {
    return element.ValueStr() == "Component" &&
           (element.Attribute("source") != nullptr || element.Attribute("implementation") != nullptr);
}

void checkAttribute(const TiXmlElement& element, const KnownTag& known, const TiXmlAttribute& attribute) {
    const std::string_view name = attribute.Name();
    // Names with a colon are those of XML itself, such as namespaces and schemas.
    if (name == "instance" || name == "xmlns" || name.find(':') != std::string_view::npos ||
        holds(known.attributes, name))
        return;
    NearName near(name);
    forEachWord(known.attributes, [&near](std::string_view word) { near.consider(word); });
    warnOnceAt(&element,
               "nothing reads the attribute '" + std::string(name) + "' of '" + element.ValueStr() + "'" +
                   near.hint() + ". It has: " + std::string(known.attributes) + " instance",
               attribute.Row());
}

void checkAttributes(const TiXmlElement& element, const KnownTag& known) {
    for (const TiXmlAttribute* attribute = element.FirstAttribute(); attribute != nullptr;
         attribute = attribute->Next())
        checkAttribute(element, known, *attribute);
}

class SlipCheck : public TiXmlVisitor {
public:
    bool VisitEnter(const TiXmlElement& element, const TiXmlAttribute*) override {
        const KnownTag* const known = findTag(element);
        if (known == nullptr)
            return false;
        if (!mayBeOfTheProgram(element))
            checkAttributes(element, *known);
        checkName(element);
        // One with an instance configures what has been made of another tag.
        if (element.Attribute("instance") == nullptr && holds(LeafTags, known->tag))
            checkChildren(element);
        return true;
    }

    bool Visit(const TiXmlText& text) override {
        const TiXmlElement* const element = text.Parent()->ToElement();
        if (element != nullptr && !mayBeOfTheProgram(*element))
            warnOnceAt(element,
                       "nothing reads the text '" + text.ValueStr().substr(0, 40) + "' in '" +
                           element->ValueStr() + "'",
                       text.Row());
        return true;
    }

private:
    static void checkName(const TiXmlElement& element) {
        const char* const name = element.Attribute("name");
        if (name != nullptr && std::string_view(name).find('.') != std::string_view::npos)
            warnOnceAt(&element,
                       "no path finds an object of the name '" + std::string(name) +
                           "': a dot in a path leads to a child");
    }

    static void checkChildren(const TiXmlElement& element) {
        for (const TiXmlElement* child = element.FirstChildElement(); child != nullptr;
             child = child->NextSiblingElement())
            if (child->ValueStr() != "description")
                warnOnceAt(child,
                           "nothing reads the element '" + child->ValueStr() + "' inside of '" +
                               element.ValueStr() + "'");
    }
};

/// The files that have been looked at. Guarded by the type-system mutex. Never destroyed: models may be
/// loaded by the last static objects.
HashSet<String>& toldFiles() {
    static auto& files = *new HashSet<String>;
    return files;
}

} // namespace

void forgetSlips(const String& file) {
    toldFiles().erase(file);
    forgetMessages(file);
}

void warnOfSlips(const TiXmlDocument& document) {
    if (toldFiles().contains(document.ValueStr()))
        return;
    toldFiles().insert(document.ValueStr());
    SlipCheck check;
    document.Accept(&check);
}

void warnOfUnknownAttributes(const TiXmlElement& element) {
    if (const KnownTag* const known = findTag(element))
        checkAttributes(element, *known);
}

} // namespace zel
