#include "surface/HttpRules.h"
#include "surface/RoomyStack.h"
#include "surface/StaticFileHandler.h"
#include "transport/Envelope.h"
#include "transport/Token.h"

#include <zel/Date.h>
#include <zel/Log.h>
#include <zel/Thread.h>
#include <zel/Verify.h>
#include <zel/VerifyThrow.h>
#include <zelIO/FileSystem.h>
#include <zelIO/RemoteCommandServer.h>

#include <civetweb.h>
#include <json/value.h>
#include <spawn.h>
#include <strings.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <iostream>
#include <string_view>
#include <thread>

namespace zelIO {

namespace {

String decode(std::string_view text) {
    String decoded(text.size() + 1, '\0');
    const int size = mg_url_decode(
        text.data(), static_cast<int>(text.size()), decoded.data(), static_cast<int>(decoded.size()), 1);
    decoded.resize(size < 0 ? 0 : static_cast<std::size_t>(size));
    return decoded;
}

bool isHead(const mg_connection* connection) {
    return std::string_view(mg_get_request_info(connection)->request_method) == "HEAD";
}

/// Whether it is a name of a script's function, which can be echoed.
bool isCallbackName(const String& name) {
    const auto isLetter = [](char c) {
        return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '_' || c == '$';
    };
    return !name.empty() && name.size() <= 64 && isLetter(name.front()) &&
           std::all_of(name.begin(), name.end(), [&](char c) {
               return isLetter(c) || (c >= '0' && c <= '9') || c == '.';
           });
}

} // namespace

void RemoteCommandServer::log(const char* format, ...) {
    constexpr int FORMAT_BUFFER_SIZE = 4096;
    char buffer[FORMAT_BUFFER_SIZE];
    const int numPrinted = std::snprintf(
        buffer, sizeof(buffer), "[%s] %s\n", zel::Date::now().toStringDateAndTime().c_str(), format);
    zelVerify(numPrinted < FORMAT_BUFFER_SIZE);
    char* text = nullptr;
    va_list arguments;
    va_start(arguments, format);
    const int ret = vasprintf(&text, buffer, arguments); // NOLINT(clang-analyzer-valist.Uninitialized)
    va_end(arguments);
    zelVerifyN(ret >= 0, "Could not allocate memory for formatted string: '%s'", format);
    const std::string line(text, static_cast<std::size_t>(ret));
    std::free(text); // NOLINT(cppcoreguidelines-no-malloc)
    zel::Logger::instance();
    zel::Notify::instance()->send(zel::Notify::Debug, "", -1, "", line);
}

void RemoteCommandServer::writeResponse(const Json::Value& response, mg_connection* connection) {
    const std::string responseString = zelNet::writeJsonLine(response);
    const int numWritten = mg_write(connection, responseString.data(), responseString.size());
    zelVerifyThrowAs(numWritten == static_cast<int>(responseString.size()),
                     "numWritten == (int)responseString.size()");
}

void RemoteCommandServer::writeDummyResponse(mg_connection* connection) {
    writeResponse(Json::Value(), connection);
}

String RemoteCommandServer::get_var(const char* data, zel::size_t size, const char* name) {
    const std::size_t length = std::strlen(name);
    std::string_view rest(data, data == nullptr ? 0 : size);
    while (!rest.empty()) {
        const std::size_t end = std::min(rest.find('&'), rest.size());
        if (end > length && rest[length] == '=' && strncasecmp(rest.data(), name, length) == 0)
            return decode(rest.substr(length + 1, end - length - 1));
        rest.remove_prefix(std::min(end + 1, rest.size()));
    }
    return {};
}

String RemoteCommandServer::get_qsvar(const mg_connection* connection, const char* name) {
    const char* const query = mg_get_request_info(connection)->query_string;
    return query == nullptr ? String() : get_var(query, std::strlen(query), name);
}

bool RemoteCommandServer::handleHttpAuth(mg_connection* connection) {
    zel::Thread::registerAsZelThread();
    const String token = getAuthenticationToken();
    if (token.empty())
        return true;
    const char* const given = mg_get_header(connection, "Token");
    if (zelNet::isSameToken(given == nullptr ? "" : given, token))
        return true;
    mg_send_http_error(connection, 403, "%s", "Authentication token mismatch!");
    log("%s", "Authentication token mismatch!");
    return false;
}

int RemoteCommandServer::handleHttpEvent(mg_connection* connection) {
    zel::Thread::registerAsZelThread();
    const mg_request_info* const request = mg_get_request_info(connection);
    const String uri = zelNet::decodedUri(connection);
    log("HTTP request '%s' from client %s", zelNet::printable(uri).c_str(), request->remote_addr);

    if ((std::string_view(request->remote_addr) != "127.0.0.1" && !m_allowRemote) ||
        zelNet::comesFromForeignPage(connection)) {
        const std::string text =
            std::string("Rejecting non-local request from client") + request->remote_addr;
        std::cout << text << std::endl;
        mg_send_http_error(connection, 403, "%s", text.c_str());
        return 403;
    }

    const String callback = get_qsvar(connection, "callback");
    const bool isCallback = isCallbackName(callback) && !isHead(connection);
    if (isCallback)
        mg_printf(connection, "%s(", callback.c_str());
    RequestHandler handler;
    {
        const std::lock_guard lock(m_mutex);
        const auto position = m_handlers.find(uri);
        if (position != m_handlers.end())
            handler = position->value;
    }
    if (handler)
        m_handlerStack->run([&] { answer(connection, uri, handler); });
    else if (uri.ends_with(".js"))
        compileScript(uri);
    if (isCallback)
        mg_write(connection, ")", 1);
    // As civetweb would by itself, but for names that lead out of the directory.
    if (!handler)
        zelNet::zelWebServer::StaticFileHandler::sendFile(connection, uri);
    return 200;
}

void RemoteCommandServer::answer(mg_connection* connection,
                                 const String& uri,
                                 const RequestHandler& handler) {
    mg_printf(connection, "%s", "HTTP/1.1 200 OK\r\nContent-Type: text/json\r\n\r\n");
    if (isHead(connection))
        return;
    std::string failure;
    try {
        const QueryArgumentTable arguments = parseArguments(mg_get_request_info(connection)->query_string);
        if (!handler(this, connection, arguments))
            ZEL_LOG_WARNING("HTTP handler failed for uri  '" << zelNet::printable(uri) << "'");
        return;
    } catch (const std::exception& error) {
        failure = error.what();
    } catch (...) {
        failure = "unknown exception";
    }
    log("Uncaught exception in HTTP request handler for '%s'. Description: %s",
        zelNet::printable(uri).c_str(),
        zelNet::printable(failure).c_str());
    Json::Value response;
    response["exception"] = failure;
    response["uri"] = static_cast<const std::string&>(uri);
    try {
        writeResponse(response, connection);
    } catch (const std::exception&) {
        log("%s", "Failed to send error message to client");
    }
}

RemoteCommandServer::QueryArgumentTable RemoteCommandServer::parseArguments(const char* query) {
    QueryArgumentTable arguments;
    std::string_view rest(query == nullptr ? "" : query);
    while (!rest.empty()) {
        const std::string_view part = rest.substr(0, rest.find('&'));
        rest.remove_prefix(std::min(part.size() + 1, rest.size()));
        const std::size_t equals = part.find('=');
        if (equals != std::string_view::npos)
            arguments.insert(String(std::string(part.substr(0, equals))), decode(part.substr(equals + 1)));
        else if (!part.empty())
            log("Invalid query string: %s", zelNet::printable(part).c_str());
    }
    return arguments;
}

// Scripts of the page

void RemoteCommandServer::compileScript(const String& uri) {
    const String source =
        zelNet::findServedFile(uri.substr(0, uri.size() - 2) + "ts", m_documentRoot.c_str()).string();
    const String file = m_documentRoot + uri;
    if (source.empty() || !zelNet::liesBelow(file.c_str(), m_documentRoot.c_str()) ||
        FileSystem::compareDate(source, file) >= 0)
        return;
    std::cout << "==> Recompiling modified TypeScript file: " << zelNet::printable(source) << std::endl;
    if (runCompiler(source))
        std::cout << "... done!" << std::endl;
    else
        std::cout << "Failed calling: tsc " << zelNet::printable(source) << std::endl;
}

namespace {

/// Starts a program without a shell, in a process group and with signals of its own.
/// @return 0 if it can not be started
pid_t startProgram(const char* program, const char* argument) {
    posix_spawnattr_t settings;
    posix_spawnattr_init(&settings);
    sigset_t none;
    sigemptyset(&none);
    posix_spawnattr_setsigmask(&settings, &none);
    posix_spawnattr_setflags(&settings, POSIX_SPAWN_SETPGROUP | POSIX_SPAWN_SETSIGMASK);
    // The system does not write to them.
    char* arguments[] = {const_cast<char*>(program), const_cast<char*>(argument), nullptr}; // NOLINT
    pid_t child = 0;
    const int error = posix_spawnp(&child, program, nullptr, &settings, arguments, environ);
    posix_spawnattr_destroy(&settings);
    return error == 0 ? child : 0;
}

} // namespace

bool RemoteCommandServer::runCompiler(const String& source) const {
    const pid_t child = startProgram("tsc", source.c_str());
    if (child == 0)
        return false;
    const auto end = std::chrono::steady_clock::now() + m_compileLimit.load();
    for (;;) {
        int status = 0;
        const pid_t ended = waitpid(child, &status, WNOHANG);
        if (ended == child)
            return WIFEXITED(status) && WEXITSTATUS(status) == 0;
        if (ended < 0 && errno != EINTR)
            return false;
        if (std::chrono::steady_clock::now() > end || !m_isStarted) {
            kill(-child, SIGKILL);
            waitpid(child, nullptr, 0);
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
}

} // namespace zelIO
