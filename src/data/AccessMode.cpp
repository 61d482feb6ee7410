#include <zel/Verify.h>
#include <zelData/AccessMode.h>

#include <array>

namespace zelData {

namespace {

struct Entry {
    zel::uint32 mode;
    const char* text;
};
constexpr std::array<Entry, 3> Table{
    {{AccessMode::READ, "READ"}, {AccessMode::WRITE, "WRITE"}, {AccessMode::READ_WRITE, "READ_WRITE"}}};

} // namespace

const char* getAccessModeString(zel::uint32 mode) {
    for (const Entry& entry : Table)
        if (entry.mode == mode)
            return entry.text;
    zelAbort("Unknown mode %u", mode);
}

zel::uint32 getAccessMode(const zel::String& text) {
    for (const Entry& entry : Table)
        if (text == entry.text)
            return entry.mode;
    zelAbort("Unknown mode '%s'", text.c_str());
}

} // namespace zelData
