// qel-inventory-dump [--netns NAME]: the host's complete network inventory
// as JSON lines, one interface a line. The benchmarks run it as a whole
// process next to `ip -n NAME -j addr show`, so both are measured the same
// way: start, enter the namespace, read, print, exit.
#include <arpa/inet.h>
#include <fcntl.h>
#include <sched.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <string>

#include "qelHostInventory.h"

namespace {

void printInterface(const qelHostInventory::Interface& itf) {
    char text[INET6_ADDRSTRLEN];
    std::printf("{\"index\":%d,\"name\":\"%s\",\"mtu\":%u,\"flags\":%u", itf.index, itf.name.c_str(), itf.mtu,
                itf.flags);
    if (itf.hasMac)
        std::printf(",\"mac\":\"%02x:%02x:%02x:%02x:%02x:%02x\"", itf.mac.bytes[0], itf.mac.bytes[1],
                    itf.mac.bytes[2], itf.mac.bytes[3], itf.mac.bytes[4], itf.mac.bytes[5]);
    std::printf(",\"ipv4\":[");
    for (size_t n = 0; n < itf.ipv4.size(); ++n) {
        inet_ntop(AF_INET, itf.ipv4[n].address.octets, text, sizeof text);
        std::printf("%s{\"address\":\"%s\",\"prefix_length\":%u,\"secondary\":%s}", n ? "," : "", text,
                    itf.ipv4[n].prefixLength, itf.ipv4[n].secondary ? "true" : "false");
    }
    std::printf("],\"ipv6\":[");
    for (size_t n = 0; n < itf.ipv6.size(); ++n) {
        inet_ntop(AF_INET6, itf.ipv6[n].address.networkBytes, text, sizeof text);
        std::printf("%s{\"address\":\"%s\",\"prefix_length\":%u,\"flags\":%u}", n ? "," : "", text,
                    itf.ipv6[n].prefixLength, static_cast<unsigned>(itf.ipv6[n].flags));
    }
    std::printf("]}\n");
}

}  // namespace

int main(int argc, char** argv) {
    if (argc == 3 && std::strcmp(argv[1], "--netns") == 0) {
        const std::string path = std::string("/var/run/netns/") + argv[2];
        const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
        if (fd < 0 || setns(fd, CLONE_NEWNET) != 0) {
            std::fprintf(stderr, "qel-inventory-dump: cannot enter %s: %s\n", path.c_str(), std::strerror(errno));
            return 1;
        }
        close(fd);
    } else if (argc != 1) {
        std::fprintf(stderr, "usage: qel-inventory-dump [--netns NAME]\n");
        return 2;
    }
    try {
        const qelHostInventory::QelHostInventory inventory;
        for (const auto& itf : inventory.interfaces()) printInterface(itf);
    } catch (const qelHostInventory::QelHostInventoryError& e) {
        std::fprintf(stderr, "qel-inventory-dump: %s\n", e.errorText.c_str());
        return 1;
    }
    return 0;
}
