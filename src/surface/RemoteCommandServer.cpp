#include "surface/HttpRules.h"
#include "surface/RoomyStack.h"
#include "threads/SignalBlock.h"

#include <zel/Exception.h>
#include <zel/Log.h>
#include <zel/Thread.h>
#include <zel/Verify.h>
#include <zelIO/Environment.h>
#include <zelIO/FileSystem.h>
#include <zelIO/RemoteCommandServer.h>

#include <civetweb.h>

#include <cstdlib>
#include <iostream>
#include <iterator>
#include <stdexcept>
#include <utility>
#include <vector>

namespace zelIO {

constinit zel::ServicePointer<RemoteCommandServerSingleton> RemoteCommandServerSingleton::s_instance;

RemoteCommandServerSingleton* RemoteCommandServerSingleton::instance() {
    return s_instance.get([] { return new RemoteCommandServerSingleton; });
}

RemoteCommandServerSingleton::RemoteCommandServerSingleton()
    : Singleton(11001), m_server(new RemoteCommandServer) {}

RemoteCommandServerSingleton::~RemoteCommandServerSingleton() {
    s_instance.forget(this);
}

void RemoteCommandServerSingleton::shutdown() {
    m_server->stop();
    m_server = nullptr;
    s_instance.forget(this);
}

std::string RemoteCommandServerSingleton::getClassName() const {
    return __PRETTY_FUNCTION__;
}

ScriptListener::~ScriptListener() = default;

bool ScriptListener::autoComplete(const String&, zel::Vector<String>&, String&) {
    return false;
}

const String& RemoteCommandServer::QueryArgumentTable::operator[](const String& key) const {
    static const String s_empty;
    const auto position = find(key);
    return position == end() ? s_empty : position->value;
}

RemoteCommandServer* RemoteCommandServer::instance() {
    return RemoteCommandServerSingleton::instance()->getServer();
}

bool RemoteCommandServer::hasInstance() {
    return RemoteCommandServerSingleton::find() != nullptr;
}

RemoteCommandServer::RemoteCommandServer()
    : Component("RemoteCommandServer")
    , m_allowedExtensions{"vert", "frag", "zelEntity", "zelComponent", "zelKernel", "zelTask", "zelType"} {
    using Server = RemoteCommandServer;
    using Arguments = QueryArgumentTable;
    registerHandler("/zelRemote/Command",
                    [](Server* server, mg_connection* connection, const Arguments& args) {
                        return server->handleCommand(connection, args);
                    });
    registerHandler("/zelRemote/AutoComplete",
                    [](Server* server, mg_connection* connection, const Arguments& args) {
                        return server->handleAutoComplete(connection, args);
                    });
    registerHandler("/zelRemote/Script",
                    [](Server* server, mg_connection* connection, const Arguments& args) {
                        return server->handleScript(connection, args);
                    });
    registerHandler("/zelRemote/Script/AutoComplete",
                    [](Server* server, mg_connection* connection, const Arguments& args) {
                        return server->handleScriptAutoComplete(connection, args);
                    });
    registerHandler("/zelComponent/Read",
                    [](Server* server, mg_connection* connection, const Arguments& args) {
                        return server->readComponent(connection, args);
                    });
    registerHandler("/zelComponent/Write", [](Server* server, mg_connection*, const Arguments&) {
        return server->writeComponent();
    });
    registerHandler("/zelJournal/NavigationTree",
                    [](Server* server, mg_connection* connection, const Arguments&) {
                        return server->handleJournalNavigationTree(connection);
                    });
    registerHandler("/zelJournal/ConfigurationList",
                    [](Server* server, mg_connection* connection, const Arguments&) {
                        return server->handleJournalConfigurationList(connection);
                    });
    Environment::instance()
        ->getFilePath(Environment::ResourcePath)
        .setFromEnvironmentVariable("ZEL_SSL_CERT_DIR", false);
}

RemoteCommandServer::~RemoteCommandServer() {
    end();
}

// Start and stop

namespace {

void endServerThread(const mg_context*, int, void*) {
    zel::Thread::unregisterAsZelThread();
}

/// Whether civetweb has HTTPS: one that lacks it would end the process at the first request.
bool hasHttps() {
    static const bool s_hasHttps = (mg_init_library(MG_FEATURES_SSL) & MG_FEATURES_SSL) != 0;
    return s_hasHttps;
}

} // namespace

bool RemoteCommandServer::takeSystemRoot() {
    {
        const std::lock_guard lock(m_mutex);
        if (m_isSystemRootSet)
            return true;
    }
    try {
        const zel::ref_ptr<zel::Object> root(zel::root());
        const std::lock_guard lock(m_mutex);
        m_systemRoot = root;
        return true;
    } catch (const std::exception& error) {
        ZEL_LOG_WARNING("Unable to start RemoteCommandServer: " << error.what());
        return false;
    }
}

bool RemoteCommandServer::startOn(unsigned port, bool allowRemote) {
    if (m_isStarted)
        return true;
    m_allowRemote = allowRemote;
    String description = String::format("%u", port);
    const char* const certificate = std::getenv("ZEL_SSL_PEM_FILE"); // NOLINT(concurrency-mt-unsafe)
    m_useSSL = certificate != nullptr;

    const String page = Environment::instance()->findComponent("Web/index.html");
    if (page.empty()) {
        ZEL_LOG_WARNING("Unable to start RemoteCommandServer, could not locate index.html");
        return false;
    }
    m_documentRoot = FileSystem::getPath(page);
    const auto refuse = [port] {
        ZEL_LOG_WARNING("Unable to start RemoteCommandServer on port " << port);
        return false;
    };

    std::vector<const char*> options{"document_root",
                                     m_documentRoot.c_str(),
                                     // A script may have been compiled anew.
                                     "static_file_max_age",
                                     "0"};
    options.insert(options.end(), std::begin(zelNet::CommonOptions), std::end(zelNet::CommonOptions));
    if (m_useSSL) {
        if (!hasHttps()) {
            m_useSSL = false;
            ZEL_LOG_WARNING("RemoteCommandServer: HTTPS is not available in the installed civetweb");
            return refuse();
        }
        description += "s";
        options.insert(options.end(), {"ssl_certificate", certificate});
    }
    options.insert(options.end(), {"listening_ports", description.c_str(), nullptr});

    if (!takeSystemRoot())
        return false;

    m_handlerStack = std::make_unique<RoomyStack>();
    mg_callbacks callbacks{};
    callbacks.begin_request = &mgBeginRequest;
    callbacks.exit_thread = &endServerThread;
    {
        const zel::SignalBlock block; // its threads inherit it
        m_mongoose = mg_start(&callbacks, this, options.data());
    }
    if (m_mongoose == nullptr) {
        m_handlerStack = nullptr;
        return refuse();
    }
    mg_set_auth_handler(m_mongoose, "", &mgAuthCallback, this);
    mg_set_request_handler(m_mongoose, "", &mgRequestCallback, this);
    mg_server_port actual_ports{};
    zelVerify(mg_get_server_ports(m_mongoose, 1, &actual_ports) == 1);
    m_port = static_cast<zel::uint16>(actual_ports.port);
    std::cout << "RemoteCommandServer started on port " << m_port
              << ", using SSL: " << (m_useSSL ? "YES" : "NO") << std::endl;
    m_isStarted = true;
    return true;
}

bool RemoteCommandServer::start(zelNet::PortRange* range, bool allowRemote) {
    if (m_isStarted)
        return true;
    for (zel::uint32 port = range->getPort(); port <= range->getEndPort(); port = range->getPort())
        if (start(static_cast<zel::uint16>(port), allowRemote))
            return true;
    ZEL_LOG_WARNING("Unable to start RemoteCommandServer with port range " << range->getStartPort() << ":"
                                                                           << range->getEndPort());
    return false;
}

void RemoteCommandServer::stop() {
    if (m_handlerStack != nullptr && m_handlerStack->isCurrent())
        ZEL_THROW(std::runtime_error, "RemoteCommandServer: a handler can not stop the server that calls it");
    end();
}

void RemoteCommandServer::end() {
    m_isStarted = false;
    if (m_mongoose == nullptr)
        return;
    {
        const zelNet::ListenerWaker waker(m_port);
        mg_stop(m_mongoose);
    }
    m_mongoose = nullptr;
    m_handlerStack = nullptr;
    zel::Vector<zel::ref_ptr<ScriptListener>> listeners; // let go when the mutex is free
    const std::lock_guard lock(m_mutex);
    std::swap(listeners, m_scriptListeners);
}

// Settings

void RemoteCommandServer::setAuthenticationToken(const String& token) {
    const std::lock_guard lock(m_mutex);
    m_token = token;
}

String RemoteCommandServer::getAuthenticationToken() const {
    const std::lock_guard lock(m_mutex);
    return m_token;
}

void RemoteCommandServer::setSystemRoot(zel::Object* root) {
    zel::ref_ptr<zel::Object> other(root); // the old one goes when the mutex is free
    const std::lock_guard lock(m_mutex);
    m_isSystemRootSet = true;
    std::swap(m_systemRoot, other);
}

zel::ref_ptr<zel::Object> RemoteCommandServer::getSystemRoot() const {
    const std::lock_guard lock(m_mutex);
    return m_systemRoot;
}

void RemoteCommandServer::registerHandler(const String& uri, RequestHandler handler) {
    const std::lock_guard lock(m_mutex);
    if (handler)
        m_handlers.insert(uri, std::move(handler));
    else
        m_handlers.erase(uri);
}

void RemoteCommandServer::unregisterHandler(const String& uri) {
    registerHandler(uri, nullptr);
}

void RemoteCommandServer::add(ScriptListener* listener) {
    const std::lock_guard lock(m_mutex);
    m_scriptListeners.push_back(zel::ref_ptr<ScriptListener>(listener));
}

void RemoteCommandServer::remove(ScriptListener* listener) {
    const zel::ref_ptr<ScriptListener> keep(listener);
    const std::lock_guard lock(m_mutex);
    m_scriptListeners.findAndErase(keep);
}

void RemoteCommandServer::setCompileLimit(std::chrono::milliseconds limit) {
    m_compileLimit = limit;
}

zel::Vector<zel::ref_ptr<ScriptListener>> RemoteCommandServer::getListeners() const {
    const std::lock_guard lock(m_mutex);
    return m_scriptListeners;
}

// What civetweb calls

int RemoteCommandServer::mgBeginRequest(mg_connection* connection) {
    const void* const server = mg_get_user_data(mg_get_context(connection));
    return zelNet::refuseAhead(connection, static_cast<const RemoteCommandServer*>(server)->m_isStarted);
}

int RemoteCommandServer::mgAuthCallback(mg_connection* connection, void* server) {
    auto* const commandServer = static_cast<RemoteCommandServer*>(server);
    zelVerify(commandServer);
    try {
        return commandServer->handleHttpAuth(connection) ? 1 : 0;
    } catch (...) {
        return 0; // of the log; civetweb closes the connection
    }
}

int RemoteCommandServer::mgRequestCallback(mg_connection* connection, void* server) {
    auto* const commandServer = static_cast<RemoteCommandServer*>(server);
    zelVerify(commandServer);
    int state = 500;
    try {
        state = commandServer->handleHttpEvent(connection);
    } catch (...) {
        // Of the log, since handlers have been guarded; nobody is left to tell.
    }
    return state;
}

} // namespace zelIO
