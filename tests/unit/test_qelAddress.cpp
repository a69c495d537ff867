#include "qelAddress.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>

#include <array>
#include <cstring>
#include <string>
#include <type_traits>
#include <vector>

namespace {

std::array<uint8_t, 16> bytesOf(const char* text) {
    std::array<uint8_t, 16> out{};
    if (inet_pton(AF_INET6, text, out.data()) != 1) ADD_FAILURE() << "bad test address " << text;
    return out;
}

IPv6Address v6(const char* text) { return IPv6Address(bytesOf(text).data()); }

std::array<uint8_t, 4> octetsOf(const IPv4Address& a) {
    return {a.octets[0], a.octets[1], a.octets[2], a.octets[3]};
}

std::array<uint8_t, 16> reversedOf(const IPv6Address& a) {
    std::array<uint8_t, 16> out{};
    std::memcpy(out.data(), a.reversedBytes, 16);
    return out;
}
std::array<uint8_t, 16> networkOf(const IPv6Address& a) {
    std::array<uint8_t, 16> out{};
    std::memcpy(out.data(), a.networkBytes, 16);
    return out;
}
std::array<uint8_t, 16> reversed(std::array<uint8_t, 16> bytes) {
    std::array<uint8_t, 16> out{};
    for (int i = 0; i < 16; ++i) out[i] = bytes[15 - i];
    return out;
}

using Octets = std::array<uint8_t, 4>;

// ---- IPv4Address -------------------------------------------------------------

TEST(IPv4Address, ParsesDottedText) {
    EXPECT_EQ(octetsOf(IPv4Address("192.168.1.20")), (Octets{192, 168, 1, 20}));
}

TEST(IPv4Address, AcceptsAnySeparatorCharacter) {
    EXPECT_EQ(octetsOf(IPv4Address("10-0-0-1")), (Octets{10, 0, 0, 1}));
}

TEST(IPv4Address, TruncatesEachNumberToItsLowEightBits) {
    EXPECT_EQ(octetsOf(IPv4Address("300.1.1.1")), (Octets{44, 1, 1, 1}));
}

TEST(IPv4Address, TextThatIsNoAddressGivesZeroWithoutError) {
    IPv4Address a("abc");
    EXPECT_EQ(octetsOf(a), (Octets{0, 0, 0, 0}));
}

TEST(IPv4Address, NumbersThatCannotBeReadStayZero) {
    EXPECT_EQ(octetsOf(IPv4Address("7.8")), (Octets{7, 8, 0, 0}));
    EXPECT_EQ(octetsOf(IPv4Address("")), (Octets{0, 0, 0, 0}));
}

TEST(IPv4Address, IgnoresWhatFollowsTheFourthNumber) {
    EXPECT_EQ(octetsOf(IPv4Address("1.2.3.4.5/24 trailing")), (Octets{1, 2, 3, 4}));
}

TEST(IPv4Address, DefaultIsAllZero) {
    EXPECT_EQ(octetsOf(IPv4Address()), (Octets{0, 0, 0, 0}));
}

TEST(IPv4Address, AssignFromCharTextParsesLikeTheConstructor) {
    IPv4Address a("9.9.9.9");
    IPv4Address& result = (a = "255.255.255.0");
    EXPECT_EQ(&result, &a);
    EXPECT_EQ(octetsOf(a), (Octets{255, 255, 255, 0}));
    a = "10-0-0-1";
    EXPECT_EQ(octetsOf(a), (Octets{10, 0, 0, 1}));
    a = "abc";
    EXPECT_EQ(octetsOf(a), (Octets{0, 0, 0, 0}));
}

TEST(IPv4Address, AssignFromRawBytesCopiesThemInOrder) {
    const unsigned char raw[4] = {192, 0, 2, 7};
    IPv4Address a;
    IPv4Address& result = (a = raw);
    EXPECT_EQ(&result, &a);
    EXPECT_EQ(octetsOf(a), (Octets{192, 0, 2, 7}));
}

TEST(IPv4Address, HasTheLayoutOfAnInAddr) {
    static_assert(sizeof(IPv4Address) == sizeof(in_addr), "same size as in_addr");
    in_addr raw{};
    ASSERT_EQ(inet_pton(AF_INET, "198.51.100.3", &raw), 1);
    IPv4Address a;
    static_assert(std::is_trivially_copyable<IPv4Address>::value, "raw copies are allowed");
    std::memcpy(static_cast<void*>(&a), &raw.s_addr, sizeof raw.s_addr);
    EXPECT_EQ(octetsOf(a), (Octets{198, 51, 100, 3}));
}

TEST(IPv4Address, EqualityComparesTheOctets) {
    EXPECT_EQ(IPv4Address("1.2.3.4"), IPv4Address("1-2-3-4"));
    EXPECT_NE(IPv4Address("1.2.3.4"), IPv4Address("1.2.3.5"));
}

// ---- IPv6Address -------------------------------------------------------------

TEST(IPv6Address, LoopbackBytesGoToBothArrays) {
    IPv6Address a = v6("::1");
    EXPECT_EQ(a.reversedBytes[0], 1);
    EXPECT_EQ(a.networkBytes[15], 1);
    for (int i = 1; i < 16; ++i) EXPECT_EQ(a.reversedBytes[i], 0) << i;
    for (int i = 0; i < 15; ++i) EXPECT_EQ(a.networkBytes[i], 0) << i;
}

TEST(IPv6Address, PrimaryArrayIsReversedNetworkCopyIsAsGiven) {
    auto bytes = bytesOf("2001:db8:1:2:3:4:5:6");
    IPv6Address a(bytes.data());
    EXPECT_EQ(networkOf(a), bytes);
    EXPECT_EQ(reversedOf(a), reversed(bytes));
    EXPECT_EQ(a.reversedBytes[15], 0x20);
    EXPECT_EQ(a.reversedBytes[0], 0x06);
}

TEST(IPv6Address, BuildsFromIn6Addr) {
    in6_addr raw{};
    ASSERT_EQ(inet_pton(AF_INET6, "fe80::abcd", &raw), 1);
    IPv6Address a(raw);
    EXPECT_EQ(networkOf(a), bytesOf("fe80::abcd"));
    EXPECT_EQ(reversedOf(a), reversed(bytesOf("fe80::abcd")));
}

TEST(IPv6Address, DefaultIsAllZero) {
    IPv6Address a;
    EXPECT_EQ(reversedOf(a), (std::array<uint8_t, 16>{}));
    EXPECT_EQ(networkOf(a), (std::array<uint8_t, 16>{}));
}

TEST(IPv6Address, AssignmentCopiesOnlyThePrimaryArray) {
    IPv6Address target = v6("2001:db8::1");
    const IPv6Address source = v6("fd00::99");
    target = source;
    EXPECT_EQ(reversedOf(target), reversed(bytesOf("fd00::99")));
    // The network-order copy still holds the old address.
    EXPECT_EQ(networkOf(target), bytesOf("2001:db8::1"));
    // Equality looks at the primary array only.
    EXPECT_EQ(target, source);
}

TEST(IPv6Address, CopyConstructionRebuildsTheNetworkOrderCopy) {
    IPv6Address target = v6("2001:db8::1");
    target = v6("fd00::99");
    IPv6Address copy(target);
    EXPECT_EQ(reversedOf(copy), reversed(bytesOf("fd00::99")));
    EXPECT_EQ(networkOf(copy), bytesOf("fd00::99"));
}

TEST(IPv6Address, ValuesPushedIntoAContainerAreConsistent) {
    IPv6Address target = v6("2001:db8::1");
    target = v6("fe80::5");
    std::vector<IPv6Address> list;
    list.push_back(target);
    EXPECT_EQ(networkOf(list[0]), bytesOf("fe80::5"));
}

TEST(IPv6Address, EqualityComparesThePrimaryArrayOnly) {
    IPv6Address a = v6("2001:db8::1");
    IPv6Address b = v6("2001:db8::2");
    EXPECT_NE(a, b);
    std::memset(b.networkBytes, 0xAA, 16);
    b = a;  // primary equal, network copies differ
    EXPECT_EQ(a, b);
}

TEST(IPv6Address, IsAPlainValue) {
    static_assert(!std::is_polymorphic<IPv6Address>::value, "no virtual operations");
    static_assert(sizeof(IPv6Address) == 32, "two arrays, no heap storage");
    static_assert(sizeof(IPv4Address) == 4, "four octets");
    static_assert(sizeof(MacAddress) == 6, "six bytes");
}

// ---- getNumberOfLeadingOnes --------------------------------------------------

struct LeadingOnesCase {
    const char* mask;
    unsigned int expected;
};

class LeadingOnes : public ::testing::TestWithParam<LeadingOnesCase> {};

TEST_P(LeadingOnes, CountsAsTheMaskTableSays) {
    EXPECT_EQ(v6(GetParam().mask).getNumberOfLeadingOnes(), GetParam().expected)
        << GetParam().mask;
}

INSTANTIATE_TEST_SUITE_P(
    Masks, LeadingOnes,
    ::testing::Values(LeadingOnesCase{"ffff:ffff:ffff:fff0::", 60}, LeadingOnesCase{"::", 0},
                      LeadingOnesCase{"ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff", 128},
                      LeadingOnesCase{"ffff:ffff:ffff:ffff::", 64},
                      LeadingOnesCase{"ffff:ffff:ffff:ffff:8000::", 65},
                      // The zero bytes in the middle reset what the rear built.
                      LeadingOnesCase{"ffff:0000:ffff::", 16},
                      LeadingOnesCase{"ff80::", 9}, LeadingOnesCase{"fffe::", 15},
                      LeadingOnesCase{"ffff:ffc0::", 26}, LeadingOnesCase{"ffff:fff8::", 29},
                      LeadingOnesCase{"fffc::", 14}, LeadingOnesCase{"ffe0::", 11},
                      // Not a mask byte: skipped without effect.
                      LeadingOnesCase{"ff12::", 8}, LeadingOnesCase{"ffff:ffff::1", 32},
                      // A partial byte sets the count, whatever the bytes behind it gave.
                      LeadingOnesCase{"f0ff::", 4}));

// ---- MacAddress --------------------------------------------------------------

TEST(MacAddress, DefaultIsSixZeroBytesInWireOrder) {
    MacAddress m;
    for (uint8_t b : m.bytes) EXPECT_EQ(b, 0);
    MacAddress n{{0x02, 0x11, 0x22, 0x33, 0x44, 0x55}};
    EXPECT_EQ(n.bytes[0], 0x02);
    EXPECT_EQ(n.bytes[5], 0x55);
}

}  // namespace
