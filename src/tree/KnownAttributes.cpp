#include "KnownAttributes.h"

#include <zel/HashSet.h>
#include <zel/Log.h>
#include <zel/String.h>

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
};

/// Whether the text is one of those that blanks separate.
bool holds(std::string_view list, std::string_view text) {
    for (size_t begin = 0; begin <= list.size();) {
        const size_t end = std::min(list.find(' ', begin), list.size());
        if (list.substr(begin, end - begin) == text)
            return true;
        begin = end + 1;
    }
    return false;
}

/// Whether a class of the program's may stand behind the element, which may read what it likes.
bool mayBeOfTheProgram(const TiXmlElement& element) {
    return element.ValueStr() == "Component" &&
           (element.Attribute("source") != nullptr || element.Attribute("implementation") != nullptr);
}

class AttributeCheck : public TiXmlVisitor {
public:
    explicit AttributeCheck(const TiXmlDocument& document) : m_file(document.Value()) {}

    bool VisitEnter(const TiXmlElement& element, const TiXmlAttribute* attribute) override {
        const auto* const known =
            std::find_if(std::begin(KnownTags), std::end(KnownTags), [&element](const KnownTag& entry) {
                return element.ValueStr() == entry.tag;
            });
        if (known == std::end(KnownTags))
            return false;
        for (; attribute != nullptr && !mayBeOfTheProgram(element); attribute = attribute->Next())
            check(*known, *attribute);
        return true;
    }

private:
    void check(const KnownTag& known, const TiXmlAttribute& attribute) const {
        const std::string_view name = attribute.Name();
        // Names with a colon are those of XML itself, such as namespaces and schemas.
        if (name == "instance" || name == "xmlns" || name.find(':') != std::string_view::npos ||
            holds(known.attributes, name))
            return;
        ZEL_LOG_WARNING("Nothing reads the attribute '" << name << "' of '" << known.tag << "' in file '"
                                                        << m_file << "', row " << attribute.Row()
                                                        << ". It has: " << known.attributes << " instance");
    }

    std::string m_file;
};

/// Guarded by the type-system mutex. Never destroyed: models may be loaded by the last static objects.
HashSet<String>& toldFiles() {
    static auto& files = *new HashSet<String>;
    return files;
}

} // namespace

void forgetUnknownAttributes(const String& file) {
    toldFiles().erase(file);
}

void warnOfUnknownAttributes(const TiXmlDocument& document) {
    if (toldFiles().contains(document.ValueStr()))
        return;
    toldFiles().insert(document.ValueStr());
    AttributeCheck check(document);
    document.Accept(&check);
}

} // namespace zel
