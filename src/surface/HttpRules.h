#pragma once

#include <zel/Integers.h>

#include <atomic>
#include <filesystem>
#include <string>
#include <thread>

struct mg_connection;

/// @file
/// What the servers of web pages refuse, and which files they serve.

namespace zelNet {

/// Options of civetweb, names and values, that both servers want: what it would do by itself is switched off,
/// slow clients are dropped, and paths come as they were sent, see decodedUri.
inline constexpr const char* CommonOptions[] = {"num_threads",
                                                "1",
                                                "access_control_allow_origin",
                                                "",
                                                "access_control_allow_methods",
                                                "",
                                                "access_control_allow_headers",
                                                "",
                                                "cgi_pattern",
                                                "",
                                                "enable_directory_listing",
                                                "no",
                                                "request_timeout_ms",
                                                "3000",
                                                "keep_alive_timeout_ms",
                                                "100",
                                                "decode_url",
                                                "no"};

/// To be called ahead of all that civetweb does with a request by its own rules: answers every method but GET
/// and HEAD with 405, since civetweb would write, delete and list files, and all requests with 503 until the
/// server has told it of its handlers.
/// @return the status, or 0 if the request may go on
int refuseAhead(mg_connection* connection, bool isReady);

/// To live while civetweb stops, which would else take up to 2 seconds: its listening thread sleeps that long
/// unless somebody connects.
class ListenerWaker {
public:
    explicit ListenerWaker(zel::uint16 port);
    ListenerWaker(const ListenerWaker&) = delete;
    ListenerWaker& operator=(const ListenerWaker&) = delete;
    ~ListenerWaker();

private:
    std::atomic<bool> m_isDone{false};
    std::thread m_thread;
};

/// Whether a page of another site asks, or one that a name server has led here.
[[nodiscard]] bool comesFromForeignPage(const mg_connection* connection);

/// The path of a request, without the query. The servers leave it to this (option "decode_url" is "no"),
/// since for civetweb a decoded NUL would end it.
[[nodiscard]] std::string decodedUri(const mg_connection* connection);

/// Whether the file lies below the directory, behind all links. The file need not exist.
[[nodiscard]] bool liesBelow(const std::filesystem::path& file, const std::filesystem::path& directory);

/// The file that the path of a request names, of a directory its "index.html"; empty unless it is one below
/// the root, behind all links, and can be read.
[[nodiscard]] std::filesystem::path findServedFile(const std::string& uri, const std::filesystem::path& root);

} // namespace zelNet
