#include <zel/String.h>
#include <zel/Verify.h>

#include <cstdio>
#include <cstdlib>

namespace zel::detail {

std::string formatText(const char* format, va_list arguments) {
    char* text = nullptr;
    const int ret = vasprintf(&text, format, arguments);
    zelVerifyN(ret >= 0, "Could not allocate memory for formatted string: '%s'", format);
    std::string result(text, static_cast<size_t>(ret));
    std::free(text);
    return result;
}

} // namespace zel::detail
