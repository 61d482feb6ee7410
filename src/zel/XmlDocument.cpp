#include "XmlDocument.h"

#include <zel/Exception.h>
#include <zel/Object.h>
#include <zelIO/FileSystem.h>

#include <tinyxml.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <stdexcept>
#include <string>
#include <string_view>

namespace zel {

namespace {

constexpr size_t MaximumSize = size_t{64} << 20;
// The parser recurses for each level, and so do its destructors and our loaders.
constexpr int MaximumDepth = 512;

/// Finds elements that are nested too deep, ahead of the parser. It steps through the text as the parser
/// does: where the two could differ the parser gives up with an error.
class NestingCheck {
public:
    explicit NestingCheck(std::string_view text) : m_text(text) {}

    /// @return the offset of the first element below the limit, or npos
    [[nodiscard]] size_t firstTooDeep() {
        int depth = 0;
        while ((m_position = m_text.find('<', m_position)) != std::string_view::npos) {
            if (startsWith("<!--")) {
                skipBehind("-->");
            } else if (startsWith("<![CDATA[")) {
                skipBehind("]]>");
            } else if (startsWith("</")) {
                depth = std::max(0, depth - 1);
                skipBehind(">");
            } else if (isElement()) {
                if (++depth > MaximumDepth)
                    return m_position;
                if (skipTag())
                    --depth;
            } else {
                skipBehind(">");
            }
        }
        return std::string_view::npos;
    }

private:
    [[nodiscard]] bool startsWith(std::string_view what) const {
        return m_text.substr(m_position, what.size()) == what;
    }
    void skipBehind(std::string_view what) {
        const size_t found = m_text.find(what, m_position);
        m_position = found == std::string_view::npos ? m_text.size() : found + what.size();
    }
    [[nodiscard]] bool isElement() const {
        const auto c =
            m_position + 1 < m_text.size() ? static_cast<unsigned char>(m_text[m_position + 1]) : '\0';
        return std::isalpha(c) != 0 || c == '_' || c >= 127;
    }
    /// Steps behind the tag; a ">" inside a quoted attribute value does not end it.
    /// @return whether the tag closes itself
    [[nodiscard]] bool skipTag() {
        char quote = '\0';
        bool afterEquals = false;
        for (++m_position; m_position < m_text.size(); ++m_position) {
            const char c = m_text[m_position];
            if (quote != '\0') {
                if (c == quote)
                    quote = '\0';
            } else if (c == '>') {
                ++m_position;
                return m_text[m_position - 2] == '/';
            } else if (afterEquals && (c == '"' || c == '\'')) {
                quote = c;
            }
            if (std::isspace(static_cast<unsigned char>(c)) == 0)
                afterEquals = c == '=' && quote == '\0';
        }
        return false;
    }

    std::string_view m_text;
    size_t m_position = 0;
};

bool readChecked(const String& file, std::string& text, XmlFileError& error) {
    std::FILE* stream = zelIO::FileSystem::openFile(file.c_str(), "rb");
    if (stream == nullptr) {
        error.reason = std::strerror(errno);
        return false;
    }
    std::string block(size_t{1} << 16, '\0');
    size_t count = 0;
    while (text.size() <= MaximumSize && (count = std::fread(block.data(), 1, block.size(), stream)) != 0)
        text.append(block, 0, count);
    const int failure = std::ferror(stream) != 0 ? errno : 0;
    zelIO::FileSystem::closeFile(stream);
    if (failure != 0)
        error.reason = std::strerror(failure);
    else if (text.size() > MaximumSize)
        error.reason = "the file is larger than " + std::to_string(MaximumSize) + " bytes";
    return error.reason.empty();
}

} // namespace

std::unique_ptr<TiXmlDocument> parseXmlFile(const String& file, XmlFileError& error) {
    std::string text;
    if (!readChecked(file, text, error))
        return nullptr;
    const size_t tooDeep = NestingCheck(text).firstTooDeep();
    if (tooDeep != std::string_view::npos) {
        const auto above =
            std::count(text.begin(), text.begin() + static_cast<std::ptrdiff_t>(tooDeep), '\n');
        error = {1 + static_cast<size_t>(above),
                 "elements are nested more than " + std::to_string(MaximumDepth) + " deep"};
        return nullptr;
    }
    auto document = std::make_unique<TiXmlDocument>(file.c_str());
    document->Parse(text.c_str());
    if (document->Error())
        error = {static_cast<size_t>(std::max(0, document->ErrorRow())), document->ErrorDesc()};
    else if (document->RootElement() == nullptr)
        error = {1, "there is no element in the file"};
    else
        return document;
    return nullptr;
}

std::unique_ptr<TiXmlDocument> Object::openDocument(const String& file) {
    XmlFileError error;
    auto document = parseXmlFile(file, error);
    if (!document)
        ZEL_THROW(std::runtime_error,
                  "Could not open model file '" + file + "', error on row " + std::to_string(error.row) +
                      ": " + error.reason);
    return document;
}

} // namespace zel
