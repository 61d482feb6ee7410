#include "ArchiveHeader.h"

#include <zelStream/Archive.h>

#include <algorithm>
#include <exception>

namespace zelStream {

namespace {

/// What registerModification adds to. Made at first use, which may be in a static constructor.
zel::Vector<zel::String>& registeredModifications() {
    static zel::Vector<zel::String> modifications{FinalNames};
    return modifications;
}

/// The names of sections for a text, in which a long row of them is shortened in its middle.
zel::String shortened(const zel::String& sections) {
    constexpr zel::size_t LongestEnd = 200;
    constexpr const char* Gap = "/.../";
    if (sections.size() <= 2 * LongestEnd)
        return sections;
    zel::size_t head = sections.rfind('/', LongestEnd);
    if (head == zel::String::npos)
        head = LongestEnd; // in the middle of a name
    zel::size_t tail = sections.find('/', sections.size() - LongestEnd);
    tail = tail == zel::String::npos ? sections.size() - LongestEnd : tail + 1;
    return sections.substr(0, head) + Gap + sections.substr(tail);
}

zel::String mismatchText(std::string_view name, std::string_view openName, const zel::String& path) {
    return "Call to endSection(\"" + std::string(name) +
           "\") does not match previous call to beginSection(\"" + std::string(openName) + "\") at path: '" +
           shortened(path) + "'";
}

} // namespace

Archive::ScopedSection::ScopedSection(Archive& archive, const char* name)
    : m_archive(archive)
    , m_name(name)
    , m_depth(archive.getSectionDepth())
    , m_numExceptions(std::uncaught_exceptions()) {
    archive.beginSection(name);
}

void Archive::ScopedSection::end() {
    m_archive.endSection(m_name);
    m_isEnded = true;
}

Archive::ScopedSection::~ScopedSection() {
    if (m_isEnded)
        return;
    // A section within may be open still, or this one was ended by another hand.
    const bool isOpen = m_archive.getSectionDepth() == m_depth + 1 && m_archive.getSectionName() == m_name;
    if (!isOpen && std::uncaught_exceptions() == m_numExceptions) {
        try {
            m_archive.noteFailure(m_archive.getErrorMessage(
                mismatchText(m_name, m_archive.getSectionName(), m_archive.m_sections)));
        } catch (...) { // NOLINT(bugprone-empty-catch): there is no memory for the text
        }
    }
    m_archive.dropSections(m_depth);
}

Archive::~Archive() = default;

void Archive::beginSection(const char* name) {
    if (name == nullptr)
        fail("A section needs a name");
    const zel::size_t start = m_sections.size();
    m_sectionStarts.push_back(start);
    if (start != 0)
        m_sections += '/';
    m_sections += name;
}

void Archive::endSection(const char* name) {
    if (name == nullptr)
        fail("A section needs a name");
    if (m_sectionStarts.empty())
        fail("Call to endSection(\"" + std::string(name) + "\") without a call to beginSection");
    const std::string_view openName = getSectionName();
    if (openName != name)
        fail(mismatchText(name, openName, m_sections));
    Archive::dropSections(m_sectionStarts.size() - 1);
}

std::string_view Archive::getSectionName() const noexcept {
    if (m_sectionStarts.empty())
        return {};
    const zel::size_t start = m_sectionStarts.back();
    return std::string_view(m_sections).substr(start == 0 ? 0 : start + 1); // behind the "/"
}

void Archive::dropSections(zel::size_t depth) noexcept {
    if (depth >= m_sectionStarts.size())
        return;
    m_sections.resize(m_sectionStarts[depth]);
    m_sectionStarts.resize(depth);
}

zel::String Archive::getErrorMessage(const zel::String& text) const {
    if (m_sectionStarts.empty())
        return text;
    return "Current scope: '" + shortened(m_sections) + "'. " + text;
}

bool Archive::hasModification(const zel::String& hash) const {
    return m_modifications.contains(hash);
}

void Archive::registerModification(const zel::String& hash) {
    verifyHash(hash);
    if (!registeredModifications().contains(hash))
        registeredModifications().push_back(hash);
}

const zel::Vector<zel::String>& Archive::getKnownModifications() {
    return registeredModifications();
}

void Archive::verifyHash(const zel::String& hash) {
    if (hash.size() != 8 || hash.find_first_not_of("0123456789abcdef") != zel::String::npos)
        throw ArchiveException("A modification is eight lower-case hexadecimal digits, and not '" + hash +
                               "'");
}

zel::Vector<zel::String> Archive::sorted(const zel::HashSet<zel::String>& modifications) {
    zel::Vector<zel::String> list;
    for (const zel::String& hash : modifications)
        list.push_back(hash);
    std::sort(list.begin(), list.end());
    return list;
}

void Archive::fail(const zel::String& text) const {
    throw ArchiveException(getErrorMessage(text));
}

void Archive::failForGood(const zel::String& text) {
    noteFailure(getErrorMessage(text));
    throwFailure();
}

void Archive::noteFailure(const zel::String& message) {
    if (m_failure.empty())
        m_failure = message;
}

void Archive::throwFailure() const {
    throw ArchiveException(m_failure);
}

} // namespace zelStream
