#pragma once

#include <zel/Component.h>
#include <zel/Export.h>
#include <zel/HashTable.h>
#include <zel/Integers.h>
#include <zel/LockRank.h>
#include <zel/Referenced.h>
#include <zel/ServicePointer.h>
#include <zel/Singleton.h>
#include <zel/String.h>
#include <zel/Vector.h>
#include <zel/ref_ptr.h>
#include <zelNet/PortRange.h>

#include <json/forwards.h>

#include <atomic>
#include <chrono>
#include <concepts>
#include <functional>
#include <memory>
#include <mutex>
#include <set>
#include <string>

struct mg_connection;
struct mg_context;

namespace zelIO {

class RoomyStack;
using zel::String;

/// Gives the command server a scripting language. Called on the server's thread, one call at a time.
///
/// Owned through ref_ptr.
class ZEL_CORE_API ScriptListener : public zel::Referenced {
public:
    ~ScriptListener() override;

    /// Runs the text.
    /// @return whether it succeeded
    virtual bool run(const String& text, String& printed, String& error) = 0;
    /// Appends how the text may go on. Gives up by default.
    /// @return whether it succeeded
    virtual bool autoComplete(const String& text, zel::Vector<String>& list, String& error);
};

/// An HTTP server with which a browser looks into the running program: it serves the page below "Web" of the
/// plug-in path, and answers requests for objects, completions, component files and scripts.
///
///     RemoteCommandServer* const server = RemoteCommandServer::instance();
///     server->start(0, false);
///     std::cout << "http://localhost:" << server->getPort() << '\n';
///
/// Requests are handled on a thread of the server's own, one after the other. They see the tree of objects at
/// rest, between two ticks: what changes it elsewhere has to pass the gate of zel/TreeGate.h. Handlers and
/// script listeners of the program run outside of the gate.
///
/// Only GET and HEAD are answered, and only to 127.0.0.1 unless remote clients are allowed; nothing that a
/// page of another site asks for, see zelNet/AllowedHosts.h. With a token, each request must carry it in the
/// header "Token". A client that sends no request, or takes nothing of its answer, is dropped after 3
/// seconds; one that takes it slowly keeps the others waiting.
///
/// Where a script "x.js" of the page is older than "x.ts" beside it, the compiler "tsc" is run first, if it
/// is installed.
/// @threads start and stop: one thread at a time; all else any thread. The search paths of the process do not
///     change while it listens
class ZEL_CORE_API RemoteCommandServer : public zel::Component {
public:
    /// The decoded arguments of a request.
    class ZEL_CORE_API QueryArgumentTable : public zel::HashTable<String, String> {
    public:
        /// @return an empty text for a missing key, which is not inserted
        [[nodiscard]] const String& operator[](const String& key) const;
    };

    /// Writes its answer to the connection; the status line and the headers have been written.
    /// @return false logs a warning
    using RequestHandler =
        std::function<bool(RemoteCommandServer*, mg_connection*, const QueryArgumentTable&)>;

    /// What Read serves at most, in bytes.
    static constexpr zel::uint64 MaxReadSize = zel::uint64{64} << 20;
    /// How many elements of a buffer Command shows at most.
    static constexpr zel::uint64 MaxShownElements = 65536;

    /// The server of the process, made at first use.
    [[nodiscard]] static RemoteCommandServer* instance();
    [[nodiscard]] static bool hasInstance();

    ~RemoteCommandServer() override;

    /// Listens from now on; nothing changes if it does already. Objects are looked up under zel::root(),
    /// unless setSystemRoot has been called.
    /// @param port  0 for any that is free, see getPort
    /// @return false, with a warning, if it can not
    bool start(zel::uint16 port, bool allowRemote) { return startOn(port, allowRemote); }
    /// The same for a bare number: 0 could be a null range as well.
    template <std::same_as<int> Number>
    bool start(Number port, bool allowRemote) {
        return startOn(static_cast<unsigned>(port), allowRemote);
    }
    /// The same with the first port of the range that can be had.
    bool start(zelNet::PortRange* range, bool allowRemote);
    /// Waits for the handler under way, whose answer is cut off, and lets go of all script listeners.
    /// @throws std::runtime_error  from within a handler
    void stop();
    /// Does nothing: the server has threads of its own.
    void service() {}
    /// The port of the last start that succeeded.
    [[nodiscard]] zel::uint16 getPort() const noexcept { return m_port; }
    [[nodiscard]] bool isStarted() const noexcept { return m_isStarted; }
    [[nodiscard]] bool isUsingSSL() const noexcept { return m_useSSL; }

    /// Empty: none is asked for.
    void setAuthenticationToken(const String& token);
    [[nodiscard]] String getAuthenticationToken() const;
    /// Under which object paths are looked up; zel::root() unless set. Keep one that was set until the server
    /// has been stopped: its thread may else be the last to let go of it.
    void setSystemRoot(zel::Object* root);
    /// Inserts or replaces the handler of a path; a null one unregisters. A call under way ends as it began.
    /// What a handler throws becomes the JSON answer, with "exception" and "uri".
    void registerHandler(const String& uri, RequestHandler handler);
    void unregisterHandler(const String& uri);
    /// To be added after `start`: `stop` lets them go.
    void add(ScriptListener* listener);
    void remove(ScriptListener* listener);
    /// How long the compiler of the page's scripts may take until it is ended; a minute unless set.
    void setCompileLimit(std::chrono::milliseconds limit);

    /// Writes to the log, at level Debug, with the time ahead.
    [[gnu::format(printf, 2, 3)]] void log(const char* format, ...);

    /// @throws std::runtime_error  if the client does not take it all
    static void writeResponse(const Json::Value& response, mg_connection* connection);
    static void writeDummyResponse(mg_connection* connection);
    /// The decoded value of the first argument of that name, whatever its case; empty if there is none.
    [[nodiscard]] static String get_var(const char* data, zel::size_t size, const char* name);
    /// The same of the query of a request.
    [[nodiscard]] static String get_qsvar(const mg_connection* connection, const char* name);

    // What civetweb calls.

    static int mgBeginRequest(mg_connection* connection);
    static int mgAuthCallback(mg_connection* connection, void* server);
    static int mgRequestCallback(mg_connection* connection, void* server);

private:
    friend class RemoteCommandServerSingleton;

    RemoteCommandServer();

    bool startOn(unsigned port, bool allowRemote);
    bool takeSystemRoot();
    void end();
    bool handleHttpAuth(mg_connection* connection);
    int handleHttpEvent(mg_connection* connection);
    void answer(mg_connection* connection, const String& uri, const RequestHandler& handler);
    void compileScript(const String& uri);
    QueryArgumentTable parseArguments(const char* query);
    bool runCompiler(const String& source) const;
    [[nodiscard]] zel::ref_ptr<zel::Object> getSystemRoot() const;
    [[nodiscard]] zel::Vector<zel::ref_ptr<ScriptListener>> getListeners() const;

    bool handleCommand(mg_connection* connection, const QueryArgumentTable& arguments);
    bool handleAutoComplete(mg_connection* connection, const QueryArgumentTable& arguments);
    bool handleScript(mg_connection* connection, const QueryArgumentTable& arguments);
    bool handleScriptAutoComplete(mg_connection* connection, const QueryArgumentTable& arguments);
    bool readComponent(mg_connection* connection, const QueryArgumentTable& arguments);
    bool writeComponent();
    bool handleJournalNavigationTree(mg_connection* connection);
    bool handleJournalConfigurationList(mg_connection* connection);

    std::atomic<zel::uint16> m_port{0};
    mg_context* m_mongoose = nullptr;
    String m_documentRoot; // written while nothing listens
    String m_token;
    zel::ref_ptr<zel::Object> m_systemRoot;
    bool m_isSystemRootSet = false;
    zel::Vector<zel::ref_ptr<ScriptListener>> m_scriptListeners;
    std::atomic<bool> m_allowRemote{false};
    std::atomic<bool> m_isStarted{false};
    std::atomic<bool> m_useSSL{false};
    zel::HashTable<String, RequestHandler> m_handlers;
    std::set<std::string> m_allowedExtensions;
    std::atomic<std::chrono::milliseconds> m_compileLimit{std::chrono::minutes(1)};
    std::unique_ptr<RoomyStack> m_handlerStack;                     // while it listens
    mutable zel::RankedMutex<zel::LockRank::CommandServer> m_mutex; // token, root, listeners, handlers
};

/// Holds the command server of the process.
class ZEL_CORE_API RemoteCommandServerSingleton : public zel::Singleton {
public:
    [[nodiscard]] static RemoteCommandServerSingleton* instance();
    [[nodiscard]] static RemoteCommandServerSingleton* find() noexcept { return s_instance.find(); }

    ~RemoteCommandServerSingleton() override;
    /// Stops the server and lets it go.
    void shutdown() override;
    [[nodiscard]] std::string getClassName() const override;
    [[nodiscard]] RemoteCommandServer* getServer() const noexcept { return m_server.get(); }

private:
    RemoteCommandServerSingleton();

    zel::ref_ptr<RemoteCommandServer> m_server;
    static zel::ServicePointer<RemoteCommandServerSingleton> s_instance;
};

} // namespace zelIO
