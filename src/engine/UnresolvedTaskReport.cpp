#include "ParameterMatch.h"
#include "PluginLibrary.h"
#include "containers/NearName.h"
#include "tree/PathHint.h"
#include "tree/SearchPlaces.h"
#include "tree/XmlDocument.h"

#include <zel/Log.h>
#include <zel/Model.h>
#include <zel/TaskManager.h>
#include <zel/TaskPlugin.h>
#include <zel/UnresolvedParameter.h>
#include <zel/UnresolvedTask.h>
#include <zel/ref_ptr.h>
#include <zelData/Format.h>
#include <zelData/FunctionValue.h>
#include <zelData/Type.h>
#include <zelData/Value.h>
#include <zelIO/FileSystem.h>

#include <sys/stat.h>
#include <tinyxml.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <mutex>
#include <sstream>
#include <string>

// What an unresolved task says when it finds no implementation.

namespace zel {

namespace {

double secondsOfMachine() {
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

// A number that publishes nothing: set by tests while no task runs.
constinit std::atomic<double (*)()> s_reportClock{&secondsOfMachine};

std::string describe(const Parameter& parameter) {
    const zelData::Format* const format = parameter.getFormat();
    const zelData::Type* const type = format == nullptr ? parameter.getType() : format->getType();
    std::ostringstream text;
    text << "'" << parameter.getName() << "' (" << parameter.getMetaTypeName() << ")";
    if (type != nullptr)
        text << " of type " << type->getName();
    if (format != nullptr)
        text << ", format " << format->getName();
    return text.str();
}

/// For a message about a parameter that the task does not have: the one of a name beside it.
std::string hintOfParameter(const Task& task, const UnresolvedParameter& given) {
    NearName near(given.getName().str());
    for (const ref_ptr<Parameter>& parameter : task.getParameters())
        near.consider(parameter->getName().str());
    return near.hint();
}

/// The category of the file that describes the task; null if there is none.
const char* findDescription(const Path& path, String& file) {
    Path remainder;
    for (const char* const category : {"zelKernel", "zelTask"})
        if (Model::getDiskPath(path, file, remainder, category))
            return category;
    return nullptr;
}

/// What has been thrown is in the log at length.
std::string firstLine(const std::string& text) {
    return text.substr(0, text.find('\n'));
}

/// What is wrong with the file that describes the kernel; empty if there is none, or it can be read.
std::string explainDescription(const Path& path) {
    String file;
    Path remainder;
    XmlFileError error;
    if (!Model::getDiskPath(path, file, remainder, "zelKernel") || parseXmlFile(file, error))
        return {};
    return "\nThe file '" + std::string(file) + "' can not be read: row " + std::to_string(error.row) + ": " +
           error.reason;
}

} // namespace

std::string UnresolvedTask::describeParameters() const {
    std::ostringstream text;
    for (size_t i = 0; i < m_proxyParameters.size(); ++i) {
        const UnresolvedParameter& parameter = *m_proxyParameters[i];
        const String path =
            i < m_arguments.size() ? m_arguments[i].text : String(parameter.getBindPath().str());
        text << "\n  parameter instance '" << parameter.getName();
        if (parameter.getMetaType() == Parameter::MetaType::Unresolved) {
            text << "' (autoBind: " << path << ") is not resolved";
            continue;
        }
        text << "' is" << (parameter.isValid() ? "" : " NOT") << " valid, autoBinds to " << path
             << ", bound to ";
        if (const Object* target = parameter.getTarget())
            text << target->getPath();
        else
            text << "nullptr";
    }
    return text.str();
}

void UnresolvedTask::report() {
    const String text =
        "Unresolved task found in task graph! No implementation has been found for requested task '" +
        m_implementationName.str() +
        "'\nThe following is a list of the parameters found in the unresolved task, along with its "
        "current state:" +
        describeParameters();
    const double now = s_reportClock.load(std::memory_order_relaxed)();
    if (text != m_reported) {
        ZEL_LOG_WARNING(text);
        m_reported = text;
        m_numUntold = 0;
        m_toldAt = now;
        return;
    }
    ++m_numUntold;
    if (now - m_toldAt < 1)
        return;
    ZEL_LOG_WARNING(describePlace() << " has run " << m_numUntold
                                    << " more times without the implementation '" << m_implementationName
                                    << "'");
    m_numUntold = 0;
    m_toldAt = now;
}

void UnresolvedTask::setReportClock(double (*seconds)()) noexcept {
    s_reportClock.store(seconds == nullptr ? &secondsOfMachine : seconds, std::memory_order_relaxed);
}

/// All that a search depends on: the parameters, and what there is under the path in each namespace.
String UnresolvedTask::describeSearch() const {
    std::ostringstream text;
    text << describeParameters();
    for (const ref_ptr<UnresolvedParameter>& parameter : m_proxyParameters)
        text << describe(*parameter);
    for (Path prefix = m_proxyPath;; prefix = prefix.base()) {
        const Path path = prefix + m_implementationName;
        const auto plugin = TaskManager::pluginTable().find(path.str());
        if (plugin != TaskManager::pluginTable().end())
            text << '\n' << plugin->value << ' ' << plugin->value->getNumImplementations();
        text << '\n' << findPluginLibrary(path);
        String file;
        struct ::stat data {};
        if (findDescription(path, file) != nullptr && zelIO::FileSystem::stat(file, data))
            text << '\n'
                 << file << ' ' << data.st_size << ' ' << data.st_mtim.tv_sec << ' ' << data.st_mtim.tv_nsec;
        if (prefix.empty())
            break;
    }
    return text.str();
}

void UnresolvedTask::setPlace(const String& place) {
    m_place = place;
    for (const Argument& argument : m_arguments)
        if (argument.value)
            if (auto* function = dynamic_cast<zelData::FunctionValue*>(argument.value->getBinding()))
                function->getProxy()->setPlace(place);
}

std::string UnresolvedTask::describePlace() const {
    return "The task '" + getPath().str() + "'" + (m_place.empty() ? "" : " (" + m_place + ")");
}

void UnresolvedTask::explainFailure() {
    if (m_explained)
        return;
    m_explained = true;
    const std::lock_guard lock(TaskManager::getMutex());
    std::ostringstream text;
    bool found = false;
    for (Path prefix = m_proxyPath;; prefix = prefix.base()) {
        const Path path = prefix + m_implementationName;
        String file;
        const auto plugin = TaskManager::pluginTable().find(path.str());
        if (const std::string fault = explainDescription(path); !fault.empty()) {
            found = true; // nothing else is looked at
            text << fault;
        } else if (plugin != TaskManager::pluginTable().end()) {
            found = true;
            if (plugin->value->getDeviceType() != getDevice()->getType())
                text << "\nThe plug-in '" << path << "' is for another kind of device";
            text << explainMisfits(*plugin->value);
        } else if (!(file = findPluginLibrary(path)).empty()) {
            found = true;
            text << "\nThe library '" << file << "' "
                 << (isPluginLibraryOpen(file) ? "gives no plug-in '" + std::string(path.c_str()) + "'"
                                               : std::string("can not be loaded"));
        } else if (const char* const category = findDescription(path, file)) {
            found = true;
            if (m_failure.empty())
                text << "\nThe file '" << file << "' holds no "
                     << (category == std::string("zelKernel") ? "kernel" : "task") << " '" << path.back()
                     << "' that fits";
        }
        if (prefix.empty())
            break;
    }
    if (!found) {
        const String file = toFileName(m_implementationName);
        const Vector<String> extensions{"so", "zelKernel", "zelTask"};
        const std::string hint = hintOfFile(m_implementationName, extensions, m_proxyPath);
        if (const std::string form = explainForm(m_implementationName, extensions); !form.empty()) {
            text << ": " << form << hint;
        } else {
            text << hint << "\nLooked for '" << TaskManager::getPluginPath(m_implementationName) << "', '"
                 << file << ".zelKernel' and '" << file << ".zelTask'";
            if (!m_proxyPath.empty())
                text << ", in the namespace '" << m_proxyPath << "' first";
            text << describeSearchPlaces();
        }
    }
    if (!m_failure.empty())
        text << "\nThe search has ended with: " << firstLine(m_failure);
    ZEL_LOG_WARNING(describePlace() << " has no implementation '" << m_implementationName << "'"
                                    << text.str());
}

/// Of the implementations that fit best: a function may have dozens.
std::string UnresolvedTask::explainMisfits(const TaskPlugin& plugin) const {
    constexpr size_t enough = 3;
    Vector<Misfit> misfits;
    for (size_t i = 0; i < plugin.getNumImplementations(); ++i)
        misfits.push_back(explainMisfit(*plugin.getImplementation(i)));
    std::stable_sort(misfits.begin(), misfits.end(), [](const Misfit& a, const Misfit& b) {
        return a.numFaults < b.numFaults;
    });
    std::string text;
    for (size_t i = 0; i < std::min(misfits.size(), enough); ++i)
        text += misfits[i].text;
    if (misfits.size() > enough)
        text += "\n... and " + std::to_string(misfits.size() - enough) + " more implementations";
    return text;
}

UnresolvedTask::Misfit UnresolvedTask::explainMisfit(TaskPluginImplementation& implementation) const {
    String failure;
    const ref_ptr<Task> task(createImplementation(implementation, m_instanceName, getDevice(), failure));
    std::ostringstream text;
    text << "\nThe implementation '" << implementation.getName() << "' ";
    if (!task) {
        text << (failure.empty() ? "makes no task" : "has thrown while it was made: " + std::string(failure));
        return {text.str(), 0};
    }
    if (fits(*task)) {
        text << "fits";
        return {text.str(), 0};
    }
    text << "takes:";
    size_t numFaults = 0;
    for (const ref_ptr<Parameter>& parameter : task->getParameters()) {
        if (m_isCall && parameter->getName() == Name("result"))
            continue; // which nobody gives
        text << "\n  " << describe(*parameter);
        const std::string fault = explainMisfit(*parameter, task->getDevice());
        numFaults += fault.empty() ? 0U : 1U;
        text << fault;
    }
    for (const ref_ptr<UnresolvedParameter>& proxy : m_proxyParameters)
        if (task->findParameter(proxy->getName()) == nullptr) {
            ++numFaults;
            text << "\n  and no '" << proxy->getName() << "', which is given"
                 << (m_isCall ? std::string() : hintOfParameter(*task, *proxy));
        }
    return {text.str(), numFaults};
}

/// What is wrong with what an implementation's parameter is given; empty if nothing is.
std::string UnresolvedTask::explainMisfit(const Parameter& parameter, const Device* device) const {
    const auto given =
        std::find_if(m_proxyParameters.begin(), m_proxyParameters.end(), [&parameter](const auto& proxy) {
            return proxy->getName() == parameter.getName();
        });
    if (given == m_proxyParameters.end())
        return parameter.isRequired() ? ": is not given" : "";
    const UnresolvedParameter& proxy = **given;
    if (proxy.getBinding() == nullptr && proxy.getBindPath().empty())
        return ": is given nothing";
    if (proxy.getBinding() == nullptr)
        return ": is given the path '" + proxy.getBindPath().str() + "', where nothing is" +
               hintOfPath(getContext(), proxy.getBindPath());
    if (takes(parameter, proxy, device))
        return {};
    return ": is given " + proxy.getBinding()->getPath().str() + ", " + describe(proxy);
}

void UnresolvedTask::warnOfUnbound() const {
    if (m_place.empty())
        return; // the program knows what it leaves out
    for (const ref_ptr<Parameter>& parameter : m_instance->getParameters())
        if (parameter->isRequired() && parameter->isValid() &&
            (parameter->getAccessMode() & zelData::AccessMode::READ) != 0 &&
            parameter->getBinding() == nullptr && parameter->getBindPath().empty())
            ZEL_LOG_WARNING(describePlace()
                            << " gives nothing to the required parameter " << describe(*parameter)
                            << ", which keeps what the implementation '" << m_implementationName
                            << "' has set it to");
}

} // namespace zel
