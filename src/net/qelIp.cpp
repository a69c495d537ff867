#define QEL_SOURCE_NAME "qelIp"

#include "qelIp.h"

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <netinet/in.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <unordered_map>

#include "qelPlatform.h"

namespace qelIp {

QEL_DEFINE_ERROR_WITH_ERRNO(QelIpError)

namespace {

using qelPlatform::platform;

constexpr unsigned int ifreqSize = sizeof(struct ifreq);
static_assert(sizeof(struct ifreq) == 40, "the growth loop counts 40-byte entries");

// SIOCGIFCONF starts with room for this many entries (plus one) ...
constexpr unsigned int initialEntryCount = 10;
// ... and stops growing once it returned more than this many.
constexpr unsigned int maximumEntryCount = 512;

// The netlink receive buffer grows in steps of this many bytes.
constexpr unsigned int netlinkGrowth = 256;
constexpr size_t netlinkHeaderSize = 16;      // struct nlmsghdr
constexpr size_t addressMessageHeader = 24;   // nlmsghdr + ifaddrmsg
constexpr size_t interfaceIndexOffset = 20;   // ifaddrmsg::ifa_index
constexpr size_t attributeHeaderSize = 4;     // struct rtattr

std::string withErrno(const char* message) {
    // Read errno before building the string: the allocation may touch it.
    const int number = errno;
    return std::string(message) + std::strerror(number);
}

// Classifies an IPv6 address (network order); the first matching row wins.
unsigned int ipv6AddressType(const unsigned char* b) {
    static const unsigned char loopback[16] = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1};
    if (std::memcmp(b, loopback, 16) == 0) return 1;
    if (b[0] == 0xFF) return 2;
    if (b[0] == 0xFE && (b[1] & 0xC0) == 0x80) return 5;  // fe80::/10
    if (b[0] == 0xFE && (b[1] & 0xC0) == 0xC0) return 8;  // fec0::/10
    bool firstTenZero = true;
    for (int i = 0; i < 10; ++i) firstTenZero = firstTenZero && b[i] == 0;
    if (firstTenZero && b[10] == 0xFF && b[11] == 0xFF) return 10;  // ::ffff:0:0/96
    if (firstTenZero && b[10] == 0 && b[11] == 0) {
        const uint32_t tail = (uint32_t(b[12]) << 24) | (uint32_t(b[13]) << 16) |
                              (uint32_t(b[14]) << 8) | uint32_t(b[15]);
        if (tail > 1) return 11;  // ::a.b.c.d
    }
    return 6;
}

bool isAllZero(const unsigned char* bytes, size_t length) {
    for (size_t i = 0; i < length; ++i)
        if (bytes[i] != 0) return false;
    return true;
}

// Both records carry the same addresses for publishing purposes: name, IPv4
// triple, MAC, and every IPv6 address of `right` found among `left`'s (each of
// `left`'s used once; extra addresses on the left go unnoticed).
bool publishesSame(const QelIfParameter& left, const QelIfParameter& right) {
    if (left.name != right.name) return false;
    if (left.ipv4Address != right.ipv4Address || left.netmask != right.netmask ||
        left.broadcastAddress != right.broadcastAddress)
        return false;
    if (std::memcmp(left.macAddress.bytes, right.macAddress.bytes, sizeof left.macAddress.bytes) !=
        0)
        return false;
    std::vector<bool> used(left.ipv6Addresses.size(), false);
    for (const QelIpv6AddressInfo& wanted : right.ipv6Addresses) {
        bool found = false;
        for (size_t i = 0; i < left.ipv6Addresses.size() && !found; ++i) {
            if (!used[i] && left.ipv6Addresses[i].isSameAddress(wanted)) {
                used[i] = true;
                found = true;
            }
        }
        if (!found) return false;
    }
    return true;
}

}  // namespace

QelIpv6AddressInfo::QelIpv6AddressInfo(const IPv6Address& address, unsigned int prefixLength,
                                       unsigned int addressType)
    : address(address), prefixLength(prefixLength), addressType(addressType), reserved(0) {}

QelIfParameter::QelIfParameter(int position, const std::string& name,
                               const IPv4Address& ipv4Address)
    : position(position), name(name), ipv4Address(ipv4Address) {}

QelIp::QelIp() {
    try {
        socketFd = platform().socket(AF_INET, SOCK_DGRAM, 0);
        if (socketFd < 0) QEL_THROW(QelIpError, withErrno("Could not create socket: "));
        listInterfaces();
        readInterfaceDetails();
        readIpv6Addresses();
    } catch (...) {
        // The destructor does not run for a constructor that throws.
        release();
        throw;
    }
}

QelIp::~QelIp() { release(); }

void QelIp::release() noexcept {
    std::free(ifc.ifc_buf);
    ifc.ifc_buf = nullptr;
    ifc.ifc_len = 0;
    if (socketFd >= 0) platform().close(socketFd);
    socketFd = -1;
    std::free(netlinkBuffer);
    netlinkBuffer = nullptr;
    netlinkBufferSize = 0;
}

// SIOCGIFCONF into a buffer that grows by one entry per round until the kernel
// leaves part of it unused or more than 512 entries came back. Growing by one
// is slow for big hosts but it is what the agent has always done, and the
// 512-entry cap bounds it.
void QelIp::listInterfaces() {
    unsigned int count = initialEntryCount;
    int requested = 0;
    // The kernel is asked with a buffer one entry larger each round, as the
    // agent always did; the memory behind it grows by doubling, so the
    // hundreds of rounds on a big host do not copy the buffer every time.
    size_t capacity = 0;
    do {
        requested = static_cast<int>((count + 1) * ifreqSize);
        if (static_cast<size_t>(requested) > capacity) {
            const size_t wanted = std::max(static_cast<size_t>(requested), 2 * capacity);
            void* grown = std::realloc(ifc.ifc_buf, wanted);
            if (grown == nullptr) {
                std::free(ifc.ifc_buf);
                ifc.ifc_buf = nullptr;
                ifc.ifc_len = 0;
                QEL_THROW(QelIpError, "realloc failed. ");
            }
            ifc.ifc_buf = static_cast<char*>(grown);
            capacity = wanted;
        }
        // Entries the kernel does not fill read as nameless and are skipped.
        std::memset(ifc.ifc_buf, 0, static_cast<size_t>(requested));
        ifc.ifc_len = requested;
        if (platform().ioctl(socketFd, SIOCGIFCONF, &ifc) < 0) {
            const std::string message = withErrno("SIOCGIFCONF failed: ");
            platform().close(socketFd);
            socketFd = -1;
            QEL_THROW(QelIpError, message);
        }
        // The kernel never reports more than it was given; whoever stands in
        // for it is held to that, so the entries walked below are ours.
        if (ifc.ifc_len < 0) ifc.ifc_len = 0;
        if (ifc.ifc_len > requested) ifc.ifc_len = requested;
        count = static_cast<unsigned int>(ifc.ifc_len) / ifreqSize;
    } while (count <= maximumEntryCount && ifc.ifc_len >= requested);
}

void QelIp::readInterfaceDetails() {
    const unsigned int count = static_cast<unsigned int>(ifc.ifc_len) / ifreqSize;
    for (unsigned int position = 0; position < count; ++position) {
        struct ifreq* entry = &ifc.ifc_req[position];
        const std::string name(entry->ifr_name, strnlen(entry->ifr_name, IFNAMSIZ));
        IPv4Address ipv4;
        unsigned char raw[4];
        std::memcpy(raw, &reinterpret_cast<const sockaddr_in*>(&entry->ifr_addr)->sin_addr, 4);
        ipv4 = raw;

        // The ioctls below reuse the entry in place: its name stays, the
        // union is overwritten by each answer.
        if (platform().ioctl(socketFd, SIOCGIFINDEX, entry) < 0) continue;  // gone meanwhile
        const unsigned int index = static_cast<unsigned int>(entry->ifr_ifindex);
        auto inserted =
            ifParameters.emplace(index, QelIfParameter(static_cast<int>(position), name, ipv4));
        if (!inserted.second)
            QEL_THROW(QelIpError, "if entry for " + name + " is already existing.");
        ++numberOfInterfaces;
        QelIfParameter& record = inserted.first->second;

        // Each detail is optional: a failing ioctl leaves its field at zero.
        if (platform().ioctl(socketFd, SIOCGIFMTU, entry) >= 0)
            record.mtu = static_cast<unsigned int>(entry->ifr_mtu);
        if (platform().ioctl(socketFd, SIOCGIFHWADDR, entry) >= 0)
            std::memcpy(record.macAddress.bytes, entry->ifr_hwaddr.sa_data, 6);
        if (platform().ioctl(socketFd, SIOCGIFNETMASK, entry) >= 0)
            record.netmask = inet_ntoa(reinterpret_cast<const sockaddr_in*>(&entry->ifr_netmask)->sin_addr);
        if (platform().ioctl(socketFd, SIOCGIFBRDADDR, entry) >= 0)
            record.broadcastAddress =
                inet_ntoa(reinterpret_cast<const sockaddr_in*>(&entry->ifr_broadaddr)->sin_addr);
        if (platform().ioctl(socketFd, SIOCGIFFLAGS, entry) >= 0)
            record.flags = static_cast<unsigned short>(entry->ifr_flags);
    }
}

void QelIp::readIpv6Addresses() {
    struct ifaddrs* list = nullptr;
    if (platform().getifaddrs(&list) != 0)
        QEL_THROW(QelIpError, withErrno("call of getifaddrs failed: "));
    struct Release {
        struct ifaddrs* list;
        ~Release() { platform().freeifaddrs(list); }
    } releaseList{list};

    // By name, first match in key order: getifaddrs gives no index that would
    // be cheaper to trust across the two listings. The names are looked up in
    // a table built once, in key order, keeping the first record of a name:
    // the same answer as walking the records for every address, without the
    // walk's cost on hosts with hundreds of interfaces.
    std::unordered_map<std::string, QelIfParameter*> byName;
    byName.reserve(ifParameters.size());
    for (auto& item : ifParameters) byName.emplace(item.second.name, &item.second);

    for (const struct ifaddrs* entry = list; entry != nullptr; entry = entry->ifa_next) {
        if (entry->ifa_addr == nullptr || entry->ifa_addr->sa_family != AF_INET6) continue;
        if (entry->ifa_name == nullptr) continue;
        const auto found = byName.find(entry->ifa_name);
        if (found == byName.end()) continue;
        QelIfParameter* record = found->second;
        record->hasIpv6 = true;

        const auto* address = reinterpret_cast<const sockaddr_in6*>(entry->ifa_addr);
        if (isAllZero(address->sin6_addr.s6_addr, 16)) continue;
        unsigned int prefixLength = 0;
        if (entry->ifa_netmask != nullptr) {
            const auto* mask = reinterpret_cast<const sockaddr_in6*>(entry->ifa_netmask);
            prefixLength = IPv6Address(mask->sin6_addr).getNumberOfLeadingOnes();
        }
        record->ipv6Addresses.emplace_back(IPv6Address(address->sin6_addr), prefixLength,
                                           ipv6AddressType(address->sin6_addr.s6_addr));
    }
}

// Equality as the agent's republishing needs it. Each left record is matched
// against the working copy of the right records from its start; a matching
// right record is stepped over, the first one that does not match is dropped
// and the next left record starts over. Running out of right records means
// "different". The consequences are relied on: inventories of one interface
// never compare equal (so a single-NIC host republishes every cycle), while
// identical inventories of two different interfaces do.
bool QelIp::operator==(const QelIp& other) const {
    if (this == &other) return true;
    if (numberOfInterfaces != other.numberOfInterfaces) return false;

    IfParameterMap work = other.ifParameters;
    auto left = ifParameters.begin();
    auto right = work.begin();
    while (left != ifParameters.end()) {
        if (right == work.end()) return false;
        if (publishesSame(left->second, right->second)) {
            ++right;
            continue;
        }
        work.erase(right);
        ++left;
        right = work.begin();
    }
    return true;
}

void QelIp::updateFlags(IfParameterMap::iterator entry) {
    QelIfParameter& record = entry->second;
    if (record.position < 0) return;
    // Only entries that SIOCGIFCONF filled can be asked again.
    const unsigned int count = static_cast<unsigned int>(ifc.ifc_len) / ifreqSize;
    if (ifc.ifc_buf == nullptr || static_cast<unsigned int>(record.position) >= count) {
        record.flags = 0;
        return;
    }
    struct ifreq* request = &ifc.ifc_req[record.position];
    if (platform().ioctl(socketFd, SIOCGIFFLAGS, request) < 0)
        record.flags = 0;
    else
        record.flags = static_cast<unsigned short>(request->ifr_flags);
}

void QelIp::getIPv6AddrData() {
    const int fd = platform().socket(PF_NETLINK, SOCK_RAW, NETLINK_ROUTE);
    if (fd < 0) QEL_THROW(QelIpError, withErrno("Could not create socket for PF_NETLINK: "));

    struct {
        struct nlmsghdr header;
        struct ifaddrmsg message;
    } request;
    static_assert(sizeof request == addressMessageHeader, "24-byte RTM_GETADDR request");
    std::memset(&request, 0, sizeof request);
    request.header.nlmsg_len = sizeof request;
    request.header.nlmsg_type = RTM_GETADDR;
    request.header.nlmsg_flags = NLM_F_REQUEST | NLM_F_ROOT;
    request.header.nlmsg_seq = 0;
    request.header.nlmsg_pid = static_cast<__u32>(getpid());
    request.message.ifa_family = AF_INET6;
    if (platform().send(fd, &request, sizeof request, 0) < 0) {
        const std::string message = withErrno("send call returned with error: ");
        platform().close(fd);
        QEL_THROW(QelIpError, message);
    }

    // Peek with a buffer 256 bytes larger each round until the datagram no
    // longer fills it.
    ssize_t received = 0;
    do {
        void* grown = std::realloc(netlinkBuffer, netlinkBufferSize + netlinkGrowth);
        if (grown == nullptr) {
            std::free(netlinkBuffer);
            netlinkBuffer = nullptr;
            netlinkBufferSize = 0;
            platform().close(fd);
            QEL_THROW(QelIpError, "realloc failed. ");
        }
        netlinkBuffer = static_cast<unsigned char*>(grown);
        netlinkBufferSize += netlinkGrowth;
        received = platform().recv(fd, netlinkBuffer, netlinkBufferSize, MSG_PEEK);
    } while (received == static_cast<ssize_t>(netlinkBufferSize));

    if (platform().close(fd) != 0) QEL_THROW(QelIpError, withErrno("Could not close socket: "));

    // A failed receive leaves nothing to walk; a receiver that claims more than
    // the buffer holds is held to the buffer.
    size_t remaining = received < 0 ? 0 : static_cast<size_t>(received);
    if (remaining > netlinkBufferSize) remaining = netlinkBufferSize;
    size_t offset = 0;

    // Every length below is checked against the bytes that remain before
    // anything behind it is read, so crafted or truncated data ends the walk
    // or throws, never reads past what was received.
    while (remaining > netlinkHeaderSize) {
        struct nlmsghdr header;
        std::memcpy(&header, netlinkBuffer + offset, sizeof header);
        if (header.nlmsg_len < netlinkHeaderSize || header.nlmsg_len > remaining)
            QEL_THROW(QelIpError, withErrno("buffer length error: "));
        // Same test again; it cannot fire after the one above, and stays
        // because the two texts are what the logs have always shown.
        if (header.nlmsg_len < netlinkHeaderSize || header.nlmsg_len > remaining)
            QEL_THROW(QelIpError, withErrno("The message may be truncated or contains errors. "));
        const size_t messageLength = header.nlmsg_len;

        // A message too short for an ifaddrmsg (the dump's closing NLMSG_DONE
        // is one) has no interface index to look at.
        if (messageLength >= addressMessageHeader) {
            uint32_t index = 0;
            std::memcpy(&index, netlinkBuffer + offset + interfaceIndexOffset, sizeof index);
            auto found = ifParameters.find(index);
            if (found == ifParameters.end()) {
                auto inserted = ifParameters.emplace(index, QelIfParameter(-1, "noname", IPv4Address()));
                if (!inserted.second)
                    QEL_THROW(QelIpError, "Unable to create new entry in ifParameters list. ");
                found = inserted.first;
                ++numberOfInterfaces;
            }
            QelIfParameter& record = found->second;

            size_t attributeOffset = offset + addressMessageHeader;
            size_t attributesLeft = messageLength - addressMessageHeader;
            while (attributesLeft >= attributeHeaderSize) {
                struct rtattr attribute;
                std::memcpy(&attribute, netlinkBuffer + attributeOffset, sizeof attribute);
                if (attribute.rta_len < attributeHeaderSize || attribute.rta_len > attributesLeft)
                    break;
                const unsigned char* data = netlinkBuffer + attributeOffset + attributeHeaderSize;
                const size_t dataLength = attribute.rta_len - attributeHeaderSize;

                // Every attribute adds a record, labels and unknown ones an
                // all-zero one; readers skip zero addresses.
                QelIpv6AddressInfo info;
                unsigned int type = 0;
                switch (attribute.rta_type) {
                case IFA_ADDRESS: type = 6; break;
                case IFA_LOCAL: type = 5; break;
                case IFA_BROADCAST: type = 3; break;
                case IFA_ANYCAST: type = 4; break;
                case IFA_LABEL:
                    if (record.name.empty())
                        record.name.assign(reinterpret_cast<const char*>(data),
                                           strnlen(reinterpret_cast<const char*>(data), dataLength));
                    break;
                default: break;
                }
                // An address attribute too short for sixteen bytes carries no
                // address; it adds a zero record like an unknown attribute.
                if (type != 0 && dataLength >= 16) {
                    info.address = IPv6Address(data);
                    info.addressType = type;
                }
                record.ipv6Addresses.push_back(info);

                const size_t step = RTA_ALIGN(attribute.rta_len);
                if (step >= attributesLeft) break;
                attributeOffset += step;
                attributesLeft -= step;
            }
        }

        const size_t step = NLMSG_ALIGN(messageLength);
        if (step >= remaining) break;
        offset += step;
        remaining -= step;
    }
}

const QelIfParameter* QelIp::find(unsigned int index) const {
    if (index == 0) return nullptr;
    auto found = ifParameters.find(index);
    return found == ifParameters.end() ? nullptr : &found->second;
}

bool QelIp::isLoopback(unsigned int index) const {
    const QelIfParameter* record = find(index);
    return record != nullptr && (record->flags & IFF_LOOPBACK) != 0;
}

IPv4Address QelIp::getIpv4Address(unsigned int index) const {
    const QelIfParameter* record = find(index);
    return record != nullptr ? record->ipv4Address : IPv4Address();
}

unsigned int QelIp::getNumberOfIpv6Addresses(unsigned int index) const {
    const QelIfParameter* record = find(index);
    return record != nullptr ? static_cast<unsigned int>(record->ipv6Addresses.size()) : 0;
}

QelIpv6AddressInfo QelIp::getIpv6AddressInfo(unsigned int index, unsigned int n) const {
    const QelIfParameter* record = find(index);
    if (record == nullptr || n >= record->ipv6Addresses.size()) return QelIpv6AddressInfo();
    return record->ipv6Addresses[n];
}

MacAddress QelIp::getMacAddress(unsigned int index) const {
    const QelIfParameter* record = find(index);
    return record != nullptr ? record->macAddress : MacAddress();
}

}  // namespace qelIp
