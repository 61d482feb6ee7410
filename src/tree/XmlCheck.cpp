#include "XmlCheck.h"

#include <zel/Integers.h>
#include <zel/String.h>
#include <zel/Vector.h>

#include <algorithm>
#include <charconv>
#include <cstring>
#include <string>

namespace zel {

namespace {

constexpr size_t None = std::string_view::npos;

std::string quoted(std::string_view text) {
    return "'" + std::string(text) + "'";
}

/// The first byte that is not UTF-8, or is a NUL, which would end the text for the parser.
size_t firstBadByte(std::string_view text) {
    constexpr uint64 Ones = 0x0101010101010101U;
    for (size_t i = 0; i < text.size();) {
        // Eight of ASCII at once: none has its top bit, nor gets it from taking 1 off.
        uint64 word = 0;
        if (text.size() - i >= sizeof(word)) {
            std::memcpy(&word, text.data() + i, sizeof(word));
            if (((word | (word - Ones)) & (Ones << 7U)) == 0) {
                i += sizeof(word);
                continue;
            }
        }
        const size_t length = utf8Length(text, i);
        if (length == 0)
            return i;
        i += length;
    }
    return None;
}

bool isUtf16(std::string_view text) {
    using namespace std::string_view_literals;
    return text.starts_with("\xff\xfe"sv) || text.starts_with("\xfe\xff"sv) || text.starts_with("<\0"sv) ||
           text.starts_with("\0<"sv);
}

/// Steps through the text as the parser does.
class StructureCheck {
public:
    StructureCheck(std::string_view text, const XmlRules& rules) : m_text(text), m_rules(rules) {
        if (m_text.starts_with("\xef\xbb\xbf"))
            m_position = 3;
    }

    /// @return whether all is well; if not, the reason and its offset
    [[nodiscard]] bool run() {
        while (true) {
            const size_t begin = m_position;
            m_position = std::min(m_text.find('<', m_position), m_text.size());
            if (m_open.empty() ? !passOutside(begin) : !passReferences(begin, m_position))
                return false;
            if (m_position == m_text.size())
                break;
            if (!passTag())
                return false;
        }
        if (!m_open.empty())
            return fail(m_open.back().offset, "the element " + quoted(m_open.back().name) + " is not closed");
        return m_hasElement || fail(0, "there is no element in the file");
    }

    [[nodiscard]] size_t offset() const noexcept { return m_offset; }
    [[nodiscard]] const std::string& reason() const noexcept { return m_reason; }

private:
    struct Tag {
        std::string_view name;
        size_t offset;
    };

    bool fail(size_t offset, std::string reason) {
        m_offset = offset;
        m_reason = std::move(reason);
        return false;
    }

    [[nodiscard]] bool isAt(std::string_view what) const {
        return m_text.substr(m_position).starts_with(what);
    }
    [[nodiscard]] char here() const { return m_position < m_text.size() ? m_text[m_position] : '\0'; }

    [[nodiscard]] static bool isSpace(char c) { return c == ' ' || (c >= '\t' && c <= '\r'); }
    [[nodiscard]] static bool isDigit(char c) { return c >= '0' && c <= '9'; }
    void skipSpace() {
        while (isSpace(here()))
            ++m_position;
    }

    [[nodiscard]] static bool beginsName(char c) {
        const auto byte = static_cast<unsigned char>(c);
        return byte >= 127 || c == '_' || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
    }
    std::string_view readName() {
        const size_t begin = m_position;
        if (beginsName(here()))
            while (beginsName(here()) || isDigit(here()) || here() == '-' || here() == '.' || here() == ':')
                ++m_position;
        return m_text.substr(begin, m_position - begin);
    }

    /// Looks at what lies between two tags that are in no element.
    bool passOutside(size_t begin) {
        const size_t found = m_text.substr(0, m_position).find_first_not_of(" \t\r\n\f\v", begin);
        if (found == None)
            return true;
        const std::string_view text =
            m_text.substr(found, std::min(m_position, m_text.find('\n', found)) - found);
        return fail(found, "there is text outside of any element: " + quoted(text.substr(0, 40)));
    }

    /// Looks at the references to entities in a part of the text.
    bool passReferences(size_t begin, size_t end) {
        if (!m_rules.isStrict)
            return true;
        const std::string_view part = m_text.substr(0, end);
        for (size_t at = part.find('&', begin); at != None; at = part.find('&', at + 1)) {
            const std::string_view name = part.substr(at + 1, 10); // none is longer
            const size_t close = name.find(';');
            if (close == None || !isReference(name.substr(0, close)))
                return fail(at, "'&' begins no entity here that is known; in a text it is written '&amp;'");
        }
        return true;
    }
    /// Whether the text between '&' and ';' is one of XML's own names or the number of a character.
    static bool isReference(std::string_view name) {
        if (!name.starts_with('#'))
            return name == "amp" || name == "lt" || name == "gt" || name == "quot" || name == "apos";
        const bool isHexadecimal = name.starts_with("#x");
        name.remove_prefix(isHexadecimal ? 2 : 1);
        unsigned code = 0;
        const auto [end, error] =
            std::from_chars(name.data(), name.data() + name.size(), code, isHexadecimal ? 16 : 10);
        return error == std::errc() && end == name.data() + name.size() && code != 0 && code <= 0x10ffff &&
               (code < 0xd800 || code > 0xdfff);
    }

    bool passTag() {
        if (isAt("<!--"))
            return skipBehind("-->", "the comment");
        if (isAt("<![CDATA["))
            return m_open.empty() ? fail(m_position, "there is text outside of any element: '<![CDATA['")
                                  : skipBehind("]]>", "the section '<![CDATA['");
        if (m_rules.isStrict && isAt("<!"))
            return fail(m_position, "there is a document type, which has no place here");
        if (isAt("<!") || isAt("<?"))
            return skipBehind(">", "the declaration");
        if (isAt("</"))
            return passClosingTag();
        if (m_position + 1 < m_text.size() && beginsName(m_text[m_position + 1]))
            return passElement();
        return fail(m_position, "'<' begins no tag here; in a text it is written '&lt;'");
    }

    bool skipBehind(std::string_view end, const char* what) {
        const size_t found = m_text.find(end, m_position);
        if (found == None)
            return fail(m_position, std::string(what) + " that begins here is not closed");
        m_position = found + end.size();
        return true;
    }

    bool passClosingTag() {
        const size_t begin = m_position;
        m_position += 2;
        const std::string_view name = readName();
        skipSpace();
        if (name.empty() || here() != '>')
            return fail(begin, "the closing tag '</" + std::string(name) + "' has no '>'");
        ++m_position;
        const auto tag = [name] { return "'</" + std::string(name) + ">'"; };
        if (m_open.empty())
            return fail(begin, tag() + " closes nothing");
        if (m_open.back().name != name)
            return fail(begin,
                        tag() + " stands where the element " + quoted(m_open.back().name) + " of row " +
                            std::to_string(rowOf(m_open.back().offset)) + " is still open");
        m_open.pop_back();
        return true;
    }

    bool passElement() {
        Tag tag{{}, m_position++};
        tag.name = readName();
        if (m_rules.isStrict && m_hasElement && m_open.empty())
            return fail(tag.offset, "there is a second element beside the first: " + quoted(tag.name));
        m_hasElement = true;
        m_open.push_back(tag);
        if (m_open.size() > m_rules.maximumDepth)
            return fail(tag.offset,
                        "elements are nested more than " + std::to_string(m_rules.maximumDepth) + " deep");
        m_attributes.clear();
        while (true) {
            skipSpace();
            if (here() == '>' || isAt("/>")) {
                if (here() == '/')
                    m_open.pop_back();
                m_position = m_text.find('>', m_position) + 1;
                return true;
            }
            if (!passAttribute(tag))
                return false;
        }
    }

    bool passAttribute(const Tag& tag) {
        const size_t begin = m_position;
        const std::string_view name = readName();
        if (name.empty()) {
            if (m_position == m_text.size())
                return fail(tag.offset, "the tag of " + describe(tag) + " has no '>'" + hintOfQuote());
            return fail(begin,
                        describe(tag) + " has " + quoted(m_text.substr(begin, 1)) +
                            " where an attribute or '>' belongs" + hintOfQuote());
        }
        skipSpace();
        if (here() != '=')
            return fail(begin,
                        "the attribute " + quoted(name) + " of " + describe(tag) + " has no value" +
                            hintOfQuote());
        ++m_position;
        skipSpace();
        const char quote = here();
        if (quote == '"' || quote == '\'') {
            const size_t end = m_text.find(quote, m_position + 1);
            if (end == None)
                return fail(begin,
                            "the value of the attribute " + quoted(name) + " of " + describe(tag) +
                                " has no closing quote");
            if (!passReferences(m_position + 1, end))
                return false;
            m_position = end + 1;
        } else if (m_rules.isStrict) {
            return fail(begin,
                        "the value of the attribute " + quoted(name) + " of " + describe(tag) +
                            " has no quotes");
        } else {
            while (m_position < m_text.size() && !isSpace(here()) && here() != '>' && here() != '/' &&
                   here() != '"' && here() != '\'')
                ++m_position;
            if (here() == '"' || here() == '\'')
                return fail(begin,
                            "the value of the attribute " + quoted(name) + " of " + describe(tag) +
                                " has no opening quote");
        }
        if (std::find(m_attributes.begin(), m_attributes.end(), name) != m_attributes.end())
            return fail(begin, "the attribute " + quoted(name) + " stands twice in " + describe(tag));
        if (m_attributes.size() == m_rules.maximumAttributes)
            return fail(begin,
                        describe(tag) + " has more than " + std::to_string(m_rules.maximumAttributes) +
                            " attributes");
        m_attributes.push_back(name);
        return true;
    }

    /// A value that is not closed goes on to the next quote, and the fault shows behind that.
    [[nodiscard]] std::string hintOfQuote() const {
        return m_attributes.empty()
                   ? std::string()
                   : "; has the value of " + quoted(m_attributes.back()) + " ahead of it a closing quote?";
    }

    [[nodiscard]] std::string describe(const Tag& tag) const {
        return "the element " + quoted(tag.name) + " of row " + std::to_string(rowOf(tag.offset));
    }
    [[nodiscard]] size_t rowOf(size_t offset) const {
        return 1 + static_cast<size_t>(std::count(
                       m_text.begin(), m_text.begin() + static_cast<std::ptrdiff_t>(offset), '\n'));
    }

    std::string_view m_text;
    const XmlRules m_rules;
    size_t m_position = 0;
    Vector<Tag> m_open;
    Vector<std::string_view> m_attributes; // of the tag under way
    bool m_hasElement = false;
    size_t m_offset = 0;
    std::string m_reason;
};

bool failAt(std::string_view text, size_t offset, std::string reason, XmlFileError& error) {
    const auto above = std::count(text.begin(), text.begin() + static_cast<std::ptrdiff_t>(offset), '\n');
    error = {1 + static_cast<size_t>(above), std::move(reason)};
    return false;
}

} // namespace

size_t utf8Length(std::string_view text, size_t position) noexcept {
    const auto at = [text](size_t i) { return i < text.size() ? static_cast<unsigned char>(text[i]) : 0U; };
    const unsigned lead = at(position);
    if (lead < 0x80)
        return lead == 0 ? 0 : 1;
    const size_t length = lead < 0xc2 ? 0 : lead < 0xe0 ? 2 : lead < 0xf0 ? 3 : lead < 0xf5 ? 4 : 0;
    for (size_t k = 1; k < length; ++k)
        if ((at(position + k) & 0xc0U) != 0x80U)
            return 0;
    // Longer than it need be, a half of a pair of UTF-16, beyond the last character.
    const unsigned second = at(position + 1);
    if ((lead == 0xe0 && second < 0xa0) || (lead == 0xed && second > 0x9f) ||
        (lead == 0xf0 && second < 0x90) || (lead == 0xf4 && second > 0x8f))
        return 0;
    return length;
}

bool checkText(std::string_view text, XmlFileError& error) {
    if (text.empty())
        return failAt(text, 0, "the file is empty", error);
    if (isUtf16(text))
        return failAt(text, 0, "the text is UTF-16; it must be saved as UTF-8", error);
    const size_t bad = firstBadByte(text);
    if (bad == None)
        return true;
    if (text[bad] == '\0')
        return failAt(text, bad, "there is a NUL byte, which is no text", error);
    return failAt(text,
                  bad,
                  String::format("the byte 0x%02X is not UTF-8; the text must be saved as UTF-8",
                                 static_cast<unsigned>(static_cast<unsigned char>(text[bad]))),
                  error);
}

bool checkXml(std::string_view text, XmlFileError& error, const XmlRules& rules) {
    if (!checkText(text, error))
        return false;
    StructureCheck structure(text, rules);
    return structure.run() || failAt(text, structure.offset(), structure.reason(), error);
}

} // namespace zel
