#include <zelStream/ClassInformation.h>

#include <pystring/pystring.h>

#include <cctype>
#include <string_view>

namespace zelStream {

namespace {

constexpr std::string_view Operator = "operator";

bool isNamePart(char c) {
    return std::isalnum(static_cast<unsigned char>(c)) != 0 || c == '_';
}

bool isOperatorAt(std::string_view text, zel::size_t i) {
    return text.substr(i, Operator.size()) == Operator && (i == 0 || !isNamePart(text[i - 1])) &&
           (i + Operator.size() >= text.size() || !isNamePart(text[i + Operator.size()]));
}

/// Where the qualified name of a function lies in its pretty text: behind what it returns, ahead of its
/// arguments.
struct QualifiedName {
    explicit QualifiedName(std::string_view text) {
        zel::size_t begin = 0;
        zel::size_t depth = 0; // of template arguments
        zel::size_t i = 0;
        for (; i < text.size() && (text[i] != '(' || depth != 0); ++i) {
            if (isOperatorAt(text, i)) {
                // The operator's own characters are neither brackets nor blanks of the text around.
                lastPart = i;
                i = text.find('(',
                              i + Operator.size() + (text.substr(i + Operator.size(), 2) == "()" ? 2 : 0));
                break;
            }
            if (text[i] == '<')
                ++depth;
            else if (text[i] == '>' && depth != 0)
                --depth;
            else if (text[i] == ' ' && depth == 0)
                begin = i + 1;
            else if (text[i] == ':' && depth == 0)
                lastPart = i + 1;
        }
        name = text.substr(0, i);
        while (begin < name.size() && (name[begin] == '&' || name[begin] == '*'))
            ++begin; // of what the function returns
        name.remove_prefix(begin);
        lastPart = lastPart > begin ? lastPart - begin : 0;
    }

    std::string_view name;
    zel::size_t lastPart = 0; ///< where the function's own name begins in it
};

/// The beginning of the last part of a name, without looking into template arguments.
zel::size_t lastPartOf(std::string_view name) {
    zel::size_t depth = 0;
    for (zel::size_t i = name.size(); i-- > 0;) {
        if (name[i] == '>')
            ++depth;
        else if (name[i] == '<' && depth != 0)
            --depth;
        else if (name[i] == ':' && depth == 0)
            return i + 1;
    }
    return 0;
}

/// What stands ahead of a part, without the "::".
std::string_view aheadOf(std::string_view name, zel::size_t part) {
    return name.substr(0, part < 2 ? 0 : part - 2);
}

} // namespace

ClassInformation::ClassInformation(const zel::String& prettyFunctionText) {
    const zel::String text = cleanupAnonymousNamespace(prettyFunctionText);
    const QualifiedName function(text);
    m_function.assign(function.name.substr(function.lastPart));
    const std::string_view type = aheadOf(function.name, function.lastPart);
    const zel::size_t ownName = lastPartOf(type);
    m_class.assign(type.substr(ownName));
    m_namespace.assign(aheadOf(type, ownName));
}

zel::String ClassInformation::getClassType() const {
    return m_namespace.empty() ? m_class : zel::String(m_namespace + "::" + m_class);
}

zel::String ClassInformation::cleanupAnonymousNamespace(const zel::String& text) {
    std::string clean = text;
    for (const char* mark : {"(anonymous namespace)::", "{anonymous}::", "<unnamed>::"})
        clean = pystring::replace(clean, mark, "");
    return clean;
}

} // namespace zelStream
