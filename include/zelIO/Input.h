#pragma once

#include <zel/Callback.h>
#include <zel/Export.h>
#include <zel/Vec.h>

/// @file
/// Keyboard and mouse events. An application that has a window triggers them; the registered callbacks learn
/// of them. A callback is called through the given pointer and must live until it is unregistered.
/// @threads external lock

namespace zelIO {

enum class EventType { Press = 0, Release = 1, Repeat = 2, Move = 3 };
enum class MouseButton { None = 0, Left = 1, Middle = 2, Right = 3 };

using KeyboardCallback = zel::Callback2<int, EventType>;
using MouseCallback = zel::Callback3<MouseButton, EventType, zel::Vec2T<double>>;

/// Any integer is a key; none is special.
ZEL_CORE_API void registerKeyboardCallback(int key, KeyboardCallback* callback);
/// @return whether the callback was registered for the key
ZEL_CORE_API bool unregisterKeyboardCallback(int key, KeyboardCallback* callback);
/// Calls the callbacks of the key, if there are any.
ZEL_CORE_API void triggerKeyboardEvent(int key, EventType type);

ZEL_CORE_API void registerMouseCallback(MouseCallback* callback);
/// @return whether the callback was registered
ZEL_CORE_API bool unregisterMouseCallback(MouseCallback* callback);
/// @param position  in pixels of the application's window
ZEL_CORE_API void triggerMouseEvent(MouseButton button, EventType type, const zel::Vec2T<double>& position);

} // namespace zelIO
