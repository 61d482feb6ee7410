#include <zelNet/IPAddress.h>
#include <zelNet/NetError.h>

#include <gtest/gtest.h>
#include <support/WhatOf.h>

#include <sstream>
#include <type_traits>

using zelNet::IPAddress;
using zelTest::whatOf;

namespace {

static_assert(std::is_trivially_copyable_v<IPAddress>);
static_assert(std::is_same_v<decltype(IPAddress::host), zel::uint32>);
static_assert(std::is_same_v<decltype(IPAddress::port), zel::uint16>);

TEST(IPAddressTest, BeginsAsZero) {
    const IPAddress address;
    EXPECT_EQ(address.host, 0U);
    EXPECT_EQ(address.port, 0);
    EXPECT_EQ(address.string(), "0.0.0.0:0");
}

TEST(IPAddressTest, PrintsHostAndPort) {
    const IPAddress address(0x04030201, 65535);
    EXPECT_EQ(address.string(), "1.2.3.4:65535");
    std::ostringstream stream;
    stream << IPAddress(0xFFFFFFFF, 8080);
    EXPECT_EQ(stream.str(), "255.255.255.255:8080");
}

TEST(IPAddressTest, LooksNamesUp) {
    EXPECT_EQ(IPAddress("127.0.0.1", 7), IPAddress(0x0100007F, 7));
    EXPECT_EQ(whatOf([] { const IPAddress address("no such name", 7); }),
              "Sockets::GetHostByName(): gethostbyname() failed");
}

TEST(IPAddressTest, ParsesFourNumbers) {
    EXPECT_EQ(IPAddress::parseString("1.2.3.4"), 0x04030201U);
    EXPECT_EQ(IPAddress::parseString("01.002.3.4"), 0x04030201U);
    EXPECT_EQ(IPAddress::parseString("255.255.255.255"), 0xFFFFFFFFU);
    EXPECT_EQ(IPAddress::parseString("0.0.0.0"), 0U);
    EXPECT_EQ(IPAddress::parseString("127.0.0.1"), 0x0100007FU);
}

TEST(IPAddressTest, ParsesNothingElse) {
    for (const char* text : {"1.2.3",      "1.2.3.4.5", "256.1.1.1",  "1.2.3.1000", "",          ".",
                             "1",          "1.2.3.",    ".1.2.3.4",   "1..2.3",     "1.2.3.4 ",  " 1.2.3.4",
                             "1.2.3.-4",   "1.2.3.a",   "1,2,3,4",    "1.2.3.4.",   "1.2.3.256", "0x1.2.3.4",
                             "1.2.3.4:80", "localhost", "0001.2.3.4", "+1.2.3.4"}) {
        EXPECT_THROW((void)IPAddress::parseString(text), zelNet::NetError) << text;
        EXPECT_EQ(whatOf([&] { (void)IPAddress::parseString(text); }),
                  "IPAddress::parseString(): string is not a valid IP address");
    }
}

TEST(IPAddressTest, ParsesNoNull) {
    EXPECT_EQ(whatOf([] { (void)IPAddress::parseString(nullptr); }),
              "IPAddress::parseString(): pointer passed as argument is 0");
}

} // namespace
