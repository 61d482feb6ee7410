#pragma once

#include <zel/Export.h>

/// @file
/// Functions that run at the start and end of the library's life, registered by static objects.
///
///     ZEL_SHUTDOWN_CALLBACK { s_cache = nullptr; }   // at every zelCore::shutdown()
///     ZEL_STATIC_INIT { registerFormats(); }         // when the binary is loaded
///
/// The records are safe in any order of static initialisation. A record that goes away, because its plug-in
/// is unloaded or the process ends, leaves its list.

namespace zel {

namespace detail {

/// One link of an intrusive list whose newest record stands first.
class ZEL_CORE_API CallbackRecord {
public:
    CallbackRecord(const CallbackRecord&) = delete;
    CallbackRecord& operator=(const CallbackRecord&) = delete;

protected:
    CallbackRecord(CallbackRecord*& first, void (*function)()) noexcept;
    ~CallbackRecord() = default;

    void unlink(CallbackRecord*& first) noexcept;
    /// Hands each function to `call`; records may end meanwhile.
    static void trigger(const CallbackRecord* first, void (*call)(void (*function)()));

private:
    void (*m_function)();
    CallbackRecord* m_next;
};

} // namespace detail

/// A function that runs at every zelCore::init(). If the library is initialised already, it also runs now.
/// @threads owner thread, as zelCore::init
class ZEL_CORE_API InitCallback : private detail::CallbackRecord {
public:
    explicit InitCallback(void (*function)());
    ~InitCallback();
    /// Calls all functions, newest registration first. One that registers meanwhile waits for the next time.
    static void triggerInit();
};

/// A function that runs at every zelCore::shutdown().
/// @threads owner thread, as zelCore::shutdown
class ZEL_CORE_API ShutdownCallback : private detail::CallbackRecord {
public:
    explicit ShutdownCallback(void (*function)()) noexcept;
    ~ShutdownCallback();
    /// Calls all functions, newest registration first. What one throws is told on std::cerr, and the next one
    /// is called.
    static void triggerShutdown();
};

/// Calls the function at once: work for the time of static initialisation.
class StaticInitializer {
public:
    explicit StaticInitializer(void (*function)()) { function(); }
};

/// Calls the function when it is destroyed: at process exit, not at zelCore::shutdown().
class ZEL_CORE_API StaticShutdown {
public:
    explicit StaticShutdown(void (*function)()) noexcept : m_function(function) {}
    StaticShutdown(const StaticShutdown&) = delete;
    StaticShutdown& operator=(const StaticShutdown&) = delete;
    virtual ~StaticShutdown();

private:
    void (*m_function)();
};

} // namespace zel

#define ZEL_CALLBACK_JOIN2(a, b) a##b
#define ZEL_CALLBACK_JOIN(a, b) ZEL_CALLBACK_JOIN2(a, b)
#define ZEL_CALLBACK_RECORD(Class, name, n)                                                                  \
    static void ZEL_CALLBACK_JOIN(name, n)();                                                                \
    static ::zel::Class ZEL_CALLBACK_JOIN(name##_dispatch, n)(&ZEL_CALLBACK_JOIN(name, n));                  \
    static void ZEL_CALLBACK_JOIN(name, n)()

/// Followed by a function body that runs at every zelCore::init().
#define ZEL_INIT_CALLBACK ZEL_CALLBACK_RECORD(InitCallback, __zel_init_callback, __COUNTER__)
/// Followed by a function body that runs at every zelCore::shutdown().
#define ZEL_SHUTDOWN_CALLBACK ZEL_CALLBACK_RECORD(ShutdownCallback, __zel_shutdown_callback, __COUNTER__)
/// Followed by a function body that runs when the binary is loaded.
#define ZEL_STATIC_INIT ZEL_CALLBACK_RECORD(StaticInitializer, __zel_static_init, __COUNTER__)
/// Followed by a function body that runs at process exit, or when the plug-in is unloaded.
#define ZEL_STATIC_SHUTDOWN ZEL_CALLBACK_RECORD(StaticShutdown, __zel_static_shutdown, __COUNTER__)
