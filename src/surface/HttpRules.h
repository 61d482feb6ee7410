#pragma once

struct mg_connection;

/// @file
/// What the servers of web pages refuse.

namespace zelNet {

/// Answers every method but GET and HEAD with 405: civetweb itself would write, delete and list files.
/// @return the status, or 0 if the request may go on
int refuseMethod(mg_connection* connection);

/// Whether a page of another site asks, or one that a name server has led here.
[[nodiscard]] bool comesFromForeignPage(const mg_connection* connection);

} // namespace zelNet
