#include "Command.h"
#include "JournalText.h"

#include <zel/Path.h>
#include <zel/String.h>
#include <zelData/JournalDiff.h>
#include <zelData/PlainElements.h>
#include <zelData/PlainJournal.h>

#include <algorithm>
#include <iostream>

// zel journal show and diff.

namespace tool {

using zelData::PlainElements;
using zelData::PlainFrame;
using zelData::PlainJournal;
using Node = PlainFrame::Node;

namespace {

std::string describe(const Node& node) {
    std::string format = printable(node.format.str());
    const std::string count = "[" + std::to_string(node.numElements) + "]";
    switch (node.type) {
    case PlainFrame::Type::ValueType:
        return format;
    case PlainFrame::Type::EntityStorageType:
        return "storage of " + counted(node.numElements, format.empty() ? "instance" : format) +
               ", room for " + std::to_string(node.fullSize);
    case PlainFrame::Type::PartialBufferType:
        return format + count + " of " + std::to_string(node.fullSize);
    case PlainFrame::Type::ComponentType:
        return "component";
    default:
        return format + count;
    }
}

class Printer {
public:
    explicit Printer(unsigned long numElements) : m_numElements(numElements) {}

    // NOLINTNEXTLINE(misc-no-recursion): frames are 512 deep at most
    void print(const Node& node, std::size_t depth) const {
        std::cout << std::string(2 * depth, ' ') << printable(node.name.str()) << "  " << describe(node);
        printElements(node);
        std::cout << '\n';
        // The parts of a buffer in parts are no nodes of their own for the reader.
        if (node.type != PlainFrame::Type::CustomBufferType)
            for (const Node& child : node.children)
                print(child, depth + 1);
    }

private:
    void printElements(const Node& node) const {
        const PlainElements elements(node);
        const unsigned long count = std::min<unsigned long>(m_numElements, elements.size());
        const bool isList = node.type != PlainFrame::Type::ValueType;
        for (unsigned long i = 0; i < count; ++i) {
            const std::string text = printable(elements.text(i));
            const bool isQuoted =
                node.type == PlainFrame::Type::CustomBufferType || elements.numNumbers() > 1;
            std::cout << (i == 0 ? " = " : "; ") << (isList && isQuoted ? "(" + text + ")" : text);
        }
        if (elements.size() > count)
            std::cout << (count == 0 ? "" : "; ...");
        if (elements.size() != 0 && !elements.isKnown())
            std::cout << "  (a format that is not known, " << counted(node.elementSize(), "byte") << " each)";
    }

    unsigned long m_numElements;
};

std::size_t findFrame(const PlainJournal& journal, const std::string& text) {
    const auto& frames = journal.getFrames();
    if (frames.empty())
        throw std::runtime_error("'" + journal.getPath() + "' has no frames");
    if (text == "first" || text == "last")
        return text == "first" ? 0 : frames.size() - 1;
    const auto place = journal.findFrame(parseNumber("FRAME", text));
    if (!place)
        throw std::runtime_error("'" + journal.getPath() + "' has no frame " + text + ", but those from " +
                                 std::to_string(frames.front().record.index) + " to " +
                                 std::to_string(frames.back().record.index));
    return *place;
}

} // namespace

int showFrame(const Arguments& arguments) {
    const auto& words = arguments.positional();
    const unsigned long numElements = arguments.number("--elements", 8);
    PlainJournal journal(words[0]);
    const std::size_t place = findFrame(journal, words[1]);
    PlainFrame alone;
    if (arguments.has("--raw"))
        alone = journal.readAlone(place);
    const PlainFrame* frame = arguments.has("--raw") ? &alone : &journal.readComplete(place);
    const Node* node = frame->find(words.size() == 3 ? zel::Path(words[2]) : zel::Path());
    if (node == nullptr)
        throw std::runtime_error("frame " + words[1] + " has no node '" + words[2] + "'");
    const auto& record = journal.getFrames()[place].record;
    std::cout << "frame " << record.index << ", time " << toText(record.timeStamp) << ", step "
              << toText(record.timeStep) << (record.isKeyFrame != 0 ? ", a key frame" : "") << ", "
              << counted(frame->getNumEvents(), "event") << '\n';
    const Printer printer(numElements);
    if (node != &frame->getRoot())
        printer.print(*node, 0);
    else
        for (const Node& child : node->children)
            printer.print(child, 0);
    return tellFaults(journal);
}

int diff(const Arguments& arguments) {
    const auto& words = arguments.positional();
    const double tolerance = arguments.real("--tolerance", 0);
    const zelData::JournalDifference found = zelData::diffJournals(words[0], words[1], tolerance);
    if (!found.isDifferent) {
        std::cout << "No difference in " << counted(found.numFrames, "frame") << ".\n";
        return Done;
    }
    std::cout << "The first difference is in frame " << found.frame;
    if (!found.path.empty())
        std::cout << ", at " << printable(found.path);
    if (found.element != zel::InvalidIndex)
        std::cout << ", element " << found.element;
    std::cout << ":\n  " << words[0] << ": " << printable(found.first) << "\n  " << words[1] << ": "
              << printable(found.second) << '\n';
    return Differs;
}

} // namespace tool
