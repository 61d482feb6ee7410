#include "containers/FlagScope.h"
#include "data/ValueLiteral.h"

#include <zel/Exception.h>
#include <zel/UnresolvedParameter.h>
#include <zel/UnresolvedTask.h>
#include <zelData/Format.h>
#include <zelData/FunctionValue.h>
#include <zelData/Type.h>
#include <zelData/Value.h>

#include <pystring/pystring.h>

#include <algorithm>
#include <stdexcept>
#include <string>
#include <string_view>

// Function expressions as unresolved tasks.

namespace zel {

namespace {

using zelData::shortenedExpression;

[[noreturn]] void refuse(std::string_view text, const char* why) {
    ZEL_THROW(std::runtime_error,
              String::format("'%s' is no call of a function: %s", shortenedExpression(text).c_str(), why));
}

String strip(std::string_view text) {
    return std::string(zelData::stripped(text));
}

bool isPath(std::string_view text) {
    return !text.empty() && text.front() != '.' && text.back() != '.' &&
           std::all_of(text.begin(), text.end(), [](char c) {
               return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
                      c == '_' || c == '.';
           });
}

bool isReal(std::string_view literal) {
    return literal == "PI" || literal == "INFINITY" || literal == "-INFINITY" ||
           literal.find_first_of(".eE") != std::string_view::npos;
}

/// The format that a number gets beside an argument of the other format.
const zelData::Format* numberFormat(std::string_view literal, const zelData::Format* other) {
    const Name type = other == nullptr || other->getType() == nullptr ? Name() : other->getType()->getName();
    if (type == Name("Int") || type == Name("UInt")) {
        if (isReal(literal))
            return zelData::getFormat("Real");
        return type == Name("UInt") && literal.front() == '-' ? zelData::getFormat("Int") : other;
    }
    if (type == Name("Real"))
        return other;
    // That of the elements of a vector.
    return zelData::getFormat(other != nullptr && other->getName() == Name("32bit") ? "Real:32bit"
                                                                                    : "Real:64bit");
}

const zelData::Format* literalFormat(std::string_view literal, const zelData::Format* other) {
    if (literal == "true" || literal == "false")
        return zelData::getFormat("Bool");
    if (literal == "InvalidIndex")
        return zelData::getFormat("UInt");
    if (literal == "nullptr")
        return zelData::getFormat("ObjectPointer");
    return numberFormat(literal, other);
}

} // namespace

UnresolvedTask* UnresolvedTask::parse(const String& text) {
    const String call = strip(text);
    const size_t open = call.find('(');
    if (open == String::npos || call.back() != ')')
        refuse(call, "there are no brackets");
    const String path = strip(std::string_view(call).substr(0, open));
    if (!isPath(path))
        refuse(call, "what stands before the bracket is no path");
    ref_ptr<UnresolvedTask> task(
        new UnresolvedTask(Name("UnresolvedTask(" + call + ")"), nullptr, Path(path), Path(path).back()));
    task->configure(String(call.substr(open)));
    task->m_isCall = true;
    return task.release_nodelete();
}

void UnresolvedTask::splitParameters(const String& text, Vector<String>& parts) {
    const std::string_view whole(text);
    size_t depth = 0;
    size_t begin = 0;
    bool closed = false;
    for (size_t i = 0; i < whole.size(); ++i) {
        const char c = whole[i];
        if (closed && !zelData::stripped(whole.substr(i, 1)).empty())
            refuse(text, "there is something behind the last bracket");
        if (c == '(') {
            if (++depth > MaxNesting)
                refuse(text, "brackets are nested more than 64 deep");
            if (depth == 1) {
                parts.push_back(strip(whole.substr(begin, i - begin)));
                begin = i + 1;
            }
        } else if (c == ')') {
            if (depth == 0)
                refuse(text, "a bracket is closed that has not been opened");
            if (--depth == 0) {
                const String last = strip(whole.substr(begin, i - begin));
                if (parts.size() > 1 || !last.empty())
                    parts.push_back(last);
                closed = true;
            }
        } else if (c == ',' && depth == 1) {
            parts.push_back(strip(whole.substr(begin, i - begin)));
            begin = i + 1;
        }
    }
    if (depth != 0)
        refuse(text, "a bracket is not closed");
    if (!closed)
        parts.push_back(strip(whole));
}

void UnresolvedTask::configure(const String& text) {
    Vector<String> parts;
    splitParameters(text, parts);
    for (size_t i = 1; i < parts.size(); ++i) {
        if (parts[i].empty())
            refuse(text, "an argument is empty");
        addArgument(parts[i], i - 1);
    }
}

void UnresolvedTask::addArgument(const String& text, size_t index) {
    const ref_ptr<UnresolvedParameter> parameter(
        new UnresolvedParameter(Name("arg" + std::to_string(index))));
    Argument argument;
    argument.text = text;
    if (text.front() != '@' && !zelData::isLiteral(text)) {
        argument.value =
            new zelData::Value(parameter->getName(), static_cast<const zelData::Format*>(nullptr));
        argument.value->setContext(getContext());
        argument.value->setExpression(text);
    }
    m_arguments.push_back(argument);
    addProxyParameter(parameter.get());
    if (argument.value)
        parameter->bind(argument.value.get());
}

/// Looks the arguments up from the context: what the task itself has below it is not meant.
void UnresolvedTask::bindArguments() {
    if (m_isCircular)
        return;
    const ref_ptr<UnresolvedTask> keep(referenceCount() > 0 ? this : nullptr);
    for (size_t i = 0; i < m_arguments.size(); ++i) {
        const Argument& argument = m_arguments[i];
        if (argument.value)
            argument.value->rebind();
        else if (argument.text.front() == '@')
            if (Object* object = getAutoScopedResource(Path(argument.text))) {
                if (m_proxyParameters[i]->getBinding() == object)
                    continue;
                if (m_function != nullptr && zelData::FunctionValue::follows(object, m_function)) {
                    m_isCircular = m_failed = true;
                    ZEL_THROW(std::runtime_error,
                              m_function->getName().str() + ": The function depends on its own result");
                }
                m_proxyParameters[i]->bind(object);
            }
    }
}

/// Gives literals a type as soon as those of the other arguments are known.
void UnresolvedTask::setLiterals() {
    const zelData::Format* other = nullptr;
    bool open = false;
    bool literals = false;
    for (size_t i = 0; i < m_arguments.size(); ++i) {
        if (zelData::isLiteral(m_arguments[i].text)) {
            literals = literals || m_proxyParameters[i]->getTarget() == nullptr;
            continue;
        }
        const zelData::Format* format = m_proxyParameters[i]->getFormat();
        open = open || format == nullptr;
        if (other == nullptr)
            other = format;
    }
    if (!literals || open)
        return;
    if (other == nullptr)
        other = m_resultFormat;
    for (size_t i = 0; i < m_arguments.size(); ++i) {
        const String& text = m_arguments[i].text;
        if (zelData::isLiteral(text) && m_proxyParameters[i]->getTarget() == nullptr)
            m_proxyParameters[i]->setExpression(literalFormat(text, other)->fullName() + "(" + text + ")");
    }
}

} // namespace zel
