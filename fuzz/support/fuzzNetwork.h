// The host's network as a fuzz input tells it: the answers to the interface
// ioctls (SIOCGIFCONF and the per-interface ones), getifaddrs and the
// rtnetlink socket, each taken from the input when the library asks.
//
// The answers are built with the shape the kernel gives them (a table of
// ifreq entries, netlink messages with headers and attributes) and then bent
// where the input says so: lengths that lie, sequence numbers and port ids
// of someone else, names without a terminating NUL, failing calls. Built
// that way the fuzzer reaches the parsers' deep paths in a few runs, and
// still tries every byte of them.
//
// When the input is used up every call answers as a kernel with nothing more
// to say: ioctls and getifaddrs fail, receives give 0 bytes.
#ifndef QEL_FUZZ_NETWORK_H
#define QEL_FUZZ_NETWORK_H

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <fuzzer/FuzzedDataProvider.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "fuzzPlatform.h"

namespace qelFuzz {

class NetworkScript {
public:
    static constexpr int inetSocket = 900;
    static constexpr int netlinkSocket = 901;
    static constexpr std::uint32_t portId = 4242;

    explicit NetworkScript(FuzzedDataProvider& input) : in_(input) {}

    int socket(int domain) {
        if (oneIn(32)) return fail(EMFILE);
        return domain == AF_INET ? inetSocket : netlinkSocket;
    }

    int close(int) { return oneIn(64) ? fail(EBADF) : 0; }

    int ioctl(unsigned long request, void* argument) {
        if (request == SIOCGIFCONF) return interfaceList(static_cast<struct ifconf*>(argument));
        auto* entry = static_cast<struct ifreq*>(argument);
        if (in_.remaining_bytes() == 0 || oneIn(16)) return fail(ENODEV);
        switch (request) {
        case SIOCGIFINDEX:
            // Small numbers, so that two entries meet on one index now and then.
            entry->ifr_ifindex = in_.ConsumeIntegralInRange<int>(0, 12);
            return 0;
        case SIOCGIFMTU:
            entry->ifr_mtu = in_.ConsumeIntegral<int>();
            return 0;
        case SIOCGIFHWADDR:
            entry->ifr_hwaddr.sa_family = 1;
            fill(entry->ifr_hwaddr.sa_data, sizeof entry->ifr_hwaddr.sa_data);
            return 0;
        case SIOCGIFNETMASK:
        case SIOCGIFBRDADDR: {
            struct sockaddr_in address {};
            address.sin_family = AF_INET;
            address.sin_addr.s_addr = in_.ConsumeIntegral<std::uint32_t>();
            std::memcpy(&entry->ifr_addr, &address, sizeof address);
            return 0;
        }
        case SIOCGIFFLAGS:
            entry->ifr_flags = in_.ConsumeIntegral<short>();
            return 0;
        default:
            return fail(EINVAL);
        }
    }

    int getifaddrs(struct ifaddrs** out) {
        if (oneIn(32)) return fail(ENOMEM);
        *out = nullptr;
        struct ifaddrs** tail = out;
        const unsigned count = in_.ConsumeIntegralInRange<unsigned>(0, 12);
        for (unsigned i = 0; i < count && in_.remaining_bytes() > 0; ++i) {
            auto* node = new Node{};
            const unsigned char nameKind = in_.ConsumeIntegral<unsigned char>();
            if (nameKind < 200 && !names_.empty())
                node->name = names_[nameKind % names_.size()];
            else if (nameKind < 250)
                node->name = in_.ConsumeRandomLengthString(IFNAMSIZ);
            node->entry.ifa_name = nameKind == 255 ? nullptr : node->name.data();
            const unsigned char addressKind = in_.ConsumeIntegralInRange<unsigned char>(0, 7);
            if (addressKind != 0) {
                auto* address = reinterpret_cast<struct sockaddr_in6*>(&node->address);
                address->sin6_family = addressKind == 1 ? AF_INET : AF_INET6;
                fill(address->sin6_addr.s6_addr, 16);
                node->entry.ifa_addr = reinterpret_cast<struct sockaddr*>(&node->address);
            }
            if (in_.ConsumeBool()) {
                auto* mask = reinterpret_cast<struct sockaddr_in6*>(&node->netmask);
                mask->sin6_family = AF_INET6;
                fill(mask->sin6_addr.s6_addr, 16);
                node->entry.ifa_netmask = reinterpret_cast<struct sockaddr*>(&node->netmask);
            }
            *tail = &node->entry;
            tail = &node->entry.ifa_next;
        }
        return 0;
    }

    static void freeifaddrs(struct ifaddrs* list) {
        while (list != nullptr) {
            struct ifaddrs* next = list->ifa_next;
            delete reinterpret_cast<Node*>(list);
            list = next;
        }
    }

    ssize_t send(const void* data, size_t length) {
        if (oneIn(32)) return fail(ENOBUFS);
        if (length >= sizeof(struct nlmsghdr)) {
            struct nlmsghdr header;
            std::memcpy(&header, data, sizeof header);
            sequence_ = header.nlmsg_seq;
            requestType_ = header.nlmsg_type;
        }
        pending_.reset();
        if (oneIn(64)) return static_cast<ssize_t>(length / 2);
        return static_cast<ssize_t>(length);
    }

    int getsockname(struct sockaddr* address, socklen_t* length) {
        if (oneIn(64)) return fail(EBADF);
        struct sockaddr_nl self {};
        self.nl_family = AF_NETLINK;
        self.nl_pid = portId;
        std::memcpy(address, &self, std::min<size_t>(*length, sizeof self));
        *length = sizeof self;
        return 0;
    }

    ssize_t recv(void* data, size_t length, int flags) {
        if (!pending_.ready) {
            if (in_.remaining_bytes() > 0 && oneIn(32)) return fail(oneIn(2) ? EIO : ENOBUFS);
            pending_.bytes = datagram();
            pending_.ready = true;
        }
        const std::vector<unsigned char>& bytes = pending_.bytes;
        const size_t copied = std::min(length, bytes.size());
        if (copied != 0) std::memcpy(data, bytes.data(), copied);
        const ssize_t result =
            static_cast<ssize_t>((flags & MSG_TRUNC) != 0 ? bytes.size() : copied);
        if ((flags & MSG_PEEK) == 0) pending_.reset();
        return result;
    }

private:
    struct Node {
        struct ifaddrs entry;  // first, so the list's pointers are the nodes'
        std::string name;
        struct sockaddr_storage address;
        struct sockaddr_storage netmask;
    };
    struct Pending {
        bool ready = false;
        std::vector<unsigned char> bytes;
        void reset() {
            ready = false;
            bytes.clear();
        }
    };

    bool oneIn(unsigned n) {
        return in_.remaining_bytes() > 0 && in_.ConsumeIntegralInRange<unsigned>(0, n - 1) == 0;
    }
    int fail(int number) {
        errno = number;
        return -1;
    }
    void fill(void* out, size_t length) {
        std::memset(out, 0, length);
        const std::vector<unsigned char> bytes = in_.ConsumeBytes<unsigned char>(length);
        if (!bytes.empty()) std::memcpy(out, bytes.data(), bytes.size());
    }

    // SIOCGIFCONF: the table is made at the first call of an inventory and
    // answered alike by the later, larger calls, as the kernel does.
    int interfaceList(struct ifconf* ifc) {
        if (oneIn(32)) return fail(EINVAL);
        if (!listed_) {
            listed_ = true;
            const unsigned count = in_.ConsumeBool() ? in_.ConsumeIntegralInRange<unsigned>(0, 8)
                                                     : in_.ConsumeIntegralInRange<unsigned>(0, 600);
            for (unsigned i = 0; i < count; ++i) {
                struct ifreq entry;
                std::memset(&entry, 0, sizeof entry);
                const unsigned char nameKind = in_.ConsumeIntegral<unsigned char>();
                std::string name;
                if (nameKind < 224) {
                    name = "eth" + std::to_string(nameKind % 16);
                    std::memcpy(entry.ifr_name, name.data(), name.size());
                } else {
                    // All sixteen bytes, the NUL included or not.
                    fill(entry.ifr_name, IFNAMSIZ);
                    name.assign(entry.ifr_name, strnlen(entry.ifr_name, IFNAMSIZ));
                }
                names_.push_back(name);
                struct sockaddr_in address {};
                address.sin_family = AF_INET;
                address.sin_addr.s_addr = in_.ConsumeIntegral<std::uint32_t>();
                std::memcpy(&entry.ifr_addr, &address, sizeof address);
                table_.push_back(entry);
            }
            lie_ = oneIn(16);
            if (lie_) lieLength_ = in_.ConsumeIntegral<int>();
        }
        const size_t room = ifc->ifc_len < 0 ? 0 : static_cast<size_t>(ifc->ifc_len) / sizeof(struct ifreq);
        const size_t given = std::min(room, table_.size());
        if (given != 0) std::memcpy(ifc->ifc_buf, table_.data(), given * sizeof(struct ifreq));
        ifc->ifc_len = lie_ ? lieLength_ : static_cast<int>(given * sizeof(struct ifreq));
        return 0;
    }

    void putAttribute(std::vector<unsigned char>& out, unsigned short type,
                      const std::vector<unsigned char>& data) {
        struct rtattr header;
        header.rta_len = static_cast<unsigned short>(RTA_LENGTH(data.size()));
        header.rta_type = type;
        if (oneIn(32)) header.rta_len = in_.ConsumeIntegral<unsigned short>();
        const size_t at = out.size();
        out.resize(at + RTA_SPACE(data.size()), 0);
        std::memcpy(out.data() + at, &header, sizeof header);
        if (!data.empty()) std::memcpy(out.data() + at + RTA_LENGTH(0), data.data(), data.size());
    }

    // One netlink message body: the family header, then attributes of the
    // kinds the dump in progress carries.
    std::vector<unsigned char> body(std::uint16_t type) {
        const bool link = type == RTM_NEWLINK;
        const size_t headerSize = link ? sizeof(struct ifinfomsg) : sizeof(struct ifaddrmsg);
        std::vector<unsigned char> out(NLMSG_ALIGN(headerSize), 0);
        fill(out.data(), headerSize);
        if (!link) {
            // A family the parser handles, mostly.
            const unsigned char family = in_.ConsumeIntegralInRange<unsigned char>(0, 4);
            out[0] = family == 0 ? AF_INET6 : family == 1 ? AF_INET : family == 2 ? AF_INET6 : out[0];
        }
        const unsigned count = in_.ConsumeIntegralInRange<unsigned>(0, 6);
        for (unsigned i = 0; i < count && in_.remaining_bytes() > 0; ++i) {
            static const unsigned short linkTypes[] = {IFLA_IFNAME, IFLA_MTU, IFLA_ADDRESS, IFLA_BROADCAST};
            static const unsigned short addressTypes[] = {IFA_LOCAL, IFA_ADDRESS, IFA_BROADCAST, IFA_LABEL,
                                                          IFA_FLAGS};
            const unsigned char kind = in_.ConsumeIntegral<unsigned char>();
            unsigned short attribute;
            if (kind >= 240)
                attribute = in_.ConsumeIntegral<unsigned short>();
            else if (link)
                attribute = linkTypes[kind % 4];
            else
                attribute = addressTypes[kind % 5];
            size_t size;
            const unsigned char sizeKind = in_.ConsumeIntegralInRange<unsigned char>(0, 7);
            if (sizeKind == 0)
                size = in_.ConsumeIntegralInRange<size_t>(0, 40);
            else if (attribute == IFLA_IFNAME || attribute == IFA_LABEL)
                size = in_.ConsumeIntegralInRange<size_t>(1, 16);
            else if (attribute == IFLA_MTU || attribute == IFA_FLAGS)
                size = 4;
            else if (link)
                size = 6;
            else
                size = out[0] == AF_INET ? 4 : 16;
            putAttribute(out, attribute, in_.ConsumeBytes<unsigned char>(size));
        }
        return out;
    }

    // One datagram of a dump: up to eight messages, the last perhaps the
    // dump's end, addressed to us unless the input says otherwise.
    std::vector<unsigned char> datagram() {
        std::vector<unsigned char> out;
        if (in_.remaining_bytes() == 0) return out;
        const unsigned count = in_.ConsumeIntegralInRange<unsigned>(1, 8);
        const std::uint16_t dataType = requestType_ == RTM_GETLINK ? RTM_NEWLINK : RTM_NEWADDR;
        for (unsigned i = 0; i < count && in_.remaining_bytes() > 0; ++i) {
            const unsigned char kind = in_.ConsumeIntegralInRange<unsigned char>(0, 15);
            std::uint16_t type = dataType;
            std::vector<unsigned char> payload;
            if (kind == 0) {
                type = NLMSG_DONE;
                payload.assign(4, 0);
            } else if (kind == 1) {
                type = NLMSG_ERROR;
                struct nlmsgerr error {};
                error.error = in_.ConsumeBool() ? -in_.ConsumeIntegralInRange<int>(0, 133)
                                                : in_.ConsumeIntegral<int>();
                payload.resize(sizeof error);
                std::memcpy(payload.data(), &error, sizeof error);
                if (oneIn(4)) payload.resize(in_.ConsumeIntegralInRange<size_t>(0, sizeof error));
            } else if (kind == 2) {
                type = in_.ConsumeIntegral<std::uint16_t>();
                payload = in_.ConsumeBytes<unsigned char>(in_.ConsumeIntegralInRange<size_t>(0, 64));
            } else {
                payload = body(dataType);
            }
            struct nlmsghdr header {};
            header.nlmsg_len = static_cast<std::uint32_t>(NLMSG_LENGTH(payload.size()));
            header.nlmsg_type = type;
            header.nlmsg_flags = NLM_F_MULTI;
            if (oneIn(16)) header.nlmsg_flags |= NLM_F_DUMP_INTR;
            header.nlmsg_seq = sequence_;
            header.nlmsg_pid = portId;
            if (oneIn(32)) header.nlmsg_len = in_.ConsumeIntegral<std::uint32_t>();
            if (oneIn(32)) header.nlmsg_seq = in_.ConsumeIntegral<std::uint32_t>();
            if (oneIn(32)) header.nlmsg_pid = in_.ConsumeIntegral<std::uint32_t>();
            const size_t at = out.size();
            out.resize(at + NLMSG_ALIGN(NLMSG_LENGTH(payload.size())), 0);
            std::memcpy(out.data() + at, &header, sizeof header);
            if (!payload.empty()) std::memcpy(out.data() + at + NLMSG_HDRLEN, payload.data(), payload.size());
            if (type == NLMSG_DONE) break;
        }
        // A datagram cut anywhere, now and then.
        if (!out.empty() && oneIn(32)) out.resize(in_.ConsumeIntegralInRange<size_t>(0, out.size() - 1));
        return out;
    }

    FuzzedDataProvider& in_;
    bool listed_ = false;
    bool lie_ = false;
    int lieLength_ = 0;
    std::vector<struct ifreq> table_;
    std::vector<std::string> names_;
    std::uint32_t sequence_ = 0;
    std::uint16_t requestType_ = RTM_GETLINK;
    Pending pending_;
};

// ---- the platform's network calls, answered by the installed script

inline int FuzzPlatform::socket(int domain, int, int) const {
    if (network == nullptr) {
        errno = EACCES;
        return -1;
    }
    return network->socket(domain);
}
inline int FuzzPlatform::ioctl(int, unsigned long request, void* argument) const {
    if (network == nullptr) {
        errno = ENODEV;
        return -1;
    }
    return network->ioctl(request, argument);
}
inline int FuzzPlatform::getifaddrs(struct ifaddrs** out) const {
    if (network == nullptr) {
        errno = ENOMEM;
        return -1;
    }
    return network->getifaddrs(out);
}
inline void FuzzPlatform::freeifaddrs(struct ifaddrs* list) const { NetworkScript::freeifaddrs(list); }
inline ssize_t FuzzPlatform::send(int, const void* data, size_t length, int) const {
    if (network == nullptr) {
        errno = EBADF;
        return -1;
    }
    return network->send(data, length);
}
inline ssize_t FuzzPlatform::recv(int, void* data, size_t length, int flags) const {
    if (network == nullptr) {
        errno = EBADF;
        return -1;
    }
    return network->recv(data, length, flags);
}
inline int FuzzPlatform::close(int fd) const { return network == nullptr ? 0 : network->close(fd); }
inline int FuzzPlatform::getsockname(int, struct sockaddr* address, socklen_t* length) const {
    if (network == nullptr) {
        errno = EBADF;
        return -1;
    }
    return network->getsockname(address, length);
}

}  // namespace qelFuzz

#endif
