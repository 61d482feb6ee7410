#include "ArchiveFile.h"
#include "Command.h"
#include "JournalText.h"
#include "Model.h"

#include <zel/String.h>
#include <zelStream/OutputArchive.h>
#include <zelStream/Serializable.h>

#include <algorithm>
#include <cstring>
#include <iostream>
#include <map>
#include <sstream>

// zel archive show: the objects are stored once more, in an archive that prints what it is given.

namespace tool {

namespace {

using zelStream::ScalarForm;
using zelStream::VectorElement;

template <typename T>
T take(const void* bytes) {
    T value;
    std::memcpy(&value, bytes, sizeof(T));
    return value;
}

template <typename Wide>
std::string integerText(const void* bytes, std::size_t size) {
    using Unsigned = std::make_unsigned_t<Wide>;
    Unsigned value = 0;
    std::memcpy(&value, bytes, size); // of a little-endian machine, as all are that the library runs on
    const std::size_t unused = 8 * (sizeof(Wide) - size);
    return std::to_string(static_cast<Wide>(value << unused) >> unused);
}

std::string textOf(const void* value, ScalarForm form) {
    switch (form.kind) {
    case ScalarForm::Boolean:
        return take<bool>(value) ? "true" : "false";
    case ScalarForm::Character:
        return "'" + printable(std::string(1, take<char>(value))) + "'";
    case ScalarForm::Signed:
        return integerText<long>(value, form.size);
    case ScalarForm::Unsigned:
        return integerText<unsigned long>(value, form.size);
    default:
        return form.size == sizeof(float) ? toText(static_cast<double>(take<float>(value)))
                                          : toText(take<double>(value));
    }
}

/// Prints each record and value on a line, those of an object one step further to the right.
class PrintingArchive : public zelStream::OutputArchive {
public:
    explicit PrintingArchive(std::ostream& output) : OutputArchive(false), m_output(output) {}

    /// The header is of no interest.
    void begin() {
        open(m_nothing);
        m_isPrinting = true;
    }

    void beginSection(const char* name) override {
        OutputArchive::beginSection(name);
        m_levels.push_back({});
        const bool isRecord = std::strcmp(name, "Object") == 0;
        if (!isRecord && std::strcmp(name, "TypeHeader") != 0 && m_isPrinting) {
            print("[" + printable(name) + "]");
            m_levels.back().isPrinted = true;
        }
    }
    void endSection(const char* name) override {
        OutputArchive::endSection(name);
        m_levels.resize(getSectionDepth());
    }

    using OutputArchive::write;
    void write(const void*, zel::size_t numBytes) override { print(counted(numBytes, "byte")); }
    void write_vector(const void* elements, zel::size_t numElements, VectorElement type) override {
        constexpr zel::size_t NumShown = 8;
        const auto index = static_cast<zel::size_t>(type);
        const char* const names[] = {
            "float", "double", "Vec2f", "Vec2d", "Vec3f", "Vec3d", "Vec4f", "Vec4d", "uint16"};
        const zel::size_t numStored[] = {1, 1, 2, 2, 4, 4, 4, 4, 1};
        const zel::size_t numShown[] = {1, 1, 2, 2, 3, 3, 4, 4, 1};
        const ScalarForm form =
            type == VectorElement::UInt16
                ? ScalarForm{ScalarForm::Unsigned, 2}
                : ScalarForm{ScalarForm::Real, static_cast<zel::uint8>(index % 2 == 0 ? 4 : 8)};
        std::string text = std::string(names[index]) + "[" + std::to_string(numElements) + "]";
        const auto* element = static_cast<const char*>(elements);
        for (zel::size_t i = 0; i < std::min(numElements, NumShown); ++i) {
            text += i == 0 ? ": " : ", ";
            for (zel::size_t k = 0; k < numShown[index]; ++k)
                text += (k == 0 ? "" : " ") + textOf(element + k * form.size, form);
            element += numStored[index] * form.size;
        }
        print(text + (numElements > NumShown ? ", ..." : ""));
    }

protected:
    void writeScalar(const char* name, const void* value, ScalarForm form) override {
        if (!m_isPrinting)
            return;
        if (isIn("TypeHeader")) {
            if (std::strcmp(name, "referenceID") == 0)
                record().classId = take<zel::uint32>(value);
        } else if (name != nullptr && isIn("Object") && !m_levels.back().isPrinted) {
            describeRecord(name, value, form);
        } else if (!isOwnFlag(name)) {
            print(entitled(name, textOf(value, form)));
        }
    }
    void writeString(const char* name, std::string_view text) override {
        if (!m_isPrinting)
            return;
        if (isIn("TypeHeader"))
            m_classes[record().classId] = std::string(text);
        else
            print(entitled(name, "\"" + printable(std::string(text)) + "\""));
    }
    void writeUuid(const char* name, const zel::Uuid& uuid) override {
        if (!m_isPrinting)
            return;
        Level& level = m_levels.back();
        if (level.isPrinted || !isIn("Object")) {
            print(entitled(name, uuid.str()));
            return;
        }
        const std::string title =
            level.id == 0 ? "by value" : "#" + std::to_string(level.id) + " " + className(level);
        print(title + "  " + uuid.str());
        level.isPrinted = true;
    }
    void writeByteOrder() override {}
    void dropSections(zel::size_t depth) noexcept override {
        OutputArchive::dropSections(depth);
        if (depth < m_levels.size())
            m_levels.resize(depth);
    }

private:
    struct Level {
        zel::int32 mode = 0;
        zel::uint32 classId = 0;
        zel::uint32 id = 0;
        bool isPrinted = false; ///< what follows stands further to the right
        bool hasFlag = false;   ///< serializationEnabled has gone by
    };

    [[nodiscard]] bool isIn(const char* section) const { return getSectionName() == section; }
    /// Of the type header that is open.
    Level& record() { return m_levels[m_levels.size() - 2]; }
    [[nodiscard]] std::string className(const Level& level) { return printable(m_classes[level.classId]); }

    void describeRecord(const char* name, const void* value, ScalarForm) {
        Level& level = m_levels.back();
        if (std::strcmp(name, "storageMode") == 0)
            level.mode = take<zel::int32>(value);
        if (std::strcmp(name, "referenceID") != 0)
            return;
        if (level.mode == NullObject) {
            print("null");
            return;
        }
        level.id = take<zel::uint32>(value);
        if (level.mode == KnownObject)
            print("-> #" + std::to_string(level.id) + " " + className(level));
    }

    /// What the library itself stores of each object, first of all.
    bool isOwnFlag(const char* name) {
        Level& level = m_levels.back();
        if (level.hasFlag || name == nullptr || !isIn("Object") ||
            std::strcmp(name, "serializationEnabled") != 0)
            return false;
        level.hasFlag = true;
        return true;
    }

    static std::string entitled(const char* name, const std::string& text) {
        return name == nullptr ? text : printable(name) + " = " + text;
    }

    void print(const std::string& line) {
        const auto steps = std::count_if(
            m_levels.begin(), m_levels.end(), [](const Level& level) { return level.isPrinted; });
        m_output << std::string(4 * static_cast<std::size_t>(steps), ' ') << line << '\n';
    }

    std::ostream& m_output;
    std::ostringstream m_nothing;
    bool m_isPrinting = false;
    std::vector<Level> m_levels; ///< of the open sections
    std::map<zel::uint32, std::string> m_classes;
};

} // namespace

int showArchive(const Arguments& arguments) {
    addFolders(arguments);
    ArchiveFile file(arguments.positional()[0]);
    const zel::Vector<zelStream::Serializable*> objects = file.readObjects();
    std::ostringstream nowhere;
    nowhere.setstate(std::ios::badbit); // takes nothing
    PrintingArchive printer(arguments.has("--counts") ? static_cast<std::ostream&>(nowhere) : std::cout);
    printer.begin();
    std::map<std::string, unsigned long> counts;
    printer.getObjectEvent().connect({[&counts](const zelStream::Serializable* object, zel::uint32) {
        ++counts[object->getClassName()];
    }});
    for (const zelStream::Serializable* const object : objects)
        printer.write(object);
    printer.close();
    for (const auto& [name, count] : counts)
        std::cout << count << " of class " << printable(name) << '\n';
    return Done;
}

} // namespace tool
