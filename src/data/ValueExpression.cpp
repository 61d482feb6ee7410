#include "AsciiFormat.h"
#include "FormatElement.h"
#include "FormatLookup.h"
#include "ValueLiteral.h"

#include <zel/Exception.h>
#include <zel/Verify.h>
#include <zelData/Format.h>
#include <zelData/FunctionValue.h>
#include <zelData/Type.h>
#include <zelData/Value.h>

#include <array>
#include <stdexcept>
#include <string>
#include <string_view>

namespace zelData {

std::string_view stripped(std::string_view text) {
    constexpr std::string_view blanks = " \t\n\v\f\r";
    const auto begin = text.find_first_not_of(blanks);
    if (begin == std::string_view::npos)
        return {};
    return text.substr(begin, text.find_last_not_of(blanks) - begin + 1);
}

bool isLiteral(std::string_view text) {
    constexpr std::array<std::string_view, 6> words{
        "true", "false", "PI", "INFINITY", "InvalidIndex", "nullptr"};
    const char first = text.empty() ? '\0' : text.front();
    return (first >= '0' && first <= '9') || first == '-' ||
           std::find(words.begin(), words.end(), text) != words.end();
}

zel::String shortenedExpression(std::string_view text) {
    constexpr std::size_t limit = 200;
    return std::string(text.substr(0, limit)) + (text.size() > limit ? "..." : "");
}

const Format* findFormat(std::string_view name) {
    constexpr std::size_t longestName = 256;
    if (name.empty() || name.size() > longestName)
        return nullptr;
    const auto open = name.find('<');
    if (open != std::string_view::npos) {
        const auto close = name.rfind('>');
        if (name.substr(0, open) != "Array" || close == std::string_view::npos || close < open ||
            (close + 1 < name.size() && name[close + 1] != ':') ||
            findFormat(name.substr(open + 1, close - open - 1)) == nullptr)
            return nullptr;
    }
    return getFormat(std::string(name));
}

/// Reads the text as the type's ascii format.
void Value::setText(std::string_view text) {
    const Format* ascii = readableAsciiFormat(m_format.get());
    if (ascii == nullptr)
        ZEL_THROW(std::runtime_error,
                  zel::String::format("%s: A value of format '%s' can not be read from the text '%s'",
                                      getPath().c_str(),
                                      m_format->fullName().c_str(),
                                      shortenedExpression(text).c_str()));
    const zel::String string{std::string(text)};
    const FormatElement element(m_format.get());
    transform(element.data(), m_format.get(), &string, ascii, 1);
    set(element.data());
}

namespace {

/// Follows a function that has been prepared; holds the default until it has a result.
void follow(Value& value, FunctionValue* function) {
    const zel::ref_ptr<Value> keep(value.referenceCount() > 0 ? &value : nullptr);
    const zel::ref_ptr<FunctionValue> keepFunction(function);
    if (value.getFormat() != nullptr && value.getFormat() != Format::Auto())
        value.setDefaultValue();
    value.unbind(true);
    if (function->getContext() != value.getContext()) {
        // What heard of the default has put the value elsewhere.
        function->setContext(value.getContext());
        if (value.getEnableRebind())
            function->prepare(&value);
    }
    value.bind(function);
}

} // namespace

void Value::setExpression(const zel::String& expression) {
    static const zel::Name stringName("String");
    if (m_format && m_storage == nullptr && !m_binding)
        allocate();
    std::string_view text = stripped(expression);
    // Each turn enters one pair of parentheses.
    while (!text.empty()) {
        if (isLiteral(text)) {
            zelVerifyNAs(
                !isUntyped(),
                "m_format",
                "%s: Can not have an implicitly typed literal for an auto-typed value. Expression is "
                "'%s'",
                getPath().c_str(),
                shortenedExpression(text).c_str());
            setText(text);
            return;
        }
        if (text.front() == '@') {
            bind(zel::Path(std::string(text)));
            return;
        }
        const auto open = text.find('(');
        if (isUntyped() && open == std::string_view::npos)
            takeFormat(zelData::getFormat("String"));
        if (!isUntyped() && getType() != nullptr && getType()->getName() == stringName) {
            setText(text);
            return;
        }
        const Format* named = open != std::string_view::npos && text.back() == ')'
                                  ? findFormat(stripped(text.substr(0, open)))
                                  : nullptr;
        if (named == nullptr) {
            setFunction(text);
            return;
        }
        text = stripped(text.substr(open + 1, text.size() - open - 2));
        if (text.empty()) {
            set(named->getDefaultValue());
            return;
        }
        if (!isUntyped())
            continue;
        // A format can not be given back, so it is taken once another value has understood the rest.
        const zel::ref_ptr<Value> trial(new Value(getName(), named));
        trial->setContext(getContext());
        trial->setExpression(std::string(text));
        if (trial->m_binding && trial->m_binding != this)
            verifyBindable(trial->m_binding.get());
        takeFormat(named);
        if (!trial->m_bindPath.empty())
            bind(zel::Path(trial->m_bindPath));
        else if (FunctionValue* function = trial->getFunction())
            follow(*this, function);
        else
            set(trial.get());
        return;
    }
}

/// Follows a function of other values.
void Value::setFunction(std::string_view text) {
    if (text.find('(') == std::string_view::npos)
        ZEL_THROW(std::runtime_error,
                  zel::String::format("%s: '%s' is no literal, path, explicit form or function",
                                      getPath().c_str(),
                                      shortenedExpression(text).c_str()));
    const zel::ref_ptr<FunctionValue> function(
        new FunctionValue(isUntyped() ? nullptr : m_format.get(), std::string(text)));
    function->setContext(getContext());
    if (getEnableRebind())
        function->prepare(this);
    verifyBindable(function.get());
    follow(*this, function.get());
}

/// The function that the value follows, if an expression has made one.
FunctionValue* Value::getFunction() const {
    return m_binding ? dynamic_cast<FunctionValue*>(m_binding.get()) : nullptr;
}

void Value::setContext(zel::Object* context) {
    Object::setContext(context);
    if (FunctionValue* function = getFunction())
        function->setContext(context);
}

} // namespace zelData
