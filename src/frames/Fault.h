#pragma once

#include <zelData/SerializedFrame.h>

namespace zelData {

/// Tells what is wrong with a file in the way that the reader has chosen: as the failed verification of the
/// expression, with the message, or as an exception with the message.
[[noreturn, gnu::cold, gnu::format(printf, 3, 4)]] void
fail(SerializedFrame::OnFault onFault, const char* expression, const char* format, ...);

/// The same without a message of its own.
[[noreturn, gnu::cold]] void fail(SerializedFrame::OnFault onFault, const char* expression);

/// What holds in each file that is whole.
inline void expect(SerializedFrame::OnFault onFault, bool holds, const char* expression) {
    if (!holds) [[unlikely]]
        fail(onFault, expression);
}

} // namespace zelData
