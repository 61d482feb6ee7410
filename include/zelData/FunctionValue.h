#pragma once

#include <zel/Export.h>
#include <zel/String.h>
#include <zel/Vector.h>
#include <zel/ref_ptr.h>
#include <zelData/Value.h>

namespace zel {
class Parameter;
class Task;
class UnresolvedTask;
} // namespace zel

namespace zelData {

/// The result of a function of other values: what the expression "Math.Mul(@a, @b)" of a value is bound to.
/// The function is a task with the inputs "arg0", "arg1" and so on and the output "result". It is computed
/// anew whenever an argument changes.
///
/// Arguments are paths, "@a.b", literals, explicit forms, "Real:64bit(2)", and functions in turn. A literal
/// has the format of the first other argument; if there is none, that of the result, or `Real`.
/// @threads as Value
class ZEL_CORE_API FunctionValue : public Value {
public:
    /// @param format  of the value; null for that of the function's result
    /// @throws std::runtime_error, naming the expression, for one that is no call of a function
    FunctionValue(const Format* format, const zel::String& expression);
    ~FunctionValue() override;

    /// The context of the value that has the expression: where the paths in it are looked up.
    void setContext(zel::Object* context) override;
    /// Looks the arguments up anew, and computes if all are there.
    void rebind() override;

    /// As rebind, on behalf of a value that is to follow this one.
    /// @throws std::runtime_error if an argument depends on the follower; what the function throws
    void prepare(const Value* follower);

    /// Takes over the task that has been found for the function.
    void injectFunctionInstance(zel::UnresolvedTask* proxy);
    /// Computes the function anew and announces the result.
    /// @throws what the function throws; std::runtime_error if the result changes an argument
    void parameterUpdateCallback(zel::Parameter* parameter);

    /// Whether the object, a value or a parameter that is bound to one, is the other value, or follows it: by
    /// bindings, and as the result of functions with arguments that do.
    [[nodiscard]] static bool follows(const zel::Object* object, const Value* other);

    [[nodiscard]] zel::UnresolvedTask* getProxy() const noexcept { return m_proxy.get(); }
    /// Null until it has been found.
    [[nodiscard]] zel::Task* getTask() const noexcept { return m_task.get(); }

private:
    struct Connection {
        zel::ref_ptr<zel::Parameter> parameter;
        zel::uint64 id;
    };

    void findTask();
    void compute();
    void leaveTask();
    [[noreturn]] void refuseItself() const;

    zel::ref_ptr<zel::UnresolvedTask> m_proxy;
    zel::ref_ptr<zel::Task> m_task;
    zel::Vector<Connection> m_connections;
    bool m_computing = false;
};

} // namespace zelData
