#include <zel/Event.h>
#include <zel/HashTable.h>
#include <zelIO/Input.h>

#include <algorithm>
#include <memory>

namespace zelIO {

namespace {

/// An event whose callbacks are known by their address.
template <typename CallbackType>
class InputEvent {
public:
    void connect(CallbackType* callback) {
        const auto forward = [callback](auto&&... arguments) { (*callback)(arguments...); };
        m_connections.push_back({callback, m_event.connect(forward)});
    }

    bool disconnect(const CallbackType* callback) {
        auto* const connection =
            std::find_if(m_connections.begin(), m_connections.end(), [callback](const Connection& c) {
                return c.callback == callback;
            });
        if (connection == m_connections.end())
            return false;
        m_event.disconnect(connection->id);
        m_connections.erase(connection);
        return true;
    }

    template <typename... Arguments>
    void fire(const Arguments&... arguments) {
        m_event.fire(arguments...);
    }

private:
    struct Connection {
        const CallbackType* callback;
        zel::uint64 id;
    };

    zel::EventT<CallbackType> m_event{zel::Name("InputEvent")};
    zel::Vector<Connection> m_connections;
};

using KeyboardTable = zel::HashTable<int, std::shared_ptr<InputEvent<KeyboardCallback>>>;

// Both live to the end of the process: static objects may still unregister when it ends.
KeyboardTable& keyboardTable() {
    static auto* const s_table = new KeyboardTable;
    return *s_table;
}

InputEvent<MouseCallback>& mouseEvent() {
    static auto* const s_event = new InputEvent<MouseCallback>;
    return *s_event;
}

/// Held by the caller, since a callback may register keys and so move the table.
std::shared_ptr<InputEvent<KeyboardCallback>> findKey(int key) {
    const auto position = keyboardTable().find(key);
    return position != keyboardTable().end() ? position->value : nullptr;
}

} // namespace

void registerKeyboardCallback(int key, KeyboardCallback* callback) {
    auto event = findKey(key);
    if (event == nullptr) {
        event = std::make_shared<InputEvent<KeyboardCallback>>();
        keyboardTable().insert(key, event);
    }
    event->connect(callback);
}

bool unregisterKeyboardCallback(int key, KeyboardCallback* callback) {
    const auto event = findKey(key);
    return event != nullptr && event->disconnect(callback);
}

void triggerKeyboardEvent(int key, EventType type) {
    if (const auto event = findKey(key))
        event->fire(key, type);
}

void registerMouseCallback(MouseCallback* callback) {
    mouseEvent().connect(callback);
}

bool unregisterMouseCallback(MouseCallback* callback) {
    return mouseEvent().disconnect(callback);
}

void triggerMouseEvent(MouseButton button, EventType type, const zel::Vec2T<double>& position) {
    mouseEvent().fire(button, type, position);
}

} // namespace zelIO
