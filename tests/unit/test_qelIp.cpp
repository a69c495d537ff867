// The network interface inventory, two ways:
// - through the platform seam, with crafted interface lists, getifaddrs
//   results and netlink replies (exact control flow, error texts, hostile
//   lengths);
// - against the real kernel, in network namespaces made for the test, with
//   `ip -j addr show` as the independent account.
#include "qelIp.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <ifaddrs.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <list>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <tuple>
#include <vector>

#include "netns.h"
#include "netnsOracle.h"
#include "qelPlatform.h"

#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/asan_interface.h>
#define QEL_POISON(address, size) __asan_poison_memory_region((address), (size))
#else
#define QEL_POISON(address, size) ((void)(address), (void)(size))
#endif

namespace {

using qelIp::QelIfParameter;
using qelIp::QelIp;
using qelIp::QelIpError;
using qelIp::QelIpv6AddressInfo;

std::array<uint8_t, 16> v6bytes(const char* text) {
    std::array<uint8_t, 16> out{};
    if (inet_pton(AF_INET6, text, out.data()) != 1) ADD_FAILURE() << "bad test address " << text;
    return out;
}
std::array<uint8_t, 16> networkOf(const IPv6Address& a) {
    std::array<uint8_t, 16> out{};
    for (int i = 0; i < 16; ++i) out[i] = a.reversedBytes[15 - i];
    return out;
}
std::array<uint8_t, 4> octetsOf(const IPv4Address& a) {
    return {a.octets[0], a.octets[1], a.octets[2], a.octets[3]};
}
std::array<uint8_t, 6> macOf(const MacAddress& m) {
    return {m.bytes[0], m.bytes[1], m.bytes[2], m.bytes[3], m.bytes[4], m.bytes[5]};
}
bool isZeroRecord(const QelIpv6AddressInfo& info) {
    return networkOf(info.address) == std::array<uint8_t, 16>{} && info.prefixLength == 0 &&
           info.addressType == 0 && info.reserved == 0;
}

// ---- The crafted platform ------------------------------------------------------

struct FakeInterface {
    std::string name;
    int index = 0;
    std::string ipv4 = "0.0.0.0";
    std::string netmask = "0.0.0.0";
    std::string broadcast = "0.0.0.0";
    std::array<uint8_t, 6> mac{};
    int mtu = 1500;
    short flags = 0;
};

struct FakeIfaddr {
    std::string name;
    int family = AF_INET6;
    std::string address;  // empty: no address at all
    std::string netmask;  // empty: no netmask
};

constexpr int inetSocket = 100;
constexpr int netlinkSocket = 200;

class FakePlatform : public qelPlatform::Platform {
public:
    std::vector<FakeInterface> interfaces;  // in SIOCGIFCONF order
    std::set<std::pair<std::string, unsigned long>> failingIoctls;
    int socketErrno = 0;
    int ifconfErrno = 0;
    int ifconfLengthBonus = 0;  // a misbehaving stand-in reporting more than it got
    std::vector<FakeIfaddr> ifaddrs;
    int getifaddrsErrno = 0;
    int netlinkSocketErrno = 0;
    int sendErrno = 0;
    int recvErrno = 0;
    int closeErrno = 0;
    std::vector<unsigned char> netlinkReply;

    mutable std::vector<int> ifconfRequests;
    mutable std::vector<std::tuple<int, int, int>> socketCalls;
    mutable std::set<int> openSockets;
    mutable std::vector<int> closed;
    mutable std::vector<unsigned char> sent;
    mutable std::vector<std::pair<size_t, int>> recvCalls;
    mutable int freeifaddrsCalls = 0;
    mutable std::map<std::string, size_t> indexCalls;

    int socket(int domain, int type, int protocol) const override {
        socketCalls.emplace_back(domain, type, protocol);
        if (domain == AF_INET) {
            if (socketErrno != 0) return fail(socketErrno);
            openSockets.insert(inetSocket);
            return inetSocket;
        }
        if (domain == PF_NETLINK) {
            if (netlinkSocketErrno != 0) return fail(netlinkSocketErrno);
            openSockets.insert(netlinkSocket);
            return netlinkSocket;
        }
        return fail(EAFNOSUPPORT);
    }

    int ioctl(int fd, unsigned long request, void* argument) const override {
        if (fd != inetSocket) return fail(EBADF);
        if (request == SIOCGIFCONF) return ifconf(static_cast<struct ifconf*>(argument));
        auto* r = static_cast<struct ifreq*>(argument);
        const std::string name(r->ifr_name, strnlen(r->ifr_name, IFNAMSIZ));
        if (failingIoctls.count({name, request})) return fail(EINVAL);
        const FakeInterface* itf = nullptr;
        for (const auto& candidate : interfaces)
            if (candidate.name == name) {
                itf = &candidate;
                break;
            }
        if (itf == nullptr) return fail(ENODEV);
        switch (request) {
        case SIOCGIFINDEX: {
            // A name listed twice answers with the next one's index each time.
            std::vector<const FakeInterface*> same;
            for (const auto& candidate : interfaces)
                if (candidate.name == name) same.push_back(&candidate);
            r->ifr_ifindex = same[indexCalls[name]++ % same.size()]->index;
            return 0;
        }
        case SIOCGIFMTU: r->ifr_mtu = itf->mtu; return 0;
        case SIOCGIFHWADDR:
            r->ifr_hwaddr.sa_family = 1;
            std::memcpy(r->ifr_hwaddr.sa_data, itf->mac.data(), 6);
            return 0;
        case SIOCGIFNETMASK: setInet(&r->ifr_netmask, itf->netmask); return 0;
        case SIOCGIFBRDADDR: setInet(&r->ifr_broadaddr, itf->broadcast); return 0;
        case SIOCGIFFLAGS: r->ifr_flags = itf->flags; return 0;
        default: return fail(EINVAL);
        }
    }

    int getifaddrs(struct ifaddrs** out) const override {
        if (getifaddrsErrno != 0) return fail(getifaddrsErrno);
        lists_.emplace_back();
        auto& nodes = lists_.back();
        for (const FakeIfaddr& entry : ifaddrs) {
            nodes.push_back(std::make_unique<Node>());
            Node& node = *nodes.back();
            node.name = entry.name;
            node.entry.ifa_name = &node.name[0];
            if (!entry.address.empty()) {
                if (entry.family == AF_INET6) {
                    node.address6.sin6_family = AF_INET6;
                    inet_pton(AF_INET6, entry.address.c_str(), &node.address6.sin6_addr);
                    node.entry.ifa_addr = reinterpret_cast<sockaddr*>(&node.address6);
                } else {
                    node.address4.sin_family = static_cast<sa_family_t>(entry.family);
                    inet_pton(AF_INET, entry.address.c_str(), &node.address4.sin_addr);
                    node.entry.ifa_addr = reinterpret_cast<sockaddr*>(&node.address4);
                }
            }
            if (!entry.netmask.empty()) {
                node.mask6.sin6_family = AF_INET6;
                inet_pton(AF_INET6, entry.netmask.c_str(), &node.mask6.sin6_addr);
                node.entry.ifa_netmask = reinterpret_cast<sockaddr*>(&node.mask6);
            }
        }
        for (size_t i = 0; i + 1 < nodes.size(); ++i) nodes[i]->entry.ifa_next = &nodes[i + 1]->entry;
        *out = nodes.empty() ? nullptr : &nodes.front()->entry;
        return 0;
    }
    void freeifaddrs(struct ifaddrs*) const override { ++freeifaddrsCalls; }

    ssize_t send(int fd, const void* data, size_t length, int) const override {
        if (fd != netlinkSocket) return fail(EBADF);
        if (sendErrno != 0) return fail(sendErrno);
        const auto* bytes = static_cast<const unsigned char*>(data);
        sent.assign(bytes, bytes + length);
        return static_cast<ssize_t>(length);
    }
    ssize_t recv(int fd, void* data, size_t length, int flags) const override {
        recvCalls.emplace_back(length, flags);
        if (fd != netlinkSocket) return fail(EBADF);
        if (recvErrno != 0) return fail(recvErrno);
        const size_t n = std::min(length, netlinkReply.size());
        if (n > 0) std::memcpy(data, netlinkReply.data(), n);
        // Whatever lies behind the received bytes must never be read.
        QEL_POISON(static_cast<unsigned char*>(data) + n, length - n);
        return static_cast<ssize_t>(n);
    }
    int close(int fd) const override {
        closed.push_back(fd);
        openSockets.erase(fd);
        if (fd == netlinkSocket && closeErrno != 0) return fail(closeErrno);
        // Pins errno, so texts built from it after this call are known.
        errno = 0;
        return 0;
    }

private:
    struct Node {
        struct ifaddrs entry {};
        sockaddr_in6 address6{};
        sockaddr_in address4{};
        sockaddr_in6 mask6{};
        std::string name;
    };
    mutable std::list<std::vector<std::unique_ptr<Node>>> lists_;

    static int fail(int number) {
        errno = number;
        return -1;
    }
    static void setInet(sockaddr* target, const std::string& text) {
        sockaddr_in in{};
        in.sin_family = AF_INET;
        inet_pton(AF_INET, text.c_str(), &in.sin_addr);
        std::memcpy(target, &in, sizeof in);
    }
    int ifconf(struct ifconf* request) const {
        ifconfRequests.push_back(request->ifc_len);
        if (ifconfErrno != 0) return fail(ifconfErrno);
        const size_t room = static_cast<size_t>(request->ifc_len) / sizeof(struct ifreq);
        const size_t n = std::min(room, interfaces.size());
        for (size_t i = 0; i < n; ++i) {
            struct ifreq entry;
            std::memset(&entry, 0, sizeof entry);
            std::strncpy(entry.ifr_name, interfaces[i].name.c_str(), IFNAMSIZ);
            setInet(&entry.ifr_addr, interfaces[i].ipv4);
            std::memcpy(&request->ifc_req[i], &entry, sizeof entry);
        }
        const int used = static_cast<int>(n * sizeof(struct ifreq));
        if (ifconfLengthBonus == 0)
            QEL_POISON(request->ifc_buf + used, static_cast<size_t>(request->ifc_len - used));
        request->ifc_len = used + ifconfLengthBonus;
        return 0;
    }
};

// Installs a FakePlatform for one test.
class QelIpHooks : public ::testing::Test {
protected:
    FakePlatform fake;
    void SetUp() override { qelPlatform::setPlatform(&fake); }
    void TearDown() override {
        qelPlatform::setPlatform(nullptr);
        EXPECT_TRUE(fake.openSockets.empty()) << "a socket was left open";
    }

    static FakeInterface itf(const std::string& name, int index, const std::string& ipv4 = "0.0.0.0") {
        FakeInterface f;
        f.name = name;
        f.index = index;
        f.ipv4 = ipv4;
        return f;
    }
    void addInterfaces(int count, int firstIndex = 1) {
        for (int i = 0; i < count; ++i)
            fake.interfaces.push_back(itf("if" + std::to_string(i), firstIndex + i,
                                          "198.18." + std::to_string(i / 250) + "." +
                                              std::to_string(i % 250 + 1)));
    }
};

template <typename Function>
QelIpError expectError(Function function) {
    try {
        function();
    } catch (const QelIpError& error) {
        return error;
    }
    ADD_FAILURE() << "no QelIpError was thrown";
    return QelIpError("", "", 0);
}

std::string errnoText(const char* message, int number) { return message + std::string(std::strerror(number)); }

// ---- Interface list (SIOCGIFCONF) ----------------------------------------------

TEST_F(QelIpHooks, ReadsEveryDetailOfEachInterface) {
    FakeInterface eth = itf("eth0", 2, "192.0.2.10");
    eth.netmask = "255.255.255.0";
    eth.broadcast = "192.0.2.255";
    eth.mac = {0x02, 0x11, 0x22, 0x33, 0x44, 0x55};
    eth.mtu = 9000;
    eth.flags = IFF_UP | IFF_BROADCAST | IFF_RUNNING | IFF_MULTICAST;
    fake.interfaces.push_back(eth);

    QelIp ip;
    ASSERT_EQ(ip.numberOfInterfaces, 1u);
    ASSERT_EQ(ip.ifParameters.count(2), 1u);
    const QelIfParameter& r = ip.ifParameters.at(2);
    EXPECT_EQ(r.position, 0);
    EXPECT_EQ(r.name, "eth0");
    EXPECT_EQ(octetsOf(r.ipv4Address), (std::array<uint8_t, 4>{192, 0, 2, 10}));
    EXPECT_EQ(octetsOf(r.netmask), (std::array<uint8_t, 4>{255, 255, 255, 0}));
    EXPECT_EQ(octetsOf(r.broadcastAddress), (std::array<uint8_t, 4>{192, 0, 2, 255}));
    EXPECT_EQ(macOf(r.macAddress), eth.mac);
    EXPECT_EQ(r.mtu, 9000u);
    EXPECT_EQ(r.flags, static_cast<unsigned short>(eth.flags));
    EXPECT_FALSE(r.hasIpv6);
    EXPECT_TRUE(r.ipv6Addresses.empty());
    EXPECT_EQ(fake.socketCalls.front(), std::make_tuple(AF_INET, SOCK_DGRAM, 0));
}

TEST_F(QelIpHooks, FirstRequestHasRoomForElevenEntries) {
    addInterfaces(3);
    QelIp ip;
    EXPECT_EQ(fake.ifconfRequests, (std::vector<int>{440}));
    EXPECT_EQ(ip.numberOfInterfaces, 3u);
}

TEST_F(QelIpHooks, ElevenInterfacesFillTheFirstBufferAndCauseOneMoreRound) {
    addInterfaces(11);
    QelIp ip;
    EXPECT_EQ(fake.ifconfRequests, (std::vector<int>{440, 480}));
    EXPECT_EQ(ip.numberOfInterfaces, 11u);
}

TEST_F(QelIpHooks, BufferGrowsByOneEntryPerRoundUntilEveryInterfaceIsListed) {
    addInterfaces(25);
    QelIp ip;
    std::vector<int> expected;
    for (int entries = 11; entries <= 26; ++entries) expected.push_back(entries * 40);
    EXPECT_EQ(fake.ifconfRequests, expected);
    EXPECT_EQ(ip.numberOfInterfaces, 25u);
    for (int i = 0; i < 25; ++i) {
        ASSERT_EQ(ip.ifParameters.count(static_cast<unsigned>(i + 1)), 1u) << i;
        EXPECT_EQ(ip.ifParameters.at(static_cast<unsigned>(i + 1)).name, "if" + std::to_string(i));
        EXPECT_EQ(ip.ifParameters.at(static_cast<unsigned>(i + 1)).position, i);
    }
}

TEST_F(QelIpHooks, GrowthStopsOnceMoreThan512EntriesCameBack) {
    addInterfaces(600);
    QelIp ip;
    ASSERT_FALSE(fake.ifconfRequests.empty());
    EXPECT_EQ(fake.ifconfRequests.size(), 503u);  // 11 .. 513 entries
    EXPECT_EQ(fake.ifconfRequests.front(), 440);
    EXPECT_EQ(fake.ifconfRequests.back(), 513 * 40);
    EXPECT_EQ(ip.numberOfInterfaces, 513u);
    EXPECT_EQ(ip.ifParameters.size(), 513u);
    EXPECT_EQ(ip.ifParameters.rbegin()->second.name, "if512");
}

TEST_F(QelIpHooks, AListerReportingMoreThanItWasGivenIsHeldToTheBuffer) {
    addInterfaces(3);
    fake.ifconfLengthBonus = 4000;
    QelIp ip;  // must not walk past its buffer
    EXPECT_EQ(ip.numberOfInterfaces, 3u);
    // Each round looked full until the request outgrew the claimed 4120 bytes.
    EXPECT_EQ(fake.ifconfRequests.size(), 94u);
    EXPECT_EQ(fake.ifconfRequests.back(), 4160);
}

TEST_F(QelIpHooks, DuplicateIndexThrowsWithTheSecondName) {
    fake.interfaces = {itf("eth0", 2, "192.0.2.1"), itf("eth0:1", 2, "192.0.2.2")};
    QelIpError error = expectError([] { QelIp ip; });
    EXPECT_EQ(error.errorText, "if entry for eth0:1 is already existing.");
    EXPECT_EQ(error.fileName, "qelIp");
    EXPECT_GT(error.lineNumber, 0u);
    EXPECT_STREQ(static_cast<const std::exception&>(error).what(), "");
}

TEST_F(QelIpHooks, EntryWhoseIndexCannotBeReadIsSkipped) {
    fake.interfaces = {itf("gone0", 4, "192.0.2.1"), itf("eth1", 5, "192.0.2.2")};
    fake.failingIoctls.insert({"gone0", SIOCGIFINDEX});
    QelIp ip;
    EXPECT_EQ(ip.numberOfInterfaces, 1u);
    ASSERT_EQ(ip.ifParameters.count(5), 1u);
    EXPECT_EQ(ip.ifParameters.at(5).position, 1);
}

TEST_F(QelIpHooks, FailingDetailIoctlsLeaveTheirFieldsZero) {
    FakeInterface eth = itf("eth0", 2, "192.0.2.10");
    eth.netmask = "255.255.0.0";
    eth.broadcast = "192.0.255.255";
    eth.mac = {1, 2, 3, 4, 5, 6};
    eth.flags = IFF_UP;
    fake.interfaces.push_back(eth);
    for (unsigned long request : {SIOCGIFMTU, SIOCGIFHWADDR, SIOCGIFNETMASK, SIOCGIFBRDADDR, SIOCGIFFLAGS})
        fake.failingIoctls.insert({"eth0", request});
    QelIp ip;
    const QelIfParameter& r = ip.ifParameters.at(2);
    EXPECT_EQ(octetsOf(r.ipv4Address), (std::array<uint8_t, 4>{192, 0, 2, 10}));
    EXPECT_EQ(r.mtu, 0u);
    EXPECT_EQ(macOf(r.macAddress), (std::array<uint8_t, 6>{}));
    EXPECT_EQ(octetsOf(r.netmask), (std::array<uint8_t, 4>{}));
    EXPECT_EQ(octetsOf(r.broadcastAddress), (std::array<uint8_t, 4>{}));
    EXPECT_EQ(r.flags, 0);
}

TEST_F(QelIpHooks, SocketFailureThrowsWithTheSystemText) {
    fake.socketErrno = EMFILE;
    QelIpError error = expectError([] { QelIp ip; });
    EXPECT_EQ(error.errorText, errnoText("Could not create socket: ", EMFILE));
}

TEST_F(QelIpHooks, InterfaceListFailureThrowsAndClosesTheSocket) {
    fake.ifconfErrno = EINVAL;
    QelIpError error = expectError([] { QelIp ip; });
    EXPECT_EQ(error.errorText, errnoText("SIOCGIFCONF failed: ", EINVAL));
    EXPECT_EQ(fake.closed, (std::vector<int>{inetSocket}));
}

TEST_F(QelIpHooks, GetifaddrsFailureThrowsWithTheSystemText) {
    fake.getifaddrsErrno = ENOMEM;
    QelIpError error = expectError([] { QelIp ip; });
    EXPECT_EQ(error.errorText, errnoText("call of getifaddrs failed: ", ENOMEM));
}

TEST_F(QelIpHooks, DestructorClosesTheSocket) {
    addInterfaces(2);
    { QelIp ip; }
    EXPECT_EQ(fake.closed, (std::vector<int>{inetSocket}));
}

// ---- IPv6 addresses (getifaddrs) ---------------------------------------------------

class QelIpIpv6Types : public QelIpHooks {
protected:
    unsigned typeOf(const char* address) {
        fake.interfaces = {itf("eth0", 2, "192.0.2.1")};
        fake.ifaddrs = {{"eth0", AF_INET6, address, "ffff:ffff:ffff:ffff::"}};
        QelIp ip;
        if (ip.getNumberOfIpv6Addresses(2) != 1) {
            ADD_FAILURE() << address << " was not recorded";
            return 0;
        }
        return ip.getIpv6AddressInfo(2, 0).addressType;
    }
};

TEST_F(QelIpIpv6Types, Ipv4MappedIsType10) { EXPECT_EQ(typeOf("::ffff:10.0.0.1"), 10u); }
TEST_F(QelIpIpv6Types, Ipv4CompatibleIsType11) { EXPECT_EQ(typeOf("::10.0.0.1"), 11u); }
TEST_F(QelIpIpv6Types, LinkLocalIsType5) { EXPECT_EQ(typeOf("fe80::1"), 5u); }
TEST_F(QelIpIpv6Types, LoopbackIsType1) { EXPECT_EQ(typeOf("::1"), 1u); }
TEST_F(QelIpIpv6Types, MulticastIsType2) { EXPECT_EQ(typeOf("ff02::1"), 2u); }
TEST_F(QelIpIpv6Types, SiteLocalIsType8) { EXPECT_EQ(typeOf("fec0::1"), 8u); }
TEST_F(QelIpIpv6Types, UpperHalfOfFe80SlashNineIsSiteLocal) { EXPECT_EQ(typeOf("fef0::1"), 8u); }
TEST_F(QelIpIpv6Types, GlobalAndUniqueLocalAreType6) {
    EXPECT_EQ(typeOf("2001:db8::1"), 6u);
    EXPECT_EQ(typeOf("fd00::1"), 6u);
    EXPECT_EQ(typeOf("fe00::1"), 6u);  // fe00::/9 is neither link- nor site-local
}
TEST_F(QelIpIpv6Types, CompatibleNeedsATailAboveOne) {
    EXPECT_EQ(typeOf("::2"), 11u);
    EXPECT_EQ(typeOf("::1:0:0:1"), 6u);  // bytes 10 and 11 are not zero
}

TEST_F(QelIpHooks, UnspecifiedAddressIsNeverRecordedButMarksTheInterface) {
    fake.interfaces = {itf("eth0", 2, "192.0.2.1")};
    fake.ifaddrs = {{"eth0", AF_INET6, "::", "ffff:ffff:ffff:ffff::"}};
    QelIp ip;
    EXPECT_TRUE(ip.ifParameters.at(2).hasIpv6);
    EXPECT_EQ(ip.getNumberOfIpv6Addresses(2), 0u);
}

TEST_F(QelIpHooks, Ipv6RecordCarriesAddressPrefixLengthTypeAndZeroThirdField) {
    fake.interfaces = {itf("eth0", 2, "192.0.2.1")};
    fake.ifaddrs = {{"eth0", AF_INET6, "2001:db8::7", "ffff:ffff:ffff:fff0::"},
                    {"eth0", AF_INET6, "fe80::1", "ffff:ffff:ffff:ffff::"}};
    QelIp ip;
    ASSERT_EQ(ip.getNumberOfIpv6Addresses(2), 2u);
    QelIpv6AddressInfo first = ip.getIpv6AddressInfo(2, 0);
    EXPECT_EQ(networkOf(first.address), v6bytes("2001:db8::7"));
    EXPECT_EQ(first.prefixLength, 60u);
    EXPECT_EQ(first.addressType, 6u);
    EXPECT_EQ(first.reserved, 0u);
    QelIpv6AddressInfo second = ip.getIpv6AddressInfo(2, 1);
    EXPECT_EQ(networkOf(second.address), v6bytes("fe80::1"));
    EXPECT_EQ(second.prefixLength, 64u);
    EXPECT_EQ(second.addressType, 5u);
    EXPECT_EQ(fake.freeifaddrsCalls, 1);
}

TEST_F(QelIpHooks, Ipv6EntriesGoToTheFirstRecordWithTheNameInKeyOrder) {
    // One name under two indexes (renamed between two index look-ups): the
    // record with the lower index gets the address, the other none.
    fake.interfaces = {itf("eth0", 9, "192.0.2.1"), itf("eth0", 3, "192.0.2.2")};
    fake.ifaddrs = {{"eth0", AF_INET6, "2001:db8::1", "ffff:ffff:ffff:ffff::"}};
    QelIp ip;
    ASSERT_EQ(ip.ifParameters.size(), 2u);
    EXPECT_EQ(ip.getNumberOfIpv6Addresses(3), 1u);
    EXPECT_TRUE(ip.ifParameters.at(3).hasIpv6);
    EXPECT_EQ(ip.getNumberOfIpv6Addresses(9), 0u);
    EXPECT_FALSE(ip.ifParameters.at(9).hasIpv6);
}

TEST_F(QelIpHooks, Ipv6EntriesOfUnlistedOrIpv4OnlyEntriesAreIgnored) {
    fake.interfaces = {itf("eth0", 2, "192.0.2.1")};
    fake.ifaddrs = {{"wlan9", AF_INET6, "2001:db8::1", "ffff:ffff:ffff:ffff::"},
                    {"eth0", AF_INET, "192.0.2.1", ""},
                    {"eth0", AF_INET6, "", ""},  // no address at all
                    {"eth0", AF_PACKET, "", ""}};
    QelIp ip;
    EXPECT_FALSE(ip.ifParameters.at(2).hasIpv6);
    EXPECT_EQ(ip.getNumberOfIpv6Addresses(2), 0u);
    EXPECT_EQ(fake.freeifaddrsCalls, 1);
}

TEST_F(QelIpHooks, MissingNetmaskGivesPrefixLengthZero) {
    fake.interfaces = {itf("eth0", 2, "192.0.2.1")};
    fake.ifaddrs = {{"eth0", AF_INET6, "2001:db8::1", ""}};
    QelIp ip;
    ASSERT_EQ(ip.getNumberOfIpv6Addresses(2), 1u);
    EXPECT_EQ(ip.getIpv6AddressInfo(2, 0).prefixLength, 0u);
}

// ---- Accessors -------------------------------------------------------------------

TEST_F(QelIpHooks, AccessorsGiveZeroForIndexZeroEvenWhenSuchAnInterfaceExists) {
    FakeInterface zero = itf("lo", 0, "127.0.0.1");
    zero.flags = IFF_UP | IFF_LOOPBACK;
    zero.mac = {9, 9, 9, 9, 9, 9};
    fake.interfaces.push_back(zero);
    fake.ifaddrs = {{"lo", AF_INET6, "::1", "ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff"}};
    QelIp ip;
    ASSERT_EQ(ip.ifParameters.count(0), 1u);
    ASSERT_EQ(ip.ifParameters.at(0).ipv6Addresses.size(), 1u);
    EXPECT_FALSE(ip.isLoopback(0));
    EXPECT_EQ(octetsOf(ip.getIpv4Address(0)), (std::array<uint8_t, 4>{}));
    EXPECT_EQ(ip.getNumberOfIpv6Addresses(0), 0u);
    EXPECT_TRUE(isZeroRecord(ip.getIpv6AddressInfo(0, 0)));
    EXPECT_EQ(macOf(ip.getMacAddress(0)), (std::array<uint8_t, 6>{}));
}

TEST_F(QelIpHooks, AccessorsReportTheRecordOfAKnownIndex) {
    FakeInterface lo = itf("lo", 1, "127.0.0.1");
    lo.flags = IFF_UP | IFF_LOOPBACK;
    FakeInterface eth = itf("eth0", 2, "192.0.2.5");
    eth.flags = IFF_UP | IFF_BROADCAST;
    eth.mac = {0x02, 0, 0, 0, 0, 0x42};
    fake.interfaces = {lo, eth};
    fake.ifaddrs = {{"eth0", AF_INET6, "2001:db8::5", "ffff:ffff:ffff:ffff::"}};
    QelIp ip;
    EXPECT_TRUE(ip.isLoopback(1));
    EXPECT_FALSE(ip.isLoopback(2));
    EXPECT_EQ(octetsOf(ip.getIpv4Address(2)), (std::array<uint8_t, 4>{192, 0, 2, 5}));
    EXPECT_EQ(macOf(ip.getMacAddress(2)), eth.mac);
    EXPECT_EQ(ip.getNumberOfIpv6Addresses(2), 1u);
    EXPECT_EQ(networkOf(ip.getIpv6AddressInfo(2, 0).address), v6bytes("2001:db8::5"));
}

TEST_F(QelIpHooks, AccessorsGiveZeroForUnknownIndexOrAddressNumber) {
    fake.interfaces = {itf("eth0", 2, "192.0.2.5")};
    fake.ifaddrs = {{"eth0", AF_INET6, "2001:db8::5", "ffff:ffff:ffff:ffff::"}};
    QelIp ip;
    EXPECT_FALSE(ip.isLoopback(77));
    EXPECT_EQ(octetsOf(ip.getIpv4Address(77)), (std::array<uint8_t, 4>{}));
    EXPECT_EQ(ip.getNumberOfIpv6Addresses(77), 0u);
    EXPECT_EQ(macOf(ip.getMacAddress(77)), (std::array<uint8_t, 6>{}));
    EXPECT_TRUE(isZeroRecord(ip.getIpv6AddressInfo(77, 0)));
    EXPECT_TRUE(isZeroRecord(ip.getIpv6AddressInfo(2, 1)));
    EXPECT_FALSE(isZeroRecord(ip.getIpv6AddressInfo(2, 0)));
}

// ---- updateFlags ----------------------------------------------------------------

TEST_F(QelIpHooks, UpdateFlagsRereadsTheFlagsOfTheEntry) {
    FakeInterface eth = itf("eth0", 2, "192.0.2.5");
    eth.flags = IFF_BROADCAST;
    fake.interfaces = {itf("lo", 1, "127.0.0.1"), eth};
    QelIp ip;
    EXPECT_EQ(ip.ifParameters.at(2).flags, IFF_BROADCAST);
    fake.interfaces[1].flags = IFF_BROADCAST | IFF_UP;
    ip.updateFlags(ip.ifParameters.find(2));
    EXPECT_EQ(ip.ifParameters.at(2).flags, IFF_BROADCAST | IFF_UP);
}

TEST_F(QelIpHooks, UpdateFlagsSetsZeroWhenTheIoctlFails) {
    FakeInterface eth = itf("eth0", 2, "192.0.2.5");
    eth.flags = IFF_UP;
    fake.interfaces = {eth};
    QelIp ip;
    fake.failingIoctls.insert({"eth0", SIOCGIFFLAGS});
    ip.updateFlags(ip.ifParameters.find(2));
    EXPECT_EQ(ip.ifParameters.at(2).flags, 0);
}

TEST_F(QelIpHooks, UpdateFlagsLeavesNetlinkRecordsAlone) {
    fake.interfaces = {itf("eth0", 2, "192.0.2.5")};
    QelIp ip;
    QelIfParameter made(-1, "noname", IPv4Address());
    made.flags = 0x1234;
    auto entry = ip.ifParameters.emplace(40, made).first;
    const size_t ioctlsBefore = fake.ifconfRequests.size();
    ip.updateFlags(entry);
    EXPECT_EQ(entry->second.flags, 0x1234);
    EXPECT_EQ(fake.ifconfRequests.size(), ioctlsBefore);
}

// ---- operator== -------------------------------------------------------------------

class QelIpEquality : public QelIpHooks {
protected:
    std::unique_ptr<QelIp> build(std::vector<FakeInterface> interfaces, std::vector<FakeIfaddr> v6 = {}) {
        fake.interfaces = std::move(interfaces);
        fake.ifaddrs = std::move(v6);
        return std::make_unique<QelIp>();
    }
    static FakeInterface full(const std::string& name, int index, const std::string& ipv4) {
        FakeInterface f = itf(name, index, ipv4);
        f.netmask = "255.255.255.0";
        f.broadcast = "192.0.2.255";
        f.mac = {0x02, 0, 0, 0, 0, static_cast<uint8_t>(index)};
        f.flags = IFF_UP;
        return f;
    }
    static FakeIfaddr v6(const std::string& name, const std::string& address) {
        return {name, AF_INET6, address, "ffff:ffff:ffff:ffff::"};
    }
};

TEST_F(QelIpEquality, AnInventoryEqualsItself) {
    auto a = build({full("eth0", 2, "192.0.2.1")});
    EXPECT_TRUE(*a == *a);
}

TEST_F(QelIpEquality, IdenticalInventoriesOfOneInterfaceCompareUnequal) {
    auto a = build({full("eth0", 2, "192.0.2.1")});
    auto b = build({full("eth0", 2, "192.0.2.1")});
    EXPECT_FALSE(*a == *b);
}

TEST_F(QelIpEquality, IdenticalInventoriesOfTwoDifferentInterfacesCompareEqual) {
    auto a = build({full("eth0", 2, "192.0.2.1"), full("eth1", 3, "192.0.2.2")});
    auto b = build({full("eth0", 2, "192.0.2.1"), full("eth1", 3, "192.0.2.2")});
    EXPECT_TRUE(*a == *b);
    EXPECT_TRUE(*b == *a);
}

TEST_F(QelIpEquality, OddAndEvenCountsOfIdenticalInterfacesFollowTheWalk) {
    auto three = [&] {
        return build({full("a", 2, "192.0.2.1"), full("b", 3, "192.0.2.2"), full("c", 4, "192.0.2.3")});
    };
    auto a3 = three(), b3 = three();
    EXPECT_FALSE(*a3 == *b3);
    auto four = [&] {
        return build({full("a", 2, "192.0.2.1"), full("b", 3, "192.0.2.2"), full("c", 4, "192.0.2.3"),
                      full("d", 5, "192.0.2.4")});
    };
    auto a4 = four(), b4 = four();
    EXPECT_TRUE(*a4 == *b4);
}

TEST_F(QelIpEquality, EmptyInventoriesCompareEqual) {
    auto a = build({});
    auto b = build({});
    EXPECT_TRUE(*a == *b);
}

TEST_F(QelIpEquality, DifferentInterfaceCountsCompareUnequal) {
    auto a = build({full("eth0", 2, "192.0.2.1"), full("eth1", 3, "192.0.2.2")});
    auto b = build({full("eth0", 2, "192.0.2.1"), full("eth1", 3, "192.0.2.2"), full("eth2", 4, "192.0.2.3")});
    EXPECT_FALSE(*a == *b);
}

TEST_F(QelIpEquality, ChangeOnTheFirstOfTwoInterfacesIsNoticed) {
    auto a = build({full("eth0", 2, "192.0.2.1"), full("eth1", 3, "192.0.2.2")});
    auto b = build({full("eth0", 2, "192.0.2.9"), full("eth1", 3, "192.0.2.2")});
    EXPECT_FALSE(*a == *b);
}

TEST_F(QelIpEquality, ChangeOnTheSecondOfTwoInterfacesGoesUnnoticed) {
    // After the first pair matched, the mismatching second right record is
    // dropped and the second left record is tried against the first right one
    // only; that mismatch drops it too and the walk ends "equal".
    auto a = build({full("eth0", 2, "192.0.2.1"), full("eth1", 3, "192.0.2.2")});
    auto b = build({full("eth0", 2, "192.0.2.1"), full("eth1", 3, "192.0.2.9")});
    EXPECT_TRUE(*a == *b);
}

TEST_F(QelIpEquality, EachComparedFieldMakesARecordDifferent) {
    auto base = [] { return std::vector<FakeInterface>{full("eth0", 2, "192.0.2.1"), full("eth1", 3, "192.0.2.2")}; };
    auto a = build(base());
    {
        auto changed = base();
        changed[0].name = "eth7";
        auto b = build(changed);
        EXPECT_FALSE(*a == *b) << "name";
    }
    {
        auto changed = base();
        changed[0].netmask = "255.255.0.0";
        auto b = build(changed);
        EXPECT_FALSE(*a == *b) << "netmask";
    }
    {
        auto changed = base();
        changed[0].broadcast = "192.0.2.127";
        auto b = build(changed);
        EXPECT_FALSE(*a == *b) << "broadcast";
    }
    {
        auto changed = base();
        changed[0].mac[5] = 0x77;
        auto b = build(changed);
        EXPECT_FALSE(*a == *b) << "MAC";
    }
}

TEST_F(QelIpEquality, KeyPositionMtuFlagsAndIpv6MarkAreNotCompared) {
    auto a = build({full("eth0", 2, "192.0.2.1"), full("eth1", 3, "192.0.2.2")}, {v6("eth0", "::")});
    FakeInterface first = full("eth0", 5, "192.0.2.1");
    first.mac = {0x02, 0, 0, 0, 0, 2};
    first.mtu = 1280;
    first.flags = 0;
    FakeInterface second = full("eth1", 6, "192.0.2.2");
    second.mac = {0x02, 0, 0, 0, 0, 3};
    // A record in front, skipped at index 1, shifts positions.
    FakeInterface gone = itf("gone", 1, "192.0.2.200");
    fake.failingIoctls.insert({"gone", SIOCGIFINDEX});
    auto b = build({gone, first, second});
    ASSERT_TRUE(a->ifParameters.at(2).hasIpv6);
    ASSERT_FALSE(b->ifParameters.at(5).hasIpv6);
    ASSERT_NE(a->ifParameters.at(2).position, b->ifParameters.at(5).position);
    EXPECT_TRUE(*a == *b);
}

TEST_F(QelIpEquality, RightIpv6AddressesMustBeASubsetOfTheLeftOnes) {
    auto left = build({full("eth0", 2, "192.0.2.1"), full("eth1", 3, "192.0.2.2")},
                      {v6("eth0", "2001:db8::1"), v6("eth0", "2001:db8::2")});
    auto right = build({full("eth0", 2, "192.0.2.1"), full("eth1", 3, "192.0.2.2")},
                       {v6("eth0", "2001:db8::2")});
    // Left addresses left over are not noticed ...
    EXPECT_TRUE(*left == *right);
    // ... but a right address missing on the left is.
    EXPECT_FALSE(*right == *left);
}

TEST_F(QelIpEquality, EachLeftIpv6AddressMatchesOnlyOnce) {
    auto left = build({full("eth0", 2, "192.0.2.1"), full("eth1", 3, "192.0.2.2")},
                      {v6("eth0", "2001:db8::1")});
    auto right = build({full("eth0", 2, "192.0.2.1"), full("eth1", 3, "192.0.2.2")},
                       {v6("eth0", "2001:db8::1"), v6("eth0", "2001:db8::1")});
    EXPECT_FALSE(*left == *right);
    auto both = build({full("eth0", 2, "192.0.2.1"), full("eth1", 3, "192.0.2.2")},
                      {v6("eth0", "2001:db8::1"), v6("eth0", "2001:db8::1")});
    EXPECT_TRUE(*both == *right);
}

TEST_F(QelIpEquality, Ipv6OrderDoesNotMatter) {
    auto left = build({full("eth0", 2, "192.0.2.1"), full("eth1", 3, "192.0.2.2")},
                      {v6("eth0", "2001:db8::1"), v6("eth0", "fe80::1")});
    auto right = build({full("eth0", 2, "192.0.2.1"), full("eth1", 3, "192.0.2.2")},
                       {v6("eth0", "fe80::1"), v6("eth0", "2001:db8::1")});
    EXPECT_TRUE(*left == *right);
}

// ---- getIPv6AddrData (netlink) -------------------------------------------------------

// Builds netlink replies byte by byte.
class NetlinkReply {
public:
    std::vector<unsigned char> bytes;

    size_t beginMessage(uint32_t index, uint16_t type = RTM_NEWADDR) {
        const size_t start = bytes.size();
        nlmsghdr header{};
        header.nlmsg_type = type;
        header.nlmsg_flags = NLM_F_MULTI;
        append(&header, sizeof header);
        ifaddrmsg message{};
        message.ifa_family = AF_INET6;
        message.ifa_prefixlen = 64;
        message.ifa_index = index;
        append(&message, sizeof message);
        return start;
    }
    void attribute(uint16_t type, const void* data, size_t length) {
        rtattr a{};
        a.rta_len = static_cast<unsigned short>(RTA_LENGTH(length));
        a.rta_type = type;
        append(&a, sizeof a);
        append(data, length);
        while (bytes.size() % 4) bytes.push_back(0);
    }
    void address(uint16_t type, const char* text) {
        auto raw = v6bytes(text);
        attribute(type, raw.data(), raw.size());
    }
    void endMessage(size_t start) { setLength(start, static_cast<uint32_t>(bytes.size() - start)); }
    void setLength(size_t start, uint32_t length) { std::memcpy(&bytes[start], &length, sizeof length); }
    void append(const void* data, size_t length) {
        const auto* p = static_cast<const unsigned char*>(data);
        bytes.insert(bytes.end(), p, p + length);
    }
    void done() {
        nlmsghdr header{};
        header.nlmsg_len = 20;
        header.nlmsg_type = NLMSG_DONE;
        append(&header, sizeof header);
        int zero = 0;
        append(&zero, sizeof zero);
    }
};

class QelIpNetlink : public QelIpHooks {
protected:
    std::unique_ptr<QelIp> inventory() {
        fake.interfaces = {itf("lo", 1, "127.0.0.1"), itf("eth0", 2, "192.0.2.1")};
        return std::make_unique<QelIp>();
    }
};

TEST_F(QelIpNetlink, SendsThe24ByteAddressDumpRequest) {
    auto ip = inventory();
    ip->getIPv6AddrData();
    EXPECT_EQ(fake.socketCalls.back(), std::make_tuple(int(PF_NETLINK), int(SOCK_RAW), int(NETLINK_ROUTE)));
    ASSERT_EQ(fake.sent.size(), 24u);
    nlmsghdr header;
    std::memcpy(&header, fake.sent.data(), sizeof header);
    EXPECT_EQ(header.nlmsg_len, 24u);
    EXPECT_EQ(header.nlmsg_type, 22);
    EXPECT_EQ(header.nlmsg_flags, 0x0101);
    EXPECT_EQ(header.nlmsg_seq, 0u);
    EXPECT_EQ(header.nlmsg_pid, static_cast<uint32_t>(getpid()));
    EXPECT_EQ(fake.sent[16], 10);  // AF_INET6
    for (size_t i = 17; i < 24; ++i) EXPECT_EQ(fake.sent[i], 0) << i;
    EXPECT_EQ(std::count(fake.closed.begin(), fake.closed.end(), netlinkSocket), 1);
}

TEST_F(QelIpNetlink, PeeksWithABufferGrowingBy256BytesUntilTheReplyFits) {
    auto ip = inventory();
    NetlinkReply reply;
    while (reply.bytes.size() < 600) {
        size_t m = reply.beginMessage(2);
        reply.address(IFA_ADDRESS, "2001:db8::1");
        reply.endMessage(m);
    }
    fake.netlinkReply = reply.bytes;
    ip->getIPv6AddrData();
    std::vector<std::pair<size_t, int>> expected;
    for (size_t size = 256; size < reply.bytes.size() + 256; size += 256) expected.emplace_back(size, MSG_PEEK);
    EXPECT_EQ(fake.recvCalls, expected);
}

TEST_F(QelIpNetlink, ReplyOfExactlyTheBufferSizeCausesOneMoreRound) {
    auto ip = inventory();
    NetlinkReply reply;
    size_t m = reply.beginMessage(2);
    std::vector<unsigned char> filler(256 - 24 - 4, 0);
    reply.attribute(99, filler.data(), filler.size());
    reply.endMessage(m);
    ASSERT_EQ(reply.bytes.size(), 256u);
    fake.netlinkReply = reply.bytes;
    ip->getIPv6AddrData();
    EXPECT_EQ(fake.recvCalls, (std::vector<std::pair<size_t, int>>{{256, MSG_PEEK}, {512, MSG_PEEK}}));
}

TEST_F(QelIpNetlink, EachAttributeAddsARecordOfItsType) {
    auto ip = inventory();
    const size_t before = ip->ifParameters.at(2).ipv6Addresses.size();
    NetlinkReply reply;
    size_t m = reply.beginMessage(2);
    reply.address(IFA_ADDRESS, "2001:db8::1");
    reply.address(IFA_LOCAL, "2001:db8::2");
    reply.attribute(IFA_LABEL, "eth0", 5);
    reply.address(IFA_BROADCAST, "2001:db8::3");
    reply.address(IFA_ANYCAST, "2001:db8::4");
    ifa_cacheinfo cache{};
    reply.attribute(IFA_CACHEINFO, &cache, sizeof cache);
    reply.endMessage(m);
    reply.done();
    fake.netlinkReply = reply.bytes;
    ip->getIPv6AddrData();

    const auto& list = ip->ifParameters.at(2).ipv6Addresses;
    ASSERT_EQ(list.size(), before + 6);
    EXPECT_EQ(networkOf(list[before + 0].address), v6bytes("2001:db8::1"));
    EXPECT_EQ(list[before + 0].addressType, 6u);
    EXPECT_EQ(networkOf(list[before + 1].address), v6bytes("2001:db8::2"));
    EXPECT_EQ(list[before + 1].addressType, 5u);
    EXPECT_TRUE(isZeroRecord(list[before + 2]));  // the label
    EXPECT_EQ(networkOf(list[before + 3].address), v6bytes("2001:db8::3"));
    EXPECT_EQ(list[before + 3].addressType, 3u);
    EXPECT_EQ(networkOf(list[before + 4].address), v6bytes("2001:db8::4"));
    EXPECT_EQ(list[before + 4].addressType, 4u);
    EXPECT_TRUE(isZeroRecord(list[before + 5]));  // unknown attribute
    for (size_t i = before; i < list.size(); ++i) EXPECT_EQ(list[i].prefixLength, 0u) << i;
    EXPECT_EQ(ip->numberOfInterfaces, 2u);
    EXPECT_EQ(ip->ifParameters.at(2).name, "eth0");
}

TEST_F(QelIpNetlink, UnknownIndexGetsANonameRecord) {
    auto ip = inventory();
    NetlinkReply reply;
    size_t m = reply.beginMessage(7);
    reply.address(IFA_ADDRESS, "fd00::7");
    reply.attribute(IFA_LABEL, "tun7", 5);
    reply.endMessage(m);
    fake.netlinkReply = reply.bytes;
    ip->getIPv6AddrData();
    ASSERT_EQ(ip->ifParameters.count(7), 1u);
    const QelIfParameter& r = ip->ifParameters.at(7);
    EXPECT_EQ(r.position, -1);
    EXPECT_EQ(r.name, "noname");  // not empty, so the label does not rename it
    EXPECT_EQ(octetsOf(r.ipv4Address), (std::array<uint8_t, 4>{}));
    EXPECT_EQ(r.mtu, 0u);
    EXPECT_EQ(r.flags, 0);
    EXPECT_FALSE(r.hasIpv6);
    ASSERT_EQ(r.ipv6Addresses.size(), 2u);
    EXPECT_EQ(networkOf(r.ipv6Addresses[0].address), v6bytes("fd00::7"));
    EXPECT_EQ(ip->numberOfInterfaces, 3u);
}

TEST_F(QelIpNetlink, LabelNamesARecordWithoutName) {
    fake.interfaces = {itf("", 5, "192.0.2.9")};
    QelIp ip;
    ASSERT_EQ(ip.ifParameters.at(5).name, "");
    NetlinkReply reply;
    size_t m = reply.beginMessage(5);
    reply.attribute(IFA_LABEL, "lbl0", 5);
    reply.attribute(IFA_LABEL, "second", 7);
    reply.endMessage(m);
    fake.netlinkReply = reply.bytes;
    ip.getIPv6AddrData();
    EXPECT_EQ(ip.ifParameters.at(5).name, "lbl0");
}

TEST_F(QelIpNetlink, LabelWithoutTerminatorStopsAtTheAttributeEnd) {
    fake.interfaces = {itf("", 5, "192.0.2.9")};
    QelIp ip;
    NetlinkReply reply;
    size_t m = reply.beginMessage(5);
    reply.attribute(IFA_LABEL, "abcd", 4);  // no NUL inside the attribute
    reply.endMessage(m);
    fake.netlinkReply = reply.bytes;
    ip.getIPv6AddrData();
    EXPECT_EQ(ip.ifParameters.at(5).name, "abcd");
}

TEST_F(QelIpNetlink, MessagesAreWalkedAtFourByteAlignment) {
    auto ip = inventory();
    NetlinkReply reply;
    size_t m = reply.beginMessage(2);
    reply.address(IFA_ADDRESS, "2001:db8::1");
    reply.bytes.push_back(0xEE);  // an odd length: the next message starts 3 bytes later
    reply.endMessage(m);
    reply.bytes.insert(reply.bytes.end(), 3, 0);
    size_t n = reply.beginMessage(1);
    reply.address(IFA_ADDRESS, "::1");
    reply.endMessage(n);
    fake.netlinkReply = reply.bytes;
    ip->getIPv6AddrData();
    ASSERT_EQ(ip->ifParameters.at(2).ipv6Addresses.size(), 1u);
    ASSERT_EQ(ip->ifParameters.at(1).ipv6Addresses.size(), 1u);
    EXPECT_EQ(networkOf(ip->ifParameters.at(1).ipv6Addresses[0].address), v6bytes("::1"));
}

TEST_F(QelIpNetlink, TruncatedMessageThrowsBufferLengthError) {
    auto ip = inventory();
    NetlinkReply reply;
    size_t m = reply.beginMessage(2);
    reply.address(IFA_ADDRESS, "2001:db8::1");
    reply.endMessage(m);
    reply.setLength(m, 100);  // claims more than the 44 bytes received
    fake.netlinkReply = reply.bytes;
    QelIpError error = expectError([&] { ip->getIPv6AddrData(); });
    EXPECT_EQ(error.errorText, "buffer length error: " + std::string(std::strerror(0)));
    EXPECT_EQ(error.fileName, "qelIp");
}

TEST_F(QelIpNetlink, MessageLengthBelowSixteenThrowsBufferLengthError) {
    auto ip = inventory();
    NetlinkReply reply;
    size_t m = reply.beginMessage(2);
    reply.address(IFA_ADDRESS, "2001:db8::1");
    reply.endMessage(m);
    reply.setLength(m, 8);
    fake.netlinkReply = reply.bytes;
    QelIpError error = expectError([&] { ip->getIPv6AddrData(); });
    EXPECT_EQ(error.errorText, "buffer length error: " + std::string(std::strerror(0)));
}

TEST_F(QelIpNetlink, AFailureLeavesTheRecordsFilledSoFar) {
    auto ip = inventory();
    NetlinkReply reply;
    size_t m = reply.beginMessage(9);
    reply.address(IFA_ADDRESS, "2001:db8::9");
    reply.endMessage(m);
    size_t bad = reply.beginMessage(2);
    reply.endMessage(bad);
    reply.setLength(bad, 4000);
    fake.netlinkReply = reply.bytes;
    expectError([&] { ip->getIPv6AddrData(); });
    ASSERT_EQ(ip->ifParameters.count(9), 1u);
    EXPECT_EQ(ip->ifParameters.at(9).ipv6Addresses.size(), 1u);
    EXPECT_EQ(ip->numberOfInterfaces, 3u);
}

TEST_F(QelIpNetlink, SixteenBytesOrFewerLeftEndTheWalkNormally) {
    auto ip = inventory();
    NetlinkReply reply;
    size_t m = reply.beginMessage(2);
    reply.address(IFA_ADDRESS, "2001:db8::1");
    reply.endMessage(m);
    reply.bytes.insert(reply.bytes.end(), 16, 0xFF);  // a broken header, too short to be looked at
    fake.netlinkReply = reply.bytes;
    ip->getIPv6AddrData();
    EXPECT_EQ(ip->ifParameters.at(2).ipv6Addresses.size(), 1u);
}

TEST_F(QelIpNetlink, ClosingDoneMessageAddsNoRecord) {
    auto ip = inventory();
    NetlinkReply reply;
    reply.done();
    fake.netlinkReply = reply.bytes;
    ip->getIPv6AddrData();
    EXPECT_EQ(ip->ifParameters.size(), 2u);
    EXPECT_EQ(ip->numberOfInterfaces, 2u);
}

TEST_F(QelIpNetlink, AttributeLongerThanItsMessageEndsTheAttributeWalk) {
    auto ip = inventory();
    NetlinkReply reply;
    size_t m = reply.beginMessage(2);
    reply.address(IFA_ADDRESS, "2001:db8::1");
    rtattr broken{};
    broken.rta_len = 200;
    broken.rta_type = IFA_ADDRESS;
    reply.append(&broken, sizeof broken);
    reply.append(v6bytes("2001:db8::2").data(), 16);
    reply.endMessage(m);
    size_t n = reply.beginMessage(1);  // the walk goes on with the next message
    reply.address(IFA_ADDRESS, "::1");
    reply.endMessage(n);
    fake.netlinkReply = reply.bytes;
    ip->getIPv6AddrData();
    const auto& list = ip->ifParameters.at(2).ipv6Addresses;
    ASSERT_EQ(list.size(), 1u);
    EXPECT_EQ(networkOf(list[0].address), v6bytes("2001:db8::1"));
    EXPECT_EQ(ip->ifParameters.at(1).ipv6Addresses.size(), 1u);
}

TEST_F(QelIpNetlink, AttributeLongerThanTheReceivedBytesReadsNothingBehindThem) {
    auto ip = inventory();
    NetlinkReply reply;
    size_t m = reply.beginMessage(2);
    rtattr broken{};
    broken.rta_len = 20;  // the 16 address bytes are missing
    broken.rta_type = IFA_ADDRESS;
    reply.append(&broken, sizeof broken);
    reply.endMessage(m);
    fake.netlinkReply = reply.bytes;
    ip->getIPv6AddrData();
    EXPECT_TRUE(ip->ifParameters.at(2).ipv6Addresses.empty());
}

TEST_F(QelIpNetlink, AttributeLengthBelowFourEndsTheAttributeWalk) {
    auto ip = inventory();
    NetlinkReply reply;
    size_t m = reply.beginMessage(2);
    rtattr broken{};
    broken.rta_len = 2;
    broken.rta_type = IFA_ADDRESS;
    reply.append(&broken, sizeof broken);
    reply.address(IFA_ADDRESS, "2001:db8::1");
    reply.endMessage(m);
    fake.netlinkReply = reply.bytes;
    ip->getIPv6AddrData();
    EXPECT_TRUE(ip->ifParameters.at(2).ipv6Addresses.empty());
}

TEST_F(QelIpNetlink, AddressAttributeTooShortForAnAddressAddsAZeroRecord) {
    auto ip = inventory();
    NetlinkReply reply;
    size_t m = reply.beginMessage(2);
    const unsigned char four[4] = {0x20, 0x01, 0x0d, 0xb8};
    reply.attribute(IFA_ADDRESS, four, sizeof four);
    reply.endMessage(m);
    fake.netlinkReply = reply.bytes;
    ip->getIPv6AddrData();
    ASSERT_EQ(ip->ifParameters.at(2).ipv6Addresses.size(), 1u);
    EXPECT_TRUE(isZeroRecord(ip->ifParameters.at(2).ipv6Addresses[0]));
}

TEST_F(QelIpNetlink, MessageShorterThanAnAddressHeaderIsSkipped) {
    auto ip = inventory();
    NetlinkReply reply;
    nlmsghdr header{};
    header.nlmsg_len = 20;
    header.nlmsg_type = RTM_NEWADDR;
    reply.append(&header, sizeof header);
    const uint32_t index = 9;
    reply.append(&index, sizeof index);  // where a full message would keep ifa_family..
    fake.netlinkReply = reply.bytes;
    ip->getIPv6AddrData();
    EXPECT_EQ(ip->ifParameters.size(), 2u);
}

TEST_F(QelIpNetlink, FailedReceiveAddsNothing) {
    auto ip = inventory();
    fake.recvErrno = EAGAIN;
    ip->getIPv6AddrData();
    EXPECT_EQ(ip->ifParameters.size(), 2u);
    EXPECT_EQ(fake.recvCalls.size(), 1u);
}

TEST_F(QelIpNetlink, SocketFailureThrows) {
    auto ip = inventory();
    fake.netlinkSocketErrno = EACCES;
    QelIpError error = expectError([&] { ip->getIPv6AddrData(); });
    EXPECT_EQ(error.errorText, errnoText("Could not create socket for PF_NETLINK: ", EACCES));
}

TEST_F(QelIpNetlink, SendFailureThrows) {
    auto ip = inventory();
    fake.sendErrno = ENOBUFS;
    QelIpError error = expectError([&] { ip->getIPv6AddrData(); });
    EXPECT_EQ(error.errorText, errnoText("send call returned with error: ", ENOBUFS));
}

TEST_F(QelIpNetlink, CloseFailureThrows) {
    auto ip = inventory();
    fake.closeErrno = EIO;
    QelIpError error = expectError([&] { ip->getIPv6AddrData(); });
    EXPECT_EQ(error.errorText, errnoText("Could not close socket: ", EIO));
}

TEST(QelIpError, FourArgumentFormWritesTheNumberOverTheMessage) {
    QelIpError error("reply message has wrong type: ", "qelIp", 3, 4);
    EXPECT_EQ(error.errorText, "4eply message has wrong type: ");
    QelIpError copy(error);
    EXPECT_EQ(copy.errorText, error.errorText);
    EXPECT_EQ(copy.fileName, "qelIp");
    EXPECT_EQ(copy.lineNumber, 3u);
}

// ---- Against the kernel, in network namespaces ------------------------------------

using qelTest::NetNamespace;
using qelTest::OracleInterface;
using qelTest::runInNamespace;

class QelIpKernel : public ::testing::Test {
protected:
    void SetUp() override {
        const std::string problem = qelTest::rootProblem();
        ASSERT_TRUE(problem.empty()) << problem;
    }

    struct Snapshot {
        std::unique_ptr<QelIp> ip;
        std::map<unsigned, OracleInterface> oracle;
    };

    // The inventory, bracketed by two identical `ip -j addr show` outputs so
    // that nothing changed while it was taken (carrier events are delivered
    // asynchronously by the kernel). Retries for at most 20 s.
    static Snapshot stableSnapshot(const NetNamespace& ns) {
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
        while (true) {
            const std::string before = ns.ipJson("addr show");
            auto ip = runInNamespace(ns, [] { return std::make_unique<QelIp>(); });
            const std::string after = ns.ipJson("addr show");
            if (before == after) return {std::move(ip), qelTest::parseIpAddrShow(after)};
            if (std::chrono::steady_clock::now() > deadline)
                throw std::runtime_error("interfaces kept changing in " + ns.name());
        }
    }

    // The type the inventory must give an address the tool describes.
    static unsigned expectedType(const qelTest::OracleIpv6& a) {
        in6_addr raw;
        std::memcpy(&raw, a.local.data(), 16);
        if (IN6_IS_ADDR_LOOPBACK(&raw)) return 1;
        if (IN6_IS_ADDR_MULTICAST(&raw)) return 2;
        if (IN6_IS_ADDR_LINKLOCAL(&raw)) return 5;
        if (IN6_IS_ADDR_SITELOCAL(&raw)) return 8;
        if (IN6_IS_ADDR_V4MAPPED(&raw)) return 10;
        if (IN6_IS_ADDR_V4COMPAT(&raw)) return 11;
        return 6;
    }

    // Every record agrees with the tool; with `complete`, every interface the
    // tool lists with an IPv4 address is in the inventory.
    static void expectMatches(const QelIp& ip, const std::map<unsigned, OracleInterface>& oracle,
                              bool complete) {
        std::set<int> positions;
        for (const auto& item : ip.ifParameters) {
            const unsigned index = item.first;
            const QelIfParameter& r = item.second;
            SCOPED_TRACE("interface " + r.name + " index " + std::to_string(index));
            auto found = oracle.find(index);
            ASSERT_NE(found, oracle.end());
            const OracleInterface& o = found->second;
            ASSERT_EQ(o.ipv4.size(), 1u) << "the fixtures give each listed interface one IPv4 address";
            EXPECT_EQ(r.name, o.name);
            EXPECT_EQ(r.name, o.ipv4[0].label);
            EXPECT_EQ(octetsOf(r.ipv4Address), o.ipv4[0].local);
            EXPECT_EQ(octetsOf(r.netmask), qelTest::maskFromPrefix(o.ipv4[0].prefixLength));
            EXPECT_EQ(octetsOf(r.broadcastAddress), o.ipv4[0].broadcast);
            EXPECT_EQ(macOf(r.macAddress), o.mac);
            EXPECT_EQ(r.mtu, o.mtu);
            EXPECT_EQ(r.flags, static_cast<unsigned short>(o.flags & 0xFFFF));
            EXPECT_EQ(r.hasIpv6, !o.ipv6.empty());
            EXPECT_TRUE(positions.insert(r.position).second);
            EXPECT_GE(r.position, 0);

            std::multiset<std::tuple<std::array<uint8_t, 16>, unsigned, unsigned, unsigned>> got, want;
            for (const QelIpv6AddressInfo& a : r.ipv6Addresses)
                got.emplace(networkOf(a.address), a.prefixLength, a.addressType, a.reserved);
            for (const qelTest::OracleIpv6& a : o.ipv6) want.emplace(a.local, a.prefixLength, expectedType(a), 0u);
            EXPECT_EQ(got, want);

            EXPECT_EQ(ip.isLoopback(index), (o.flags & IFF_LOOPBACK) != 0);
            EXPECT_EQ(octetsOf(ip.getIpv4Address(index)), o.ipv4[0].local);
            EXPECT_EQ(macOf(ip.getMacAddress(index)), o.mac);
            EXPECT_EQ(ip.getNumberOfIpv6Addresses(index), o.ipv6.size());
        }
        if (complete) {
            std::set<unsigned> listed, expected;
            for (const auto& item : ip.ifParameters) listed.insert(item.first);
            for (const auto& item : oracle)
                if (!item.second.ipv4.empty()) expected.insert(item.first);
            EXPECT_EQ(listed, expected);
            EXPECT_EQ(ip.numberOfInterfaces, expected.size());
            for (int p = 0; p < static_cast<int>(positions.size()); ++p) EXPECT_EQ(positions.count(p), 1u) << p;
        }
    }

    // lo, a bridge without ports, a veth pair with a macvlan on it, and a
    // second pair left down: every kind of address the inventory tells apart.
    static void populateMixed(const NetNamespace& ns) {
        ns.batch({
            "link set lo up",
            "link add name br0 type bridge",
            "link set br0 up",
            "addr add 198.18.1.1/24 brd + dev br0",
            "addr add 2001:db8:1::1/64 dev br0 nodad",
            "addr add fe80::1/64 dev br0 nodad",
            "link add name va type veth peer name vb",
            "link set va mtu 1400",
            "link set va up",
            "link set vb up",
            "addr add 198.18.2.1/25 dev va",
            "addr add fd00:2::1/48 dev va nodad",
            "addr add fec0::5/64 dev va nodad",
            "addr add ::ffff:10.0.0.1/96 dev va nodad",
            "addr add ::10.0.0.1/96 dev va nodad",
            "addr add fe80::2:1/64 dev va nodad",
            "link add name mv0 link va type macvlan mode bridge",
            "link set mv0 address 02:00:00:00:00:42",
            "link set mv0 up",
            "addr add 198.18.3.5/30 brd + dev mv0",
            "addr add 2001:db8:3::7/128 dev mv0 nodad",
            "addr add fd00:3::7/60 dev mv0 nodad",
            "link add name vc type veth peer name vd",
            "link set vc arp off",
            "link set vc multicast off",
            "addr add 198.18.4.1/32 dev vc",
            "addr add 2001:db8:4::1/64 dev vd nodad",
        });
    }

    // `count` macvlans on one veth end, each with an IPv4 address, plus lo.
    static void populateMacvlans(const NetNamespace& ns, int count) {
        std::vector<std::string> lines = {"link set lo up", "link add name base type veth peer name basep"};
        for (int i = 0; i < count; ++i) {
            const std::string name = "m" + std::to_string(i);
            lines.push_back("link add name " + name + " link base type macvlan mode bridge");
            lines.push_back("addr add 198.18." + std::to_string(i / 250) + "." + std::to_string(i % 250 + 1) +
                            "/16 dev " + name);
        }
        ns.batch(lines);
    }
};

TEST_F(QelIpKernel, InventoryMatchesWhatIpReports) {
    NetNamespace ns;
    populateMixed(ns);
    Snapshot s = stableSnapshot(ns);
    expectMatches(*s.ip, s.oracle, true);
    // The fixture is what it claims to be: the down pair's IPv6-only end is
    // not listed, the loopback is, and the special address types came through.
    EXPECT_EQ(s.ip->numberOfInterfaces, 5u);
    std::set<unsigned> types;
    for (const auto& item : s.ip->ifParameters)
        for (const auto& a : item.second.ipv6Addresses) types.insert(a.addressType);
    EXPECT_EQ(types, (std::set<unsigned>{1, 5, 6, 8, 10, 11}));
}

TEST_F(QelIpKernel, MoreInterfacesThanTheFirstRequestHoldsAreAllListed) {
    NetNamespace ns;
    populateMacvlans(ns, 15);
    Snapshot s = stableSnapshot(ns);
    EXPECT_EQ(s.ip->numberOfInterfaces, 16u);
    expectMatches(*s.ip, s.oracle, true);
}

TEST_F(QelIpKernel, ListingStopsAt513EntriesOnAHostWithMore) {
    NetNamespace ns;
    populateMacvlans(ns, 520);
    Snapshot s = stableSnapshot(ns);
    size_t withIpv4 = 0;
    for (const auto& item : s.oracle) withIpv4 += item.second.ipv4.empty() ? 0 : 1;
    ASSERT_EQ(withIpv4, 521u);
    EXPECT_EQ(s.ip->numberOfInterfaces, 513u);
    EXPECT_EQ(s.ip->ifParameters.size(), 513u);
    expectMatches(*s.ip, s.oracle, false);
    // The kernel lists interfaces in creation order, which in a fresh
    // namespace is index order: the last eight are the ones left out.
    std::vector<unsigned> withAddress;
    for (const auto& item : s.oracle)
        if (!item.second.ipv4.empty()) withAddress.push_back(item.first);
    std::vector<unsigned> listed;
    for (const auto& item : s.ip->ifParameters) listed.push_back(item.first);
    EXPECT_EQ(listed, std::vector<unsigned>(withAddress.begin(), withAddress.begin() + 513));
}

TEST_F(QelIpKernel, SecondIpv4AddressOnOneInterfaceIsADuplicateIndex) {
    NetNamespace ns;
    ns.batch({"link add name br0 type bridge", "addr add 198.18.1.1/24 dev br0",
              "addr add 198.18.9.1/24 dev br0"});
    try {
        runInNamespace(ns, [] { return std::make_unique<QelIp>(); });
        FAIL() << "no QelIpError";
    } catch (const QelIpError& error) {
        EXPECT_EQ(error.errorText, "if entry for br0 is already existing.");
    }
}

TEST_F(QelIpKernel, NetlinkAddressesMatchWhatIpReportsForIpv6) {
    NetNamespace ns;
    populateMixed(ns);
    struct Result {
        std::unique_ptr<QelIp> ip;
        std::map<unsigned, size_t> sizesBefore;
        unsigned countBefore = 0;
    };
    std::string before, after;
    Result result;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    do {
        before = ns.ipJson("-6 addr show");
        result = runInNamespace(ns, [] {
            Result r;
            r.ip = std::make_unique<QelIp>();
            for (const auto& item : r.ip->ifParameters) r.sizesBefore[item.first] = item.second.ipv6Addresses.size();
            r.countBefore = r.ip->numberOfInterfaces;
            r.ip->getIPv6AddrData();
            return r;
        });
        after = ns.ipJson("-6 addr show");
        ASSERT_LT(std::chrono::steady_clock::now(), deadline) << "addresses kept changing";
    } while (before != after);

    const auto oracle = qelTest::parseIpAddrShow(after);
    std::set<unsigned> withIpv6;
    for (const auto& item : oracle)
        if (!item.second.ipv6.empty()) withIpv6.insert(item.first);
    ASSERT_FALSE(withIpv6.empty());

    unsigned created = 0;
    for (const auto& item : result.ip->ifParameters) {
        const unsigned index = item.first;
        const QelIfParameter& r = item.second;
        SCOPED_TRACE("index " + std::to_string(index));
        const bool existed = result.sizesBefore.count(index) != 0;
        if (!existed) {
            ++created;
            EXPECT_EQ(r.name, "noname");
            EXPECT_EQ(r.position, -1);
        }
        const size_t from = existed ? result.sizesBefore.at(index) : 0;
        std::vector<std::array<uint8_t, 16>> got;
        for (size_t i = from; i < r.ipv6Addresses.size(); ++i) {
            const QelIpv6AddressInfo& a = r.ipv6Addresses[i];
            if (isZeroRecord(a)) continue;  // cache info, flags and the like
            EXPECT_EQ(a.addressType, 6u);
            EXPECT_EQ(a.prefixLength, 0u);
            got.push_back(networkOf(a.address));
        }
        std::vector<std::array<uint8_t, 16>> want;
        auto o = oracle.find(index);
        if (o != oracle.end())
            for (const auto& a : o->second.ipv6) want.push_back(a.local);
        EXPECT_EQ(got, want);
    }
    for (unsigned index : withIpv6) EXPECT_EQ(result.ip->ifParameters.count(index), 1u) << index;
    EXPECT_GE(created, 1u) << "the down pair's IPv6-only end comes only from netlink";
    EXPECT_EQ(result.ip->numberOfInterfaces, result.countBefore + created);
}

TEST_F(QelIpKernel, UpdateFlagsSeesALinkComingUp) {
    NetNamespace ns;
    ns.batch({"link add name br0 type bridge", "addr add 198.18.1.1/24 dev br0"});
    auto ip = runInNamespace(ns, [] { return std::make_unique<QelIp>(); });
    ASSERT_EQ(ip->ifParameters.size(), 1u);
    auto entry = ip->ifParameters.begin();
    EXPECT_EQ(entry->second.flags & IFF_UP, 0);
    ns.run("link set br0 up");
    // The socket lives in the namespace, so this works from any thread.
    ip->updateFlags(entry);
    EXPECT_NE(entry->second.flags & IFF_UP, 0);
    ns.run("link del br0");
    ip->updateFlags(entry);
    EXPECT_EQ(entry->second.flags, 0);
}

TEST_F(QelIpKernel, TwoSnapshotsOfTwoInterfacesAreEqualAndOfOneAreNot) {
    NetNamespace two;
    two.batch({"link set lo up", "link add name br0 type bridge", "addr add 198.18.1.1/24 brd + dev br0",
               "addr add 2001:db8:1::1/64 dev br0 nodad"});
    Snapshot a = stableSnapshot(two);
    Snapshot b = stableSnapshot(two);
    ASSERT_EQ(a.ip->numberOfInterfaces, 2u);
    EXPECT_TRUE(*a.ip == *b.ip);

    two.batch({"link add name br1 type bridge", "addr add 198.18.2.1/24 dev br1"});
    Snapshot c = stableSnapshot(two);
    EXPECT_FALSE(*a.ip == *c.ip);

    NetNamespace one;
    one.batch({"link add name br0 type bridge", "addr add 198.18.1.1/24 dev br0"});
    Snapshot d = stableSnapshot(one);
    Snapshot e = stableSnapshot(one);
    ASSERT_EQ(d.ip->numberOfInterfaces, 1u);
    EXPECT_FALSE(*d.ip == *e.ip);
}

}  // namespace
