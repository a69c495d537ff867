#define QEL_SOURCE_NAME "qelHostInventory"

#include "qelHostInventory.h"

#include <linux/if_addr.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <map>
#include <utility>

#include "qelPlatform.h"

namespace qelHostInventory {

QEL_DEFINE_ERROR(QelHostInventoryError)

namespace {

using qelPlatform::platform;

std::string withErrno(const std::string& message, int error) { return message + std::strerror(error); }

// The socket, closed on every path out.
class NetlinkSocket {
public:
    NetlinkSocket() {
        fd_ = platform().socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE);
        if (fd_ < 0) QEL_THROW(QelHostInventoryError, withErrno("netlink socket failed: ", errno));
        // The kernel picks our port id when the first message is sent
        // (autobind); ask for it only then.
    }
    ~NetlinkSocket() { platform().close(fd_); }
    NetlinkSocket(const NetlinkSocket&) = delete;
    NetlinkSocket& operator=(const NetlinkSocket&) = delete;
    int fd() const { return fd_; }

private:
    int fd_ = -1;
};

// Reads attributes of one message without ever looking past `end`.
class Attributes {
public:
    Attributes(const unsigned char* begin, const unsigned char* end) : at_(begin), end_(end) {}

    // The next attribute; false at the end. Throws on an attribute whose
    // length runs past the message.
    bool next(unsigned short& type, const unsigned char*& data, size_t& length) {
        if (at_ >= end_) return false;
        const size_t left = static_cast<size_t>(end_ - at_);
        if (left < sizeof(struct rtattr))
            QEL_THROW(QelHostInventoryError, "netlink attribute header cut short");
        struct rtattr header;
        std::memcpy(&header, at_, sizeof header);
        if (header.rta_len < sizeof(struct rtattr) || header.rta_len > left)
            QEL_THROW(QelHostInventoryError, "netlink attribute length " + std::to_string(header.rta_len) +
                                                 " does not fit its message");
        type = header.rta_type & NLA_TYPE_MASK;
        data = at_ + RTA_LENGTH(0);
        length = header.rta_len - RTA_LENGTH(0);
        const size_t step = RTA_ALIGN(header.rta_len);
        at_ = step >= left ? end_ : at_ + step;
        return true;
    }

private:
    const unsigned char* at_;
    const unsigned char* end_;
};

std::string stringAttribute(const unsigned char* data, size_t length) {
    // Up to the terminating NUL the kernel sends, never past the attribute.
    const void* nul = std::memchr(data, 0, length);
    const size_t used = nul != nullptr ? static_cast<size_t>(static_cast<const unsigned char*>(nul) - data) : length;
    return std::string(reinterpret_cast<const char*>(data), used);
}

std::uint32_t u32Attribute(const unsigned char* data, size_t length, const char* what) {
    if (length < sizeof(std::uint32_t))
        QEL_THROW(QelHostInventoryError, std::string("netlink attribute ") + what + " is too short");
    std::uint32_t value;
    std::memcpy(&value, data, sizeof value);
    return value;
}

// What one address message said, before it is joined to its interface.
struct AddressRecord {
    int index = 0;
    int family = 0;
    Ipv4AddressEntry ipv4;
    Ipv6AddressEntry ipv6;
};

void parseLink(const unsigned char* payload, size_t length, std::vector<Interface>& out) {
    if (length < sizeof(struct ifinfomsg))
        QEL_THROW(QelHostInventoryError, "RTM_NEWLINK message too short for its header");
    struct ifinfomsg info;
    std::memcpy(&info, payload, sizeof info);
    Interface itf;
    itf.index = info.ifi_index;
    itf.flags = info.ifi_flags;
    Attributes attributes(payload + NLMSG_ALIGN(sizeof info), payload + length);
    unsigned short type;
    const unsigned char* data;
    size_t size;
    while (attributes.next(type, data, size)) {
        switch (type) {
        case IFLA_IFNAME: itf.name = stringAttribute(data, size); break;
        case IFLA_MTU: itf.mtu = u32Attribute(data, size, "IFLA_MTU"); break;
        case IFLA_ADDRESS:
            // Only Ethernet-like hardware addresses are MACs; tunnels carry
            // IPv4 or IPv6 addresses here, loopback six zero bytes.
            if (size == sizeof itf.mac.bytes) {
                itf.hasMac = true;
                std::memcpy(itf.mac.bytes, data, size);
            }
            break;
        default: break;
        }
    }
    out.push_back(std::move(itf));
}

void parseAddress(const unsigned char* payload, size_t length, std::vector<AddressRecord>& out) {
    if (length < sizeof(struct ifaddrmsg))
        QEL_THROW(QelHostInventoryError, "RTM_NEWADDR message too short for its header");
    struct ifaddrmsg info;
    std::memcpy(&info, payload, sizeof info);
    if (info.ifa_family != AF_INET && info.ifa_family != AF_INET6) return;
    const size_t addressLength = info.ifa_family == AF_INET ? 4 : 16;
    const unsigned char* local = nullptr;
    const unsigned char* address = nullptr;
    const unsigned char* broadcast = nullptr;
    std::string label;
    std::uint32_t flags = info.ifa_flags;
    Attributes attributes(payload + NLMSG_ALIGN(sizeof info), payload + length);
    unsigned short type;
    const unsigned char* data;
    size_t size;
    while (attributes.next(type, data, size)) {
        switch (type) {
        case IFA_LOCAL:
        case IFA_ADDRESS:
        case IFA_BROADCAST:
            if (size != addressLength)
                QEL_THROW(QelHostInventoryError, "netlink address attribute of " + std::to_string(size) +
                                                     " bytes for a " + std::to_string(addressLength) +
                                                     "-byte address");
            (type == IFA_LOCAL ? local : type == IFA_ADDRESS ? address : broadcast) = data;
            break;
        case IFA_LABEL: label = stringAttribute(data, size); break;
        case IFA_FLAGS: flags = u32Attribute(data, size, "IFA_FLAGS"); break;
        default: break;
        }
    }
    // IFA_LOCAL is this host's address; IFA_ADDRESS is the peer's on a
    // point-to-point link and the same as IFA_LOCAL elsewhere.
    const unsigned char* own = local != nullptr ? local : address;
    if (own == nullptr) QEL_THROW(QelHostInventoryError, "RTM_NEWADDR message without an address");
    AddressRecord record;
    record.index = static_cast<int>(info.ifa_index);
    record.family = info.ifa_family;
    if (info.ifa_family == AF_INET) {
        record.ipv4.address = own;
        record.ipv4.prefixLength = info.ifa_prefixlen;
        if (broadcast != nullptr) {
            record.ipv4.hasBroadcast = true;
            record.ipv4.broadcast = broadcast;
        }
        record.ipv4.label = std::move(label);
        record.ipv4.secondary = (flags & IFA_F_SECONDARY) != 0;
    } else {
        record.ipv6.address = IPv6Address(own);
        record.ipv6.prefixLength = info.ifa_prefixlen;
        record.ipv6.scope = info.ifa_scope;
        record.ipv6.flags = flags;
    }
    out.push_back(std::move(record));
}

// One dump: sends the request and collects its messages through `parse`.
// Returns false when the kernel marked the dump as interrupted by a change.
template <typename Parse>
bool dump(int fd, std::uint16_t requestType, std::uint32_t sequence, std::vector<unsigned char>& buffer,
          Parse parse) {
    struct {
        struct nlmsghdr header;
        union {
            struct ifinfomsg link;
            struct ifaddrmsg address;
        } body;
    } request;
    std::memset(&request, 0, sizeof request);
    const size_t bodyLength = requestType == RTM_GETLINK ? sizeof(struct ifinfomsg) : sizeof(struct ifaddrmsg);
    request.header.nlmsg_len = static_cast<std::uint32_t>(NLMSG_LENGTH(bodyLength));
    request.header.nlmsg_type = requestType;
    request.header.nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
    request.header.nlmsg_seq = sequence;
    // family AF_UNSPEC (0): every family.
    const char* what = requestType == RTM_GETLINK ? "RTM_GETLINK" : "RTM_GETADDR";
    ssize_t sent;
    do {
        sent = platform().send(fd, &request, request.header.nlmsg_len, 0);
    } while (sent < 0 && errno == EINTR);
    if (sent < 0) QEL_THROW(QelHostInventoryError, withErrno(std::string(what) + " request failed: ", errno));
    if (static_cast<size_t>(sent) != request.header.nlmsg_len)
        QEL_THROW(QelHostInventoryError, std::string(what) + " request sent only in part");

    struct sockaddr_nl self;
    socklen_t selfLength = sizeof self;
    std::memset(&self, 0, sizeof self);
    if (platform().getsockname(fd, reinterpret_cast<struct sockaddr*>(&self), &selfLength) != 0)
        QEL_THROW(QelHostInventoryError, withErrno("getsockname on the netlink socket failed: ", errno));
    const std::uint32_t portId = self.nl_pid;

    bool interrupted = false;
    for (;;) {
        // The datagram's real size first, so one receive always takes it whole.
        ssize_t pending;
        do {
            pending = platform().recv(fd, nullptr, 0, MSG_PEEK | MSG_TRUNC);
        } while (pending < 0 && errno == EINTR);
        if (pending < 0) QEL_THROW(QelHostInventoryError, withErrno(std::string(what) + " receive failed: ", errno));
        if (pending == 0) QEL_THROW(QelHostInventoryError, std::string(what) + " dump ended without NLMSG_DONE");
        if (buffer.size() < static_cast<size_t>(pending)) buffer.resize(static_cast<size_t>(pending));
        ssize_t received;
        do {
            received = platform().recv(fd, buffer.data(), buffer.size(), 0);
        } while (received < 0 && errno == EINTR);
        if (received < 0) QEL_THROW(QelHostInventoryError, withErrno(std::string(what) + " receive failed: ", errno));
        // Never trust more than both the receive and the buffer say.
        const size_t total = std::min(static_cast<size_t>(received), buffer.size());

        size_t offset = 0;
        while (offset < total) {
            const size_t left = total - offset;
            if (left < sizeof(struct nlmsghdr))
                QEL_THROW(QelHostInventoryError, std::string(what) + " reply: message header cut short (" +
                                                     std::to_string(left) + " bytes)");
            struct nlmsghdr header;
            std::memcpy(&header, buffer.data() + offset, sizeof header);
            if (header.nlmsg_len < sizeof(struct nlmsghdr) || header.nlmsg_len > left)
                QEL_THROW(QelHostInventoryError, std::string(what) + " reply: message length " +
                                                     std::to_string(header.nlmsg_len) + " does not fit the " +
                                                     std::to_string(left) + " bytes received");
            if (header.nlmsg_seq != sequence || header.nlmsg_pid != portId)
                QEL_THROW(QelHostInventoryError, std::string(what) + " reply for sequence " +
                                                     std::to_string(header.nlmsg_seq) + " port " +
                                                     std::to_string(header.nlmsg_pid) + ", expected " +
                                                     std::to_string(sequence) + " port " + std::to_string(portId));
            if (header.nlmsg_flags & NLM_F_DUMP_INTR) interrupted = true;
            const unsigned char* payload = buffer.data() + offset + NLMSG_HDRLEN;
            const size_t payloadLength =
                header.nlmsg_len >= NLMSG_HDRLEN ? header.nlmsg_len - NLMSG_HDRLEN : 0;
            if (header.nlmsg_type == NLMSG_DONE) return !interrupted;
            if (header.nlmsg_type == NLMSG_ERROR) {
                struct nlmsgerr error;
                if (payloadLength < sizeof error)
                    QEL_THROW(QelHostInventoryError, std::string(what) + " reply: NLMSG_ERROR cut short");
                std::memcpy(&error, payload, sizeof error);
                if (error.error == 0)  // an acknowledgement; a dump does not end with one
                    QEL_THROW(QelHostInventoryError, std::string(what) + " answered with an acknowledgement, not a dump");
                // The kernel sends a negative errno; whatever else arrives is
                // negated without overflow (INT_MIN stays itself), so the text
                // names the number as it came.
                const int number = static_cast<int>(0u - static_cast<unsigned int>(error.error));
                QEL_THROW(QelHostInventoryError, withErrno(std::string(what) + " refused: ", number));
            }
            parse(header.nlmsg_type, payload, payloadLength);
            const size_t step = NLMSG_ALIGN(header.nlmsg_len);
            offset = step >= left ? total : offset + step;
        }
    }
}

// Reads one dump until the kernel completes it without an interruption;
// `what` names the list in the error when it never does.
template <typename Record, typename Parse>
std::vector<Record> completeDump(int fd, std::uint16_t request, std::uint16_t reply, std::uint32_t& sequence,
                                 std::vector<unsigned char>& buffer, const char* what, Parse parse) {
    std::vector<Record> records;
    for (int attempt = 1;; ++attempt) {
        records.clear();
        const bool complete = dump(fd, request, sequence++, buffer,
                                   [&](std::uint16_t type, const unsigned char* payload, size_t length) {
                                       if (type == reply) parse(payload, length, records);
                                   });
        if (complete) return records;
        if (attempt == QelHostInventory::maxDumpAttempts)
            QEL_THROW(QelHostInventoryError, std::string("the ") + what + " kept changing while it was read (" +
                                                 std::to_string(attempt) + " attempts)");
    }
}

std::vector<Interface> readKernel() {
    NetlinkSocket socket;
    std::vector<unsigned char> buffer(32768);
    std::uint32_t sequence = 1;

    std::vector<Interface> links = completeDump<Interface>(socket.fd(), RTM_GETLINK, RTM_NEWLINK, sequence, buffer,
                                                           "interface list", parseLink);
    std::vector<AddressRecord> addresses = completeDump<AddressRecord>(
        socket.fd(), RTM_GETADDR, RTM_NEWADDR, sequence, buffer, "address list", parseAddress);

    std::sort(links.begin(), links.end(), [](const Interface& a, const Interface& b) { return a.index < b.index; });
    // A link listed twice (it changed between two datagrams of one dump)
    // counts once: the later report is the newer.
    std::vector<Interface> unique;
    unique.reserve(links.size());
    for (Interface& link : links) {
        if (!unique.empty() && unique.back().index == link.index)
            unique.back() = std::move(link);
        else
            unique.push_back(std::move(link));
    }
    std::map<int, size_t> position;
    for (size_t i = 0; i < unique.size(); ++i) position[unique[i].index] = i;
    for (AddressRecord& record : addresses) {
        auto found = position.find(record.index);
        // An interface deleted between the two dumps took its addresses along.
        if (found == position.end()) continue;
        Interface& itf = unique[found->second];
        if (record.family == AF_INET) {
            if (record.ipv4.label.empty()) record.ipv4.label = itf.name;
            itf.ipv4.push_back(std::move(record.ipv4));
        } else {
            itf.ipv6.push_back(record.ipv6);
        }
    }
    return unique;
}

}  // namespace

bool Ipv4AddressEntry::operator==(const Ipv4AddressEntry& other) const {
    return address == other.address && prefixLength == other.prefixLength &&
           hasBroadcast == other.hasBroadcast && (!hasBroadcast || broadcast == other.broadcast) &&
           label == other.label && secondary == other.secondary;
}

bool Ipv6AddressEntry::tentative() const { return (flags & IFA_F_TENTATIVE) != 0; }
bool Ipv6AddressEntry::deprecated() const { return (flags & IFA_F_DEPRECATED) != 0; }
bool Ipv6AddressEntry::temporary() const { return (flags & IFA_F_TEMPORARY) != 0; }
bool Ipv6AddressEntry::dadFailed() const { return (flags & IFA_F_DADFAILED) != 0; }
bool Ipv6AddressEntry::permanent() const { return (flags & IFA_F_PERMANENT) != 0; }
bool Ipv6AddressEntry::publishable() const { return !tentative() && !dadFailed(); }

bool Ipv6AddressEntry::operator==(const Ipv6AddressEntry& other) const {
    return address == other.address && prefixLength == other.prefixLength && scope == other.scope &&
           flags == other.flags;
}

bool Interface::up() const { return (flags & IFF_UP) != 0; }
bool Interface::running() const { return (flags & IFF_RUNNING) != 0; }
bool Interface::loopback() const { return (flags & IFF_LOOPBACK) != 0; }
bool Interface::pointToPoint() const { return (flags & IFF_POINTOPOINT) != 0; }

const Ipv4AddressEntry* Interface::primaryIpv4() const {
    for (const Ipv4AddressEntry& entry : ipv4)
        if (!entry.secondary) return &entry;
    return nullptr;
}

std::vector<Ipv6AddressEntry> Interface::publishableIpv6() const {
    std::vector<Ipv6AddressEntry> result;
    for (const Ipv6AddressEntry& entry : ipv6)
        if (entry.publishable()) result.push_back(entry);
    return result;
}

bool Interface::operator==(const Interface& other) const {
    return index == other.index && name == other.name && hasMac == other.hasMac &&
           (!hasMac || std::memcmp(mac.bytes, other.mac.bytes, sizeof mac.bytes) == 0) && mtu == other.mtu &&
           flags == other.flags && ipv4 == other.ipv4 && ipv6 == other.ipv6;
}

QelHostInventory::QelHostInventory() : interfaces_(readKernel()) {}

QelHostInventory::QelHostInventory(std::vector<Interface> interfaces) : interfaces_(std::move(interfaces)) {
    std::stable_sort(interfaces_.begin(), interfaces_.end(),
                     [](const Interface& a, const Interface& b) { return a.index < b.index; });
}

const Interface* QelHostInventory::find(int index) const {
    auto found = std::lower_bound(interfaces_.begin(), interfaces_.end(), index,
                                  [](const Interface& itf, int wanted) { return itf.index < wanted; });
    return found != interfaces_.end() && found->index == index ? &*found : nullptr;
}

const Interface* QelHostInventory::findByName(const std::string& name) const {
    for (const Interface& itf : interfaces_)
        if (itf.name == name) return &itf;
    return nullptr;
}

std::vector<const Interface*> QelHostInventory::findByMac(const MacAddress& mac) const {
    std::vector<const Interface*> result;
    for (const Interface& itf : interfaces_)
        if (itf.hasMac && std::memcmp(itf.mac.bytes, mac.bytes, sizeof mac.bytes) == 0) result.push_back(&itf);
    return result;
}

bool QelHostInventory::operator==(const QelHostInventory& other) const { return interfaces_ == other.interfaces_; }

}  // namespace qelHostInventory
