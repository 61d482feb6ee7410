#include "ParameterMatch.h"

#include <zel/Device.h>
#include <zel/FirstException.h>
#include <zel/Log.h>
#include <zel/Parameter.h>
#include <zel/ParameterBinding.h>
#include <zel/Task.h>
#include <zel/Verify.h>
#include <zelData/Format.h>
#include <zelData/Type.h>

#include <algorithm>
#include <iostream>
#include <sstream>
#include <string>
#include <string_view>

namespace zel {

void Task::parameterAddedCallback(Parameter*) {}

void Task::parameterRemovedCallback(Parameter*) {}

void Task::addParameter(Parameter* parameter) {
    addParameter(parameter, m_parameters.size());
}

void Task::addParameter(Parameter* parameter, size_t index) {
    zelVerify(parameter);
    zelVerify(index <= m_parameters.size());
    // The callbacks may let go of both.
    const ref_ptr<Task> keep(referenceCount() > 0 ? this : nullptr);
    const ref_ptr<Parameter> keepParameter(parameter);
    m_parameters.insert(m_parameters.begin() + index, ref_ptr<Parameter>(parameter));
    for (size_t i = index; i < m_parameters.size(); ++i)
        m_parameters[i]->setTask(this, i);
    demandRebind();
    FirstException failure;
    failure.run([this, parameter] { addObject(parameter); });
    if (parameter->getTask() == this)
        failure.run([this, parameter] { parameterAddedCallback(parameter); });
    if (parameter->getTask() == this)
        failure.run([this, parameter] { parameterAddedEvent.fire(this, parameter); });
    failure.rethrow();
}

void Task::takeOut(size_t index) {
    m_parameters[index]->setTask(nullptr);
    m_parameters.erase(m_parameters.begin() + index);
    for (size_t i = index; i < m_parameters.size(); ++i)
        m_parameters[i]->setTask(this, i);
}

void Task::announceRemoved(Parameter* parameter) {
    FirstException failure;
    failure.run([this, parameter] { parameterRemovedCallback(parameter); });
    failure.run([this, parameter] { parameterRemovedEvent.fire(this, parameter); });
    failure.rethrow();
}

void Task::removeParameter(size_t index) {
    zelVerify(index < m_parameters.size());
    // The callbacks may let go of both.
    const ref_ptr<Task> keep(referenceCount() > 0 ? this : nullptr);
    const ref_ptr<Parameter> parameter = m_parameters[index];
    takeOut(index);
    FirstException failure;
    failure.run([this, &parameter] { removeObject(parameter.get()); });
    failure.run([this, &parameter] { announceRemoved(parameter.get()); });
    failure.rethrow();
}

void Task::leave(Parameter* parameter) {
    const ref_ptr<Task> keep(referenceCount() > 0 ? this : nullptr);
    const ref_ptr<Parameter> keepParameter(parameter);
    const size_t index = parameter->getIndex();
    if (index >= m_parameters.size() || m_parameters[index] != parameter) {
        parameter->setTask(nullptr); // it was told of the task by somebody else
        return;
    }
    takeOut(index);
    announceRemoved(parameter);
}

bool Task::removeParameter(Parameter* parameter) {
    for (size_t i = 0; i < m_parameters.size(); ++i) {
        if (m_parameters[i] == parameter) {
            removeParameter(i);
            return true;
        }
    }
    return false;
}

Parameter* Task::findParameter(const Name& name) const {
    for (const ref_ptr<Parameter>& parameter : m_parameters)
        if (parameter->getName() == name)
            return parameter.get();
    return nullptr;
}

void Task::prepareGlobalResultSorting(size_t numJobs) {
    for (const ref_ptr<Parameter>& parameter : m_parameters)
        if (parameter->hasGlobalResult())
            parameter->prepareGlobalResultSorting(numJobs);
}

// Around a run

void Task::readParameters() {
    for (const ref_ptr<Parameter>& parameter : m_parameters)
        if (parameter->needsUpdate())
            parameter->update();
    if (!m_runsUnverified)
        verifyForRun();
}

void Task::writeParameters() {
    for (const ref_ptr<Parameter>& parameter : m_parameters)
        if (parameter->needsCommit())
            parameter->commit();
}

namespace {

bool isMissing(const Parameter& parameter) {
    return parameter.isRequired() && !parameter.isValid();
}

} // namespace

void Task::verifyForRun() {
    for (const ref_ptr<Parameter>& parameter : m_parameters) {
        if (isMissing(*parameter)) {
            verifyParameters();
            zelAbort("Parameter verification failed!");
        }
    }
}

bool Task::verifyParameters() {
    // Mostly nothing is missing, and each rebind comes by.
    const auto count = static_cast<size_t>(
        std::count_if(m_parameters.begin(), m_parameters.end(), [](const ref_ptr<Parameter>& parameter) {
            return isMissing(*parameter);
        }));
    if (count == 0)
        return true;
    std::ostringstream list;
    for (const ref_ptr<Parameter>& parameter : m_parameters) {
        if (!isMissing(*parameter))
            continue;
        list << "\n  " << parameter->getName() << " -> " << parameter->getBindPath();
    }
    print(std::cout);
    ZEL_LOG_WARNING("Task '" << getPath() << "' on device '"
                             << (getDevice() == nullptr ? Name() : getDevice()->getName()) << "' has "
                             << count << " unresolved parameters: " << list.str());
    return false;
}

// Texts

void Task::print(std::ostream& stream) const {
    stream << "--== Task: " << getName() << " ==--\n[Parameters (" << m_parameters.size() << ")]\n";
    for (const ref_ptr<Parameter>& parameter : m_parameters) {
        const zelData::Format* format = parameter->getFormat();
        stream << "  " << parameter->getName() << ", type: ["
               << (format == nullptr ? String() : format->fullName()) << "], binding: ";
        if (parameter->getBinding() != nullptr)
            stream << parameter->getBinding()->getPath();
        stream << '\n';
    }
    Vector<Object*> subtasks;
    getObjects(subtasks, ClassModel());
    stream << "[Subtasks (" << subtasks.size() << ")]\n";
    for (const Object* subtask : subtasks)
        stream << "  " << subtask->getName() << '\n';
    stream << "--== END ==--\n";
}

void Task::printBindings(std::ostream& stream) const {
    for (const ref_ptr<Parameter>& parameter : m_parameters) {
        stream << parameter->getName() << " -> ";
        if (parameter->getBinding() != nullptr)
            stream << parameter->getBinding()->getPath();
        stream << '\n';
    }
}

void Task::printParameterMatch(uint32 result) {
    struct Text {
        uint32 bit;
        const char* text;
    };
    static constexpr Text Failures[] = {
        {UnboundParameter, " A parameter is still unbound"},
        {BindingWithoutType, " A binding didn't have a type"},
        {TypeMismatch, " A binding's typde didn't match the corresponding parameter's type."},
        {UnknownBinding, " Was given a binding that didn't have a corresponding parameter."},
        {BadParameterList, " Something was wrong with the parameter list. Need debugger."},
    };
    static constexpr Text Events[] = {
        {MatchedByDefault, " Given empty binding list. Kernel matched by default."},
        {MatchedValid, " Found a valid parameter. No new binding required."},
        {MatchedOptional, " Found an optional parameter. No new binding required."},
        {MatchedBound, " Found an already bound parameter. No new binding required."},
        {MatchedBindPath, " Found a parameter with a bind path. No new binding required."},
        {MatchedSameFormat, " Found a binding-parameter pair with the same format."},
        {MatchedTransform, " Found a binding-parameter which will require data transformations."},
    };
    std::cout << "Match failed:\n";
    for (const Text& failure : Failures)
        if ((result & failure.bit) != 0)
            std::cout << failure.text << '\n';
    std::cout << "No-fail events:\n";
    for (const Text& event : Events)
        if ((result & event.bit) != 0)
            std::cout << event.text << '\n';
}

// Matching

namespace {

const zelData::Format* formatOn(const Device* device, const zelData::Type* type) {
    return device == nullptr ? type->getDefaultFormat() : device->getTypeFormat(type);
}

} // namespace

bool takes(const Parameter& parameter, const Parameter& binding, const Device* device) {
    const zelData::Type* const type = binding.getType();
    return type != nullptr && binding.getMetaType() == parameter.getMetaType() &&
           (binding.getFormat() == parameter.getFormat() || formatOn(device, type) == parameter.getFormat());
}

uint32 Task::matchParameters(const ParameterTable& table) const {
    if (table.empty())
        return MatchedByDefault;
    if (m_parameters.empty())
        return UnknownBinding;
    uint32 result = 0;
    size_t matched = 0;
    size_t notBound = 0;
    for (const ref_ptr<Parameter>& parameter : m_parameters) {
        const auto position = table.find(parameter->getName().str());
        if (position == table.end()) {
            const bool bound = parameter->getBinding() != nullptr;
            const bool valid = parameter->isValid();
            const bool hasPath = !parameter->getBindPath().empty();
            if (!valid && parameter->isRequired() && !bound && !hasPath)
                return result | UnboundParameter;
            ++notBound;
            if (valid)
                result |= MatchedValid;
            if (!parameter->isRequired())
                result |= MatchedOptional;
            if (bound)
                result |= MatchedBound;
            if (hasPath)
                result |= MatchedBindPath;
            continue;
        }
        Parameter* binding = position->value.get();
        const zelData::Type* type = binding->getType();
        if (type == nullptr)
            return result | BindingWithoutType;
        if (!takes(*parameter, *binding, getDevice()))
            return result | TypeMismatch;
        result |= binding->getFormat() == parameter->getFormat() ? MatchedSameFormat : MatchedTransform;
        ++matched;
    }
    if (matched != table.size())
        result |= UnknownBinding;
    if (matched + notBound != m_parameters.size())
        result |= BadParameterList;
    return result;
}

namespace {

/// Which format a binding may have, on the left, in place of a parameter's, on the right.
constexpr std::string_view Promotions[] = {
    "Real:32bit|Real:64bit", "Real:64bit|Real:32bit", "Vec4:64bit|Vec4:32bit", "Int:32bit|UInt:32bit",
    "Int:64bit|Int:8bit",    "Int:64bit|Int:16bit",   "Int:64bit|Int:32bit",   "Int:64bit|UInt:8bit",
    "Int:64bit|UInt:16bit",  "Int:64bit|UInt:32bit",  "Int:64bit|UInt:64bit",  "UInt:32bit|Real:32bit",
    "UInt:32bit|Real:64bit", "UInt:32bit|UInt:64bit", "UInt:32bit|Int:32bit",  "UInt:32bit|Int:64bit",
    "UInt:64bit|Real:32bit", "UInt:64bit|Real:64bit", "UInt:64bit|Int:64bit",
};

bool isPromotion(const zelData::Format* from, const zelData::Format* to) {
    if (from == nullptr || to == nullptr)
        return false;
    // By name: formats are others in a second life of the library.
    const std::string pair = from->fullName() + "|" + to->fullName();
    return std::find(std::begin(Promotions), std::end(Promotions), pair) != std::end(Promotions);
}

bool fitsBinding(const Parameter& parameter, const ParameterBinding& binding, bool allowPromotion) {
    if (parameter.isWritten() && !binding.isWritable())
        return false;
    if (binding.getMetaType() != parameter.getMetaType())
        return false;
    if (binding.getFormat() == parameter.getFormat())
        return true;
    if (!allowPromotion || !binding.getAllowFormatPromotion())
        return false;
    return binding.getFormat() == zelData::Format::Auto() ||
           isPromotion(binding.getFormat(), parameter.getFormat());
}

} // namespace

uint32 Task::matchParameters(Vector<ParameterBinding>& bindings, bool allowPromotion) const {
    if (bindings.size() != m_parameters.size())
        return MatchFailed;
    for (size_t i = 0; i < bindings.size(); ++i)
        if (!fitsBinding(*m_parameters[i], bindings[i], allowPromotion))
            return MatchFailed;
    for (size_t i = 0; i < bindings.size(); ++i)
        if (bindings[i].getFormat() != m_parameters[i]->getFormat())
            bindings[i].setFormat(m_parameters[i]->getFormat());
    return MatchedAll;
}

} // namespace zel
