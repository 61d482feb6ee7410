#include <zel/Exception.h>
#include <zel/Verify.h>
#include <zelNet/IPAddress.h>
#include <zelNet/Library.h>
#include <zelNet/NetError.h>

#include <arpa/inet.h>

#include <ostream>

namespace zelNet {

namespace {

bool isDigit(char c) {
    return c >= '0' && c <= '9';
}

} // namespace

IPAddress::IPAddress(const zel::String& hostName, zel::uint16 portNumber)
    : IPAddress(Library::getHostByName(hostName.c_str(), portNumber)) {}

zel::String IPAddress::string() const {
    char text[INET_ADDRSTRLEN];
    const in_addr number{host};
    if (inet_ntop(AF_INET, &number, text, sizeof(text)) == nullptr)
        zelAbort("Could not parse ip address to string (inet_ntop)");
    return zel::String::format("%s:%u", text, unsigned{port});
}

std::ostream& operator<<(std::ostream& stream, const IPAddress& address) {
    return stream << address.string();
}

zel::uint32 IPAddress::parseString(const char* text) {
    if (text == nullptr)
        ZEL_THROW(NetError, "IPAddress::parseString(): pointer passed as argument is 0");
    zel::uint32 result = 0;
    for (unsigned group = 0; group < 4; ++group) {
        zel::uint32 number = 0;
        unsigned numDigits = 0;
        for (; numDigits < 3 && isDigit(*text); ++numDigits)
            number = number * 10 + static_cast<zel::uint32>(*text++ - '0');
        const char end = group == 3 ? '\0' : '.';
        if (numDigits == 0 || number > 255 || *text != end)
            ZEL_THROW(NetError, "IPAddress::parseString(): string is not a valid IP address");
        ++text;
        result |= number << (8 * group);
    }
    return result;
}

} // namespace zelNet
