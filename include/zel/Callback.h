#pragma once

#include <functional>
#include <utility>

namespace zel {

/// A thin wrapper over a standard function object, with the number of arguments in its public names.
template <typename... Arguments>
class BasicCallback {
public:
    BasicCallback() = default;

    template <typename Function>
    requires(!std::is_same_v<std::remove_cvref_t<Function>, BasicCallback> &&
             std::is_invocable_v<Function&, Arguments...>) BasicCallback(Function&& function)
        : m_function(std::forward<Function>(function)) {}

    /// Binds an operation of an object, which must outlive the callback.
    template <typename Object, typename Base>
    BasicCallback(Object* object, void (Base::*operation)(Arguments...))
        : m_function([object, operation](Arguments... arguments) {
            (object->*operation)(std::forward<Arguments>(arguments)...);
        }) {}

    /// @throws std::bad_function_call if empty
    void operator()(Arguments... arguments) const { m_function(std::forward<Arguments>(arguments)...); }
    explicit operator bool() const noexcept { return static_cast<bool>(m_function); }

private:
    std::function<void(Arguments...)> m_function;
};

using Callback = BasicCallback<>;
template <typename A>
using Callback1 = BasicCallback<A>;
template <typename A, typename B>
using Callback2 = BasicCallback<A, B>;
template <typename A, typename B, typename C>
using Callback3 = BasicCallback<A, B, C>;

} // namespace zel
