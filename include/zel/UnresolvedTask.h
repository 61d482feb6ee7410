#pragma once

#include <zel/Export.h>
#include <zel/ParameterTable.h>
#include <zel/Path.h>
#include <zel/SerialTask.h>
#include <zel/String.h>
#include <zel/Vector.h>
#include <zel/ref_ptr.h>

#include <functional>
#include <memory>

namespace zelData {
class FunctionValue;
class Format;
class Value;
} // namespace zelData

namespace zel {

class Model;
class Parameter;
class TaskPlugin;
class TaskPluginImplementation;
class UnresolvedParameter;

/// Stands in the task graph for a task that a model file names by a path, until an implementation is found:
/// from a plug-in, a task file or a kernel. Holds the parameters as written, and takes the implementation's
/// place in the tree and in the graph as soon as there is one.
///
/// It is looked for when the objects that the parameters name have been found, and, at the latest, in each
/// run, if the parameters or the files have changed since the last search. A run without one warns of what is
/// missing, and the graph goes on.
/// @threads as Task
class ZEL_CORE_API UnresolvedTask : public SerialTask {
public:
    /// The most levels of brackets in a function expression.
    static constexpr size_t MaxNesting = 64;

    /// @param name          of this object; empty for "UnresolvedTask(path)"
    /// @param device        to try first; null for the CPU device
    /// @param path          of the implementation
    /// @param instanceName  of the task that is made
    UnresolvedTask(const Name& name, Device* device, const Path& path, const Name& instanceName);
    ~UnresolvedTask() override;

    /// Makes the task of a call: "Math.Mul(@a, @b)" gives the path "Math.Mul" and the parameters "arg0" and
    /// "arg1".
    /// @return a new task without owner
    /// @throws std::runtime_error, naming the text, for one that is no call
    [[nodiscard]] static UnresolvedTask* parse(const String& text);
    /// Splits "name(a, f(b, c), d)" at the outermost bracket and the commas inside it, blanks stripped: name,
    /// a, f(b, c), d. A text without brackets is one part.
    /// @throws std::runtime_error, naming the text, if the brackets do not match or are nested deeper than
    ///     MaxNesting
    static void splitParameters(const String& text, Vector<String>& parts);

    /// Makes the object of an element of the tag "Task".
    /// @return a new task without owner: a DummyTask for an element without "source"
    /// @throws std::runtime_error with file and row
    [[nodiscard]] static Task* load(TiXmlElement* element, Device* device);

    using SerialTask::configure;
    /// Adds the arguments of a call, "(a, b)", as parameters "arg0", "arg1" and so on.
    /// @throws std::runtime_error as splitParameters, and for an empty argument
    void configure(const String& text);
    /// Reads the attributes "instance" and "device".
    void configureSource(TiXmlElement* element);

    /// Adds a parameter as written, which is bound to the implementation's parameter of its name.
    void addProxyParameter(UnresolvedParameter* parameter);
    [[nodiscard]] const Vector<ref_ptr<UnresolvedParameter>>& getProxyParameters() const noexcept {
        return m_proxyParameters;
    }

    /// Runs the implementation, or reports what is missing.
    void run() override;
    /// Looks the parameters up anew; once they are all there, looks for the implementation, and puts it into
    /// this task's place.
    void rebind() override;
    /// Where the paths of a call are looked up from.
    void setContext(Object* context) override;

    [[nodiscard]] const Name& getInstanceName() const noexcept { return m_instanceName; }
    [[nodiscard]] const Path& getImplementationName() const noexcept { return m_implementationName; }
    /// The namespace in which the task was named; names are looked for there first, and then outwards.
    [[nodiscard]] const Path& getProxyPath() const noexcept { return m_proxyPath; }
    void setProxyPath(const Path& path) { m_proxyPath = path; }
    /// Null until it has been found.
    [[nodiscard]] Task* getInstance() const noexcept { return m_instance.get(); }
    /// Called once the implementation exists and is bound.
    void setInstanceCallback(std::function<void(UnresolvedTask*)> callback) {
        m_instanceCallback = std::move(callback);
    }
    /// For a call: the format of its result, which literals get where no argument tells.
    void setResultFormat(const zelData::Format* format) noexcept { m_resultFormat = format; }

    /// The function value that the call belongs to: an argument that follows it is refused.
    void setFunction(const zelData::FunctionValue* function) noexcept { m_function = function; }

    /// Where the task, or the expression of a call with the calls in it, stands: "file 'FILE', row N", for
    /// messages.
    void setPlace(const String& place);

    /// Whether all that the parameters name has been found.
    [[nodiscard]] bool isReady() const;
    /// Whether the last search for an implementation was in vain, and nothing has changed since.
    [[nodiscard]] bool hasFailed() const noexcept { return m_failed; }
    /// Warns that there is no implementation, with the state of the parameters. A report that has been given
    /// already is only counted: once a second at most a line tells how many there have been.
    void report();
    /// The clock of the reports, for tests: a function that gives seconds. Null brings the usual one back.
    static void setReportClock(double (*seconds)()) noexcept;
    /// Warns, once after each search, why there is none: where it was looked for, or what the implementations
    /// take. Names the file and the row of the element.
    void explainFailure();

    /// Looks for an implementation on the device, and then on the other kind of device, and binds it.
    /// @return whether there is one
    bool instantiateProxy();
    void performLoadAttempts();
    /// Goes on to the other kind of device.
    void swapDevice();
    void tryPlugin();
    void tryTask();
    void tryKernel();
    void tryKernel(const Path& path);
    /// Takes the task that the element describes, if it is one and its parameters fit.
    void tryInstanciateTask(TiXmlElement* element);
    /// Hands the parameters to the implementation.
    void configureInstance();
    /// Puts the implementation in this task's place, switched on or off as this one.
    void injectInstance(UnresolvedTask* self);
    /// Called when a parameter has found, or lost, what it names, or has changed.
    void valueUpdateCallback(Parameter* parameter);

    /// Keeps this task alive until deleteAllConfiguredProxies().
    void retain();
    static void deleteAllConfiguredProxies();

protected:
    void configureChildren(TiXmlElement* element) override;

private:
    /// An argument of a call, as written.
    struct Argument {
        String text;
        ref_ptr<zelData::Value> value; // of an argument that is computed; null for a path
    };

    void addArgument(const String& text, size_t index);
    void bindArguments();
    void setLiterals();
    void keepDescription(const TiXmlElement* element);
    void collectParameters();
    void bindInstanceParameter(size_t index);
    [[nodiscard]] bool fits(const Task& task) const;
    [[nodiscard]] std::string describePlace() const;
    struct Misfit {
        std::string text;
        size_t numFaults;
    };
    [[nodiscard]] Misfit explainMisfit(TaskPluginImplementation& implementation) const;
    [[nodiscard]] std::string explainMisfit(const Parameter& parameter, const Device* device) const;
    [[nodiscard]] std::string explainMisfits(const TaskPlugin& plugin) const;
    void warnOfUnbound() const;
    [[nodiscard]] std::string describeParameters() const;
    [[nodiscard]] String describeSearch() const;

    Path m_proxyPath;
    Path m_implementationName;
    Name m_instanceName;
    ref_ptr<Task> m_instance;
    ParameterTable m_parameterTable;
    Vector<ref_ptr<UnresolvedParameter>> m_proxyParameters;
    std::function<void(UnresolvedTask*)> m_instanceCallback;
    ref_ptr<UnresolvedTask> m_retainLink;
    Vector<Argument> m_arguments;                 // of a call, by the index of the parameter
    std::unique_ptr<TiXmlDocument> m_description; // what the implementation reads itself
    Vector<ref_ptr<const Model>> m_enclosing;     // the models whose files it was read from
    const zelData::Format* m_resultFormat = nullptr;
    size_t m_depth = 0; // how many tasks stand for each other above this one
    bool m_isCall = false;
    bool m_isCircular = false; // an argument has turned out to follow the result
    const zelData::FunctionValue* m_function = nullptr;
    bool m_binding = false; // its own parameters, just now
    bool m_failed = false;
    bool m_injected = false;
    bool m_explained = false;
    String m_place;    // file and row of the element, for messages; empty without one
    String m_failure;  // what the last search has thrown
    String m_searched; // what the last search in vain has found, see describeSearch()
    String m_reported;
    uint64 m_numUntold = 0; // reports since the last one that was told
    double m_toldAt = 0;    // seconds of the reports' clock
};

/// What an element of the tag "Task" without a source becomes: a task that does nothing.
class ZEL_CORE_API DummyTask : public SerialTask {
public:
    /// @param name  the task is called "Dummy task: " and this
    explicit DummyTask(const Name& name);
};

} // namespace zel
