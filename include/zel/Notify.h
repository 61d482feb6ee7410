#pragma once

#include <zel/Export.h>
#include <zel/HashTable.h>
#include <zel/Integers.h>
#include <zel/LockRank.h>
#include <zel/LogStream.h>
#include <zel/Referenced.h>
#include <zel/Singleton.h>
#include <zel/Vector.h>
#include <zel/ref_ptr.h>

#include <atomic>
#include <iosfwd>
#include <sstream>
#include <string>

namespace zel {

/// Receives the messages of the log from a level upward.
class ZEL_CORE_API NotifyCallback : public Referenced {
public:
    /// Called under the lock of Notify: must not log.
    /// @param level  a Notify::NotifyLevel
    virtual void message(const std::string& text, int level) = 0;
};

/// All diagnostics pass through here: each thread composes its message in a stream of its own, and the flush
/// sends the text to the output stream, the log file, further streams and callbacks.
///
/// The statements of zel/Log.h are the usual way in. A message of level Error throws std::runtime_error
/// unless setThrowOnError(false) and setBreakOnError(false) were called (ZEL_THROW_ON_ERROR and
/// ZEL_BREAK_ON_ERROR).
/// @threads any thread composes and flushes, provided it is registered as a zel::Thread: all unregistered
/// threads
///     share one buffer. Streams and callbacks are added and removed while no thread is logging.
class ZEL_CORE_API Notify : public Singleton {
public:
    /// A message passes a threshold when its level is at least the threshold.
    enum NotifyLevel : int { Debug = 1, Info = 2, Warning = 4, Error = 8 };

    /// A tag that selects an operation when it is streamed.
    template <typename Level, int Value>
    class Mode {
    public:
        explicit Mode(Notify* notify) noexcept : m_notify(notify), m_value(Value) {}
        [[nodiscard]] Notify* notify() const noexcept { return m_notify; }
        [[nodiscard]] int value() const noexcept { return m_value; }

    private:
        Notify* m_notify;
        int m_value;
    };
    using EndTag = Mode<NotifyLevel, 16>;
    using ClearTag = Mode<NotifyLevel, 32>;
    using LogOnlyTag = Mode<NotifyLevel, 128>;

    /// A tag that carries a value.
    template <typename T>
    class Modifier {
    public:
        Modifier(Notify* notify, T value) noexcept : m_notify(notify), m_value(value) {}
        [[nodiscard]] Notify* notify() const noexcept { return m_notify; }
        [[nodiscard]] T value() const noexcept { return m_value; }

    private:
        Notify* m_notify;
        T m_value;
    };

    /// A set of levels. Bit n stands for the level of value n.
    class PrintSelection {
    public:
        /// The four levels.
        PrintSelection() : PrintSelection(Debug | Info | Warning | Error) {}
        /// The levels whose values are set in `levels`, such as Info | Error.
        explicit PrintSelection(int levels) {
            for (const int level : {Debug, Info, Warning, Error})
                setMask(level, (levels & level) != 0);
        }
        void setMask(int level, bool on) noexcept {
            m_mask = on ? m_mask | bit(level) : m_mask & ~bit(level);
        }
        [[nodiscard]] bool isSet(int level) const noexcept { return (m_mask & bit(level)) != 0; }
        void clear() noexcept { m_mask = 0; }
        [[nodiscard]] bool isNoneSet() const noexcept { return m_mask == 0; }
        [[nodiscard]] uint32 getMask() const noexcept { return m_mask; }
        friend bool operator==(const PrintSelection&, const PrintSelection&) = default;

    private:
        static constexpr uint32 bit(int level) noexcept { return 1U << (static_cast<uint32>(level) & 31U); }
        uint32 m_mask = 0;
    };

    /// What one thread has composed so far, and its threshold.
    class ZEL_CORE_API ThreadData : public Referenced {
    public:
        static constexpr size_t NumSelectionStacks = 8;

        ThreadData();
        ~ThreadData() override;

        NotifyLevel outputMode = Warning; ///< level of the message being composed
        std::string levelName;            ///< "Debug", "Info", "Warning" or "Error"
        int32 line = 0;                   ///< source line of the message; -1 for none
        std::string file;                 ///< source file of the message
        std::string function;             ///< source function of the message
        std::ostringstream stream;        ///< the text being composed
        NotifyLevel notifyLevel = Info;   ///< this thread's threshold for the output stream
        /// A stack per level, by the level's bit position. Stored and popped; they filter nothing.
        Vector<Vector<PrintSelection>> printSelections;
    };

    /// Created on first use, without a lock: zelCore::init() comes first.
    [[nodiscard]] static Notify* instance();

    void shutdown() override;
    [[nodiscard]] std::string getClassName() const override;
    ~Notify() override;

    [[nodiscard]] LogStream& logStream() noexcept { return m_logStream; }
    [[nodiscard]] const LogStream& logStream() const noexcept { return m_logStream; }
    [[nodiscard]] std::ostream& outStream() noexcept { return *m_outStream; }

    // Composition, in the calling thread's state.

    /// Begins a message: notes its level and place.
    /// @param line  a value below 1 is stored as -1
    /// @return an empty text, so that the call can be the first item of the message
    std::string
    setDebugStrings(NotifyLevel level, const std::string& file, int line, const std::string& function);
    [[nodiscard]] std::ostringstream& getThreadStringStream();
    [[nodiscard]] std::string str();
    void str(const std::string& text);
    /// Clears the error state of the thread's stream.
    void clear();
    std::ios_base::fmtflags setf(std::ios_base::fmtflags flags);

    [[nodiscard]] EndTag& end() noexcept { return m_end; }
    [[nodiscard]] ClearTag& clearString() noexcept { return m_clearString; }
    [[nodiscard]] LogOnlyTag& logOnly() noexcept { return m_logOnly; }
    /// Streaming the result pushes a selection of these levels on the stack of the message's level.
    [[nodiscard]] Modifier<int> push(int levels) noexcept { return {this, levels}; }

    Notify& operator<<(std::ostream& (*manipulator)(std::ostream&));
    Notify& operator<<(const Modifier<int>& modifier);
    /// Sends the message off.
    /// @throws std::runtime_error with the text, for level Error, if asked for (the default). The output
    /// stream
    ///     is skipped then, and the text stays in the thread's stream, in front of the next message.
    Notify& operator<<(EndTag& tag);
    /// Empties the thread's stream.
    Notify& operator<<(ClearTag& tag);
    /// The message goes to the log file alone.
    Notify& operator<<(LogOnlyTag& tag);

    // Destinations.

    /// Adds a stream, which must outlive its place here, or replaces its level.
    void addStream(std::ostream* stream, NotifyLevel level);
    void removeStream(std::ostream* stream);
    /// Changes the level of a registered stream.
    void setNotifyLevel(std::ostream* stream, NotifyLevel level);
    /// Adds a callback, which is owned from now on, or replaces its level.
    void addCallback(NotifyCallback* callback, NotifyLevel level);
    void removeCallback(NotifyCallback* callback);
    /// Changes the level of a registered callback.
    void setNotifyLevel(NotifyCallback* callback, NotifyLevel level);

    /// The calling thread's threshold for the output stream.
    void setNotifyLevel(NotifyLevel level);
    [[nodiscard]] NotifyLevel getNotifyLevel();
    /// The level of the calling thread's message.
    void setOutputMode(NotifyLevel level);
    [[nodiscard]] NotifyLevel getOutputMode();

    /// Opens the log file, with the time in front of each line.
    /// @param append  whether the lines follow what the file holds; otherwise it begins anew
    bool openLog(const std::string& name, bool append = false);
    void setLogNotifyLevel(NotifyLevel level);

    // The two switches behave the same.
    void setThrowOnError(bool enable) noexcept { m_throwOnError.store(enable, std::memory_order_relaxed); }
    [[nodiscard]] bool getThrowOnError() const noexcept {
        return m_throwOnError.load(std::memory_order_relaxed);
    }
    void setBreakOnError(bool enable) noexcept { m_breakOnError.store(enable, std::memory_order_relaxed); }
    [[nodiscard]] bool getBreakOnError() const noexcept {
        return m_breakOnError.load(std::memory_order_relaxed);
    }
    /// The next message, of whatever thread, goes to the log file alone.
    void setToLogOnly(bool enable) noexcept { m_toLogOnly.store(enable, std::memory_order_relaxed); }
    [[nodiscard]] bool getToLogOnly() const noexcept { return m_toLogOnly.load(std::memory_order_relaxed); }

    void pushPrintSelection(const PrintSelection& selection);
    void pushPrintSelection(const PrintSelection& selection, NotifyLevel level);
    /// @return false if the stack holds one selection only, which stays
    bool popPrintSelection();
    bool popPrintSelection(NotifyLevel level);
    [[nodiscard]] PrintSelection getPrintSelection();
    [[nodiscard]] PrintSelection getPrintSelection(NotifyLevel level);

    // Whole messages; no line end is added.
    void debug(const std::string& text) { debug("", 0, "", text); }
    void info(const std::string& text) { info("", 0, "", text); }
    void warning(const std::string& text) { warning("", 0, "", text); }
    void error(const std::string& text) { error("", 0, "", text); }
    void debug(const std::string& file, int line, const std::string& function, const std::string& text);
    void info(const std::string& file, int line, const std::string& function, const std::string& text);
    void warning(const std::string& file, int line, const std::string& function, const std::string& text);
    void error(const std::string& file, int line, const std::string& function, const std::string& text);
    void send(NotifyLevel level,
              const std::string& file,
              int line,
              const std::string& function,
              const std::string& text);

    /// Ends what the last session left behind; see Logger::beginSession.
    static void forgetLastSession();

    /// The calling thread's state, or the one that all unregistered threads share.
    [[nodiscard]] static ThreadData& getThreadData();

private:
    explicit Notify(std::ostream& outStream);

    void distribute(const std::string& text, int level);
    void flushLog();

    EndTag m_end{this};
    ClearTag m_clearString{this};
    LogOnlyTag m_logOnly{this};
    HashTable<std::ostream*, NotifyLevel> m_streams;
    HashTable<ref_ptr<NotifyCallback>, NotifyLevel> m_callbacks;
    LogStream m_logStream;
    // Switches that any thread may turn; they publish nothing, so their order is relaxed.
    std::atomic<bool> m_toLogOnly{false};
    std::atomic<bool> m_throwOnError{true};
    std::atomic<bool> m_breakOnError{false};
    std::ostream* m_outStream;
    RankedMutex<LockRank::Notify> m_mutex; // held during a whole flush
    bool m_logFailed = false;              // guarded by m_mutex; the loss of the log file is told once

    /// What a program had set when its session ended. A message of a later service's shutdown makes a fresh
    /// Notify, which goes on with it.
    struct Settings {
        bool throwOnError;
        bool breakOnError;
        NotifyLevel logLevel;
        std::string logFile; // empty if none was open
    };
    void takeUp(const Settings& settings);

    static Notify* s_instance;
    static Settings* s_kept; // null while a session runs; never freed otherwise
};

// A tag may end an ordinary stream expression; the stream it stands in is the calling thread's.
ZEL_CORE_API std::ostream& operator<<(std::ostream& stream, Notify::EndTag& tag);
ZEL_CORE_API std::ostream& operator<<(std::ostream& stream, Notify::ClearTag& tag);
ZEL_CORE_API std::ostream& operator<<(std::ostream& stream, Notify::LogOnlyTag& tag);
ZEL_CORE_API std::ostream& operator<<(std::ostream& stream, const Notify::Modifier<int>& modifier);

} // namespace zel
