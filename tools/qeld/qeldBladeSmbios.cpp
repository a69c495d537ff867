#include "qeldBladeSmbios.h"

#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <string>
#include <vector>

namespace qeld {

namespace {

using Bytes = std::vector<unsigned char>;

// One structure: the formatted area, then its strings and the closing NUL.
void addStructure(Bytes& table, Bytes formatted, const std::vector<std::string>& strings) {
    formatted[1] = static_cast<unsigned char>(formatted.size());
    table.insert(table.end(), formatted.begin(), formatted.end());
    for (const std::string& s : strings) {
        table.insert(table.end(), s.begin(), s.end());
        table.push_back(0);
    }
    if (strings.empty()) table.push_back(0);
    table.push_back(0);
}

unsigned char zeroSum(const unsigned char* p, std::size_t n) {
    unsigned char sum = 0;
    for (std::size_t i = 0; i < n; ++i) sum = static_cast<unsigned char>(sum + p[i]);
    return static_cast<unsigned char>(-sum);
}

}  // namespace

std::string simulatedBladeSmbios() {
    constexpr unsigned int tableAddress = 0x40;  // right behind the entry point
    Bytes table;
    // Type 1, System Information (SMBIOS 2.4 layout, 0x1B bytes): strings
    // manufacturer 1, product 2, version 3, serial 4, SKU 5, family 6.
    Bytes system(0x1B, 0);
    system[0] = 1;
    system[2] = 0x01;  // handle 0x0001
    system[4] = 1;
    system[5] = 2;
    system[6] = 3;
    system[7] = 4;
    for (int i = 0; i < 16; ++i) system[8 + i] = static_cast<unsigned char>(0x51 + i);  // UUID
    system[24] = 0x06;  // woken by power switch
    system[25] = 5;
    system[26] = 6;
    addStructure(table, system,
                 {"QEL Computing", "ALDERCROFT BL3400 (simulated)", "1.0", "SIMBLADE0003", "SIM-BL3400",
                  "ALDERCROFT"});
    // Type 3, System Enclosure: the chassis, whose serial differs from the
    // blade's.
    Bytes enclosure(0x09, 0);
    enclosure[0] = 3;
    enclosure[2] = 0x02;
    enclosure[4] = 1;
    enclosure[5] = 0x1C;  // blade enclosure
    enclosure[6] = 2;
    enclosure[7] = 3;
    addStructure(table, enclosure, {"QEL Computing", "1.0", "CH0000042"});
    addStructure(table, Bytes{127, 4, 0x03, 0x00}, {});

    Bytes image(tableAddress, 0);
    unsigned char* ep = image.data();
    std::memcpy(ep, "_SM_", 4);
    ep[5] = 0x1F;  // entry point length
    ep[6] = 2;
    ep[7] = 8;
    ep[8] = 0x40;  // largest structure
    std::memcpy(ep + 16, "_DMI_", 5);
    ep[22] = static_cast<unsigned char>(table.size() & 0xFF);
    ep[23] = static_cast<unsigned char>(table.size() >> 8);
    ep[24] = tableAddress;
    ep[28] = 3;  // structures
    ep[30] = 0x28;
    ep[21] = zeroSum(ep + 16, 15);
    ep[4] = zeroSum(ep, 0x1F);
    image.insert(image.end(), table.begin(), table.end());
    // The reader takes the device in 4 KiB blocks and seeks back to the
    // table, which a stream refuses after a short read: give it whole blocks.
    image.resize(2 * 4096, 0);

    return memoryImageFile(std::string(image.begin(), image.end()), "qeld-blade-smbios");
}

std::string memoryImageFile(const std::string& image, const char* name) {
    const int fd = ::memfd_create(name, 0);
    if (fd < 0) throw std::runtime_error(std::string("memfd_create: ") + std::strerror(errno));
    if (::write(fd, image.data(), image.size()) != static_cast<ssize_t>(image.size())) {
        const int e = errno;
        ::close(fd);
        throw std::runtime_error(std::string("writing the SMBIOS image: ") + std::strerror(e));
    }
    return "/proc/self/fd/" + std::to_string(fd);
}

}  // namespace qeld
