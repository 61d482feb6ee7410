#include "surface/HttpRules.h"

#include <zelNet/AllowedHosts.h>

#include <civetweb.h>

#include <string_view>

namespace zelNet {

namespace {

std::string_view headerOf(const mg_connection* connection, const char* name) {
    const char* const value = mg_get_header(connection, name);
    return value == nullptr ? std::string_view() : std::string_view(value);
}

} // namespace

int refuseMethod(mg_connection* connection) {
    const std::string_view method = mg_get_request_info(connection)->request_method;
    if (method == "GET" || method == "HEAD")
        return 0;
    mg_send_http_error(connection, 405, "%s", "Only GET and HEAD are allowed");
    return 405;
}

bool comesFromForeignPage(const mg_connection* connection) {
    const std::string_view host = headerOf(connection, "Host");
    return !isAllowedHost(host) || !isAllowedOrigin(headerOf(connection, "Origin"), host) ||
           headerOf(connection, "Sec-Fetch-Site") == "cross-site";
}

} // namespace zelNet
