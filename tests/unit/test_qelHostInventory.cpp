// The complete network inventory: crafted netlink data through the platform
// seam (every truncation, bad lengths, wrong sequence or port, errors,
// interrupted dumps), and real network namespaces checked field by field
// against `ip -j addr show`.
#include "qelHostInventory.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <linux/if_addr.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>
#include <deque>
#include <functional>
#include <limits>
#include <map>
#include <string>
#include <vector>

#include "netns.h"
#include "netnsOracle.h"
#include "qelPlatform.h"

using qelHostInventory::Interface;
using qelHostInventory::Ipv4AddressEntry;
using qelHostInventory::Ipv6AddressEntry;
using qelHostInventory::QelHostInventory;
using qelHostInventory::QelHostInventoryError;

namespace {

using Bytes = std::vector<unsigned char>;

// ---------------------------------------------------------------------------
// Message builders.

void appendAttribute(Bytes& out, unsigned short type, const void* data, size_t length) {
    struct rtattr header;
    header.rta_len = static_cast<unsigned short>(RTA_LENGTH(length));
    header.rta_type = type;
    const size_t start = out.size();
    out.resize(start + RTA_SPACE(length), 0);
    std::memcpy(out.data() + start, &header, sizeof header);
    std::memcpy(out.data() + start + RTA_LENGTH(0), data, length);
}

void appendString(Bytes& out, unsigned short type, const std::string& text) {
    appendAttribute(out, type, text.c_str(), text.size() + 1);
}

void appendU32(Bytes& out, unsigned short type, std::uint32_t value) { appendAttribute(out, type, &value, sizeof value); }

// One netlink message; seq and port are filled in when it is served.
struct Message {
    std::uint16_t type = 0;
    std::uint16_t flags = NLM_F_MULTI;
    Bytes payload;
};

Message linkMessage(int index, const std::string& name, const std::vector<unsigned char>& mac, unsigned mtu,
                    unsigned flags) {
    Message m;
    m.type = RTM_NEWLINK;
    struct ifinfomsg info;
    std::memset(&info, 0, sizeof info);
    info.ifi_family = AF_UNSPEC;
    info.ifi_index = index;
    info.ifi_flags = flags;
    m.payload.resize(NLMSG_ALIGN(sizeof info));
    std::memcpy(m.payload.data(), &info, sizeof info);
    appendString(m.payload, IFLA_IFNAME, name);
    appendU32(m.payload, IFLA_MTU, mtu);
    if (!mac.empty()) appendAttribute(m.payload, IFLA_ADDRESS, mac.data(), mac.size());
    return m;
}

Message ipv4Message(int index, const std::string& address, unsigned prefix, const std::string& broadcast,
                    const std::string& label, std::uint32_t flags) {
    Message m;
    m.type = RTM_NEWADDR;
    struct ifaddrmsg info;
    std::memset(&info, 0, sizeof info);
    info.ifa_family = AF_INET;
    info.ifa_prefixlen = static_cast<unsigned char>(prefix);
    info.ifa_flags = static_cast<unsigned char>(flags);
    info.ifa_index = static_cast<unsigned>(index);
    m.payload.resize(NLMSG_ALIGN(sizeof info));
    std::memcpy(m.payload.data(), &info, sizeof info);
    unsigned char bytes[4];
    inet_pton(AF_INET, address.c_str(), bytes);
    appendAttribute(m.payload, IFA_ADDRESS, bytes, 4);
    appendAttribute(m.payload, IFA_LOCAL, bytes, 4);
    if (!broadcast.empty()) {
        inet_pton(AF_INET, broadcast.c_str(), bytes);
        appendAttribute(m.payload, IFA_BROADCAST, bytes, 4);
    }
    if (!label.empty()) appendString(m.payload, IFA_LABEL, label);
    appendU32(m.payload, IFA_FLAGS, flags);
    return m;
}

Message ipv6Message(int index, const std::string& address, unsigned prefix, unsigned scope, std::uint32_t flags) {
    Message m;
    m.type = RTM_NEWADDR;
    struct ifaddrmsg info;
    std::memset(&info, 0, sizeof info);
    info.ifa_family = AF_INET6;
    info.ifa_prefixlen = static_cast<unsigned char>(prefix);
    info.ifa_flags = static_cast<unsigned char>(flags & 0xFF);
    info.ifa_scope = static_cast<unsigned char>(scope);
    info.ifa_index = static_cast<unsigned>(index);
    m.payload.resize(NLMSG_ALIGN(sizeof info));
    std::memcpy(m.payload.data(), &info, sizeof info);
    unsigned char bytes[16];
    inet_pton(AF_INET6, address.c_str(), bytes);
    appendAttribute(m.payload, IFA_ADDRESS, bytes, 16);
    appendU32(m.payload, IFA_FLAGS, flags);
    return m;
}

Message doneMessage() {
    Message m;
    m.type = NLMSG_DONE;
    m.payload.resize(sizeof(int), 0);
    return m;
}

Message errorMessage(int error) {
    Message m;
    m.type = NLMSG_ERROR;
    struct nlmsgerr e;
    std::memset(&e, 0, sizeof e);
    e.error = error;
    m.payload.resize(sizeof e);
    std::memcpy(m.payload.data(), &e, sizeof e);
    return m;
}

constexpr std::uint32_t kPort = 4242;

// A datagram of messages, each stamped with a sequence number and port id.
Bytes datagram(const std::vector<Message>& messages, std::uint32_t sequence, std::uint32_t port = kPort) {
    Bytes out;
    for (const Message& m : messages) {
        struct nlmsghdr header;
        header.nlmsg_len = static_cast<std::uint32_t>(NLMSG_LENGTH(m.payload.size()));
        header.nlmsg_type = m.type;
        header.nlmsg_flags = m.flags;
        header.nlmsg_seq = sequence;
        header.nlmsg_pid = port;
        const size_t start = out.size();
        out.resize(start + NLMSG_SPACE(m.payload.size()), 0);
        std::memcpy(out.data() + start, &header, sizeof header);
        if (!m.payload.empty())
            std::memcpy(out.data() + start + NLMSG_HDRLEN, m.payload.data(), m.payload.size());
    }
    return out;
}

// ---------------------------------------------------------------------------
// A kernel that answers from a script: for each request (in order) a
// function that gives the datagrams of the reply, given the request's
// sequence number.

using Reply = std::function<std::vector<Bytes>(std::uint32_t sequence)>;

class ScriptedNetlink : public qelPlatform::Platform {
public:
    static constexpr int kFd = 777;

    std::vector<Reply> replies;
    std::vector<std::uint16_t> requestTypes;
    std::vector<std::uint32_t> requestSequences;
    std::vector<std::uint16_t> requestFlags;
    int failSocketWith = 0;
    int interruptedReceives = 0;  // recv calls that fail with EINTR first
    bool closed = false;
    // Filled behind each datagram in the caller's buffer: a parser that read
    // past what was received would see a message that does not belong.
    unsigned char poison = 0x5A;

    int socket(int domain, int type, int protocol) const override {
        if (domain != AF_NETLINK || (type & 0xF) != SOCK_RAW || protocol != NETLINK_ROUTE) {
            errno = EINVAL;
            return -1;
        }
        if (failSocketWith != 0) {
            errno = failSocketWith;
            return -1;
        }
        return kFd;
    }
    int getsockname(int fd, struct sockaddr* address, socklen_t* length) const override {
        if (fd != kFd) return Platform::getsockname(fd, address, length);
        struct sockaddr_nl self;
        std::memset(&self, 0, sizeof self);
        self.nl_family = AF_NETLINK;
        self.nl_pid = kPort;
        std::memcpy(address, &self, std::min<size_t>(*length, sizeof self));
        *length = sizeof self;
        return 0;
    }
    ssize_t send(int fd, const void* data, size_t length, int flags) const override {
        if (fd != kFd) return Platform::send(fd, data, length, flags);
        auto* self = const_cast<ScriptedNetlink*>(this);
        struct nlmsghdr header;
        EXPECT_GE(length, sizeof header);
        std::memcpy(&header, data, sizeof header);
        EXPECT_EQ(header.nlmsg_len, length);
        self->requestTypes.push_back(header.nlmsg_type);
        self->requestSequences.push_back(header.nlmsg_seq);
        self->requestFlags.push_back(header.nlmsg_flags);
        const size_t n = requestTypes.size() - 1;
        self->queue.clear();
        if (n < replies.size())
            for (Bytes& d : replies[n](header.nlmsg_seq)) self->queue.push_back(std::move(d));
        return static_cast<ssize_t>(length);
    }
    ssize_t recv(int fd, void* data, size_t length, int flags) const override {
        if (fd != kFd) return Platform::recv(fd, data, length, flags);
        auto* self = const_cast<ScriptedNetlink*>(this);
        if (self->interruptedReceives > 0) {
            --self->interruptedReceives;
            errno = EINTR;
            return -1;
        }
        if (queue.empty()) {
            errno = EAGAIN;  // a real socket would block: the test would hang
            return -1;
        }
        const Bytes& next = queue.front();
        const size_t copied = std::min(length, next.size());
        if (copied > 0) std::memcpy(data, next.data(), copied);
        if (length > copied) std::memset(static_cast<unsigned char*>(data) + copied, poison, length - copied);
        const ssize_t result = (flags & MSG_TRUNC) ? static_cast<ssize_t>(next.size()) : static_cast<ssize_t>(copied);
        if (!(flags & MSG_PEEK)) self->queue.pop_front();
        return result;
    }
    int close(int fd) const override {
        if (fd != kFd) return Platform::close(fd);
        const_cast<ScriptedNetlink*>(this)->closed = true;
        return 0;
    }

private:
    std::deque<Bytes> queue;
};

const std::vector<unsigned char> kMacA = {0x02, 0x00, 0x00, 0x00, 0x00, 0x0a};
const std::vector<unsigned char> kMacB = {0x02, 0x00, 0x00, 0x00, 0x00, 0x0b};

std::vector<Message> twoLinks() {
    return {linkMessage(1, "lo", {0, 0, 0, 0, 0, 0}, 65536, IFF_UP | IFF_LOOPBACK | IFF_RUNNING),
            linkMessage(3, "eth0", kMacA, 1500, IFF_UP | IFF_BROADCAST | IFF_RUNNING | IFF_MULTICAST),
            linkMessage(2, "eth1", kMacB, 9000, IFF_BROADCAST | IFF_MULTICAST)};
}

std::vector<Message> someAddresses() {
    return {ipv4Message(1, "127.0.0.1", 8, "", "lo", IFA_F_PERMANENT),
            ipv4Message(3, "192.0.2.10", 24, "192.0.2.255", "eth0", IFA_F_PERMANENT),
            ipv4Message(3, "192.0.2.99", 24, "192.0.2.255", "eth0:vip", IFA_F_PERMANENT | IFA_F_SECONDARY),
            ipv4Message(3, "198.51.100.7", 32, "", "", IFA_F_PERMANENT),
            ipv6Message(2, "2001:db8::2", 64, RT_SCOPE_UNIVERSE, IFA_F_PERMANENT | IFA_F_TENTATIVE),
            ipv6Message(2, "2001:db8::3", 64, RT_SCOPE_UNIVERSE, IFA_F_PERMANENT | IFA_F_DEPRECATED),
            ipv6Message(2, "fe80::b", 64, RT_SCOPE_LINK, IFA_F_PERMANENT),
            ipv6Message(2, "2001:db8::bad", 64, RT_SCOPE_UNIVERSE, IFA_F_DADFAILED | IFA_F_TENTATIVE)};
}

Reply replyOf(std::vector<Message> messages) {
    return [messages](std::uint32_t sequence) {
        std::vector<Message> all = messages;
        all.push_back(doneMessage());
        return std::vector<Bytes>{datagram(all, sequence)};
    };
}

class HostInventoryCrafted : public ::testing::Test {
protected:
    void SetUp() override { previous = qelPlatform::setPlatform(&kernel); }
    void TearDown() override { qelPlatform::setPlatform(previous); }

    void answerWith(std::vector<Message> links, std::vector<Message> addresses) {
        kernel.replies = {replyOf(std::move(links)), replyOf(std::move(addresses))};
        kernel.requestTypes.clear();
        kernel.requestSequences.clear();
        kernel.requestFlags.clear();
    }
    // The text of the error the constructor throws; "" when it does not.
    std::string failureText() {
        try {
            QelHostInventory inventory;
            return "";
        } catch (const QelHostInventoryError& e) {
            return e.errorText.empty() ? "(empty error text)" : e.errorText;
        }
    }

    ScriptedNetlink kernel;
    qelPlatform::Platform* previous = nullptr;
};

std::string text(const IPv4Address& a) {
    char out[INET_ADDRSTRLEN];
    inet_ntop(AF_INET, a.octets, out, sizeof out);
    return out;
}

std::string text(const IPv6Address& a) {
    char out[INET6_ADDRSTRLEN];
    inet_ntop(AF_INET6, IPv6Address(a).networkBytes, out, sizeof out);
    return out;
}

TEST_F(HostInventoryCrafted, AsksForALinkDumpThenAnAddressDumpOfEveryFamily) {
    answerWith(twoLinks(), someAddresses());
    QelHostInventory inventory;
    ASSERT_EQ(kernel.requestTypes, (std::vector<std::uint16_t>{RTM_GETLINK, RTM_GETADDR}));
    for (std::uint16_t flags : kernel.requestFlags) EXPECT_EQ(flags, NLM_F_REQUEST | NLM_F_DUMP);
    EXPECT_NE(kernel.requestSequences[0], kernel.requestSequences[1]);
    EXPECT_TRUE(kernel.closed);
}

TEST_F(HostInventoryCrafted, InterfacesComeInIndexOrderWithNameMacMtuAndFlags) {
    answerWith(twoLinks(), {});
    QelHostInventory inventory;
    const auto& itfs = inventory.interfaces();
    ASSERT_EQ(itfs.size(), 3u);
    EXPECT_EQ(itfs[0].name, "lo");
    EXPECT_TRUE(itfs[0].loopback());
    EXPECT_EQ(itfs[1].index, 2);
    EXPECT_EQ(itfs[1].name, "eth1");
    EXPECT_EQ(itfs[1].mtu, 9000u);
    EXPECT_FALSE(itfs[1].up());
    EXPECT_FALSE(itfs[1].running());
    EXPECT_EQ(itfs[2].name, "eth0");
    EXPECT_TRUE(itfs[2].up());
    EXPECT_TRUE(itfs[2].running());
    EXPECT_FALSE(itfs[2].pointToPoint());
    ASSERT_TRUE(itfs[2].hasMac);
    EXPECT_EQ(std::vector<unsigned char>(itfs[2].mac.bytes, itfs[2].mac.bytes + 6), kMacA);
}

TEST_F(HostInventoryCrafted, EveryIpv4AddressKeepsPrefixBroadcastLabelAndSecondaryMark) {
    answerWith(twoLinks(), someAddresses());
    QelHostInventory inventory;
    const Interface* eth0 = inventory.findByName("eth0");
    ASSERT_NE(eth0, nullptr);
    ASSERT_EQ(eth0->ipv4.size(), 3u);
    EXPECT_EQ(text(eth0->ipv4[0].address), "192.0.2.10");
    EXPECT_EQ(eth0->ipv4[0].prefixLength, 24u);
    EXPECT_TRUE(eth0->ipv4[0].hasBroadcast);
    EXPECT_EQ(text(eth0->ipv4[0].broadcast), "192.0.2.255");
    EXPECT_EQ(eth0->ipv4[0].label, "eth0");
    EXPECT_FALSE(eth0->ipv4[0].secondary);
    EXPECT_EQ(text(eth0->ipv4[1].address), "192.0.2.99");
    EXPECT_EQ(eth0->ipv4[1].label, "eth0:vip");
    EXPECT_TRUE(eth0->ipv4[1].secondary);
    // No label attribute: the interface's own name, as the kernel means it.
    EXPECT_EQ(eth0->ipv4[2].label, "eth0");
    EXPECT_FALSE(eth0->ipv4[2].hasBroadcast);
    EXPECT_EQ(eth0->ipv4[2].prefixLength, 32u);
}

TEST_F(HostInventoryCrafted, Ipv6AddressesKeepScopeAndFlags) {
    answerWith(twoLinks(), someAddresses());
    QelHostInventory inventory;
    const Interface* eth1 = inventory.find(2);
    ASSERT_NE(eth1, nullptr);
    ASSERT_EQ(eth1->ipv6.size(), 4u);
    EXPECT_TRUE(eth1->ipv4.empty());
    EXPECT_EQ(text(eth1->ipv6[0].address), "2001:db8::2");
    EXPECT_TRUE(eth1->ipv6[0].tentative());
    EXPECT_TRUE(eth1->ipv6[0].permanent());
    EXPECT_FALSE(eth1->ipv6[0].publishable());
    EXPECT_TRUE(eth1->ipv6[1].deprecated());
    EXPECT_TRUE(eth1->ipv6[1].publishable());
    EXPECT_EQ(eth1->ipv6[2].scope, Ipv6AddressEntry::Link);
    EXPECT_EQ(eth1->ipv6[2].prefixLength, 64u);
    EXPECT_TRUE(eth1->ipv6[3].dadFailed());
    EXPECT_FALSE(eth1->ipv6[3].publishable());
    EXPECT_FALSE(eth1->ipv6[3].temporary());
}

TEST_F(HostInventoryCrafted, PrimaryIpv4SkipsSecondariesAndPublishableIpv6SkipsTentativeAndFailed) {
    answerWith(twoLinks(),
               {ipv4Message(3, "203.0.113.5", 24, "", "eth0:a", IFA_F_SECONDARY),
                ipv4Message(3, "203.0.113.4", 24, "", "", 0)});
    QelHostInventory inventory;
    const Interface* eth0 = inventory.find(3);
    ASSERT_NE(eth0, nullptr);
    ASSERT_NE(eth0->primaryIpv4(), nullptr);
    EXPECT_EQ(text(eth0->primaryIpv4()->address), "203.0.113.4");
    EXPECT_EQ(inventory.find(2)->primaryIpv4(), nullptr);

    answerWith(twoLinks(), someAddresses());
    QelHostInventory second;
    const auto publishable = second.find(2)->publishableIpv6();
    ASSERT_EQ(publishable.size(), 2u);
    EXPECT_EQ(text(publishable[0].address), "2001:db8::3");
    EXPECT_EQ(text(publishable[1].address), "fe80::b");
}

TEST_F(HostInventoryCrafted, AddressesOfAnInterfaceMissingFromTheLinkDumpAreDropped) {
    answerWith({linkMessage(3, "eth0", kMacA, 1500, IFF_UP)},
               {ipv4Message(9, "192.0.2.1", 24, "", "", 0), ipv4Message(3, "192.0.2.2", 24, "", "", 0)});
    QelHostInventory inventory;
    ASSERT_EQ(inventory.interfaces().size(), 1u);
    ASSERT_EQ(inventory.interfaces()[0].ipv4.size(), 1u);
    EXPECT_EQ(text(inventory.interfaces()[0].ipv4[0].address), "192.0.2.2");
}

TEST_F(HostInventoryCrafted, NoCapOnInterfacesOrAddresses) {
    std::vector<Message> links, addresses;
    for (int i = 1; i <= 3000; ++i) {
        links.push_back(linkMessage(i, "if" + std::to_string(i), kMacA, 1500, IFF_UP));
        addresses.push_back(ipv4Message(i, "10." + std::to_string(i / 250) + "." + std::to_string(i % 250) + ".1",
                                        16, "", "", 0));
        addresses.push_back(ipv6Message(i, "2001:db8::" + std::to_string(i), 64, 0, IFA_F_PERMANENT));
    }
    // Spread over many datagrams, as the kernel sends them.
    auto spread = [](std::vector<Message> messages) {
        return [messages](std::uint32_t sequence) {
            std::vector<Bytes> out;
            for (size_t at = 0; at < messages.size(); at += 97) {
                std::vector<Message> part(messages.begin() + static_cast<long>(at),
                                          messages.begin() + static_cast<long>(std::min(at + 97, messages.size())));
                out.push_back(datagram(part, sequence));
            }
            out.push_back(datagram({doneMessage()}, sequence));
            return out;
        };
    };
    kernel.replies = {spread(links), spread(addresses)};
    QelHostInventory inventory;
    ASSERT_EQ(inventory.interfaces().size(), 3000u);
    for (const Interface& itf : inventory.interfaces()) {
        ASSERT_EQ(itf.ipv4.size(), 1u) << itf.name;
        ASSERT_EQ(itf.ipv6.size(), 1u) << itf.name;
    }
}

TEST_F(HostInventoryCrafted, ReceiveInterruptedBySignalsIsRetried) {
    answerWith(twoLinks(), someAddresses());
    kernel.interruptedReceives = 3;
    QelHostInventory inventory;
    EXPECT_EQ(inventory.interfaces().size(), 3u);
}

TEST_F(HostInventoryCrafted, SocketFailureNamesTheSystemError) {
    kernel.failSocketWith = EACCES;
    EXPECT_EQ(failureText(), std::string("netlink socket failed: ") + std::strerror(EACCES));
}

TEST_F(HostInventoryCrafted, AReplyThatNeverEndsIsAnErrorNotAHang) {
    kernel.replies = {[](std::uint32_t sequence) {
        return std::vector<Bytes>{datagram(twoLinks(), sequence)};  // no NLMSG_DONE
    }};
    EXPECT_NE(failureText().find("RTM_GETLINK receive failed"), std::string::npos);
    EXPECT_TRUE(kernel.closed);
}

TEST_F(HostInventoryCrafted, WrongSequenceNumberIsRejected) {
    kernel.replies = {[](std::uint32_t sequence) { return std::vector<Bytes>{datagram({doneMessage()}, sequence + 1)}; }};
    EXPECT_NE(failureText().find("RTM_GETLINK reply for sequence"), std::string::npos);
}

TEST_F(HostInventoryCrafted, ReplyForAnotherPortIsRejected) {
    kernel.replies = {[](std::uint32_t sequence) {
        return std::vector<Bytes>{datagram({doneMessage()}, sequence, kPort + 1)};
    }};
    const std::string failure = failureText();
    EXPECT_NE(failure.find("port " + std::to_string(kPort + 1) + ", expected"), std::string::npos) << failure;
}

TEST_F(HostInventoryCrafted, KernelErrorIsReportedWithItsText) {
    kernel.replies = {replyOf(twoLinks()), [](std::uint32_t sequence) {
                          return std::vector<Bytes>{datagram({errorMessage(-EPERM)}, sequence)};
                      }};
    EXPECT_EQ(failureText(), std::string("RTM_GETADDR refused: ") + std::strerror(EPERM));
}

// Found by fuzz_network: negating the error field overflowed for INT_MIN.
TEST_F(HostInventoryCrafted, ErrorOfTheMostNegativeNumberIsReportedAsItCame) {
    kernel.replies = {replyOf(twoLinks()), [](std::uint32_t sequence) {
                          return std::vector<Bytes>{
                              datagram({errorMessage(std::numeric_limits<int>::min())}, sequence)};
                      }};
    EXPECT_EQ(failureText(),
              std::string("RTM_GETADDR refused: ") + std::strerror(std::numeric_limits<int>::min()));
}

TEST_F(HostInventoryCrafted, PositiveErrorNumberIsReportedNegated) {
    kernel.replies = {[](std::uint32_t sequence) { return std::vector<Bytes>{datagram({errorMessage(EPERM)}, sequence)}; }};
    EXPECT_EQ(failureText(), std::string("RTM_GETLINK refused: ") + std::strerror(-EPERM));
}

TEST_F(HostInventoryCrafted, AcknowledgementInPlaceOfADumpIsAnError) {
    kernel.replies = {[](std::uint32_t sequence) { return std::vector<Bytes>{datagram({errorMessage(0)}, sequence)}; }};
    EXPECT_NE(failureText().find("acknowledgement"), std::string::npos);
}

TEST_F(HostInventoryCrafted, ErrorMessageTooShortForItsBodyIsAnError) {
    kernel.replies = {[](std::uint32_t sequence) {
        Message m;
        m.type = NLMSG_ERROR;
        m.payload = {0xff, 0xff};
        return std::vector<Bytes>{datagram({m}, sequence)};
    }};
    EXPECT_NE(failureText().find("NLMSG_ERROR cut short"), std::string::npos);
}

Reply interruptedOnce(std::vector<Message> messages, int* calls, int interruptedCalls) {
    return [messages, calls, interruptedCalls](std::uint32_t sequence) {
        std::vector<Message> all = messages;
        all.push_back(doneMessage());
        if (++*calls <= interruptedCalls)
            for (Message& m : all) m.flags |= NLM_F_DUMP_INTR;
        return std::vector<Bytes>{datagram(all, sequence)};
    };
}

TEST_F(HostInventoryCrafted, InterruptedDumpIsReadAgain) {
    int linkCalls = 0, addressCalls = 0;
    const Reply link = interruptedOnce(twoLinks(), &linkCalls, 1);
    const Reply address = interruptedOnce(someAddresses(), &addressCalls, 2);
    kernel.replies = {link, link, address, address, address};
    QelHostInventory inventory;
    EXPECT_EQ(kernel.requestTypes,
              (std::vector<std::uint16_t>{RTM_GETLINK, RTM_GETLINK, RTM_GETADDR, RTM_GETADDR, RTM_GETADDR}));
    // Nothing of the interrupted reads is kept twice.
    EXPECT_EQ(inventory.interfaces().size(), 3u);
    EXPECT_EQ(inventory.find(3)->ipv4.size(), 3u);
    // Every request has a sequence number of its own.
    for (size_t i = 1; i < kernel.requestSequences.size(); ++i)
        EXPECT_NE(kernel.requestSequences[i], kernel.requestSequences[i - 1]);
}

TEST_F(HostInventoryCrafted, DumpInterruptedOnEveryTryIsReportedAfterTheLastAttempt) {
    int calls = 0;
    const Reply link = interruptedOnce(twoLinks(), &calls, 1000);
    kernel.replies.assign(QelHostInventory::maxDumpAttempts + 1, link);
    EXPECT_EQ(failureText(), "the interface list kept changing while it was read (" +
                                 std::to_string(QelHostInventory::maxDumpAttempts) + " attempts)");
    EXPECT_EQ(calls, QelHostInventory::maxDumpAttempts);
}

TEST_F(HostInventoryCrafted, AddressDumpInterruptedOnEveryTryIsReported) {
    int calls = 0;
    const Reply address = interruptedOnce(someAddresses(), &calls, 1000);
    kernel.replies = {replyOf(twoLinks())};
    for (int i = 0; i < QelHostInventory::maxDumpAttempts; ++i) kernel.replies.push_back(address);
    EXPECT_NE(failureText().find("the address list kept changing"), std::string::npos);
}

TEST_F(HostInventoryCrafted, MessageLengthBeyondTheDatagramIsRejected) {
    for (std::uint32_t claimed : {0u, 15u, 17u + 1000u, 0xFFFFFFFFu}) {
        kernel.replies = {[claimed](std::uint32_t sequence) {
            Bytes d = datagram(twoLinks(), sequence);
            std::memcpy(d.data(), &claimed, sizeof claimed);
            return std::vector<Bytes>{d};
        }};
        kernel.requestTypes.clear();
        EXPECT_NE(failureText().find("does not fit"), std::string::npos) << claimed;
    }
}

TEST_F(HostInventoryCrafted, AttributeLengthBeyondItsMessageIsRejected) {
    Message bad = linkMessage(3, "eth0", kMacA, 1500, IFF_UP);
    // The IFLA_IFNAME attribute right behind the ifinfomsg claims 200 bytes.
    const unsigned short huge = 200;
    std::memcpy(bad.payload.data() + NLMSG_ALIGN(sizeof(struct ifinfomsg)), &huge, sizeof huge);
    answerWith({bad}, {});
    EXPECT_NE(failureText().find("netlink attribute length 200"), std::string::npos);
}

TEST_F(HostInventoryCrafted, AddressAttributeOfTheWrongWidthIsRejected) {
    Message bad = ipv4Message(3, "192.0.2.1", 24, "", "", 0);
    // Make the first IFA_ADDRESS claim 8 bytes of address.
    struct rtattr header;
    std::memcpy(&header, bad.payload.data() + NLMSG_ALIGN(sizeof(struct ifaddrmsg)), sizeof header);
    header.rta_len = static_cast<unsigned short>(RTA_LENGTH(8));
    std::memcpy(bad.payload.data() + NLMSG_ALIGN(sizeof(struct ifaddrmsg)), &header, sizeof header);
    answerWith(twoLinks(), {bad});
    EXPECT_NE(failureText().find("netlink address attribute of 8 bytes"), std::string::npos);
}

TEST_F(HostInventoryCrafted, AddressMessageWithoutAnAddressIsRejected) {
    Message bad;
    bad.type = RTM_NEWADDR;
    struct ifaddrmsg info;
    std::memset(&info, 0, sizeof info);
    info.ifa_family = AF_INET;
    info.ifa_index = 3;
    bad.payload.resize(sizeof info);
    std::memcpy(bad.payload.data(), &info, sizeof info);
    answerWith(twoLinks(), {bad});
    EXPECT_EQ(failureText(), "RTM_NEWADDR message without an address");
}

TEST_F(HostInventoryCrafted, NameWithoutTerminatorStaysInsideItsAttribute) {
    Message link = linkMessage(3, "eth0", kMacA, 1500, IFF_UP);
    // Overwrite the NUL of "eth0" (attribute data right behind its header).
    const size_t nameAt = NLMSG_ALIGN(sizeof(struct ifinfomsg)) + RTA_LENGTH(0);
    link.payload[nameAt + 4] = 'X';
    answerWith({link}, {});
    QelHostInventory inventory;
    EXPECT_EQ(inventory.interfaces().at(0).name, "eth0X");
}

// Every datagram of a good reply, cut at every byte: the cut datagram is what
// the kernel "sent", and the poison behind it must never be read. A cut on a
// message boundary loses NLMSG_DONE (the fake then has nothing more to give),
// so every cut is an error.
TEST_F(HostInventoryCrafted, EveryDatagramCutAtEveryByteIsAnError) {
    const std::vector<std::pair<std::vector<Message>, bool>> replies = {{twoLinks(), true},
                                                                        {someAddresses(), false}};
    for (const auto& [messages, isLinkDump] : replies) {
        std::vector<Message> all = messages;
        all.push_back(doneMessage());
        const size_t full = datagram(all, 1).size();
        for (size_t cut = 0; cut < full; ++cut) {
            Reply truncated = [all, cut](std::uint32_t sequence) {
                Bytes d = datagram(all, sequence);
                d.resize(cut);
                return std::vector<Bytes>{d};
            };
            kernel.replies = isLinkDump ? std::vector<Reply>{truncated}
                                        : std::vector<Reply>{replyOf(twoLinks()), truncated};
            kernel.requestTypes.clear();
            kernel.requestSequences.clear();
            kernel.requestFlags.clear();
            EXPECT_NE(failureText(), "") << "cut at " << cut << " of " << full;
        }
    }
}

// Every message shortened at every byte with its length fields kept true
// (the kernel's framing is right, the content is short): the result is an
// error or an inventory, never a read outside the message.
TEST_F(HostInventoryCrafted, EveryMessageShortenedAtEveryByteIsReadSafely) {
    std::vector<Message> links = twoLinks();
    std::vector<Message> addresses = someAddresses();
    size_t errors = 0, inventories = 0;
    auto exercise = [&](std::vector<Message>& list, size_t which, bool isLink) {
        const Bytes whole = list[which].payload;
        for (size_t cut = 0; cut < whole.size(); ++cut) {
            list[which].payload.assign(whole.begin(), whole.begin() + static_cast<long>(cut));
            answerWith(isLink ? list : twoLinks(), isLink ? someAddresses() : list);
            kernel.requestTypes.clear();
            if (failureText().empty())
                ++inventories;
            else
                ++errors;
        }
        list[which].payload = whole;
    };
    for (size_t i = 0; i < links.size(); ++i) exercise(links, i, true);
    for (size_t i = 0; i < addresses.size(); ++i) exercise(addresses, i, false);
    EXPECT_GT(errors, 0u);
    EXPECT_GT(inventories, 0u);  // cuts on attribute boundaries are well-formed
}

// ---------------------------------------------------------------------------
// Values and comparisons.

Interface sample(int index, const std::string& name) {
    Interface itf;
    itf.index = index;
    itf.name = name;
    itf.hasMac = true;
    itf.mac.bytes[5] = static_cast<uint8_t>(index);
    itf.mtu = 1500;
    itf.flags = IFF_UP;
    Ipv4AddressEntry v4;
    v4.address = "192.0.2." + std::to_string(index);
    v4.prefixLength = 24;
    v4.label = name;
    itf.ipv4.push_back(v4);
    unsigned char bytes[16];
    inet_pton(AF_INET6, ("2001:db8::" + std::to_string(index)).c_str(), bytes);
    Ipv6AddressEntry v6;
    v6.address = IPv6Address(bytes);
    v6.prefixLength = 64;
    itf.ipv6.push_back(v6);
    return itf;
}

TEST(HostInventoryValues, GivenInterfacesAreSortedAndFoundByIndexNameAndMac) {
    Interface bond = sample(7, "bond0");
    Interface slave = sample(4, "eth4");
    slave.mac = bond.mac;
    QelHostInventory inventory({bond, sample(2, "eth2"), slave});
    ASSERT_EQ(inventory.interfaces().size(), 3u);
    EXPECT_EQ(inventory.interfaces()[0].index, 2);
    EXPECT_EQ(inventory.interfaces()[2].index, 7);
    EXPECT_EQ(inventory.find(4)->name, "eth4");
    EXPECT_EQ(inventory.find(5), nullptr);
    EXPECT_EQ(inventory.findByName("bond0")->index, 7);
    EXPECT_EQ(inventory.findByName("nope"), nullptr);
    const auto sharing = inventory.findByMac(bond.mac);
    ASSERT_EQ(sharing.size(), 2u);
    EXPECT_EQ(sharing[0]->name, "eth4");
    EXPECT_EQ(sharing[1]->name, "bond0");
}

TEST(HostInventoryValues, InterfacesWithoutMacAreNeverFoundByMac) {
    Interface tunnel = sample(3, "tun0");
    tunnel.hasMac = false;
    QelHostInventory inventory({tunnel});
    EXPECT_TRUE(inventory.findByMac(tunnel.mac).empty());
}

TEST(HostInventoryValues, EqualInventoriesCompareEqual) {
    QelHostInventory a({sample(1, "a"), sample(2, "b")});
    QelHostInventory b({sample(2, "b"), sample(1, "a")});
    EXPECT_TRUE(a == b);
    EXPECT_FALSE(a != b);
    EXPECT_TRUE(QelHostInventory(std::vector<Interface>{}) == QelHostInventory(std::vector<Interface>{}));
}

TEST(HostInventoryValues, EveryFieldCountsForChange) {
    const Interface base = sample(1, "a");
    std::vector<std::function<void(Interface&)>> changes = {
        [](Interface& i) { i.index = 9; },
        [](Interface& i) { i.name = "z"; },
        [](Interface& i) { i.hasMac = false; },
        [](Interface& i) { i.mac.bytes[0] = 0x42; },
        [](Interface& i) { i.mtu = 9000; },
        [](Interface& i) { i.flags = 0; },
        [](Interface& i) { i.ipv4.clear(); },
        [](Interface& i) { i.ipv4[0].address = "198.51.100.1"; },
        [](Interface& i) { i.ipv4[0].prefixLength = 25; },
        [](Interface& i) {
            i.ipv4[0].hasBroadcast = true;
            i.ipv4[0].broadcast = "192.0.2.255";
        },
        [](Interface& i) { i.ipv4[0].label = "a:1"; },
        [](Interface& i) { i.ipv4[0].secondary = true; },
        [](Interface& i) { i.ipv6.clear(); },
        [](Interface& i) { i.ipv6[0].prefixLength = 48; },
        [](Interface& i) { i.ipv6[0].scope = Ipv6AddressEntry::Link; },
        [](Interface& i) { i.ipv6[0].flags = IFA_F_TENTATIVE; },
        [](Interface& i) {
            unsigned char bytes[16] = {0x20, 0x01, 0x0d, 0xb8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0x63};
            i.ipv6[0] = Ipv6AddressEntry{IPv6Address(bytes), 64, 0, 0};
        },
        [](Interface& i) { i.ipv4.push_back(i.ipv4[0]); },
    };
    for (size_t n = 0; n < changes.size(); ++n) {
        Interface changed = base;
        changes[n](changed);
        EXPECT_FALSE(QelHostInventory({base}) == QelHostInventory({changed})) << "change " << n;
    }
    EXPECT_FALSE(QelHostInventory({base}) == QelHostInventory({base, sample(2, "b")}));
}

TEST(HostInventoryValues, BroadcastCountsOnlyWhereThereIsOne) {
    Interface a = sample(1, "a");
    Interface b = a;
    b.ipv4[0].broadcast = "10.0.0.255";  // hasBroadcast stays false
    EXPECT_TRUE(QelHostInventory({a}) == QelHostInventory({b}));
}

// ---------------------------------------------------------------------------
// Real namespaces, checked against iproute2.

// What ip says, with the address flags the shared oracle does not keep.
struct IpAddress {
    int family = 0;
    std::string local;
    unsigned prefixLength = 0;
    std::string broadcast;
    std::string label;
    std::string scope;
    bool secondary = false, tentative = false, deprecated = false, dadfailed = false;
};

struct IpLink {
    unsigned index = 0;
    std::string name;
    std::string mac;
    unsigned mtu = 0;
    unsigned flags = 0;
    std::vector<IpAddress> addresses;
};

std::map<unsigned, IpLink> ipOracle(const qelTest::NetNamespace& ns) {
    using qelTest::Json;
    std::map<unsigned, IpLink> result;
    const Json root = Json::parse(ns.ipJson("addr show"));
    for (const Json& link : root.items) {
        IpLink l;
        l.index = static_cast<unsigned>(link.at("ifindex").integer());
        l.name = link.at("ifname").string();
        if (const Json* mac = link.find("address")) l.mac = mac->string();
        l.mtu = static_cast<unsigned>(link.at("mtu").integer());
        l.flags = qelTest::flagsFromNames(link.at("flags"));
        if (const Json* info = link.find("addr_info")) {
            for (const Json& a : info->items) {
                IpAddress addr;
                addr.family = a.at("family").string() == "inet" ? AF_INET : AF_INET6;
                addr.local = a.at("local").string();
                addr.prefixLength = static_cast<unsigned>(a.at("prefixlen").integer());
                if (const Json* b = a.find("broadcast")) addr.broadcast = b->string();
                if (const Json* b = a.find("label")) addr.label = b->string();
                if (const Json* b = a.find("scope")) addr.scope = b->string();
                auto flag = [&](const char* name) {
                    const Json* f = a.find(name);
                    return f != nullptr && f->kind == Json::Bool && f->boolean;
                };
                addr.secondary = addr.family == AF_INET && flag("secondary");
                addr.tentative = flag("tentative");
                addr.deprecated = flag("deprecated");
                addr.dadfailed = flag("dadfailed");
                l.addresses.push_back(addr);
            }
        }
        result[l.index] = l;
    }
    return result;
}

std::string macText(const MacAddress& mac) {
    char out[18];
    std::snprintf(out, sizeof out, "%02x:%02x:%02x:%02x:%02x:%02x", mac.bytes[0], mac.bytes[1], mac.bytes[2],
                  mac.bytes[3], mac.bytes[4], mac.bytes[5]);
    return out;
}

std::string scopeText(unsigned scope) {
    switch (scope) {
    case RT_SCOPE_UNIVERSE: return "global";
    case RT_SCOPE_SITE: return "site";
    case RT_SCOPE_LINK: return "link";
    case RT_SCOPE_HOST: return "host";
    default: return std::to_string(scope);
    }
}

// Field by field: every interface and address ip lists, and nothing more.
void expectSameAsIp(const QelHostInventory& inventory, const std::map<unsigned, IpLink>& oracle) {
    ASSERT_EQ(inventory.interfaces().size(), oracle.size());
    for (const Interface& itf : inventory.interfaces()) {
        SCOPED_TRACE(itf.name);
        auto found = oracle.find(static_cast<unsigned>(itf.index));
        ASSERT_NE(found, oracle.end());
        const IpLink& ip = found->second;
        EXPECT_EQ(itf.name, ip.name);
        EXPECT_EQ(itf.hasMac ? macText(itf.mac) : "", ip.mac.size() == 17 ? ip.mac : "");
        EXPECT_EQ(itf.mtu, ip.mtu);
        // The flag bits iproute2 prints (it derives RUNNING itself).
        const unsigned shown = IFF_UP | IFF_BROADCAST | IFF_LOOPBACK | IFF_POINTOPOINT | IFF_NOARP | IFF_MULTICAST |
                               IFF_MASTER | IFF_SLAVE | IFF_PROMISC | IFF_ALLMULTI;
        EXPECT_EQ(itf.flags & shown, ip.flags & shown);
        EXPECT_EQ(itf.up(), (ip.flags & IFF_UP) != 0);
        std::vector<IpAddress> v4, v6;
        for (const IpAddress& a : ip.addresses) (a.family == AF_INET ? v4 : v6).push_back(a);
        ASSERT_EQ(itf.ipv4.size(), v4.size());
        for (size_t n = 0; n < v4.size(); ++n) {
            EXPECT_EQ(text(itf.ipv4[n].address), v4[n].local);
            EXPECT_EQ(itf.ipv4[n].prefixLength, v4[n].prefixLength);
            EXPECT_EQ(itf.ipv4[n].hasBroadcast ? text(itf.ipv4[n].broadcast) : "", v4[n].broadcast);
            EXPECT_EQ(itf.ipv4[n].label, v4[n].label);
            EXPECT_EQ(itf.ipv4[n].secondary, v4[n].secondary) << v4[n].local;
        }
        ASSERT_EQ(itf.ipv6.size(), v6.size());
        for (size_t n = 0; n < v6.size(); ++n) {
            EXPECT_EQ(text(itf.ipv6[n].address), v6[n].local);
            EXPECT_EQ(itf.ipv6[n].prefixLength, v6[n].prefixLength);
            EXPECT_EQ(scopeText(itf.ipv6[n].scope), v6[n].scope);
            EXPECT_EQ(itf.ipv6[n].tentative(), v6[n].tentative) << v6[n].local;
            EXPECT_EQ(itf.ipv6[n].deprecated(), v6[n].deprecated) << v6[n].local;
            EXPECT_EQ(itf.ipv6[n].dadFailed(), v6[n].dadfailed) << v6[n].local;
        }
    }
}

class HostInventoryNamespace : public ::testing::Test {
protected:
    void SetUp() override {
        const std::string problem = qelTest::rootProblem();
        if (!problem.empty()) FAIL() << problem;
        ns = std::make_unique<qelTest::NetNamespace>();
    }
    QelHostInventory read() {
        return *qelTest::runInNamespace(*ns, [] { return std::make_unique<QelHostInventory>(); });
    }
    std::unique_ptr<qelTest::NetNamespace> ns;
};

// veth pairs with both ends up, each with an IPv4 and an IPv6 address.
std::vector<std::string> vethLines(int pairs) {
    std::vector<std::string> lines;
    for (int i = 0; i < pairs; ++i) {
        const std::string a = "va" + std::to_string(i), b = "vb" + std::to_string(i);
        lines.push_back("link add " + a + " type veth peer name " + b);
        lines.push_back("addr add 10." + std::to_string(i / 200) + "." + std::to_string(i % 200) + ".1/24 dev " + a);
        lines.push_back("addr add fd00:" + std::to_string(i) + "::1/64 dev " + b + " nodad");
        lines.push_back("link set " + a + " up");
        lines.push_back("link set " + b + " up");
    }
    return lines;
}

TEST_F(HostInventoryNamespace, TenInterfacesMatchIp) {
    ns->batch(vethLines(5));
    ns->run("link set lo up");
    expectSameAsIp(read(), ipOracle(*ns));
}

TEST_F(HostInventoryNamespace, HundredInterfacesMatchIp) {
    ns->batch(vethLines(50));
    expectSameAsIp(read(), ipOracle(*ns));
}

TEST_F(HostInventoryNamespace, ThousandInterfacesMatchIp) {
    ns->batch(vethLines(510));
    const QelHostInventory inventory = read();
    EXPECT_GE(inventory.interfaces().size(), 1021u);
    expectSameAsIp(inventory, ipOracle(*ns));
}

TEST_F(HostInventoryNamespace, BridgesAndMacvlansMatchIp) {
    ns->batch({"link add br0 type bridge", "link add p0 type veth peer name p1", "link set p0 master br0",
               "link add mv0 link p1 type macvlan mode bridge", "link add mv1 link p1 type macvlan mode private",
               "addr add 192.0.2.1/24 dev br0", "addr add 198.51.100.2/25 brd + dev mv0",
               "addr add 2001:db8:1::1/64 dev mv1 nodad", "link set br0 up", "link set p0 up", "link set p1 up",
               "link set mv0 up", "link set mv1 up"});
    expectSameAsIp(read(), ipOracle(*ns));
}

TEST_F(HostInventoryNamespace, SecondaryIpv4AddressesWithAndWithoutLabels) {
    ns->batch({"link add e0 type veth peer name e1", "addr add 192.0.2.10/24 brd + dev e0",
               "addr add 192.0.2.11/24 dev e0 label e0:vip", "addr add 192.0.2.12/24 dev e0",
               "addr add 203.0.113.1/32 dev e0", "link set e0 up", "link set e1 up"});
    const QelHostInventory inventory = read();
    expectSameAsIp(inventory, ipOracle(*ns));
    const Interface* e0 = inventory.findByName("e0");
    ASSERT_NE(e0, nullptr);
    ASSERT_EQ(e0->ipv4.size(), 4u);
    EXPECT_EQ(text(e0->primaryIpv4()->address), "192.0.2.10");
    std::map<std::string, const Ipv4AddressEntry*> byAddress;
    for (const Ipv4AddressEntry& a : e0->ipv4) byAddress[text(a.address)] = &a;
    ASSERT_EQ(byAddress.size(), 4u);
    EXPECT_TRUE(byAddress["192.0.2.11"]->secondary);
    EXPECT_EQ(byAddress["192.0.2.11"]->label, "e0:vip");
    EXPECT_TRUE(byAddress["192.0.2.12"]->secondary);
    EXPECT_EQ(byAddress["192.0.2.12"]->label, "e0");
    EXPECT_FALSE(byAddress["203.0.113.1"]->secondary);  // another subnet: a primary of its own
}

TEST_F(HostInventoryNamespace, Ipv6OnlyTentativeAndDeprecatedAddresses) {
    // v6a's peer stays down: without carrier DAD never runs and the address
    // stays tentative.
    ns->batch({"link add v6a type veth peer name v6b", "addr add 2001:db8:6::1/64 dev v6a",
               "addr add 2001:db8:6::2/64 dev v6a nodad preferred_lft 0", "addr add fe80::6/64 dev v6a nodad",
               "link set v6a up"});
    const QelHostInventory inventory = read();
    expectSameAsIp(inventory, ipOracle(*ns));
    const Interface* v6a = inventory.findByName("v6a");
    ASSERT_NE(v6a, nullptr);
    EXPECT_TRUE(v6a->ipv4.empty());
    EXPECT_EQ(v6a->primaryIpv4(), nullptr);
    bool sawTentative = false, sawDeprecated = false;
    for (const Ipv6AddressEntry& a : v6a->ipv6) {
        sawTentative |= a.tentative();
        sawDeprecated |= a.deprecated();
    }
    EXPECT_TRUE(sawTentative);
    EXPECT_TRUE(sawDeprecated);
    EXPECT_EQ(v6a->publishableIpv6().size(), 2u);
}

TEST_F(HostInventoryNamespace, LinksDownAreListedWithTheirAddresses) {
    ns->batch({"link add d0 type veth peer name d1", "addr add 192.0.2.7/24 dev d0", "link set d1 up"});
    const QelHostInventory inventory = read();
    expectSameAsIp(inventory, ipOracle(*ns));
    ASSERT_NE(inventory.findByName("d0"), nullptr);
    EXPECT_FALSE(inventory.findByName("d0")->up());
    EXPECT_TRUE(inventory.findByName("d1")->up());
}

TEST_F(HostInventoryNamespace, ChangeBetweenTwoReadsIsSeenAndNoChangeIsNot) {
    ns->batch(vethLines(3));
    const QelHostInventory first = read();
    const QelHostInventory again = read();
    EXPECT_TRUE(first == again);
    ns->run("addr add 192.0.2.200/24 dev va1");
    EXPECT_FALSE(first == read());
}

// Deletes a link between the interface dump and the address dump.
class DeletingPlatform : public qelPlatform::Platform {
public:
    DeletingPlatform(const qelTest::NetNamespace& ns, std::string link) : ns_(ns), link_(std::move(link)) {}
    ssize_t send(int fd, const void* data, size_t length, int flags) const override {
        struct nlmsghdr header;
        if (length >= sizeof header) {
            std::memcpy(&header, data, sizeof header);
            if (header.nlmsg_type == RTM_GETADDR && !deleted_) {
                deleted_ = true;
                ns_.run("link del " + link_);
            }
        }
        return Platform::send(fd, data, length, flags);
    }
    mutable bool deleted_ = false;

private:
    const qelTest::NetNamespace& ns_;
    std::string link_;
};

TEST_F(HostInventoryNamespace, InterfaceDeletedBetweenTheDumpsLeavesNoStrayAddresses) {
    ns->batch(vethLines(4));
    DeletingPlatform deleting(*ns, "va2");  // takes vb2 with it
    qelPlatform::Platform* previous = qelPlatform::setPlatform(&deleting);
    std::unique_ptr<QelHostInventory> inventory;
    try {
        inventory = qelTest::runInNamespace(*ns, [] { return std::make_unique<QelHostInventory>(); });
    } catch (...) {
        qelPlatform::setPlatform(previous);
        throw;
    }
    qelPlatform::setPlatform(previous);
    ASSERT_TRUE(deleting.deleted_);
    // The deleted pair is listed from the first dump, without addresses; every
    // other interface is exactly as ip sees it now.
    std::map<unsigned, IpLink> oracle = ipOracle(*ns);
    std::vector<Interface> rest;
    for (const Interface& itf : inventory->interfaces()) {
        if (itf.name == "va2" || itf.name == "vb2") {
            EXPECT_TRUE(itf.ipv4.empty()) << itf.name;
            EXPECT_TRUE(itf.ipv6.empty()) << itf.name;
            EXPECT_EQ(oracle.count(static_cast<unsigned>(itf.index)), 0u);
        } else {
            rest.push_back(itf);
        }
    }
    expectSameAsIp(QelHostInventory(rest), oracle);
}

}  // namespace
