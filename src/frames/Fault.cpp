#include "Fault.h"

#include <zel/String.h>
#include <zel/Verify.h>

#include <cstdarg>
#include <stdexcept>

namespace zelData {

void fail(SerializedFrame::OnFault onFault, const char* expression, const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    const zel::String message = zel::detail::formatText(format, arguments);
    va_end(arguments);
    if (onFault == SerializedFrame::OnFault::Throw)
        throw std::runtime_error(message);
    zelVerifyNAs(false, expression, "%s", message.c_str());
    zel::abort();
}

void fail(SerializedFrame::OnFault onFault, const char* expression) {
    if (onFault == SerializedFrame::OnFault::Throw)
        throw std::runtime_error(zel::String::format("A frame is damaged: %s", expression));
    zelVerifyAs(false, expression);
    zel::abort();
}

} // namespace zelData
